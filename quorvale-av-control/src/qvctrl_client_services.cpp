#include "qvctrl_client_services.h"

#include <algorithm>
#include <optional>
#include <mutex>
#include <cctype>
#include <string>
#include <string_view>

#include <chrono>
#include <thread>

#include "log.h"
#include "qv_json.h"
#include "qvctrl_adjust_worker_capacity.h"
#include "qvctrl_config_kv.h"
#include "qvctrl_scan_config_requests.h"
#include "qv_validate.h"
#include "qvhlp_replies.h"
#include "qvhlp_string.h"

namespace {

// A requested service name as it is looked up: lower-cased (at most 1023 characters), trimmed of
// surrounding white space, cut to 255 characters.
std::string s_normalise_service_name(std::string_view name) {
    std::string lower(name.substr(0, 1023));
    for (char& c : lower) {
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    }
    return std::string(qvhlp_trim(lower).substr(0, QV_VALUE_MAX));
}

qv_message_t s_refuse(const char* text, std::string_view value) {
    qv_message_t reply;
    qv_log_refused(text, value);
    qv_reply_set_ERROR(&reply, -1, text);
    return reply;
}

// How long a service entry waits for a worker to register, and the steps of that wait.
constexpr int s_worker_wait_ms = 2000;
constexpr int s_worker_wait_step_ms = 200;
// A request may wait for missing workers this long in all (five services' worth); services
// after that are looked up once without waiting. Without this bound, one request naming a
// thousand unknown services would hold a client-side thread for more than half an hour.
constexpr int s_request_wait_budget_ms = 5 * (s_worker_wait_ms + s_worker_wait_step_ms);
// More services than any client uses; a longer list is refused as a whole.
constexpr size_t s_max_services = 256;

std::string s_init_failure(const std::string& request_id) {
    std::string text;
    qvhlp_format(&text,
                 "{ \"ReplytoRequestID\":\"%s\",\"ReturnCode\" : %d , \"Error\" : "
                 "\"CONSOLIDATED_INIT failed\" }",
                 request_id.c_str(), SERVICE_ERROR);
    return text;
}

void s_add_string(json_object* object, const char* key, std::string_view value) {
    json_object_object_add(
        object, key, json_object_new_string_len(value.data(), static_cast<int>(value.size())));
}

// A service entry: the normalised name and what the first registered worker of that service
// reports, waiting up to 2 s (200 ms steps, eleven looks) for one to register. `budget_ms` is
// what the request has left to wait; the time waited here is taken from it.
qv::json_ptr s_build_service_entry(quorvale_control_config_t* config, std::string_view service,
                                   int* budget_ms) {
    qv::json_ptr entry(json_object_new_object());
    qv::json_ptr driver(json_object_new_object());
    if (!entry || !driver) {
        return nullptr;
    }
    const std::string name = s_normalise_service_name(service);
    s_add_string(entry.get(), "Servicename", name);
    std::optional<qv_active_worker_t> found;
    for (int waited = 0; waited < s_worker_wait_ms + 1; waited += s_worker_wait_step_ms) {
        {
            std::lock_guard<std::mutex> lock(config->listmutex);
            auto worker =
                qvctrl_find_worker_by_servicename(&config->running_services, name.c_str());
            if (worker) {
                found = *worker;
            }
        }
        if (found) {
            break;
        }
        if (*budget_ms <= 0) {
            if (*budget_ms == 0) {
                log_warn(
                    "CONSOLIDATED_INIT: wait budget of this request spent, not waiting for "
                    "further services");
                *budget_ms = -1;
            }
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(s_worker_wait_step_ms));
        *budget_ms -= s_worker_wait_step_ms;
    }
    json_object* d = driver.get();
    if (!found) {
        log_warn("CONSOLIDATED_INIT: no worker registered for service %s after %d ms",
                 qv_escape_for_log(name, QV_VALUE_MAX).c_str(), s_worker_wait_ms);
        json_object_object_add(d, "Present", json_object_new_boolean(0));
        json_object_object_add(d, "ReturnCode", json_object_new_int(SERVICE_ERROR));
    } else {
        json_object_object_add(d, "Present", json_object_new_boolean(1));
        json_object_object_add(d, "ReturnCode", json_object_new_int(0));
        json_object_object_add(d, "MajorVersion", json_object_new_int(found->major_version));
        json_object_object_add(d, "MinorVersion", json_object_new_int(found->minor_version));
        json_object_object_add(d, "NumberOfViruses", json_object_new_int64(found->known_viruses));
        json_object_object_add(d, "NumberOfVariants", json_object_new_int64(found->known_variants));
        json_object_object_add(d, "Timestamp", json_object_new_int64(found->pattern_timestamp));
        s_add_string(d, "DriverName", found->driver_name);
    }
    json_object_object_add(entry.get(), "Driverinfo", driver.release());
    return entry;
}

// The reply object of a consolidated init, or null (logged) when any part of it fails.
qv::json_ptr s_consolidated_init(quorvale_control_config_t* config, json_object* request,
                                 const char* realm, const char* SID, std::string_view request_id) {
    json_object* services = nullptr;
    if (!json_object_object_get_ex(request, "Services", &services) ||
        !json_object_is_type(services, json_type_array)) {
        log_error("CONSOLIDATED_INIT: missing or non-array 'Services' field");
        return nullptr;
    }
    const size_t count = json_object_array_length(services);
    if (count > s_max_services) {
        log_error("CONSOLIDATED_INIT: %zu services requested, at most %zu are served", count,
                  s_max_services);
        return nullptr;
    }
    qv::json_ptr reply(json_object_new_object());
    if (!reply) {
        log_error("Failed to allocate %s", "reply_json");
        return nullptr;
    }
    s_add_string(reply.get(), "ReplytoRequestID", request_id);
    std::string tenant;
    std::string realm_name;
    if (qvctrl_compute_tenant_info(config, realm, &tenant, &realm_name) != 0) {
        log_error("CONSOLIDATED_INIT: failed to resolve tenant info for realmID %s", realm);
        return nullptr;
    }
    s_add_string(reply.get(), "tenantID", tenant);
    s_add_string(reply.get(), "realmName", realm_name);
    qv::json_ptr scan = qvctrl_compute_scan_config_json(config, realm, SID);
    if (!scan) {
        log_error("CONSOLIDATED_INIT: failed to resolve scan config for realmID %s, SID %s", realm,
                  SID);
        return nullptr;
    }
    json_object* inner = nullptr;
    if (!json_object_object_get_ex(scan.get(), "SCAN", &inner)) {
        log_error("CONSOLIDATED_INIT: scan config missing 'SCAN' inner object");
        return nullptr;
    }
    json_object* inner_copy = nullptr;
    if (json_object_deep_copy(inner, &inner_copy, nullptr) != 0) {
        log_error("CONSOLIDATED_INIT: failed to deep-copy SCAN array");
        return nullptr;
    }
    json_object_object_add(reply.get(), "SCAN", inner_copy);
    qv::json_ptr out(json_object_new_array());
    if (!out) {
        log_error("Failed to allocate %s", "services_out_array");
        return nullptr;
    }
    int budget_ms = s_request_wait_budget_ms;
    for (size_t i = 0; i < count; ++i) {
        json_object* element = json_object_array_get_idx(services, i);
        if (element == nullptr || !json_object_is_type(element, json_type_string)) {
            log_warn("CONSOLIDATED_INIT: Services[%zu] is not a string, skipping", i);
            continue;
        }
        const std::string_view name(json_object_get_string(element),
                                    static_cast<size_t>(json_object_get_string_len(element)));
        qv::json_ptr entry = s_build_service_entry(config, name, &budget_ms);
        if (entry) {
            json_object_array_add(out.get(), entry.release());
        }
    }
    json_object_object_add(reply.get(), "Services", out.release());
    json_object_object_add(reply.get(), "ReturnCode", json_object_new_int(0));
    return reply;
}

}  // namespace

