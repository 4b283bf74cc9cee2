#include "qv_nats_kv.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <list>
#include <mutex>
#include <thread>

#include <pthread.h>
#include <unistd.h>

#include "log.h"
#include "qv_json.h"
#include "qv_nats_client.h"
#include "qv_nats_config.h"
#include "qv_nats_kv_cache.h"
#include "qv_validate.h"

namespace {

using kv_handle = std::shared_ptr<kvStore>;

// The "%s%s%s" tail of the messages: status text, then " — " and the library's last error.
struct s_tail {
    std::string status;
    std::string sep;
    std::string last;
    explicit s_tail(natsStatus s) : status(natsStatus_GetText(s)) {
        const char* text = nats_GetLastError(nullptr);
        if (text != nullptr && text[0] != '\0') {
            sep = " — ";
            last = text;
        }
    }
};

std::string s_subject(const char* bucket, const char* key) {
    return std::string("$KV.") + bucket + "." + key;
}

std::string s_chunk_key(const char* key, size_t i) {
    return std::string(key) + "-" + std::to_string(i);
}

size_t s_chunk_count(size_t size) {
    size_t n = (size + QV_KV_CHUNK_SIZE - 1) / QV_KV_CHUNK_SIZE;
    return n == 0 ? 1 : n;
}

// Every key reaches the library only after this check: a blank, a wildcard or an overlong key
// in a subject makes nats-server close the whole connection.
bool s_key_ok(const char* key) {
    if (key != nullptr && qv_valid_key(key, QV_KV_KEY_MAX)) {
        return true;
    }
    qv_log_refused("NATS: invalid KV key", key != nullptr ? key : "");
    return false;
}

// A message for `subject` carrying the time-to-live header when `ttl_ms` > 0.
qv::nats_msg_ptr s_make_msg(const std::string& subject, const void* data, size_t len,
                            int64_t ttl_ms) {
    natsMsg* raw = nullptr;
    if (natsMsg_Create(&raw, subject.c_str(), nullptr, static_cast<const char*>(data),
                       static_cast<int>(len)) != NATS_OK) {
        return nullptr;
    }
    qv::nats_msg_ptr msg(raw);
    if (ttl_ms > 0) {
        const std::string ttl = std::to_string(ttl_ms) + "ms";
        if (natsMsgHeader_Set(msg.get(), "Nats-TTL", ttl.c_str()) != NATS_OK) {
            return nullptr;
        }
    }
    return msg;
}

natsStatus s_js_publish_sync(jsCtx* js, const std::string& subject, const void* data, size_t len,
                             int64_t ttl_ms, jsPubOptions* opts = nullptr,
                             jsErrCode* err = nullptr) {
    qv::nats_msg_ptr msg = s_make_msg(subject, data, len, ttl_ms);
    if (!msg) {
        return NATS_NO_MEMORY;
    }
    jsPubAck* ack = nullptr;
    natsStatus s = js_PublishMsg(&ack, js, msg.get(), opts, err);
    jsPubAck_Destroy(ack);
    return s;
}

kv_handle s_bind(qv_nats_config* cfg, const char* bucket, kv_handle* slot) {
    if (cfg == nullptr) {
        return nullptr;
    }
    std::lock_guard<std::mutex> guard(cfg->_kv_mutex);
    if (*slot) {
        return *slot;
    }
    if (!cfg->_js) {
        return nullptr;
    }
    kvStore* kv = nullptr;
    natsStatus s = js_KeyValue(&kv, cfg->_js.get(), bucket);
    if (s != NATS_OK) {
        log_error(
            "NATS: KV bucket '%s' not found — qv-av-broker should have created it at "
            "startup; is the broker running and on the same nats-server?: %s",
            bucket, natsStatus_GetText(s));
        return nullptr;
    }
    *slot = kv_handle(kv, kvStore_Destroy);
    return *slot;
}

// The time-to-live is tried for this write alone: a refused per-message time-to-live falls back
// to the bucket's maximum age for this put, and the next put tries again. One failed write (a
// time-out, a restarting server) must not switch expiry off for the rest of the process.
int kv_put_with_ttl(qv_nats_config* cfg, const char* bucket, kvStore* kv, const char* key,
                    const void* value, size_t len, int64_t ttl_ms) {
    std::shared_ptr<jsCtx> js = qv_nats_jetstream(cfg);
    if (ttl_ms >= 1 && js) {
        natsStatus s = s_js_publish_sync(js.get(), s_subject(bucket, key), value, len, ttl_ms);
        if (s == NATS_OK) {
            return 0;
        }
        s_tail t(s);
        log_warn(
            "NATS: per-message TTL write for '%s' rejected (%s%s%s); falling back to bucket "
            "TTL. Ensure the KV stream has AllowMsgTTL.",
            key, t.status.c_str(), t.sep.c_str(), t.last.c_str());
    }
    uint64_t rev = 0;
    natsStatus s = kvStore_Put(&rev, kv, key, value, static_cast<int>(len));
    if (s != NATS_OK) {
        s_tail t(s);
        log_error("NATS: KV put '%s' failed: %s%s%s", key, t.status.c_str(), t.sep.c_str(),
                  t.last.c_str());
        return -1;
    }
    return 0;
}

int kv_put_chunks_pipelined(qv_nats_config* cfg, const char* key, const unsigned char* data,
                            size_t size, size_t n, int64_t ttl_ms) {
    kv_handle kv_ref = get_kvstore(cfg);
    std::shared_ptr<jsCtx> js_ref = qv_nats_jetstream(cfg);
    if (!js_ref || !kv_ref) {
        return -1;
    }
    kvStore* kv = kv_ref.get();
    jsCtx* js = js_ref.get();
    jsPubOptions wait_opts;
    jsPubOptions_Init(&wait_opts);
    wait_opts.MaxWait = 30000;
    for (size_t i = 0; i < n; ++i) {
        const size_t off = i * QV_KV_CHUNK_SIZE;
        const size_t len = off < size ? std::min(QV_KV_CHUNK_SIZE, size - off) : 0;
        const std::string subject = s_subject(QV_KV_SCAN_DATA_BUCKET, s_chunk_key(key, i).c_str());
        qv::nats_msg_ptr msg = s_make_msg(subject, len > 0 ? data + off : nullptr, len, ttl_ms);
        natsStatus s = NATS_NO_MEMORY;
        if (msg) {
            natsMsg* raw = msg.release();
            s = js_PublishMsgAsync(js, &raw, nullptr);
            // The library owns the message once it was accepted; otherwise it is still ours.
            msg.reset(raw);
        }
        if (s != NATS_OK) {
            s_tail t(s);
            log_error("NATS: async chunk publish (%s) failed: %s%s%s", subject.c_str(),
                      t.status.c_str(), t.sep.c_str(), t.last.c_str());
            js_PublishAsyncComplete(js, &wait_opts);
            return -1;
        }
    }
    natsStatus s = js_PublishAsyncComplete(js, &wait_opts);
    if (s != NATS_OK) {
        s_tail t(s);
        log_error("NATS: js_PublishAsyncComplete failed for key=%s: %s%s%s", key, t.status.c_str(),
                  t.sep.c_str(), t.last.c_str());
        return -1;
    }
    char manifest[128];
    snprintf(manifest, sizeof(manifest), "{\"chunks\":%zu,\"size\":%zu}", n, size);
    if (ttl_ms > 0) {
        s = s_js_publish_sync(js, s_subject(QV_KV_SCAN_DATA_BUCKET, key), manifest,
                              strlen(manifest), ttl_ms);
    } else {
        uint64_t rev = 0;
        s = kvStore_PutString(&rev, kv, key, manifest);
    }
    if (s != NATS_OK) {
        s_tail t(s);
        log_error("NATS: KV metadata put '%s' failed: %s%s%s", key, t.status.c_str(), t.sep.c_str(),
                  t.last.c_str());
        return -1;
    }
    return 0;
}

// A freshly written entry may not yet be visible on the replica that answers: "not found" is
// retried for up to 500 ms (1, 2, 4, 8, 16, then 25 ms steps).
natsStatus kv_get_retry(kvStore* kv, const char* key, qv::kv_entry_ptr* out) {
    int slept = 0;
    int step = 1;
    bool logged = false;
    while (true) {
        kvEntry* raw = nullptr;
        natsStatus s = kvStore_Get(&raw, kv, key);
        out->reset(raw);
        if (s != NATS_NOT_FOUND || slept >= 500) {
            return s;
        }
        if (!logged) {
            log_debug("NATS: KV get '%s' not found — retrying for replica catch-up", key);
            logged = true;
        }
        const int sleep_ms = std::min(step, 500 - slept);
        std::this_thread::sleep_for(std::chrono::milliseconds(sleep_ms));
        slept += sleep_ms;
        step = std::min(step * 2, 25);
    }
}

// Reads the manifest's "chunks" and "size" (a missing member reads as 0; a member that is not an
// integer makes the manifest unreadable).
bool s_parse_manifest(const char* text, size_t len, int64_t* chunks, int64_t* size) {
    qv::json_ptr obj = qv_json_parse(std::string_view(text, len));
    if (!obj || !json_object_is_type(obj.get(), json_type_object)) {
        return false;
    }
    for (auto [name, out] : {std::pair{"chunks", chunks}, std::pair{"size", size}}) {
        json_object* member = nullptr;
        *out = 0;
        if (json_object_object_get_ex(obj.get(), name, &member)) {
            if (!json_object_is_type(member, json_type_int)) {
                return false;
            }
            *out = json_object_get_int64(member);
        }
    }
    return true;
}

}  // namespace

