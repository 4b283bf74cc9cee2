#include "qv-av-control-event-dispatcher.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <new>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "log.h"
#include "qv_connection_client.h"
#include "qv_json.h"
#include "qv_nats_kv.h"
#include "qv_validate.h"
#include "qvctrl_worker_request_handlers.h"
#include "qvhlp_replies.h"
#include "qvhlp_string.h"

namespace {

// A local subscription must be repeated within this time or it lapses.
constexpr time_t kLocalHandlerLifetimeS = 30;
// A projected handler lives as long as its bucket entry; its own expiry is only a far bound.
constexpr time_t kProjectedHandlerLifetimeS = 31536000;
constexpr uint32_t kForwardTimeoutMs = 4000;
constexpr int kForwardAttempts = 3;
constexpr const char* kForwardFailedText = "Failed to send event to handler";
constexpr const char* kBucket = QV_KV_EVENT_SUBSCRIPTIONS_BUCKET;
// How much of a request the trace log shows when it dumps one.
constexpr size_t kRequestDumpMax = 4096;

// 1 when `name` matches one of the ';'-separated wildcard patterns of `list` (case-sensitive).
// Empty pieces between separators are no patterns, so a list of separators only matches nothing;
// a list without any separator is one pattern, so the empty list matches only the empty name.
int s_IsNameOnListWithWildcards(const std::string& name, const std::string& list) {
    if (list.find(';') == std::string::npos) {
        return qvhlp_WildcardTextMatch(name.c_str(), list.c_str(), 1, 0);
    }
    size_t start = 0;
    while (start < list.size()) {
        size_t end = list.find(';', start);
        if (end == std::string::npos) {
            end = list.size();
        }
        if (end > start) {
            const std::string piece = list.substr(start, end - start);
            if (qvhlp_WildcardTextMatch(name.c_str(), piece.c_str(), 1, 0) != 0) {
                return 1;
            }
        }
        start = end + 1;
    }
    return 0;
}

// Local mode only: projected handlers leave with their bucket entries instead.
void s_delete_expired_eventhandlers(quorvale_control_config_t* config) {
    if (config->event_subscription_kv_enabled) {
        return;
    }
    const time_t now = time(nullptr);
    std::lock_guard<std::mutex> lock(config->event_workers_listmutex);
    auto& handlers = config->event_workers_list;
    for (auto it = handlers.begin(); it != handlers.end();) {
        if (it->expiration < now) {
            log_debug(
                "Removing expired event handler for realm: %s, hostnames %s, SID: %s, modules: %s",
                it->realm.c_str(), it->hostname.c_str(), it->SID.c_str(), it->modules.c_str());
            it = handlers.erase(it);
        } else {
            ++it;
        }
    }
}

// The members of one SUBSCRIBE, each checked for where it goes: the subject events are sent to
// (and the bucket key), and the scope's pattern lists.
struct subscription_t {
    std::string service;
    std::string realm;
    std::string sid;
    std::string hostname;
    std::string modules;
};

enum class member_t { ok, missing, refused };

bool s_valid_subject(std::string_view value) {
    return qv_valid_handler_subject(value);
}

bool s_valid_patterns(std::string_view value) {
    return qv_valid_pattern_list(value);
}

// One member of a SUBSCRIBE: missing or empty is logged as every required member is; a value of
// another type, or one that `valid` refuses, is refused with `error`.
member_t s_subscription_member(json_object* request, const char* key,
                               bool (*valid)(std::string_view), const char* error,
                               std::string* out) {
    json_object* member = nullptr;
    if (json_object_object_get_ex(request, key, &member) && member != nullptr &&
        !json_object_is_type(member, json_type_string)) {
        qv_log_refused(error, qv_json_to_string(member));
        return member_t::refused;
    }
    if (qv_json_get_required_string(request, key) == nullptr) {
        return member_t::missing;
    }
    const std::string_view text = qv_json_get_text(request, key);
    if (!valid(text)) {
        qv_log_refused(error, text);
        return member_t::refused;
    }
    out->assign(text);
    return member_t::ok;
}

// Reads the members in their fixed order and stops at the first that is not ok; its error text
// goes to *error when it was refused.
member_t s_read_subscription(json_object* request, subscription_t* sub, const char** error) {
    const struct {
        const char* key;
        bool (*valid)(std::string_view);
        const char* error;
        std::string* out;
    } members[] = {
        {"Service", s_valid_subject, "Invalid handler subject", &sub->service},
        {"realmID", s_valid_patterns, "Invalid realm pattern", &sub->realm},
        {"SID", s_valid_patterns, "Invalid SID pattern", &sub->sid},
        {"Hostname", s_valid_patterns, "Invalid host name pattern", &sub->hostname},
        {"Modules", s_valid_patterns, "Invalid module pattern", &sub->modules},
    };
    for (const auto& m : members) {
        const member_t state = s_subscription_member(request, m.key, m.valid, m.error, m.out);
        if (state != member_t::ok) {
            *error = m.error;
            return state;
        }
    }
    return member_t::ok;
}

// SUBSCRIBE. A subscription with a missing member is logged but answered OK: its sender is not
// told. One whose subject or patterns are refused is answered with an error and stores nothing.
qv_message_t s_qvctrl_handle_eventhandler_registration(json_object* request,
                                                       quorvale_control_config_t* config) {
    log_trace("Entering");
    qv_message_t reply;
    subscription_t sub;
    const char* error = nullptr;
    switch (s_read_subscription(request, &sub, &error)) {
        case member_t::missing:
            qv_reply_set_OK(&reply);
            log_trace("Exiting");
            return reply;
        case member_t::refused:
            qv_reply_set_ERROR(&reply, SERVICE_ERROR, error);
            log_trace("Exiting");
            return reply;
        case member_t::ok:
            break;
    }
    const char* service = sub.service.c_str();
    const char* realm = sub.realm.c_str();
    const char* sid = sub.sid.c_str();
    const char* hostname = sub.hostname.c_str();
    const char* modules = sub.modules.c_str();

    if (config->event_subscription_kv_enabled) {
        // Shared mode: the bucket is the subscription list; this daemon's own list follows it
        // through the watcher, like every other daemon's.
        const std::string value = qv_json_to_string(request);
        log_info(
            "Event-handler SUBSCRIBE: reply-subject(key)='%s' scope{ Hostname='%s' realmID='%s' "
            "SID='%s' Modules='%s' } -> KV bucket='%s' ttl=%dms",
            service, hostname, realm, sid, modules, kBucket, config->event_subscription_ttl_ms);
        log_debug("Event-handler SUBSCRIBE raw JSON for '%s': %s", service, value.c_str());
        if (qv_connection_kv_put(config->main_nats_config.get(), kBucket, service, value.c_str(),
                                 config->event_subscription_ttl_ms) != 0) {
            log_warn("Event-handler SUBSCRIBE: FAILED to relay '%s' to KV bucket '%s' (key='%s')",
                     value.c_str(), kBucket, service);
        } else {
            log_info("Event-handler SUBSCRIBE: relayed '%s' to KV bucket '%s' (key='%s') OK",
                     value.c_str(), kBucket, service);
        }
        qv_reply_set_OK(&reply);
        log_trace("Exiting");
        return reply;
    }

    {
        std::lock_guard<std::mutex> lock(config->event_workers_listmutex);
        auto& handlers = config->event_workers_list;
        qv_eventhandler_t* existing = nullptr;
        for (qv_eventhandler_t& handler : handlers) {
            if (handler.service == service) {
                existing = &handler;
                break;
            }
        }
        if (existing != nullptr) {
            // Only the lifetime is renewed: a changed scope takes effect once the old
            // subscription has lapsed.
            log_trace("Handler re-registration for realmID: %s, hostnames %s, SID: %s, modules: %s",
                      realm, hostname, sid, modules);
            existing->expiration = time(nullptr) + kLocalHandlerLifetimeS;
        } else {
            log_trace("Creating new handler");
            try {
                qv_eventhandler_t handler;
                handler.service = service;
                handler.realm = realm;
                handler.SID = sid;
                handler.hostname = hostname;
                handler.modules = modules;
                handler.expiration = time(nullptr) + kLocalHandlerLifetimeS;
                handlers.push_back(std::move(handler));
                log_warn("event_workers_list count: %d", static_cast<int>(handlers.size()));
                log_debug(
                    "Registered new event handler for realm: %s, hostnames %s, SID: %s, "
                    "modules: %s",
                    realm, hostname, sid, modules);
            } catch (const std::bad_alloc&) {
                log_error("Failed to allocate memory for event handler");
                char text[1024];
                snprintf(text, sizeof(text), "Failed to create event handler: %s",
                         strerror(ENOMEM));
                qv_reply_set_ERROR(&reply, SERVICE_ERROR, text);
            }
        }
    }
    if (reply.json_txt.empty()) {
        qv_reply_set_OK(&reply);
    }
    log_trace("Exiting");
    return reply;
}

// Logs the outcome of one forward; true when it failed. The reply only counts by its
// "ReturnCode".
bool s_forward_failed(int rc, const std::string& subject, const char* system_error) {
    if (rc < 0) {
        log_error("Failed to send event (rc:%d): %s", rc, system_error);
        return true;
    }
    log_trace("Event sent to %s", subject.c_str());
    return false;
}

qv_message_t s_qv_av_control_handle_dispatch_event_request(quorvale_control_config_t* config,
                                                           json_object* request) {
    log_trace("Entering");
    qv_message_t reply;
    bool failed = true;
    json_object* event = nullptr;
    const char* component = nullptr;
    std::string reason;
    if (!json_object_object_get_ex(request, "Event", &event)) {
        log_warn("Ignoring malformed Event request - no Event object found");
        qv_reply_set_ERROR(&reply, SERVICE_ERROR, "");
    } else if ((component = qv_json_get_required_string(request, "Component", &reason)) ==
               nullptr) {
        qv_reply_set_ERROR(&reply, SERVICE_ERROR, reason.c_str());
    } else {
        log_trace("Handling Event");
        const std::string hostname = qv_json_get_optional_string(request, "Hostname");
        const std::string realm = qv_json_get_optional_string(request, "realmID");
        const std::string sid = qv_json_get_optional_string(request, "SID");
        // The event's own members are only matched against patterns; in the trace log they are
        // shown escaped, so an event cannot write lines of its own.
        const std::string shown_hostname = qv_escape_for_log(hostname, QV_VALUE_MAX);
        const std::string shown_realm = qv_escape_for_log(realm, QV_VALUE_MAX);
        const std::string shown_sid = qv_escape_for_log(sid, QV_VALUE_MAX);
        const std::string shown_component = qv_escape_for_log(component, QV_VALUE_MAX);
        log_debug("Dispatch: event filter Hostname='%s' realmID='%s' SID='%s' Component='%s'",
                  shown_hostname.c_str(), shown_realm.c_str(), shown_sid.c_str(),
                  shown_component.c_str());

        // Targets are collected under the lock and served after it, so a slow handler holds up
        // neither subscriptions nor other dispatches.
        std::vector<std::string> targets;
        int handler_count = 0;
        {
            std::lock_guard<std::mutex> lock(config->event_workers_listmutex);
            for (const qv_eventhandler_t& handler : config->event_workers_list) {
                ++handler_count;
                if (s_IsNameOnListWithWildcards(hostname, handler.hostname) != 0 &&
                    s_IsNameOnListWithWildcards(realm, handler.realm) != 0 &&
                    s_IsNameOnListWithWildcards(sid, handler.SID) != 0 &&
                    s_IsNameOnListWithWildcards(component, handler.modules) != 0) {
                    log_trace("Event matches handler scope for service %s",
                              handler.service.c_str());
                    targets.push_back(handler.service);
                }
            }
        }

        int failures = 0;
        if (!targets.empty()) {
            // All forwards are in flight at once, so handlers that do not answer cost one
            // time-out, not one each; the outcome is logged in target order afterwards.
            const std::vector<int> results = qv_connection_simple_request_all(
                config->main_nats_config.get(), targets, qv_json_to_string(request),
                kForwardTimeoutMs, kForwardAttempts);
            const std::string system_error = strerror(errno);
            for (size_t i = 0; i < targets.size(); ++i) {
                if (s_forward_failed(i < results.size() ? results[i] : -1, targets[i],
                                     system_error.c_str())) {
                    ++failures;
                }
            }
        } else {
            log_info(
                "Dispatch: NO subscriber matched — %d handler(s) in this node's projection; event "
                "filter Hostname='%s' realmID='%s' SID='%s' Component='%s'",
                handler_count, shown_hostname.c_str(), shown_realm.c_str(), shown_sid.c_str(),
                shown_component.c_str());
            if (log_get_level() >= QVLOG_DEBUG) {
                std::lock_guard<std::mutex> lock(config->event_workers_listmutex);
                for (const qv_eventhandler_t& h : config->event_workers_list) {
                    log_debug(
                        "Dispatch:   candidate service='%s' scope{ Hostname='%s'(%d) "
                        "realmID='%s'(%d) SID='%s'(%d) Modules='%s'(%d) }",
                        h.service.c_str(), h.hostname.c_str(),
                        s_IsNameOnListWithWildcards(hostname, h.hostname), h.realm.c_str(),
                        s_IsNameOnListWithWildcards(realm, h.realm), h.SID.c_str(),
                        s_IsNameOnListWithWildcards(sid, h.SID), h.modules.c_str(),
                        s_IsNameOnListWithWildcards(component, h.modules));
                }
            }
            if (log_get_level() >= QVLOG_TRACE) {
                log_trace("No subscriber found for event: \n%s",
                          json_object_to_json_string_ext(request, JSON_C_TO_STRING_PRETTY));
            }
        }
        // An unmatched event is no error; one failed handler is.
        failed = failures > 0;
        if (failed) {
            qv_reply_set_ERROR(&reply, SERVICE_ERROR, kForwardFailedText);
        } else {
            qv_reply_set_OK(&reply);
        }
    }
    if (failed) {
        log_debug("returning error reply: %s", reply.json_txt.c_str());
    } else {
        log_trace("returning reply: %s", reply.json_txt.c_str());
    }
    log_trace("Exiting");
    return reply;
}

// Decodes the request and runs the command. -1 when the text is not a JSON object (text after
// the object, an embedded NUL included, makes it undecodable too).
int s_handle_request(quorvale_control_config_t* config, qv_const_request_reply_t* rr) {
    const std::string& text = rr->request->json_txt;
    qv::json_ptr request = qvctrl_decode_request(text);
    if (!request) {
        return -1;
    }

    const int command = qv_json_get_command(request.get(), -1);
    switch (command) {
        case EVENTHANDLER_REGISTRATION:
            *rr->reply = s_qvctrl_handle_eventhandler_registration(request.get(), config);
            break;
        case EVENTHANDLER_HANDLE_EVENT:
            *rr->reply = s_qv_av_control_handle_dispatch_event_request(config, request.get());
            break;
        default:
            log_error("Ignoring invalid request: %d", command);
            log_error("Complete request:\n%s", qv_escape_for_log(text, kRequestDumpMax).c_str());
            break;
    }
    return 0;
}

// A pattern list of the bucket value of `service` (missing or null: empty). False, with a
// warning, when it is no valid pattern list; the whole text of a string counts, embedded NUL
// bytes included.
bool s_projected_patterns(json_object* value, const char* member_name, const char* service,
                          std::string* out) {
    json_object* member = nullptr;
    const bool is_string = json_object_object_get_ex(value, member_name, &member) &&
                           json_object_is_type(member, json_type_string);
    *out = is_string ? std::string(qv_json_get_text(value, member_name))
                     : qv_json_get_optional_string(value, member_name);
    if (!qv_valid_pattern_list(*out)) {
        const std::string what = std::string("event-sub: skipping subscription of '") + service +
                                 "' with an invalid " + member_name + " pattern list";
        qv_log_refused(what.c_str(), *out);
        return false;
    }
    return true;
}

}  // namespace