qv_message_t qvctrl_handle_consolidated_init(json_object* request,
                                             quorvale_control_config_t* config) {
    log_trace("Entering");
    qv_message_t reply;
    const char* values[4] = {};
    constexpr const char* keys[] = {"realmID", "SID", "Hostname", "RequestID"};
    bool read = true;
    for (size_t i = 0; i < 4 && read; ++i) {
        values[i] = qv_json_get_required_string(request, keys[i]);
        read = values[i] != nullptr;
    }
    // The virtual host names are accepted for the record; the answer does not depend on them.
    (void)qv_json_get_optional_string(request, "SAP-VirtualHostname");
    (void)qv_json_get_optional_string(request, "SAP-VirtualHostnameLong");
    const std::string_view request_id = qv_json_get_text(request, "RequestID");
    const std::string_view realm = qv_json_get_text(request, "realmID");
    const std::string_view SID = qv_json_get_text(request, "SID");
    qv::json_ptr result;
    if (!read) {
        // reported by the reader
    } else if (!qv_valid_name(realm, QVCTRL_CONFIG_KEY_MAX)) {
        qv_log_refused("Invalid realm", realm);
    } else if (!qv_valid_name(SID, QVCTRL_CONFIG_KEY_MAX)) {
        qv_log_refused("Invalid SID", SID);
    } else if (request_id.size() > QVCTRL_REQUEST_ID_MAX) {
        qv_log_refused("Invalid RequestID", request_id);
    } else {
        result = s_consolidated_init(config, request, values[0], values[1], request_id);
    }
    if (result) {
        reply.json_txt = qv_json_to_string(result.get());
    } else {
        const bool echo = values[3] != nullptr && request_id.size() <= QVCTRL_REQUEST_ID_MAX;
        reply.json_txt = s_init_failure(echo ? qv_json_escape(request_id) : std::string());
    }
    log_trace("Exiting");
    return reply;
}

