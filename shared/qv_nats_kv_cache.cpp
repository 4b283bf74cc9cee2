#include "qv_nats_kv_cache.h"

#include <nats/nats.h>

#include "log.h"
#include "qv_handles.h"
#include "qv_nats_client.h"
#include "qv_nats_config.h"
#include "qv_nats_kv.h"

namespace {

// How often the watch looks whether its connection was replaced or the cache is stopping.
constexpr int64_t s_poll_ms = 250;
// How often the watch asks whether its bucket is still the one it started on.
constexpr std::chrono::seconds s_identity_every{1};

// When the stream behind `bucket` was made, into *created: true when the server answered
// (*created is 0 when the bucket does not exist), false when it could not be asked.
//
// A bucket deleted and made again restarts its revisions from 1, and a watch started on the old
// one goes on waiting past the old stream's last revision: it reports nothing of the new bucket
// and never fails. Only the stream's creation time tells the two apart.
bool s_stream_created(qv_nats_config* config, const std::string& bucket, int64_t* created) {
    std::shared_ptr<jsCtx> js = qv_nats_jetstream(config);
    if (!js) {
        return false;
    }
    jsOptions opts;
    jsOptions_Init(&opts);
    opts.Wait = 1000;  // stop() waits for this during an outage
    jsStreamInfo* raw = nullptr;
    jsErrCode err = static_cast<jsErrCode>(0);
    const natsStatus s = js_GetStreamInfo(&raw, js.get(), ("KV_" + bucket).c_str(), &opts, &err);
    qv::js_stream_info_ptr info(raw);
    if (s == NATS_OK && info) {
        *created = info->Created;
        return true;
    }
    if (s == NATS_NOT_FOUND || err == JSStreamNotFoundErr) {
        *created = 0;
        return true;
    }
    return false;
}

}  // namespace

qv_nats_kv_cache::qv_nats_kv_cache(qv_nats_config* config, std::string bucket)
    : config_(config), bucket_(std::move(bucket)) {
    thread_ = std::thread([this] {
        try {
            run();
        } catch (const std::exception& e) {
            log_error("NATS: KV cache of '%s' ended by exception: %s", bucket_.c_str(), e.what());
        }
        reset();
    });
}

qv_nats_kv_cache::~qv_nats_kv_cache() {
    stop();
}

void qv_nats_kv_cache::stop() {
    {
        std::lock_guard<std::mutex> guard(mutex_);
        stopping_.store(true);
    }
    wake_.notify_all();
    if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) {
        thread_.join();
    }
}

bool qv_nats_kv_cache::lookup(const std::string& key, std::string* value) {
    if (!ready_.load()) {
        return false;
    }
    std::lock_guard<std::mutex> guard(mutex_);
    auto it = entries_.find(key);
    if (it == entries_.end()) {
        return false;
    }
    if (std::chrono::steady_clock::now() - it->second.stored >= s_max_age) {
        erase(it);
        return false;
    }
    *value = it->second.value;
    hits_.fetch_add(1);
    return true;
}

qv_nats_kv_cache::fetch::fetch(qv_nats_kv_cache* cache, std::string key)
    : cache_(cache), key_(std::move(key)), generation_(0) {
    if (cache_ != nullptr) {
        std::lock_guard<std::mutex> guard(cache_->mutex_);
        cache_->pending_[key_].readers++;
        generation_ = cache_->generation_;
    }
}

qv_nats_kv_cache::fetch::~fetch() {
    if (cache_ == nullptr) {
        return;
    }
    std::lock_guard<std::mutex> guard(cache_->mutex_);
    auto it = cache_->pending_.find(key_);
    if (it != cache_->pending_.end() && --it->second.readers <= 0) {
        cache_->pending_.erase(it);
    }
}

void qv_nats_kv_cache::fetch::found(const std::string& value, uint64_t revision) {
    if (cache_ == nullptr || !cache_->ready_.load()) {
        return;
    }
    std::lock_guard<std::mutex> guard(cache_->mutex_);
    auto p = cache_->pending_.find(key_);
    // A change reported while this read was under way, or a watch started afresh since, may
    // have made the value stale.
    if (generation_ != cache_->generation_ || p == cache_->pending_.end() ||
        p->second.changed > revision) {
        return;
    }
    if (value.size() > s_max_bytes / 16) {
        return;
    }
    auto it = cache_->entries_.find(key_);
    if (it != cache_->entries_.end()) {
        if (it->second.revision >= revision) {
            return;
        }
        cache_->erase(it);
    }
    while (!cache_->order_.empty() && (cache_->entries_.size() >= s_max_entries ||
                                       cache_->bytes_ + value.size() > s_max_bytes)) {
        cache_->erase(cache_->entries_.find(cache_->order_.front()));
    }
    cache_->order_.push_back(key_);
    entry& stored = cache_->entries_[key_];
    stored.value = value;
    stored.revision = revision;
    stored.stored = std::chrono::steady_clock::now();
    stored.order = std::prev(cache_->order_.end());
    cache_->bytes_ += value.size();
}