std::shared_ptr<kvStore> get_kvstore(qv_nats_config* cfg) {
    return cfg == nullptr ? nullptr : s_bind(cfg, QV_KV_SCAN_DATA_BUCKET, &cfg->_kv);
}

std::shared_ptr<kvStore> get_registry_kvstore(qv_nats_config* cfg) {
    return cfg == nullptr ? nullptr : s_bind(cfg, QV_KV_REGISTRY_BUCKET, &cfg->_kv_registry);
}

std::shared_ptr<kvStore> get_kvstore_for(qv_nats_config* cfg, const char* bucket) {
    if (cfg == nullptr || bucket == nullptr || bucket[0] == '\0') {
        return nullptr;
    }
    if (strcmp(bucket, QV_KV_SCAN_DATA_BUCKET) == 0) {
        return get_kvstore(cfg);
    }
    if (strcmp(bucket, QV_KV_REGISTRY_BUCKET) == 0) {
        return get_registry_kvstore(cfg);
    }
    std::lock_guard<std::mutex> guard(cfg->_kv_mutex);
    if (!cfg->_js) {
        return nullptr;
    }
    for (size_t i = 0; i < QV_NATS_KV_EXTRA_BUCKETS; ++i) {
        if (cfg->_kv_extra[i] && cfg->_kv_extra_name[i] == bucket) {
            return cfg->_kv_extra[i];
        }
    }
    kvStore* raw = nullptr;
    natsStatus s = js_KeyValue(&raw, cfg->_js.get(), bucket);
    kv_handle kv(raw, kvStore_Destroy);
    if (s != NATS_OK) {
        log_error(
            "NATS: KV bucket '%s' not found — qv-av-broker should have created it at "
            "startup; is the broker running and on the same nats-server?: %s",
            bucket, natsStatus_GetText(s));
        return nullptr;
    }
    for (size_t i = 0; i < QV_NATS_KV_EXTRA_BUCKETS; ++i) {
        if (!cfg->_kv_extra[i]) {
            cfg->_kv_extra[i] = std::move(kv);
            cfg->_kv_extra_name[i] = bucket;
            return cfg->_kv_extra[i];
        }
    }
    log_warn("NATS: KV handle cache full; binding '%s' uncached (raise QV_NATS_KV_EXTRA_BUCKETS)",
             bucket);
    return nullptr;
}

