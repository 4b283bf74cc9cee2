// The worker registry: a worker's registration is relayed into the shared bucket
// "qv-av-worker-registry" under a lease, and every control instance projects the bucket's entries
// into its running_services list (the registry poller applies them one by one). Lookups over the
// running and installed services for the other units.
#pragma once

#include <json-c/json.h>

#include <string_view>

#include "qv_request_reply_types.h"
#include "qvctrl_config.h"

// A worker-name is the worker's registry key and the subject its cache flushes are sent to, so it
// must be a plain bucket key that is also a foreign subject (not an inbox, not one of ours).
bool qvctrl_valid_worker_name(std::string_view name);

// Command 200: stores the whole registration under its "worker-name" with the registry lease
// (worker_registry_ttl_ms, 15000 ms when below 1). The reply is OK also when the write fails (the
// worker registers again on its next beat); an ERROR reply -1000 when "worker-name" is missing or
// empty, or when "worker-name" or a present, non-empty "service-name" is not a valid name ("Invalid
// worker name", "Invalid service name"; nothing is written then).
qv_message_t qvctrl_handle_service_registration(quorvale_control_config_t* config,
                                                json_object* request_json);

// Creates or refreshes the running_services node of one registration document. A new local
// mime-scan or active-content worker gets its caches flushed. 0, or -1 when a required member is
// missing or empty, when the worker-name or service-name is not a valid name (the list is then
// unchanged) or the node cannot be allocated.
int qvctrl_apply_worker_registration(quorvale_control_config_t* config,
                                     json_object* registration_json);

// Lookups on running_services; callers hold listmutex. The node with that worker-name (exact), or
// the first node of that service; null when there is none.
qvhlp_list<qv_active_worker_t>::element qvctrl_find_worker_by_name(
    qvhlp_list<qv_active_worker_t>* list, const char* name);
qvhlp_list<qv_active_worker_t>::element qvctrl_find_worker_by_servicename(
    qvhlp_list<qv_active_worker_t>* list, const char* name);

// 1 when the worker's name is its service name, a dot and this host's FQDN, optionally followed
// by "_" and a suffix (the host part is cut at its last '_'); case-sensitive. 0 otherwise.
int qvctrl_worker_is_local(const qv_active_worker_t* worker);

// The installed service of that name. When none matches, the last entry visited is returned all
// the same, so only an empty list answers null; the registry poller's "not installed here" count
// relies on this permissive answer.
const qv_installed_service_t* qvctrl_is_service_installed(
    const char* name, const std::list<qv_installed_service_t>& list);
