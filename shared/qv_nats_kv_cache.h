// A read cache of one key-value bucket in this process, kept true by a watch on the bucket.
//
// Every change that any control instance makes to a key reaches the watch and drops the key from
// the cache, so a hit answers what a read from the bucket would, without the round trip to the
// server. Only values read after the watch has caught up are kept; an entry is also dropped after
// s_max_age at the latest, so that a change the watch cannot report (a bucket's own maximum age
// expiring a key) is seen within that time, and the cache never holds more than s_max_entries
// keys or s_max_bytes of values. A bucket deleted (or deleted and made again) empties the cache
// and starts a new watch: the old one would never report the new bucket's changes.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>

struct qv_nats_config;

class qv_nats_kv_cache {
  public:
    static constexpr size_t s_max_entries = 4096;
    static constexpr size_t s_max_bytes = 8u << 20;
    static constexpr std::chrono::seconds s_max_age{10};

    // Starts the watch of `bucket` on the connection of `config`, which must outlive the cache.
    qv_nats_kv_cache(qv_nats_config* config, std::string bucket);
    ~qv_nats_kv_cache();
    qv_nats_kv_cache(const qv_nats_kv_cache&) = delete;
    qv_nats_kv_cache& operator=(const qv_nats_kv_cache&) = delete;

    // The cached value of `key` into *value; false when the caller has to read the bucket.
    bool lookup(const std::string& key, std::string* value);

    // A read of the bucket, announced before it is sent: what it brings back is kept only when
    // no change of the key was reported in the meantime.
    class fetch {
      public:
        fetch(qv_nats_kv_cache* cache, std::string key);
        ~fetch();
        fetch(const fetch&) = delete;
        fetch& operator=(const fetch&) = delete;
        // The value read, with the revision it was stored under.
        void found(const std::string& value, uint64_t revision);

      private:
        qv_nats_kv_cache* cache_;
        std::string key_;
        uint64_t generation_;
    };

    // This process changed the key: whatever is cached or being read of it is dropped.
    void invalidate(const std::string& key);

    // True once the watch has delivered the bucket's current state (for tests).
    bool ready() const { return ready_.load(); }
    // Lookups answered from the cache so far.
    uint64_t hits() const { return hits_.load(); }

    // Ends the watch; lookups miss from then on.
    void stop();

  private:
    struct entry {
        std::string value;
        uint64_t revision = 0;
        std::chrono::steady_clock::time_point stored;
        std::list<std::string>::iterator order;
    };
    // Reads of a key in flight: how many, and the newest revision the watch reported meanwhile.
    struct pending {
        int readers = 0;
        uint64_t changed = 0;
    };

    void run();
    void changed(const std::string& key, uint64_t revision);
    void erase(std::unordered_map<std::string, entry>::iterator it);
    void reset();
    void wait_or_stop(std::chrono::milliseconds pause);

    qv_nats_config* config_;
    const std::string bucket_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::unordered_map<std::string, entry> entries_;
    std::list<std::string> order_;  // oldest first
    std::unordered_map<std::string, pending> pending_;
    size_t bytes_ = 0;
    uint64_t generation_ = 0;  // a new watch starts a new one
    std::atomic<bool> ready_{false};
    std::atomic<uint64_t> hits_{0};
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};