int kvstore_put_chunked(qv_nats_config* cfg, const char* key, const unsigned char* data,
                        size_t size, int64_t ttl_ms) {
    if (cfg == nullptr || key == nullptr || (data == nullptr && size > 0) || !s_key_ok(key)) {
        return -1;
    }
    const size_t n = s_chunk_count(size);
    if (ttl_ms > 0) {
        if (kv_put_chunks_pipelined(cfg, key, data, size, n, ttl_ms) == 0) {
            log_trace("NATS: KV put: key=%s, size=%zu, chunks=%zu, ttl=%lldms (pipelined)", key,
                      size, n, static_cast<long long>(ttl_ms));
            return 0;
        }
        // Decided for this payload alone, like every time-to-live write.
        log_warn(
            "NATS: per-message TTL write for key=%s failed; falling back to bucket TTL. "
            "Ensure the KV stream has AllowMsgTTL.",
            key);
    }
    int rc = kv_put_chunks_pipelined(cfg, key, data, size, n, 0);
    if (rc == 0) {
        log_trace("NATS: KV put: key=%s, size=%zu, chunks=%zu (bucket TTL, pipelined)", key, size,
                  n);
    }
    return rc;
}

namespace {

std::mutex s_budget_mutex;
std::condition_variable s_budget_freed;
size_t s_budget_used = 0;
// Payloads waiting for room, in order of arrival. Only the first in line may take its share:
// otherwise a steady flow of small payloads, each fitting beside the others, keeps a large one
// out until its whole wait has run out.
std::list<uint64_t> s_budget_line;
uint64_t s_budget_next = 0;

}  // namespace

