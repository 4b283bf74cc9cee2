// Registry poller: a thread that reconciles running_services with the bucket
// "qv-av-worker-registry" at a fixed period. Entries of services installed here are applied,
// workers whose entry is gone are removed; a failed read of the bucket removes nothing. The bucket
// is the one source of truth, shared by every control instance; the list is this daemon's
// projection of it.
#pragma once

#include <atomic>

#include "qvctrl_config.h"

struct registry_watcher_params_t {
    quorvale_control_config_t* config = nullptr;
    // The daemon's stop flag; null means run for ever.
    const std::atomic<int>* terminate = nullptr;
};

// Thread body: a reconcile at once, then one every worker_registry_sync_interval_ms (whole
// seconds, at least one), sleeping in one-second steps that watch the stop flag. Returns 0.
int qvctrl_registry_poller_thread(registry_watcher_params_t params);