qv_message_t qvctrl_handle_client_services_request(json_object* request,
                                                   quorvale_control_config_t* /*config*/) {
    log_trace("Entering");
    qv_message_t reply;
    std::string reason;
    const char* realm = qv_json_get_required_string(request, "realmID", &reason);
    // Realm and SID name configuration keys and directories elsewhere: one name each.
    if (realm != nullptr && !qv_valid_name(qv_json_get_text(request, "realmID"))) {
        reply = s_refuse("Invalid realm", qv_json_get_text(request, "realmID"));
        log_trace("Exiting");
        return reply;
    }
    const char* SID =
        realm != nullptr ? qv_json_get_required_string(request, "SID", &reason) : nullptr;
    if (SID != nullptr && !qv_valid_name(qv_json_get_text(request, "SID"))) {
        reply = s_refuse("Invalid SID", qv_json_get_text(request, "SID"));
        log_trace("Exiting");
        return reply;
    }
    const char* hostname =
        SID != nullptr ? qv_json_get_required_string(request, "Hostname", &reason) : nullptr;
    const char* service = hostname != nullptr
                              ? qv_json_get_required_string(request, "Servicename", &reason)
                              : nullptr;
    if (service == nullptr) {
        qv_reply_set_ERROR(&reply, -1, reason.c_str());
        log_trace("Exiting");
        return reply;
    }
    const std::string_view service_text = qv_json_get_text(request, "Servicename");
    // The host name goes nowhere but this line; the service name is shown as it came.
    log_trace("%s - %s at %s is requesting service \"%s\"", realm, SID,
              qv_escape_for_log(qv_json_get_text(request, "Hostname"), QV_VALUE_MAX).c_str(),
              qv_escape_for_log(service_text, QV_VALUE_MAX).c_str());
    if (!qv_valid_key(s_normalise_service_name(service_text))) {
        reply = s_refuse("Invalid service name", service_text);
        log_trace("Exiting");
        return reply;
    }
    // Any service may be used: the announcement is only acknowledged.
    qv_reply_set_OK(&reply);
    log_trace("Exiting");
    return reply;
}
