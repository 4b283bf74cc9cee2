// Realms poller: in cloud-managed operation keeps the local broker's credential store in step with
// the realms of the organisation. Every poll interval the leader among the controls that share
// the broker fetches the realm list from the API gateway and has the broker authorisation file
// rewritten (qvctrl_write_broker_auth) when its managed region changed. Leadership is a record
// lock on "<auth file>.lock" (qvctrl_poller_lock); without that lock file every control polls
// and writes, which the writer's own lock keeps safe.
//
// The reload signal does not come from the writer: once a second every control, leader or not,
// looks at the file's inode and modification time and sends SIGHUP to the broker named by the
// broker PID file whenever they changed. So a change made by any control (or by hand) reaches the
// broker the same way, and an unchanged region, which the writer leaves untouched, never causes a
// reload.
//
// The thread runs until its targetstatus becomes STOP; it notices that within about a second,
// also in the middle of a gateway transfer.
#pragma once

#include "qvctrl_config.h"

// Thread entry. 0 after a stop, -1 when the configuration does not let it run (logged).
int qvctrl_realms_poller_thread(poller_thread_params_t* params);
