#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <thread>

#include "nats_server.h"
#include "qv_json.h"
#include "qv_nats_client.h"
#include "qv_nats_kv.h"

using qvtest::NatsServer;

namespace {

std::vector<unsigned char> pattern(size_t n) {
    std::vector<unsigned char> v(n);
    for (size_t i = 0; i < n; ++i) {
        v[i] = static_cast<unsigned char>((i * 131 + 7) & 0xff);
    }
    return v;
}

struct KvFixture : ::testing::Test {
    NatsServer server;
    std::unique_ptr<qv_nats_config> cfg;
    std::atomic<int> stop{0};

    void SetUp() override {
        ASSERT_TRUE(server.start());
        ASSERT_EQ(server.create_buckets(), 0);
        cfg = qv_nats_config_new();
        cfg->server_url = server.url();
        ASSERT_EQ(qv_nats_init(cfg.get()), 0);
    }
    void TearDown() override {
        stop = 1;
        qv_nats_deinit(cfg.get());
    }
    std::string raw_get(const char* bucket, const std::string& key) {
        std::string v;
        int rc = qv_nats_kv_get(cfg.get(), bucket, key.c_str(), &v);
        return rc == 0 ? v : "<" + std::to_string(rc) + ">";
    }
};

// Returns the size of the staged payload it received, and whether it saw "_kv_key".
int payload_probe(void*, qv_const_request_reply_t* rr) {
    const bool leaked_key = rr->request->json_txt.find("_kv_key") != std::string::npos;
    rr->reply->json_txt =
        "{\"ReturnCode\": 0, \"Size\": " + std::to_string(rr->request->data_len()) +
        ", \"Leaked\": " + (leaked_key ? "true" : "false") + ", \"Key\": \"" +
        rr->request->staged_data_key + "\"}";
    return 0;
}

}  // namespace

TEST_F(KvFixture, ChunkBoundariesRoundTrip) {
    for (size_t size : {size_t{0}, size_t{1}, QV_KV_CHUNK_SIZE, QV_KV_CHUNK_SIZE + 1,
                        3 * QV_KV_CHUNK_SIZE + 17}) {
        const std::string key = "t-" + std::to_string(size);
        const auto data = pattern(size);
        ASSERT_EQ(kvstore_put_chunked(cfg.get(), key.c_str(), data.data(), size, 0), 0);
        const size_t chunks = size == 0 ? 1 : (size + QV_KV_CHUNK_SIZE - 1) / QV_KV_CHUNK_SIZE;
        EXPECT_EQ(
            raw_get(QV_KV_SCAN_DATA_BUCKET, key),
            "{\"chunks\":" + std::to_string(chunks) + ",\"size\":" + std::to_string(size) + "}");
        if (size == QV_KV_CHUNK_SIZE + 1) {
            EXPECT_EQ(raw_get(QV_KV_SCAN_DATA_BUCKET, key + "-1").size(), 1u);
        }
        std::vector<unsigned char> out;
        ASSERT_EQ(kvstore_get_chunked(cfg.get(), key.c_str(), &out), 0);
        EXPECT_EQ(out, data) << size;
        kvstore_delete_chunked(cfg.get(), key.c_str());
        EXPECT_EQ(raw_get(QV_KV_SCAN_DATA_BUCKET, key), "<1>");
        EXPECT_EQ(raw_get(QV_KV_SCAN_DATA_BUCKET, key + "-0"), "<1>");
    }
}