int qv_av_control_event_request_handler(void* context, qv_const_request_reply_t* rr) {
    log_trace("Entering");
    auto* config = static_cast<quorvale_control_config_t*>(context);
    if (config == nullptr || rr == nullptr || rr->request == nullptr || rr->reply == nullptr) {
        log_error("Invalid request");
        return -1;
    }
    int rc = -1;
    try {
        s_delete_expired_eventhandlers(config);
        rc = s_handle_request(config, rr);
    } catch (const std::exception& e) {
        log_error("Event request failed: %s", e.what());
        rc = -1;
    }
    // Every request is answered: an undecodable one with -1, an unknown command with 0.
    if (rr->reply->json_txt.empty()) {
        log_warn("Creating generic error reply");
        qv_reply_set_return_code(rr->reply, rc);
    }
    log_trace("Exiting, rc=%d", rc);
    return rc;
}

void qvctrl_event_sub_apply_put(quorvale_control_config_t* config, const char* key,
                                const char* value_text) {
    if (config == nullptr || key == nullptr || key[0] == '\0' || value_text == nullptr) {
        return;
    }
    // The bucket can be written by anyone with credentials: a key that could not be a handler's
    // own subject never becomes a forward target.
    if (!qv_valid_handler_subject(key)) {
        qv_log_refused("event-sub: skipping invalid subscription key", key);
        return;
    }
    qv::json_ptr value = qv_json_parse(value_text);
    if (!value) {
        log_warn("event-sub: could not parse subscription value for service '%s'", key);
        return;
    }
    std::string realm;
    std::string sid;
    std::string hostname;
    std::string modules;
    if (!s_projected_patterns(value.get(), "realmID", key, &realm) ||
        !s_projected_patterns(value.get(), "SID", key, &sid) ||
        !s_projected_patterns(value.get(), "Hostname", key, &hostname) ||
        !s_projected_patterns(value.get(), "Modules", key, &modules)) {
        return;
    }

    std::lock_guard<std::mutex> lock(config->event_workers_listmutex);
    auto& handlers = config->event_workers_list;
    qv_eventhandler_t* handler = nullptr;
    for (qv_eventhandler_t& h : handlers) {
        if (h.service == key) {
            handler = &h;
            break;
        }
    }
    try {
        if (handler == nullptr) {
            qv_eventhandler_t fresh;
            fresh.service = key;
            handlers.push_back(std::move(fresh));
            handler = &handlers.back();
            log_debug(
                "event-sub: projected new handler '%s' (realm %s, SID %s, hosts %s, "
                "modules %s)",
                key, realm.c_str(), sid.c_str(), hostname.c_str(), modules.c_str());
        }
        // Unlike a local re-subscription, the bucket's current scope applies at once.
        handler->realm = realm;
        handler->SID = sid;
        handler->hostname = hostname;
        handler->modules = modules;
        handler->expiration = time(nullptr) + kProjectedHandlerLifetimeS;
    } catch (const std::bad_alloc&) {
        log_error("event-sub: failed to allocate handler for service '%s'", key);
    }
}

