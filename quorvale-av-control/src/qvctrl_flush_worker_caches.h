// Worker cache flush: tells every running worker of a service, on its own subject, to drop the
// configurations it cached (for one realm and SID, or everything), and notices on-premises edits
// of a configuration directory.
#pragma once

#include <ctime>

#include "qvctrl_config.h"

// Asks every running worker of `service` to flush. With both `realm` and `SID` given the request
// is command 10 for that pair (an empty one is left out of the request); otherwise command 12 with
// "*" for both. Walks running_services with the list's iterator (up to 10 tries, 100 ms apart),
// not under listmutex, and keeps the iterator while the requests are sent.
void qvctrl_flush_worker_caches(quorvale_control_config_t* config, const char* service,
                                const char* realm, const char* SID);

// When the directory's modification time differs from *last_mtime_ref (in either direction),
// deletes the service's configuration kind from the bucket ("mimeext." and "mimexlat." for
// "qv-av-mimescan", "ac." for "qv-av-activecontent"), flushes every worker of `service` and
// stores the new time.
void qvctrl_check_flush_config_caches(quorvale_control_config_t* config, const char* service,
                                      const char* directory, time_t* last_mtime_ref);