TEST_F(KvFixture, BadManifestsAndMissingChunks) {
    std::vector<unsigned char> out;
    ASSERT_EQ(qv_nats_kv_put(cfg.get(), QV_KV_SCAN_DATA_BUCKET, "corrupt", "{chunks", 0), 0);
    EXPECT_EQ(kvstore_get_chunked(cfg.get(), "corrupt", &out), -1);

    ASSERT_EQ(
        qv_nats_kv_put(cfg.get(), QV_KV_SCAN_DATA_BUCKET, "holes", "{\"chunks\":2,\"size\":10}", 0),
        0);
    ASSERT_EQ(qv_nats_kv_put(cfg.get(), QV_KV_SCAN_DATA_BUCKET, "holes-0", "abcde", 0), 0);
    EXPECT_EQ(kvstore_get_chunked(cfg.get(), "holes", &out), -1);

    // A manifest promising more than the chunks hold: the buffer has the promised size.
    ASSERT_EQ(
        qv_nats_kv_put(cfg.get(), QV_KV_SCAN_DATA_BUCKET, "short", "{\"chunks\":1,\"size\":8}", 0),
        0);
    ASSERT_EQ(qv_nats_kv_put(cfg.get(), QV_KV_SCAN_DATA_BUCKET, "short-0", "abc", 0), 0);
    ASSERT_EQ(kvstore_get_chunked(cfg.get(), "short", &out), 0);
    ASSERT_EQ(out.size(), 8u);
    EXPECT_EQ(std::string(out.begin(), out.begin() + 3), "abc");

    // A chunk that would overflow the promised size is skipped.
    ASSERT_EQ(
        qv_nats_kv_put(cfg.get(), QV_KV_SCAN_DATA_BUCKET, "over", "{\"chunks\":2,\"size\":4}", 0),
        0);
    ASSERT_EQ(qv_nats_kv_put(cfg.get(), QV_KV_SCAN_DATA_BUCKET, "over-0", "ab", 0), 0);
    ASSERT_EQ(qv_nats_kv_put(cfg.get(), QV_KV_SCAN_DATA_BUCKET, "over-1", "cdef", 0), 0);
    ASSERT_EQ(kvstore_get_chunked(cfg.get(), "over", &out), 0);
    EXPECT_EQ(std::string(out.begin(), out.begin() + 2), "ab");
}

TEST_F(KvFixture, ReadsWaitForALateKeyButNotForever) {
    auto other = qv_nats_config_new();
    other->server_url = server.url();
    ASSERT_EQ(qv_nats_init(other.get()), 0);
    std::thread writer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(120));
        const auto data = pattern(10);
        kvstore_put_chunked(other.get(), "late", data.data(), data.size(), 0);
    });
    std::vector<unsigned char> out;
    EXPECT_EQ(kvstore_get_chunked(cfg.get(), "late", &out), 0);
    writer.join();
    qv_nats_deinit(other.get());
    EXPECT_EQ(out, pattern(10));

    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(kvstore_get_chunked(cfg.get(), "never", &out), -1);
    EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(500));
}

TEST_F(KvFixture, LeaseIsRenewedByItsHolderOnly) {
    EXPECT_EQ(qv_nats_kv_lease(cfg.get(), QV_KV_CONFIG_BUCKET, "poller", "a", 5000), 1);
    EXPECT_EQ(qv_nats_kv_lease(cfg.get(), QV_KV_CONFIG_BUCKET, "poller", "a", 5000), 1);
    EXPECT_EQ(qv_nats_kv_lease(cfg.get(), QV_KV_CONFIG_BUCKET, "poller", "b", 5000), 0);
    EXPECT_EQ(raw_get(QV_KV_CONFIG_BUCKET, "poller"), "a");
    EXPECT_EQ(qv_nats_kv_lease(cfg.get(), QV_KV_CONFIG_BUCKET, "", "a", 5000), -1);
    EXPECT_EQ(qv_nats_kv_lease(cfg.get(), QV_KV_CONFIG_BUCKET, "poller", "", 5000), -1);
    EXPECT_EQ(qv_nats_kv_lease(cfg.get(), "no-such-bucket", "poller", "a", 5000), -1);
}