qv_staged_budget::ticket::~ticket() {
    if (held_ == 0) {
        return;
    }
    {
        std::lock_guard<std::mutex> guard(s_budget_mutex);
        s_budget_used -= held_;
    }
    s_budget_freed.notify_all();
}

void qv_staged_budget::ticket::take(size_t size) {
    std::unique_lock<std::mutex> guard(s_budget_mutex);
    const uint64_t me = s_budget_next++;
    const auto place = s_budget_line.insert(s_budget_line.end(), me);
    const bool fits = s_budget_freed.wait_for(guard, s_longest_wait, [me, size] {
        return s_budget_line.front() == me &&
               (s_budget_used == 0 || s_budget_used + size <= s_limit);
    });
    s_budget_line.erase(place);
    if (!fits) {
        log_warn("NATS: staged payloads of %zu bytes in flight; taking %zu more", s_budget_used,
                 size);
    }
    s_budget_used += size;
    held_ += size;
    guard.unlock();
    // The next in line may fit beside this one.
    s_budget_freed.notify_all();
}

int kvstore_get_chunked(qv_nats_config* cfg, const char* key, std::vector<unsigned char>* out) {
    return kvstore_get_chunked_budgeted(cfg, key, out, nullptr);
}

int kvstore_get_chunked_budgeted(qv_nats_config* cfg, const char* key,
                                 std::vector<unsigned char>* out,
                                 qv_staged_budget::ticket* ticket) {
    kv_handle kv_ref = get_kvstore(cfg);
    if (!kv_ref || key == nullptr || out == nullptr || !s_key_ok(key)) {
        return -1;
    }
    kvStore* kv = kv_ref.get();
    qv::kv_entry_ptr entry;
    natsStatus s = kv_get_retry(kv, key, &entry);
    if (s != NATS_OK || !entry) {
        log_error("NATS: KV get metadata '%s' failed after retries: %s", key,
                  natsStatus_GetText(s));
        return -1;
    }
    int64_t chunks = 0;
    int64_t size = 0;
    const int mlen = kvEntry_ValueLen(entry.get());
    if (!s_parse_manifest(static_cast<const char*>(kvEntry_Value(entry.get())),
                          mlen > 0 ? static_cast<size_t>(mlen) : 0, &chunks, &size)) {
        log_error("NATS: KV metadata parse failed for '%s'", key);
        return -1;
    }
    // Checked before anything is allocated or read: a manifest is written by whoever sent the
    // request, and its size decides the allocation.
    if (!qv_valid_staged_manifest(chunks, size, QV_KV_CHUNK_SIZE, cfg->max_staged_payload)) {
        log_error(
            "NATS: KV metadata for '%s' refused: %lld chunk(s) cannot hold %lld bytes, or more "
            "than %llu bytes (MAX_STAGED_PAYLOAD)",
            key, static_cast<long long>(chunks), static_cast<long long>(size),
            static_cast<unsigned long long>(cfg->max_staged_payload));
        return -1;
    }
    if (ticket != nullptr) {
        ticket->take(static_cast<size_t>(size));
    }
    std::vector<unsigned char> buffer;
    try {
        buffer.assign(static_cast<size_t>(size), 0);
    } catch (const std::exception&) {
        log_error("Failed to allocate %s", "chunk buffer");
        return -1;
    }
    size_t filled = 0;
    for (int64_t i = 0; i < chunks; ++i) {
        const std::string ckey = s_chunk_key(key, static_cast<size_t>(i));
        qv::kv_entry_ptr chunk;
        s = kv_get_retry(kv, ckey.c_str(), &chunk);
        if (s != NATS_OK || !chunk) {
            log_error("NATS: KV get chunk '%s' failed after retries: %s", ckey.c_str(),
                      natsStatus_GetText(s));
            return -1;
        }
        const int clen = kvEntry_ValueLen(chunk.get());
        if (clen <= 0) {
            continue;
        }
        // A chunk that would run past the manifest's size is skipped, not truncated.
        if (filled + static_cast<size_t>(clen) <= buffer.size()) {
            memcpy(buffer.data() + filled, kvEntry_Value(chunk.get()), static_cast<size_t>(clen));
            filled += static_cast<size_t>(clen);
        }
    }
    *out = std::move(buffer);
    log_trace("NATS: KV get: key=%s, size=%zu, chunks=%zu", key, out->size(),
              static_cast<size_t>(chunks));
    return 0;
}

