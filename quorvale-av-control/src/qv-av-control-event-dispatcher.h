// Event service: subscriptions of event handlers and the dispatch of events to every matching
// handler.
//
// Local mode keeps the subscriptions of this daemon only, each alive for 30 seconds after its last
// SUBSCRIBE. Shared mode relays each SUBSCRIBE into the "qv-av-event-subscriptions" bucket under a
// lease, and every daemon's watcher thread projects the bucket into its own handler list, so all
// daemons dispatch to the same handlers.
#pragma once

#include <atomic>

#include "qv_request_reply_types.h"
#include "qvctrl_config.h"

// Service handler of "qv-av-events-dispatch" (context: the configuration record). 0, or -1 when
// the request text cannot be decoded.
int qv_av_control_event_request_handler(void* context, qv_const_request_reply_t* rr);

// One pass of the shared-mode projection: snapshot the bucket, apply every entry, drop the
// handlers whose key is gone. A failed snapshot changes nothing. 0, or -1 when the snapshot failed
// (also 0 in local mode, where there is nothing to do).
int qvctrl_event_sub_reconcile(quorvale_control_config_t* config);
// Creates or updates the handler of subject `key` from a bucket value (the relayed SUBSCRIBE).
// A key that is no valid handler subject, or a value whose pattern lists are not valid, is skipped
// with a warning (a handler already projected for the key keeps its scope).
void qvctrl_event_sub_apply_put(quorvale_control_config_t* config, const char* key,
                                const char* value_text);
// Removes the handler of subject `key`, for a bucket entry that was deleted or expired.
void qvctrl_event_sub_apply_delete(quorvale_control_config_t* config, const char* key);

struct event_sub_watcher_params_t {
    quorvale_control_config_t* config = nullptr;
    // The daemon's stop flag; null means run for ever.
    const std::atomic<int>* terminate = nullptr;
};

// Body of the event-subscription watcher thread: reconciles at once and then every
// event_subscription_sync_interval_ms (whole seconds, at least one) until the stop flag is set.
// Returns 0.
int qvctrl_event_sub_watcher_thread(event_sub_watcher_params_t params);
