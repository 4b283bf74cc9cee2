// JetStream key-value buckets: cached bucket handles, chunked payloads with a manifest, plain
// entries with a time-to-live, snapshots, key lists, a lease for leader election, and the
// staging of scan payloads that travel beside a request.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "qv_nats_config.h"

inline constexpr const char* QV_KV_SCAN_DATA_BUCKET = "qv-av-scan-data";
inline constexpr const char* QV_KV_REGISTRY_BUCKET = "qv-av-worker-registry";
inline constexpr const char* QV_KV_CONFIG_BUCKET = "qv-av-config";
inline constexpr const char* QV_KV_EVENT_SUBSCRIPTIONS_BUCKET = "qv-av-event-subscriptions";
inline constexpr size_t QV_KV_CHUNK_SIZE = 524288;
// Extra bucket handles cached per connection.
inline constexpr size_t QV_NATS_KV_EXTRA_BUCKETS = 6;

// Bucket handles, bound on first use and kept until qv_nats_deinit (or a rebuilt connection).
// Null when unavailable. The caller keeps its copy for the duration of one operation.
std::shared_ptr<kvStore> get_kvstore(qv_nats_config* cfg);
std::shared_ptr<kvStore> get_registry_kvstore(qv_nats_config* cfg);
std::shared_ptr<kvStore> get_kvstore_for(qv_nats_config* cfg, const char* bucket);

// Chunked payloads in the scan-data bucket.
int kvstore_put_chunked(qv_nats_config* cfg, const char* key, const unsigned char* data,
                        size_t size, int64_t ttl_ms);
// -1 also when the manifest's chunk count does not fit its size or the size exceeds
// cfg->max_staged_payload (nothing is allocated or read then).
int kvstore_get_chunked(qv_nats_config* cfg, const char* key, std::vector<unsigned char>* out);

// The staged payloads that served requests hold at one time, in bytes, across the process: a
// burst of large payloads waits for room instead of growing the daemon without bound. A payload
// larger than the whole budget is let in alone. Payloads are let in in the order they asked.
class qv_staged_budget {
  public:
    static constexpr size_t s_limit = 24u << 20;
    static constexpr std::chrono::seconds s_longest_wait{60};

    // A share of the budget, given back when it goes.
    class ticket {
      public:
        ticket() = default;
        ~ticket();
        ticket(const ticket&) = delete;
        ticket& operator=(const ticket&) = delete;
        // Waits until `size` bytes fit (at most s_longest_wait, then takes them anyway).
        void take(size_t size);

      private:
        size_t held_ = 0;
    };
};

// kvstore_get_chunked that first takes the payload's size from the budget into `ticket`, once
// the manifest is known and before anything is allocated.
int kvstore_get_chunked_budgeted(qv_nats_config* cfg, const char* key,
                                 std::vector<unsigned char>* out, qv_staged_budget::ticket* ticket);
void kvstore_delete_chunked(qv_nats_config* cfg, const char* key);
// A unique key for staged data: "scan-<pid>-<thread>-<monotonic ns>" in hexadecimal.
std::string qv_nats_make_scan_key();
int64_t qv_kv_ttl_ms_for(int64_t timeout_ms);
int qv_nats_stage_scan_data(qv_nats_config* cfg, const unsigned char* data, size_t data_len,
                            int64_t timeout_ms, std::string* out_key, std::string* errormsg);
void qv_nats_unstage_scan_data(qv_nats_config* cfg, const char* key);

// Plain entries. kv_get: 0 found, 1 not found, -1 error.
int qv_nats_kv_get(qv_nats_config* cfg, const char* bucket, const char* key,
                   std::string* out_value);
int qv_nats_kv_put(qv_nats_config* cfg, const char* bucket, const char* key, const char* value,
                   int64_t ttl_ms);
void qv_nats_kv_delete(qv_nats_config* cfg, const char* bucket, const char* key);

using qv_kv_snapshot_cb = std::function<void(const char* key, const char* value, size_t len)>;
using qv_kv_key_cb = std::function<void(const char* key)>;
// Calls the callback once per live entry (or key with the prefix). 0 or -1.
int qv_nats_kv_snapshot(qv_nats_config* cfg, const char* bucket, const qv_kv_snapshot_cb& callback);
int qv_nats_kv_keys(qv_nats_config* cfg, const char* bucket, const char* prefix,
                    const qv_kv_key_cb& callback);
// 1 lease held by `owner` (taken or renewed), 0 held by someone else, -1 on error. Exclusive: it
// is taken only by creating the absent key and renewed only at the revision read, so two
// contenders can never both hold it. A lease its holder has not renewed for `ttl_ms` may be taken
// over (at the revision read), also on a server that does not expire single entries.
int qv_nats_kv_lease(qv_nats_config* cfg, const char* bucket, const char* key, const char* owner,
                     int64_t ttl_ms);

int qv_nats_registry_put(qv_nats_config* cfg, const char* key, const char* value, int64_t ttl_ms);
void qv_nats_registry_delete(qv_nats_config* cfg, const char* key);