void qv_nats_kv_cache::invalidate(const std::string& key) {
    std::lock_guard<std::mutex> guard(mutex_);
    auto it = entries_.find(key);
    if (it != entries_.end()) {
        erase(it);
    }
    auto p = pending_.find(key);
    if (p != pending_.end()) {
        p->second.changed = UINT64_MAX;
    }
}

void qv_nats_kv_cache::changed(const std::string& key, uint64_t revision) {
    std::lock_guard<std::mutex> guard(mutex_);
    auto it = entries_.find(key);
    if (it != entries_.end() && it->second.revision < revision) {
        erase(it);
    }
    auto p = pending_.find(key);
    if (p != pending_.end() && p->second.changed < revision) {
        p->second.changed = revision;
    }
}

void qv_nats_kv_cache::erase(std::unordered_map<std::string, entry>::iterator it) {
    if (it == entries_.end()) {
        return;
    }
    bytes_ -= it->second.value.size();
    order_.erase(it->second.order);
    entries_.erase(it);
}

void qv_nats_kv_cache::reset() {
    std::lock_guard<std::mutex> guard(mutex_);
    ready_.store(false);
    entries_.clear();
    order_.clear();
    bytes_ = 0;
    generation_++;
}

void qv_nats_kv_cache::wait_or_stop(std::chrono::milliseconds pause) {
    std::unique_lock<std::mutex> guard(mutex_);
    wake_.wait_for(guard, pause, [this] { return stopping_.load(); });
}

void qv_nats_kv_cache::run() {
    while (!stopping_.load()) {
        std::shared_ptr<kvStore> kv = get_kvstore_for(config_, bucket_.c_str());
        if (!kv) {
            // No connection or no bucket yet: reads go to the server, which reports why.
            wait_or_stop(std::chrono::seconds(5));
            continue;
        }
        // Taken before the watch starts: a bucket made again in between shows as a change.
        int64_t created = 0;
        if (!s_stream_created(config_, bucket_, &created) || created == 0) {
            wait_or_stop(std::chrono::seconds(1));
            continue;
        }
        kvWatchOptions opts;
        kvWatchOptions_Init(&opts);
        opts.MetaOnly = true;  // which key changed is all the cache needs to know
        kvWatcher* raw = nullptr;
        natsStatus s = kvStore_WatchAll(&raw, kv.get(), &opts);
        qv::kv_watcher_ptr watcher(raw);
        if (s != NATS_OK) {
            log_warn("NATS: cannot watch KV bucket '%s' (%s); its reads are not cached",
                     bucket_.c_str(), natsStatus_GetText(s));
            wait_or_stop(std::chrono::seconds(5));
            continue;
        }
        log_debug("NATS: watching KV bucket '%s' for its read cache", bucket_.c_str());
        auto next_identity = std::chrono::steady_clock::now() + s_identity_every;
        while (!stopping_.load()) {
            if (std::chrono::steady_clock::now() >= next_identity) {
                int64_t now_created = 0;
                if (s_stream_created(config_, bucket_, &now_created) && now_created != created) {
                    log_warn("NATS: KV bucket '%s' was deleted or made again; watching it afresh",
                             bucket_.c_str());
                    break;
                }
                next_identity = std::chrono::steady_clock::now() + s_identity_every;
            }
            kvEntry* raw_entry = nullptr;
            s = kvWatcher_Next(&raw_entry, watcher.get(), s_poll_ms);
            qv::kv_entry_ptr change(raw_entry);
            if (s == NATS_TIMEOUT) {
                // A replaced connection leaves this watch without updates: start one on the new.
                if (get_kvstore_for(config_, bucket_.c_str()) != kv) {
                    break;
                }
                continue;
            }
            if (s != NATS_OK) {
                log_warn("NATS: watch of KV bucket '%s' ended (%s); starting it again",
                         bucket_.c_str(), natsStatus_GetText(s));
                break;
            }
            if (!change) {
                // The bucket's current state is through: from here on every change is reported.
                ready_.store(true);
                continue;
            }
            changed(kvEntry_Key(change.get()), kvEntry_Revision(change.get()));
        }
        reset();
        kvWatcher_Stop(watcher.get());
    }
}
