#include "qvctrl_adjust_worker_capacity.h"

#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <string>
#include <string_view>

#include <strings.h>

#include "log.h"
#include "qv_connection_client.h"
#include "qvctrl_flush_worker_caches.h"
#include "qv_json.h"
#include "qv_validate.h"
#include "qvhlp_network.h"
#include "qvhlp_replies.h"

namespace {

constexpr int64_t s_default_registry_lease_ms = 15000;

// An integer member that may be missing: a warning and 0 then.
int32_t s_optional_int(json_object* object, const char* key) {
    json_object* member = nullptr;
    if (!json_object_object_get_ex(object, key, &member)) {
        log_warn("Object %s not found", key);
        return 0;
    }
    return json_object_get_int(member);
}

int64_t s_optional_int64(json_object* object, const char* key) {
    json_object* member = nullptr;
    if (!json_object_object_get_ex(object, key, &member)) {
        log_warn("Object %s not found", key);
        return 0;
    }
    return json_object_get_int64(member);
}

// The scan engine data a registration carries when it names its driver.
struct driver_data {
    bool present = false;
    std::string driver_name;  // empty when the member was null or empty
    int32_t major_version = 0;
    int32_t minor_version = 0;
    int64_t known_viruses = 0;
    int64_t known_variants = 0;
    time_t pattern_timestamp = 0;
};

driver_data s_read_driver_data(json_object* registration) {
    driver_data d;
    if (!json_object_object_get_ex(registration, "DriverName", nullptr)) {
        return d;
    }
    d.present = true;
    if (const char* name = qv_json_get_required_string(registration, "DriverName", nullptr)) {
        d.driver_name = name;
    }
    d.major_version = s_optional_int(registration, "MajorVersion");
    d.minor_version = s_optional_int(registration, "MinorVersion");
    d.known_viruses = s_optional_int64(registration, "NumberOfViruses");
    d.known_variants = s_optional_int64(registration, "NumberOfVariants");
    d.pattern_timestamp = static_cast<time_t>(s_optional_int64(registration, "Timestamp"));
    return d;
}

// Services whose workers cache configuration kept in files of this host.
bool s_flushes_when_new(const std::string& service) {
    return strcasecmp(service.c_str(), "qv-av-mimescan") == 0 ||
           strcasecmp(service.c_str(), "qv-av-activecontent") == 0;
}

// A present "service-name" that is not a non-empty string of the key alphabet. Missing, null and
// empty are left to the projection, which refuses them as before.
bool s_refused_service_name(json_object* request, std::string* shown) {
    json_object* member = nullptr;
    if (!json_object_object_get_ex(request, "service-name", &member) || member == nullptr) {
        return false;
    }
    if (!json_object_is_type(member, json_type_string)) {
        *shown = qv_json_to_string(member);
        return true;
    }
    const std::string_view text = qv_json_get_text(request, "service-name");
    *shown = std::string(text);
    return !text.empty() && !qv_valid_key(text);
}

}  // namespace

bool qvctrl_valid_worker_name(std::string_view name) {
    return qv_valid_key(name) && qv_valid_handler_subject(name);
}

qv_message_t qvctrl_handle_service_registration(quorvale_control_config_t* config,
                                                json_object* request_json) {
    log_trace("Entering");
    qv_message_t reply;
    std::string reason;
    const char* worker_name = qv_json_get_required_string(request_json, "worker-name", &reason);
    if (worker_name == nullptr) {
        qv_reply_set_ERROR(&reply, SERVICE_ERROR, reason.c_str());
        log_trace("Exiting");
        return reply;
    }
    // The name becomes a bucket key and a subject on the daemon's own connection: one bad byte
    // there would reach the server as protocol text.
    const std::string_view worker_text = qv_json_get_text(request_json, "worker-name");
    if (!qvctrl_valid_worker_name(worker_text)) {
        qv_log_refused("Invalid worker name", worker_text);
        qv_reply_set_ERROR(&reply, SERVICE_ERROR, "Invalid worker name");
        log_trace("Exiting");
        return reply;
    }
    std::string service_text;
    if (s_refused_service_name(request_json, &service_text)) {
        qv_log_refused("Invalid service name", service_text);
        qv_reply_set_ERROR(&reply, SERVICE_ERROR, "Invalid service name");
        log_trace("Exiting");
        return reply;
    }
    int64_t ttl_ms = config != nullptr ? config->worker_registry_ttl_ms : 0;
    if (ttl_ms < 1) {
        ttl_ms = s_default_registry_lease_ms;
    }
    const char* text = json_object_to_json_string(request_json);
    if (qv_connection_registry_put(config != nullptr ? config->main_nats_config.get() : nullptr,
                                   worker_name, text, ttl_ms) != 0) {
        log_warn(
            "registration relay: failed to write '%s' to KV registry (worker will retry on its "
            "next beat)",
            worker_name);
    }
    qv_reply_set_OK(&reply);
    log_trace("Exiting");
    return reply;
}

