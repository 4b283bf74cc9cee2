#include "qvctrl_registry_poller.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_set>
#include <vector>

#include "log.h"
#include "qv_connection_client.h"
#include "qv_json.h"
#include "qv_validate.h"
#include "qvctrl_adjust_worker_capacity.h"

namespace {

// Service names of 256 characters or more are not taken from a registry key.
constexpr size_t s_max_service_name = 256;

// What one reconcile pass gathers from the bucket snapshot.
struct reconcile_context {
    quorvale_control_config_t* config = nullptr;
    std::unordered_set<std::string> keys;  // every non-empty key seen
    int32_t upserted = 0;
    int32_t not_installed = 0;
};

bool s_stop_requested(const std::atomic<int>* terminate) {
    return terminate != nullptr && terminate->load() != 0;
}

int s_keylist_contains(const std::unordered_set<std::string>* list, const char* key) {
    if (list == nullptr || key == nullptr) {
        return 0;
    }
    return list->count(key) != 0 ? 1 : 0;
}

void s_registry_snapshot_cb(reconcile_context* ctx, const char* key, const char* value,
                            size_t value_len) {
    if (key == nullptr || key[0] == '\0') {
        return;
    }
    // Every key that exists shields a running worker of that name, applied here or not.
    ctx->keys.insert(key);
    // Whoever may write the bucket may write any key: one that is no worker name is never
    // projected, so it can neither name a flush subject nor reach a log line unescaped.
    if (!qvctrl_valid_worker_name(key)) {
        qv_log_refused("registry reconcile: skipping invalid worker key", key);
        return;
    }
    const std::string_view name(key);
    const size_t dot = name.find('.');
    if (dot == std::string_view::npos || dot == 0 || dot >= s_max_service_name) {
        return;
    }
    const std::string service(name.substr(0, dot));
    if (qvctrl_is_service_installed(service.c_str(), ctx->config->controlled_services) == nullptr) {
        log_debug("registry reconcile: key='%s' (service='%s') not installed here — skipping", key,
                  service.c_str());
        ctx->not_installed++;
        return;
    }
    if (value == nullptr) {
        return;
    }
    qv::json_ptr registration = qv_json_parse(std::string_view(value, value_len));
    if (!registration) {
        log_warn("registry reconcile: could not parse registration for key '%s'", key);
        return;
    }
    log_debug("registry reconcile: upsert worker key='%s' (service='%s')", key, service.c_str());
    qvctrl_apply_worker_registration(ctx->config, registration.get());
    ctx->upserted++;
}

void s_on_worker_gone(quorvale_control_config_t* config, const char* worker_name) {
    std::lock_guard<std::mutex> lock(config->listmutex);
    auto worker = qvctrl_find_worker_by_name(&config->running_services, worker_name);
    if (worker) {
        log_debug(
            "Registry: worker %s gone (KV entry expired) — removing from running list",
            worker->controlservicename.empty() ? "(unknown)" : worker->controlservicename.c_str());
        config->running_services.remove(worker.get());
    }
}

int s_registry_reconcile(quorvale_control_config_t* config) {
    if (config == nullptr || !config->worker_registry_enabled) {
        return 0;
    }
    reconcile_context ctx;
    ctx.config = config;
    const int rc =
        qv_connection_kv_snapshot(config->main_nats_config.get(), QV_KV_REGISTRY_BUCKET,
                                  [&ctx](const char* key, const char* value, size_t len) {
                                      s_registry_snapshot_cb(&ctx, key, value, len);
                                  });
    if (rc != 0) {
        log_warn("registry reconcile: KV snapshot failed (rc=%d) — keeping current projection", rc);
        return -1;
    }
    log_debug("registry reconcile: %d worker key(s) in KV bucket '%s'",
              static_cast<int>(ctx.keys.size()), QV_KV_REGISTRY_BUCKET);

    // Only collect here; each removal takes the lock again by itself.
    std::vector<std::string> gone;
    {
        std::lock_guard<std::mutex> lock(config->listmutex);
        auto walk = config->running_services.iterator_wait(200, 0, 50);
        while (walk.hasnext()) {
            auto worker = walk.next();
            if (worker && !worker->controlservicename.empty() &&
                !s_keylist_contains(&ctx.keys, worker->controlservicename.c_str())) {
                gone.push_back(worker->controlservicename);
            }
        }
    }
    for (const std::string& name : gone) {
        log_debug("registry reconcile: worker '%s' absent from KV — removing", name.c_str());
        s_on_worker_gone(config, name.c_str());
    }

    size_t running = 0;
    {
        std::lock_guard<std::mutex> lock(config->listmutex);
        running = config->running_services.size();
    }
    log_info(
        "registry reconcile done: KV keys=%d (upserted=%d, not-installed-here=%d), "
        "running_services=%d, dropped=%d (bucket '%s')",
        static_cast<int>(ctx.keys.size()), ctx.upserted, ctx.not_installed,
        static_cast<int>(running), static_cast<int>(gone.size()), QV_KV_REGISTRY_BUCKET);
    return 0;
}

}  // namespace

int qvctrl_registry_poller_thread(registry_watcher_params_t params) {
    quorvale_control_config_t* config = params.config;
    const int period_s =
        config != nullptr ? std::max(1, config->worker_registry_sync_interval_ms / 1000) : 1;
    log_info("registry sync: starting (bucket '%s', reconcile every %ds, lease TTL %dms)",
             QV_KV_REGISTRY_BUCKET, period_s,
             config != nullptr ? static_cast<int>(config->worker_registry_ttl_ms) : 0);
    while (!s_stop_requested(params.terminate)) {
        try {
            s_registry_reconcile(config);
        } catch (const std::exception& e) {
            log_error("registry reconcile failed: %s", e.what());
        }
        for (int slept = 0; slept < period_s && !s_stop_requested(params.terminate); ++slept) {
            std::this_thread::sleep_for(std::chrono::seconds(1));
        }
    }
    log_info("registry sync: exiting");
    return 0;
}