TEST_F(KvFixture, SnapshotsAndPrefixedKeys) {
    std::map<std::string, std::string> seen;
    EXPECT_EQ(qv_nats_kv_snapshot(cfg.get(), QV_KV_EVENT_SUBSCRIPTIONS_BUCKET,
                                  [&](const char* k, const char* v, size_t) { seen[k] = v; }),
              0);
    EXPECT_TRUE(seen.empty());

    qv_nats_kv_put(cfg.get(), QV_KV_EVENT_SUBSCRIPTIONS_BUCKET, "sub.a", "1", 0);
    qv_nats_kv_put(cfg.get(), QV_KV_EVENT_SUBSCRIPTIONS_BUCKET, "sub.b", "2", 0);
    qv_nats_kv_put(cfg.get(), QV_KV_EVENT_SUBSCRIPTIONS_BUCKET, "other", "3", 0);
    qv_nats_kv_put(cfg.get(), QV_KV_EVENT_SUBSCRIPTIONS_BUCKET, "gone", "4", 0);
    qv_nats_kv_delete(cfg.get(), QV_KV_EVENT_SUBSCRIPTIONS_BUCKET, "gone");
    EXPECT_EQ(qv_nats_kv_snapshot(cfg.get(), QV_KV_EVENT_SUBSCRIPTIONS_BUCKET,
                                  [&](const char* k, const char* v, size_t) { seen[k] = v; }),
              0);
    EXPECT_EQ(seen,
              (std::map<std::string, std::string>{{"sub.a", "1"}, {"sub.b", "2"}, {"other", "3"}}));
    std::vector<std::string> keys;
    EXPECT_EQ(qv_nats_kv_keys(cfg.get(), QV_KV_EVENT_SUBSCRIPTIONS_BUCKET, "sub.",
                              [&](const char* k) { keys.push_back(k); }),
              0);
    std::sort(keys.begin(), keys.end());
    EXPECT_EQ(keys, (std::vector<std::string>{"sub.a", "sub.b"}));
    EXPECT_EQ(
        qv_nats_kv_snapshot(cfg.get(), "no-such-bucket", [&](const char*, const char*, size_t) {}),
        -1);
}

TEST_F(KvFixture, SeventhExtraBucketIsRefused) {
    // Five more buckets beside the configuration and subscription buckets: seven in all.
    for (int i = 1; i <= 5; ++i) {
        kvConfig c;
        kvConfig_Init(&c);
        const std::string name = "extra-" + std::to_string(i);
        c.Bucket = name.c_str();
        kvStore* kv = nullptr;
        ASSERT_EQ(js_CreateKeyValue(&kv, cfg->_js.get(), &c), NATS_OK);
        kvStore_Destroy(kv);
    }
    EXPECT_EQ(qv_nats_kv_put(cfg.get(), QV_KV_CONFIG_BUCKET, "k", "v", 0), 0);
    EXPECT_EQ(qv_nats_kv_put(cfg.get(), QV_KV_EVENT_SUBSCRIPTIONS_BUCKET, "k", "v", 0), 0);
    for (int i = 1; i <= 4; ++i) {
        const std::string name = "extra-" + std::to_string(i);
        EXPECT_EQ(qv_nats_kv_put(cfg.get(), name.c_str(), "k", "v", 0), 0) << name;
    }
    EXPECT_EQ(qv_nats_kv_put(cfg.get(), "extra-5", "k", "v", 0), -1);
    std::string v;
    EXPECT_EQ(qv_nats_kv_get(cfg.get(), "extra-5", "k", &v), -1);
    // The cached ones keep working.
    EXPECT_EQ(qv_nats_kv_get(cfg.get(), "extra-1", "k", &v), 0);
    EXPECT_EQ(v, "v");
}

TEST_F(KvFixture, RegistryEntriesWithTimeToLive) {
    EXPECT_EQ(qv_nats_registry_put(cfg.get(), "worker.a", "{\"x\":1}", 0), 0);
    EXPECT_EQ(raw_get(QV_KV_REGISTRY_BUCKET, "worker.a"), "{\"x\":1}");
    qv_nats_registry_delete(cfg.get(), "worker.a");
    EXPECT_EQ(raw_get(QV_KV_REGISTRY_BUCKET, "worker.a"), "<1>");
    EXPECT_EQ(qv_kv_ttl_ms_for(100), 1000);
    EXPECT_EQ(qv_kv_ttl_ms_for(5000), 5500);
}