void kvstore_delete_chunked(qv_nats_config* cfg, const char* key) {
    kv_handle kv_ref = get_kvstore(cfg);
    if (!kv_ref || key == nullptr || !s_key_ok(key)) {
        return;
    }
    kvStore* kv = kv_ref.get();
    kvEntry* raw = nullptr;
    if (kvStore_Get(&raw, kv, key) == NATS_OK) {
        qv::kv_entry_ptr entry(raw);
        int64_t chunks = 0;
        int64_t size = 0;
        const int mlen = kvEntry_ValueLen(entry.get());
        if (s_parse_manifest(static_cast<const char*>(kvEntry_Value(entry.get())),
                             mlen > 0 ? static_cast<size_t>(mlen) : 0, &chunks, &size) &&
            qv_valid_staged_manifest(chunks, size, QV_KV_CHUNK_SIZE, UINT64_MAX)) {
            for (int64_t i = 0; i < chunks; ++i) {
                kvStore_Delete(kv, s_chunk_key(key, static_cast<size_t>(i)).c_str());
            }
        }
    } else {
        kvEntry_Destroy(raw);
    }
    kvStore_Delete(kv, key);
}

std::string qv_nats_make_scan_key() {
    struct timespec ts {};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    const unsigned long ns = static_cast<unsigned long>(ts.tv_sec) * 1000000000UL +
                             static_cast<unsigned long>(ts.tv_nsec);
    char key[128];
    snprintf(key, sizeof(key), "scan-%lx-%lx-%lx", static_cast<unsigned long>(getpid()),
             static_cast<unsigned long>(pthread_self()), ns);
    return key;
}

int64_t qv_kv_ttl_ms_for(int64_t timeout_ms) {
    const int64_t ttl = timeout_ms + timeout_ms / 10;
    return ttl < 1000 ? 1000 : ttl;
}

int qv_nats_stage_scan_data(qv_nats_config* cfg, const unsigned char* data, size_t data_len,
                            int64_t timeout_ms, std::string* out_key, std::string* errormsg) {
    if (cfg == nullptr || data == nullptr || data_len == 0 || out_key == nullptr) {
        if (errormsg != nullptr) {
            *errormsg = "NATS: invalid parameters for stage_scan_data";
        }
        return -1;
    }
    out_key->clear();
    std::string key = qv_nats_make_scan_key();
    if (kvstore_put_chunked(cfg, key.c_str(), data, data_len, qv_kv_ttl_ms_for(timeout_ms)) != 0) {
        if (errormsg != nullptr) {
            *errormsg = "NATS: failed to stage scan data in KV store";
        }
        return -1;
    }
    *out_key = std::move(key);
    return 0;
}

void qv_nats_unstage_scan_data(qv_nats_config* cfg, const char* key) {
    if (key != nullptr && key[0] != '\0') {
        kvstore_delete_chunked(cfg, key);
    }
}