int qvctrl_apply_worker_registration(quorvale_control_config_t* config,
                                     json_object* registration_json) {
    log_trace("Entering");
    if (config == nullptr || registration_json == nullptr) {
        log_error("Invalid parameters");
        return -1;
    }
    const char* service_name =
        qv_json_get_required_string(registration_json, "service-name", nullptr);
    if (service_name == nullptr) {
        return -1;
    }
    const char* worker_name =
        qv_json_get_required_string(registration_json, "worker-name", nullptr);
    if (worker_name == nullptr) {
        return -1;
    }
    const char* secret = qv_json_get_required_string(registration_json, "Secret", nullptr);
    if (secret == nullptr) {
        return -1;
    }
    // Anyone who may write the bucket can put an entry there: its names are checked as a relayed
    // registration's are, since the worker-name is the subject a cache flush goes to.
    const std::string_view worker_text = qv_json_get_text(registration_json, "worker-name");
    if (!qvctrl_valid_worker_name(worker_text)) {
        qv_log_refused("Registry: skipping registration with an invalid worker name", worker_text);
        return -1;
    }
    const std::string_view service_text = qv_json_get_text(registration_json, "service-name");
    if (!qv_valid_key(service_text)) {
        qv_log_refused("Registry: skipping registration with an invalid service name",
                       service_text);
        return -1;
    }
    const int32_t is_primary = s_optional_int(registration_json, "Primary");
    const driver_data driver = s_read_driver_data(registration_json);

    std::string flush_service;
    {
        std::lock_guard<std::mutex> lock(config->listmutex);
        auto node = qvctrl_find_worker_by_name(&config->running_services, worker_name);
        const bool created = !node;
        if (created) {
            try {
                node = std::make_shared<qv_active_worker_t>();
                node->servicename = service_name;
                node->controlservicename = worker_name;
                node->secret = secret;
            } catch (const std::bad_alloc&) {
                log_error("Failed to allocate service_worker node");
                return -1;
            }
            node->IsPrimary = is_primary;
            if (config->running_services.append(node) != 0) {
                log_error("Failed to add worker %s to running_services", worker_name);
            }
            log_debug("Registry: new worker node %s @ %s", service_name, worker_name);
        } else {
            // The names and the secret stay as first registered: a later document cannot take
            // over an existing worker.
            node->IsPrimary = is_primary;
        }
        node->last_seen = time(nullptr);
        const bool local = qvctrl_worker_is_local(node.get()) == 1;
        if (driver.present) {
            if (!driver.driver_name.empty()) {
                node->driver_name = driver.driver_name;
            }
            node->major_version = driver.major_version;
            node->minor_version = driver.minor_version;
            node->known_viruses = driver.known_viruses;
            node->known_variants = driver.known_variants;
            node->pattern_timestamp = driver.pattern_timestamp;
        }
        if (created && local && s_flushes_when_new(node->servicename)) {
            flush_service = node->servicename;
        }
    }
    // Outside the lock: the flush waits for the workers' replies.
    if (!flush_service.empty()) {
        log_debug("Worker for %s is new to this control instance — flushing its caches",
                  flush_service.c_str());
        qvctrl_flush_worker_caches(config, flush_service.c_str(), nullptr, nullptr);
    }
    log_trace("Exiting");
    return 0;
}

namespace {

// The first worker whose `field` equals `name`.
qvhlp_list<qv_active_worker_t>::element s_find_worker(qvhlp_list<qv_active_worker_t>* list,
                                                      const char* name,
                                                      std::string qv_active_worker_t::*field) {
    if (list == nullptr || name == nullptr) {
        return nullptr;
    }
    auto walk = list->iterator_wait(250, 0, 25);
    while (walk.hasnext()) {
        auto worker = walk.next();
        if (worker && (*worker).*field == name) {
            return worker;
        }
    }
    return nullptr;
}

}  // namespace

qvhlp_list<qv_active_worker_t>::element qvctrl_find_worker_by_name(
    qvhlp_list<qv_active_worker_t>* list, const char* name) {
    return s_find_worker(list, name, &qv_active_worker_t::controlservicename);
}

qvhlp_list<qv_active_worker_t>::element qvctrl_find_worker_by_servicename(
    qvhlp_list<qv_active_worker_t>* list, const char* name) {
    return s_find_worker(list, name, &qv_active_worker_t::servicename);
}

int qvctrl_worker_is_local(const qv_active_worker_t* worker) {
    if (worker == nullptr || worker->servicename.empty() || worker->controlservicename.empty()) {
        return 0;
    }
    const std::string_view service = worker->servicename;
    const std::string_view name = worker->controlservicename;
    const size_t n = service.size();
    if (name.size() <= n || name.compare(0, n, service) != 0 || name[n] != '.') {
        return 0;
    }
    std::string_view host = name.substr(n + 1);
    // The suffix a worker may add after its host name (an instance number) starts at the last '_'.
    const size_t underscore = host.rfind('_');
    if (underscore != std::string_view::npos) {
        host = host.substr(0, underscore);
    }
    const char* fqdn = qvhlp_GetMyFQDN();
    if (fqdn == nullptr) {
        return 0;
    }
    return host == std::string_view(fqdn) ? 1 : 0;
}

const qv_installed_service_t* qvctrl_is_service_installed(
    const char* name, const std::list<qv_installed_service_t>& list) {
    const qv_installed_service_t* visited = nullptr;
    for (const qv_installed_service_t& service : list) {
        visited = &service;
        if (name != nullptr && service.servicename == name) {
            break;
        }
    }
    return visited;
}
