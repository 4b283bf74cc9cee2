#include "qvctrl_flush_worker_caches.h"

#include <cstring>
#include <string>

#include "log.h"
#include "qv_connection_client.h"
#include "qv_json.h"
#include "qv_validate.h"
#include "qvctrl_adjust_worker_capacity.h"
#include "qvctrl_config_kv.h"
#include "qvhlp_path.h"

namespace {

constexpr uint32_t s_flush_timeout_ms = 3000;
constexpr int s_flush_retries = 3;

// One flush request to one worker; the request's status (0 when the worker confirmed), -1 when
// the request cannot be built.
int s_request_cache_flush(quorvale_control_config_t* config, const char* worker_subject,
                          const char* realm, const char* SID) {
    qv::json_ptr request(json_object_new_object());
    if (!request) {
        return -1;
    }
    // Workers name the realm "RealmID" here, unlike the requests this daemon serves.
    if (realm != nullptr && SID != nullptr) {
        json_object_object_add(request.get(), "Command",
                               json_object_new_int(CONTROL_SERVICE_CLEAR_CONFIG_CACHE));
        if (realm[0] != '\0') {
            json_object_object_add(request.get(), "RealmID", json_object_new_string(realm));
        }
        if (SID[0] != '\0') {
            json_object_object_add(request.get(), "SID", json_object_new_string(SID));
        }
    } else {
        json_object_object_add(request.get(), "Command",
                               json_object_new_int(CONTROL_SERVICE_CLEAR_ALL_CONFIG_CACHE));
        json_object_object_add(request.get(), "RealmID", json_object_new_string("*"));
        json_object_object_add(request.get(), "SID", json_object_new_string("*"));
    }
    const std::string text = qv_json_to_string(request.get());
    log_debug("Requesting %s to flush the config cache for realm %s SID %s", worker_subject,
              realm != nullptr ? realm : "any", SID != nullptr ? SID : "any");
    return qv_connection_simple_request(config->main_nats_config.get(), worker_subject,
                                        text.c_str(), s_flush_timeout_ms, s_flush_retries, nullptr);
}

}  // namespace

void qvctrl_flush_worker_caches(quorvale_control_config_t* config, const char* service,
                                const char* realm, const char* SID) {
    log_trace("Entering");
    log_debug("Requesting all %s workers to flush the config cache",
              service != nullptr ? service : "(null)");
    if (config == nullptr || service == nullptr) {
        log_error("Invalid parameters");
        return;
    }
    // No listmutex here: callers may hold it no longer (registration) or never (main loop); the
    // list's single iterator keeps the walk consistent while the requests go out.
    auto walk = config->running_services.iterator_wait(0, 10, 100);
    if (!walk) {
        log_error("Failed to start iterator for config->running services");
        return;
    }
    while (walk.hasnext()) {
        auto worker = walk.next();
        if (!worker || worker->servicename != service) {
            continue;
        }
        // The worker's name is the subject: a name that could not be a worker's own subject is
        // never sent to, whoever put it in the list.
        if (!qvctrl_valid_worker_name(worker->controlservicename)) {
            qv_log_refused("Not flushing the caches of a worker with an invalid name",
                           worker->controlservicename);
            continue;
        }
        const char* subject = worker->controlservicename.c_str();
        log_debug("requesting worker %s to flush", subject);
        if (s_request_cache_flush(config, subject, realm, SID) != 0) {
            log_error("Failed to flush cache for worker %s ", subject);
        }
    }
    walk.stop();
    log_trace("Exiting");
}

void qvctrl_check_flush_config_caches(quorvale_control_config_t* config, const char* service,
                                      const char* directory, time_t* last_mtime_ref) {
    if (service == nullptr || directory == nullptr || last_mtime_ref == nullptr) {
        return;
    }
    const time_t mtime = qvhlp_get_dir_mtime(directory);
    if (mtime == *last_mtime_ref) {
        return;
    }
    log_debug("Config change detected. Flushing config caches for service %s", service);
    // The bucket goes first: a worker that refetches right after the flush must not find the
    // old configuration there.
    if (strcmp(service, "qv-av-mimescan") == 0) {
        qvctrl_config_kv_delete_prefix(config, QVCTRL_CONFIG_PREFIX_MIMEEXT);
        qvctrl_config_kv_delete_prefix(config, QVCTRL_CONFIG_PREFIX_MIMEXLAT);
    } else if (strcmp(service, "qv-av-activecontent") == 0) {
        qvctrl_config_kv_delete_prefix(config, QVCTRL_CONFIG_PREFIX_AC);
    }
    log_info("Configuration change detected. Instructing %s workers to flush caches", service);
    qvctrl_flush_worker_caches(config, service, nullptr, nullptr);
    *last_mtime_ref = mtime;
}