namespace {

// Reads of the configuration bucket go through this process's cache of it: every scan client's
// start-up reads the same few configurations, and a round trip to the server for each would
// bound how fast they are answered. Other buckets hold data read once or written constantly.
std::shared_ptr<qv_nats_kv_cache> s_read_cache(qv_nats_config* cfg, const char* bucket) {
    if (strcmp(bucket, QV_KV_CONFIG_BUCKET) != 0) {
        return nullptr;
    }
    std::lock_guard<std::mutex> guard(cfg->_kv_mutex);
    if (!cfg->_config_cache && cfg->_js && !cfg->_closing.load()) {
        try {
            cfg->_config_cache = std::make_shared<qv_nats_kv_cache>(cfg, QV_KV_CONFIG_BUCKET);
        } catch (const std::exception& e) {
            log_warn("NATS: no read cache for KV bucket '%s': %s", bucket, e.what());
        }
    }
    return cfg->_config_cache;
}

void s_invalidate(qv_nats_config* cfg, const char* bucket, const char* key) {
    if (strcmp(bucket, QV_KV_CONFIG_BUCKET) != 0) {
        return;
    }
    std::shared_ptr<qv_nats_kv_cache> cache;
    {
        std::lock_guard<std::mutex> guard(cfg->_kv_mutex);
        cache = cfg->_config_cache;
    }
    if (cache) {
        cache->invalidate(key);
    }
}

}  // namespace

int qv_nats_kv_get(qv_nats_config* cfg, const char* bucket, const char* key,
                   std::string* out_value) {
    if (out_value != nullptr) {
        out_value->clear();
    }
    if (cfg == nullptr || bucket == nullptr || key == nullptr || key[0] == '\0' ||
        out_value == nullptr || !s_key_ok(key)) {
        return -1;
    }
    std::shared_ptr<qv_nats_kv_cache> cache = s_read_cache(cfg, bucket);
    if (cache && cache->lookup(key, out_value)) {
        return 0;
    }
    kv_handle kv = get_kvstore_for(cfg, bucket);
    if (!kv) {
        return -1;
    }
    qv_nats_kv_cache::fetch fetch(cache.get(), key);
    kvEntry* raw = nullptr;
    natsStatus s = kvStore_Get(&raw, kv.get(), key);
    qv::kv_entry_ptr entry(raw);
    if (s == NATS_NOT_FOUND) {
        return 1;
    }
    if (s != NATS_OK || !entry) {
        s_tail t(s);
        log_error("NATS: KV get '%s' failed: %s%s%s", key, t.status.c_str(), t.sep.c_str(),
                  t.last.c_str());
        return -1;
    }
    const int len = kvEntry_ValueLen(entry.get());
    if (len > 0) {
        out_value->assign(static_cast<const char*>(kvEntry_Value(entry.get())),
                          static_cast<size_t>(len));
    }
    fetch.found(*out_value, kvEntry_Revision(entry.get()));
    return 0;
}

int qv_nats_kv_put(qv_nats_config* cfg, const char* bucket, const char* key, const char* value,
                   int64_t ttl_ms) {
    if (cfg == nullptr || bucket == nullptr || key == nullptr || key[0] == '\0' ||
        value == nullptr || !s_key_ok(key)) {
        return -1;
    }
    kv_handle kv = get_kvstore_for(cfg, bucket);
    if (!kv) {
        return -1;
    }
    const int rc = kv_put_with_ttl(cfg, bucket, kv.get(), key, value, strlen(value), ttl_ms);
    s_invalidate(cfg, bucket, key);
    return rc;
}

void qv_nats_kv_delete(qv_nats_config* cfg, const char* bucket, const char* key) {
    if (key == nullptr || key[0] == '\0' || !s_key_ok(key)) {
        return;
    }
    kv_handle kv = get_kvstore_for(cfg, bucket);
    if (kv) {
        kvStore_Delete(kv.get(), key);
        s_invalidate(cfg, bucket, key);
    }
}