TEST_F(KvFixture, StagedRequestsReachTheHandlerAndAreCleanedUp) {
    ASSERT_EQ(qv_nats_start_service_handler_threads(cfg.get(), "qv-test.probe", payload_probe,
                                                    nullptr, &stop, 2),
              0);
    for (size_t size : {size_t{1}, QV_KV_CHUNK_SIZE + 1}) {
        qv_message_t request;
        request.json_txt = "{\"Command\": 101}";
        request.data = pattern(size);
        qv_message_t reply;
        qv_const_request_reply_t rr{&request, &reply};
        std::string err;
        qv::json_ptr out =
            qv_nats_send_recv_json_data(cfg.get(), "qv-test.probe", &rr, 5000, 0, 0, &err);
        ASSERT_TRUE(out) << err;
        json_object* m = nullptr;
        ASSERT_TRUE(json_object_object_get_ex(out.get(), "Size", &m));
        EXPECT_EQ(json_object_get_int64(m), static_cast<int64_t>(size));
        ASSERT_TRUE(json_object_object_get_ex(out.get(), "Leaked", &m));
        EXPECT_FALSE(json_object_get_boolean(m));
        ASSERT_TRUE(json_object_object_get_ex(out.get(), "Key", &m));
        const std::string key = json_object_get_string(m);
        EXPECT_EQ(key.rfind("scan-", 0), 0u);
        // The requester deleted what it staged.
        EXPECT_EQ(raw_get(QV_KV_SCAN_DATA_BUCKET, key), "<1>");
    }
    // A key the caller staged itself is passed through and left in place.
    std::string key;
    const auto data = pattern(100);
    ASSERT_EQ(qv_nats_stage_scan_data(cfg.get(), data.data(), data.size(), 2000, &key, nullptr), 0);
    qv_message_t request;
    request.json_txt = "{\"Command\": 101}";
    request.staged_data_key = key;
    qv_message_t reply;
    qv_const_request_reply_t rr{&request, &reply};
    qv::json_ptr out =
        qv_nats_send_recv_json_data(cfg.get(), "qv-test.probe", &rr, 5000, 0, 0, nullptr);
    ASSERT_TRUE(out);
    EXPECT_NE(raw_get(QV_KV_SCAN_DATA_BUCKET, key), "<1>");
    qv_nats_unstage_scan_data(cfg.get(), key.c_str());
    EXPECT_EQ(raw_get(QV_KV_SCAN_DATA_BUCKET, key), "<1>");
}

TEST_F(KvFixture, MissingStagedPayloadFailsClosed) {
    std::atomic<int> calls{0};
    static std::atomic<int>* s_calls = nullptr;
    s_calls = &calls;
    ASSERT_EQ(qv_nats_start_service_handler_threads(
                  cfg.get(), "qv-test.closed",
                  [](void*, qv_const_request_reply_t* rr) {
                      (*s_calls)++;
                      rr->reply->json_txt = "{\"ReturnCode\": 0}";
                      return 0;
                  },
                  nullptr, &stop, 1),
              0);
    qv_message_t request;
    request.json_txt = "{\"Command\": 101}";
    request.staged_data_key = "scan-does-not-exist";
    qv_message_t reply;
    qv_const_request_reply_t rr{&request, &reply};
    qv::json_ptr out =
        qv_nats_send_recv_json_data(cfg.get(), "qv-test.closed", &rr, 5000, 0, 0, nullptr);
    ASSERT_TRUE(out);
    EXPECT_EQ(qv_json_to_string(out.get()),
              "{\"ReturnCode\":-1000,\"Error\":\"Scan data unavailable: staged payload could not "
              "be retrieved from the KV store\"}");
    EXPECT_EQ(calls.load(), 0);
}
