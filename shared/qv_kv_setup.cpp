#include "qv_kv_setup.h"

#include "qv_nats_client.h"
#include "qv_nats_kv.h"

int qv_kv_setup_buckets(qv_nats_config* cfg, const qv_kv_bucket_ages& ages, std::string* report,
                        int replicas) {
    std::shared_ptr<jsCtx> js = qv_nats_jetstream(cfg);
    if (!js) {
        if (report != nullptr) {
            *report += "JetStream is not available on this connection\n";
        }
        return -1;
    }
    const struct {
        const char* name;
        int64_t max_age_ms;
    } buckets[] = {
        {QV_KV_SCAN_DATA_BUCKET, ages.scan_data_ms},
        {QV_KV_REGISTRY_BUCKET, ages.worker_registry_ms},
        {QV_KV_CONFIG_BUCKET, ages.config_ms},
        {QV_KV_EVENT_SUBSCRIPTIONS_BUCKET, ages.event_subscriptions_ms},
    };
    int rc = 0;
    for (const auto& b : buckets) {
        kvStore* raw = nullptr;
        natsStatus s = js_KeyValue(&raw, js.get(), b.name);
        qv::kv_store_ptr existing(raw);
        std::string line;
        if (s == NATS_OK) {
            line = std::string("exists ") + b.name;
        } else {
            kvConfig kc;
            kvConfig_Init(&kc);
            kc.Bucket = b.name;
            kc.History = 1;
            kc.Replicas = replicas;
            // The library passes the age on as the stream's MaxAge, in nanoseconds.
            kc.TTL = b.max_age_ms * 1000000;
            raw = nullptr;
            s = js_CreateKeyValue(&raw, js.get(), &kc);
            qv::kv_store_ptr created(raw);
            if (s == NATS_OK) {
                line = std::string("created ") + b.name;
            } else {
                const char* last = nats_GetLastError(nullptr);
                line = std::string("failed ") + b.name + ": " + natsStatus_GetText(s) +
                       (last != nullptr && last[0] != '\0' ? std::string(" — ") + last : "");
                rc = -1;
            }
        }
        if (report != nullptr) {
            *report += line + "\n";
        }
    }
    return rc;
}