int qv_nats_kv_snapshot(qv_nats_config* cfg, const char* bucket,
                        const qv_kv_snapshot_cb& callback) {
    if (cfg == nullptr || bucket == nullptr || !callback) {
        return -1;
    }
    std::shared_ptr<jsCtx> js = qv_nats_jetstream(cfg);
    if (!js) {
        log_error("NATS: KV snapshot on '%s' requested but JetStream is not available", bucket);
        return -1;
    }
    kvStore* raw_kv = nullptr;
    natsStatus s = js_KeyValue(&raw_kv, js.get(), bucket);
    qv::kv_store_ptr kv(raw_kv);
    if (s != NATS_OK) {
        log_error("NATS: KV snapshot bind '%s' failed: %s", bucket, natsStatus_GetText(s));
        return -1;
    }
    kvWatchOptions opts;
    kvWatchOptions_Init(&opts);
    opts.IgnoreDeletes = true;
    kvWatcher* raw_w = nullptr;
    s = kvStore_Watch(&raw_w, kv.get(), ">", &opts);
    qv::kv_watcher_ptr watcher(raw_w);
    if (s != NATS_OK) {
        log_error("NATS: kvStore_Watch('%s') for snapshot failed: %s", bucket,
                  natsStatus_GetText(s));
        return -1;
    }
    int rc = 0;
    while (true) {
        kvEntry* raw_e = nullptr;
        s = kvWatcher_Next(&raw_e, watcher.get(), 5000);
        qv::kv_entry_ptr entry(raw_e);
        if (s == NATS_TIMEOUT || (s == NATS_OK && !entry)) {
            break;
        }
        if (s != NATS_OK) {
            log_error("NATS: kvWatcher_Next on '%s' (snapshot) failed: %s", bucket,
                      natsStatus_GetText(s));
            rc = -1;
            break;
        }
        const char* key = kvEntry_Key(entry.get());
        if (kvEntry_Operation(entry.get()) != kvOp_Put || key == nullptr) {
            continue;
        }
        const int len = kvEntry_ValueLen(entry.get());
        const std::string value(len > 0 ? static_cast<const char*>(kvEntry_Value(entry.get())) : "",
                                len > 0 ? static_cast<size_t>(len) : 0);
        callback(key, value.c_str(), value.size());
    }
    kvWatcher_Stop(watcher.get());
    return rc;
}

int qv_nats_kv_keys(qv_nats_config* cfg, const char* bucket, const char* prefix,
                    const qv_kv_key_cb& callback) {
    if (!callback) {
        return -1;
    }
    const size_t plen = prefix != nullptr ? strlen(prefix) : 0;
    return qv_nats_kv_snapshot(cfg, bucket, [&](const char* key, const char*, size_t) {
        if (plen == 0 || strncmp(key, prefix, plen) == 0) {
            callback(key);
        }
    });
}

namespace {

enum class s_lease_write { written, lost, failed };

// Writes the lease only if the key is still where it was read: at `revision`, or absent when
// `revision` is 0. Several daemons may ask at the same instant; the server lets exactly one
// write through.
s_lease_write s_write_lease(jsCtx* js, const char* bucket, const char* key, const char* owner,
                            uint64_t revision, int64_t ttl_ms) {
    jsPubOptions opts;
    jsPubOptions_Init(&opts);
    if (revision == 0) {
        opts.ExpectNoMessage = true;
    } else {
        opts.ExpectLastSubjectSeq = revision;
    }
    jsErrCode err = static_cast<jsErrCode>(0);
    natsStatus s =
        s_js_publish_sync(js, s_subject(bucket, key), owner, strlen(owner), ttl_ms, &opts, &err);
    if (s == NATS_OK) {
        return s_lease_write::written;
    }
    if (err == JSStreamWrongLastSequenceErr) {
        return s_lease_write::lost;
    }
    s_tail t(s);
    log_error("NATS: KV put '%s' failed: %s%s%s", key, t.status.c_str(), t.sep.c_str(),
              t.last.c_str());
    return s_lease_write::failed;
}

// The revision of a deleted or purged key's marker, so that a lease can be taken over it; 0
// when the key holds a live value again (someone took it) or has no message at all.
uint64_t s_marker_revision(jsCtx* js, const char* bucket, const char* key) {
    natsMsg* raw = nullptr;
    const std::string stream = std::string("KV_") + bucket;
    if (js_GetLastMsg(&raw, js, stream.c_str(), s_subject(bucket, key).c_str(), nullptr, nullptr) !=
        NATS_OK) {
        return 0;
    }
    qv::nats_msg_ptr msg(raw);
    const char* op = nullptr;
    if (natsMsgHeader_Get(msg.get(), "KV-Operation", &op) != NATS_OK || op == nullptr ||
        (strcmp(op, "DEL") != 0 && strcmp(op, "PURGE") != 0)) {
        return 0;
    }
    return natsMsg_GetSequence(msg.get());
}

// True when the entry was written longer than `ttl_ms` ago by the server's clock, as far as this
// host's clock tells.
bool s_lease_expired(kvEntry* entry, int64_t ttl_ms) {
    if (ttl_ms < 1) {
        return false;
    }
    const int64_t written_ns = kvEntry_Created(entry);
    const int64_t now_ns = std::chrono::duration_cast<std::chrono::nanoseconds>(
                               std::chrono::system_clock::now().time_since_epoch())
                               .count();
    return written_ns > 0 && now_ns - written_ns > ttl_ms * 1000000;
}

}  // namespace