void qvctrl_event_sub_apply_delete(quorvale_control_config_t* config, const char* key) {
    if (config == nullptr || key == nullptr || key[0] == '\0') {
        return;
    }
    std::lock_guard<std::mutex> lock(config->event_workers_listmutex);
    auto& handlers = config->event_workers_list;
    for (auto it = handlers.begin(); it != handlers.end(); ++it) {
        if (it->service == key) {
            log_debug("event-sub: handler '%s' gone (KV entry expired/deleted) — removing", key);
            handlers.erase(it);
            return;
        }
    }
}

int qvctrl_event_sub_reconcile(quorvale_control_config_t* config) {
    if (config == nullptr || !config->event_subscription_kv_enabled) {
        return 0;
    }
    log_trace("Entering");
    std::set<std::string> keys;
    const int rc = qv_connection_kv_snapshot(
        config->main_nats_config.get(), kBucket,
        [&](const char* key, const char* value, size_t /*len*/) {
            if (key == nullptr || key[0] == '\0') {
                return;
            }
            keys.insert(key);
            if (!qv_valid_handler_subject(key)) {
                qv_log_refused("event-sub: skipping invalid subscription key", key);
                return;
            }
            if (value != nullptr) {
                log_debug("event-sub reconcile: projecting key='%s' value=%s", key,
                          qv_escape_for_log(value, kRequestDumpMax).c_str());
                qvctrl_event_sub_apply_put(config, key, value);
            }
        });
    if (rc != 0) {
        // A failed read proves nothing about the subscriptions: keep them all.
        log_warn("event-sub reconcile: KV snapshot failed (rc=%d) — keeping current projection",
                 rc);
        log_trace("Exiting");
        return -1;
    }
    log_debug("event-sub reconcile: %d subscription key(s) in KV bucket '%s'",
              static_cast<int>(keys.size()), kBucket);
    int dropped = 0;
    int projected = 0;
    {
        std::lock_guard<std::mutex> lock(config->event_workers_listmutex);
        auto& handlers = config->event_workers_list;
        for (auto it = handlers.begin(); it != handlers.end();) {
            if (keys.count(it->service) == 0) {
                log_debug("event-sub reconcile: handler '%s' absent from KV — removing",
                          it->service.c_str());
                it = handlers.erase(it);
                ++dropped;
            } else {
                ++it;
            }
        }
        projected = static_cast<int>(handlers.size());
    }
    log_info(
        "event-sub reconcile done: KV keys=%d, projected handlers=%d, dropped=%d (bucket '%s')",
        static_cast<int>(keys.size()), projected, dropped, kBucket);
    log_trace("Exiting");
    return 0;
}

int qvctrl_event_sub_watcher_thread(event_sub_watcher_params_t params) {
    quorvale_control_config_t* config = params.config;
    if (config == nullptr) {
        return 0;
    }
    auto stopped = [&params] {
        return params.terminate != nullptr && params.terminate->load() != 0;
    };
    const int period_s = std::max(1, config->event_subscription_sync_interval_ms / 1000);
    log_info("event-subscription sync: starting (bucket '%s', reconcile every %ds, lease TTL %dms)",
             kBucket, period_s, config->event_subscription_ttl_ms);
    while (!stopped()) {
        try {
            qvctrl_event_sub_reconcile(config);
        } catch (const std::exception& e) {
            log_error("event-sub reconcile failed: %s", e.what());
        }
        for (int i = 0; i < period_s && !stopped(); ++i) {
            std::this_thread::sleep_for(std::chrono::seconds(1));
        }
    }
    log_info("event-subscription sync: exiting");
    return 0;
}