int qv_nats_kv_lease(qv_nats_config* cfg, const char* bucket, const char* key, const char* owner,
                     int64_t ttl_ms) {
    if (cfg == nullptr || bucket == nullptr || key == nullptr || key[0] == '\0' ||
        owner == nullptr || owner[0] == '\0' || !s_key_ok(key)) {
        return -1;
    }
    kv_handle kv = get_kvstore_for(cfg, bucket);
    std::shared_ptr<jsCtx> js = qv_nats_jetstream(cfg);
    if (!kv || !js) {
        return -1;
    }
    kvEntry* raw = nullptr;
    natsStatus s = kvStore_Get(&raw, kv.get(), key);
    qv::kv_entry_ptr entry(raw);
    s_lease_write written = s_lease_write::failed;
    if (s == NATS_OK && entry) {
        const int len = kvEntry_ValueLen(entry.get());
        const std::string_view holder(static_cast<const char*>(kvEntry_Value(entry.get())),
                                      len > 0 ? static_cast<size_t>(len) : 0);
        // A server that does not expire single messages keeps a stopped holder's lease for
        // ever; a lease not renewed within its time is therefore free for the taking. The take-
        // over is written at the revision read, so of several takers exactly one succeeds, and a
        // holder that renews meanwhile keeps it.
        if (holder != owner && !s_lease_expired(entry.get(), ttl_ms)) {
            return 0;
        }
        written =
            s_write_lease(js.get(), bucket, key, owner, kvEntry_Revision(entry.get()), ttl_ms);
    } else if (s == NATS_NOT_FOUND) {
        written = s_write_lease(js.get(), bucket, key, owner, 0, ttl_ms);
        if (written == s_lease_write::lost) {
            // "Not found" also covers a key whose last message is a delete marker.
            const uint64_t marker = s_marker_revision(js.get(), bucket, key);
            if (marker != 0) {
                written = s_write_lease(js.get(), bucket, key, owner, marker, ttl_ms);
            }
        }
    } else {
        s_tail t(s);
        log_error("NATS: KV get '%s' failed: %s%s%s", key, t.status.c_str(), t.sep.c_str(),
                  t.last.c_str());
        return -1;
    }
    switch (written) {
        case s_lease_write::written:
            return 1;
        case s_lease_write::lost:
            return 0;
        default:
            return -1;
    }
}

int qv_nats_registry_put(qv_nats_config* cfg, const char* key, const char* value, int64_t ttl_ms) {
    if (cfg == nullptr || key == nullptr || key[0] == '\0' || value == nullptr || !s_key_ok(key)) {
        return -1;
    }
    kv_handle kv = get_registry_kvstore(cfg);
    if (!kv) {
        return -1;
    }
    if (ttl_ms < 1) {
        ttl_ms = 15000;
    }
    return kv_put_with_ttl(cfg, QV_KV_REGISTRY_BUCKET, kv.get(), key, value, strlen(value), ttl_ms);
}

void qv_nats_registry_delete(qv_nats_config* cfg, const char* key) {
    if (key == nullptr || !s_key_ok(key)) {
        return;
    }
    kv_handle kv = get_registry_kvstore(cfg);
    if (kv) {
        kvStore_Delete(kv.get(), key);
    }
}
