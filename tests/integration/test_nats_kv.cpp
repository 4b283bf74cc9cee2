#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <map>
#include <thread>

#include "log_capture.h"
#include "nats_peer.h"
#include "nats_server.h"
#include "qv_json.h"
#include "qv_nats_client.h"
#include "qv_nats_kv.h"

using qvtest::NatsPeer;
using qvtest::NatsServer;
using namespace std::chrono_literals;
using namespace std::string_literals;

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
    // Sends a request naming the payload staged under `key` to `service`, whose handler answers
    // with the size it received; that size, or -1 without an answer.
    int64_t staged_size(const char* service, const std::string& key, uint64_t timeout_ms) {
        qv_message_t request;
        request.json_txt = "{\"Command\": 101}";
        request.staged_data_key = key;
        qv_message_t reply;
        qv_const_request_reply_t rr{&request, &reply};
        qv::json_ptr out =
            qv_nats_send_recv_json_data(cfg.get(), service, &rr, timeout_ms, 0, 0, nullptr);
        json_object* m = nullptr;
        return out && json_object_object_get_ex(out.get(), "Size", &m) ? json_object_get_int64(m)
                                                                       : int64_t{-1};
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

std::atomic<int> s_probe_calls{0};
int counting_probe(void* context, qv_const_request_reply_t* rr) {
    s_probe_calls++;
    return payload_probe(context, rr);
}

// The value of `header` on the last message stored for `key` in `bucket`; "<none>" without one.
std::string stored_header(qv_nats_config* cfg, const std::string& bucket, const std::string& key,
                          const char* header) {
    natsMsg* raw = nullptr;
    if (js_GetLastMsg(&raw, cfg->_js.get(), ("KV_" + bucket).c_str(),
                      ("$KV." + bucket + "." + key).c_str(), nullptr, nullptr) != NATS_OK) {
        return "<no message>";
    }
    qv::nats_msg_ptr msg(raw);
    const char* value = nullptr;
    return natsMsgHeader_Get(raw, header, &value) == NATS_OK ? value : "<none>";
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
    qvtest::NatsClient other(server);
    std::thread writer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(120));
        const auto data = pattern(10);
        kvstore_put_chunked(other.get(), "late", data.data(), data.size(), 0);
    });
    std::vector<unsigned char> out;
    EXPECT_EQ(kvstore_get_chunked(cfg.get(), "late", &out), 0);
    writer.join();
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

TEST_F(KvFixture, TwoContendersNeverBothHoldALease) {
    qvtest::NatsClient other(server);
    constexpr int kKeys = 100;
    auto key = [](int i) { return "lease." + std::to_string(i); };
    // Both contenders ask for each key at the same moment.
    auto race = [&](std::vector<int>* a, std::vector<int>* b) {
        std::barrier sync(2);
        auto contender = [&](qv_nats_config* c, const char* owner, std::vector<int>* out) {
            return std::thread([&sync, &key, c, owner, out] {
                for (int i = 0; i < kKeys; ++i) {
                    sync.arrive_and_wait();
                    (*out)[i] =
                        qv_nats_kv_lease(c, QV_KV_CONFIG_BUCKET, key(i).c_str(), owner, 30000);
                }
            });
        };
        a->assign(kKeys, -2);
        b->assign(kKeys, -2);
        std::thread ta = contender(cfg.get(), "a", a);
        std::thread tb = contender(other.get(), "b", b);
        ta.join();
        tb.join();
    };
    auto check_one_holder = [&](const std::vector<int>& a, const std::vector<int>& b) {
        for (int i = 0; i < kKeys; ++i) {
            ASSERT_TRUE((a[i] == 1 && b[i] == 0) || (a[i] == 0 && b[i] == 1))
                << key(i) << ": a=" << a[i] << " b=" << b[i];
            EXPECT_EQ(raw_get(QV_KV_CONFIG_BUCKET, key(i)), a[i] == 1 ? "a" : "b");
        }
    };
    std::vector<int> a;
    std::vector<int> b;
    race(&a, &b);
    check_one_holder(a, b);
    for (int i = 0; i < kKeys; ++i) {
        // The holder renews; the other stays out.
        qv_nats_config* holder = a[i] == 1 ? cfg.get() : other.get();
        qv_nats_config* loser = a[i] == 1 ? other.get() : cfg.get();
        EXPECT_EQ(
            qv_nats_kv_lease(holder, QV_KV_CONFIG_BUCKET, key(i).c_str(), a[i] ? "a" : "b", 30000),
            1);
        EXPECT_EQ(
            qv_nats_kv_lease(loser, QV_KV_CONFIG_BUCKET, key(i).c_str(), a[i] ? "b" : "a", 30000),
            0);
        qv_nats_kv_delete(cfg.get(), QV_KV_CONFIG_BUCKET, key(i).c_str());
    }
    // A released lease can be taken again, still by one contender only.
    race(&a, &b);
    check_one_holder(a, b);
}

TEST_F(KvFixture, StagedPayloadsAreCheckedBeforeAnythingIsReadOrAllocated) {
    auto serving = server.client_config();
    serving->max_staged_payload = 2 * QV_KV_CHUNK_SIZE;
    ASSERT_EQ(qv_nats_init(serving.get()), 0);
    ASSERT_EQ(qv_nats_start_service_handler_threads(serving.get(), "qv-test.staged", counting_probe,
                                                    nullptr, &stop, 2),
              0);
    ASSERT_EQ(natsConnection_Flush(qv_nats_connection(serving.get()).get()), NATS_OK);
    const std::shared_ptr<kvStore> kv = get_kvstore(cfg.get());
    ASSERT_TRUE(kv);
    auto put_raw = [&](const std::string& key, const std::string& value) {
        uint64_t rev = 0;
        EXPECT_EQ(kvStore_PutString(&rev, kv.get(), key.c_str(), value.c_str()), NATS_OK) << key;
    };
    auto request = [&](const std::string& body) {
        std::string err;
        qv::json_ptr reply =
            qv_nats_send_recv_json(cfg.get(), "qv-test.staged", body.c_str(), 10000, 0, &err);
        return reply ? qv_json_to_string(reply.get()) : err;
    };
    auto staged = [&](const std::string& key) {
        return request("{\"Command\": 101, \"_kv_key\": \"" + key + "\"}");
    };
    auto size_of_reply = [](const std::string& reply) -> int64_t {
        qv::json_ptr obj = qv_json_parse(reply);
        json_object* size = nullptr;
        return obj && json_object_object_get_ex(obj.get(), "Size", &size)
                   ? json_object_get_int64(size)
                   : -1;
    };
    const std::string unavailable =
        "{\"ReturnCode\":-1000,\"Error\":\"Scan data unavailable: staged payload could not be "
        "retrieved from the KV store\"}";

    // Manifests whose chunk count cannot hold their size, or holds far more.
    put_raw("huge", "{\"chunks\": 0, \"size\": 2000000000}");
    put_raw("many", "{\"chunks\":3,\"size\":10}");
    put_raw("many-0", "0123456789");
    put_raw("many-1", "");
    put_raw("many-2", "");
    put_raw("few", "{\"chunks\":1,\"size\":600000}");
    put_raw("few-0", "abc");
    put_raw("negative", "{\"chunks\":1,\"size\":-1}");
    put_raw("negative-0", "x");
    // Consistent, but larger than this service takes.
    const auto over = pattern(2 * QV_KV_CHUNK_SIZE + 1);
    ASSERT_EQ(kvstore_put_chunked(cfg.get(), "over", over.data(), over.size(), 0), 0);
    for (const char* key : {"huge", "many", "few", "negative", "over"}) {
        EXPECT_EQ(staged(key), unavailable) << key;
    }
    EXPECT_EQ(s_probe_calls.load(), 0);

    // The largest payload it takes, and a writer's one spare empty chunk, pass.
    const auto largest = pattern(2 * QV_KV_CHUNK_SIZE);
    ASSERT_EQ(kvstore_put_chunked(cfg.get(), "largest", largest.data(), largest.size(), 0), 0);
    EXPECT_EQ(size_of_reply(staged("largest")), static_cast<int64_t>(largest.size()));
    put_raw("spare", "{\"chunks\":2,\"size\":5}");
    put_raw("spare-0", "abcde");
    put_raw("spare-1", "");
    EXPECT_EQ(size_of_reply(staged("spare")), 5);
    EXPECT_EQ(s_probe_calls.load(), 2);

    // Keys that cannot be bucket keys are refused before any lookup.
    const std::string invalid = "{\"ReturnCode\":-1000,\"Error\":\"Invalid staged payload key\"}";
    for (const std::string& key_json :
         {"5"s, "null"s, "{\"k\":1}"s, "[\"k\"]"s, "\"\""s, "\"a b\""s, "\"a\\r\\nb\""s,
          "\"a\\u0000b\""s, "\"*\""s, "\">\""s, "\"a..b\""s, "\"" + std::string(256, 'k') + "\"",
          "\"" + std::string(70000, 'k') + "\""}) {
        EXPECT_EQ(request("{\"Command\": 101, \"_kv_key\": " + key_json + "}"), invalid)
            << key_json.substr(0, 40);
    }
    EXPECT_EQ(s_probe_calls.load(), 2);
    // A well-formed key of the longest length is looked up (and not found).
    EXPECT_EQ(staged(std::string(255, 'k')), unavailable);
    // The serving connection stayed up and goes on answering.
    EXPECT_EQ(natsConnection_Status(qv_nats_connection(serving.get()).get()),
              NATS_CONN_STATUS_CONNECTED);
    EXPECT_EQ(size_of_reply(request("{\"Command\": 101}")), 0);
    EXPECT_EQ(s_probe_calls.load(), 3);
    qv_nats_deinit(serving.get());
}

TEST_F(KvFixture, InvalidKeysAreRefusedBeforeAnythingIsSent) {
    // Every bucket below is bound first: binding talks to the server by itself.
    const auto data = pattern(3);
    ASSERT_EQ(qv_nats_kv_put(cfg.get(), QV_KV_CONFIG_BUCKET, "bound", "v", 0), 0);
    ASSERT_EQ(qv_nats_registry_put(cfg.get(), "bound", "{}", 0), 0);
    ASSERT_EQ(kvstore_put_chunked(cfg.get(), "bound", data.data(), data.size(), 0), 0);
    NatsPeer peer(server.url());
    ASSERT_TRUE(peer.connected());
    peer.watch_everything();

    for (const std::string& key :
         {""s, "a b"s, "*"s, ">"s, "a.*"s, "k>"s, ".a"s, "a."s, "a..b"s, "$k"s, "tab\tkey"s,
          "a\r\nPUB $KV.qv-av-config.x 0\r\n"s, std::string(1025, 'k')}) {
        const char* k = key.c_str();
        std::string value;
        std::vector<unsigned char> out;
        EXPECT_EQ(qv_nats_kv_put(cfg.get(), QV_KV_CONFIG_BUCKET, k, "v", 0), -1);
        EXPECT_EQ(qv_nats_kv_put(cfg.get(), QV_KV_CONFIG_BUCKET, k, "v", 5000), -1);
        EXPECT_EQ(qv_nats_kv_get(cfg.get(), QV_KV_CONFIG_BUCKET, k, &value), -1);
        qv_nats_kv_delete(cfg.get(), QV_KV_CONFIG_BUCKET, k);
        EXPECT_EQ(qv_nats_kv_lease(cfg.get(), QV_KV_CONFIG_BUCKET, k, "me", 5000), -1);
        EXPECT_EQ(qv_nats_registry_put(cfg.get(), k, "{}", 0), -1);
        qv_nats_registry_delete(cfg.get(), k);
        EXPECT_EQ(kvstore_put_chunked(cfg.get(), k, data.data(), data.size(), 0), -1);
        EXPECT_EQ(kvstore_get_chunked(cfg.get(), k, &out), -1);
        kvstore_delete_chunked(cfg.get(), k);
    }
    natsConnection_Publish(qv_nats_connection(cfg.get()).get(), "qv-test.marker", "", 0);
    natsConnection_Flush(qv_nats_connection(cfg.get()).get());
    EXPECT_EQ(peer.watched_until("qv-test.marker", 10s), std::vector<std::string>{});
    EXPECT_EQ(natsConnection_Status(qv_nats_connection(cfg.get()).get()),
              NATS_CONN_STATUS_CONNECTED);

    // The longest key the layer takes goes through.
    const std::string longest(1024, 'k');
    EXPECT_EQ(qv_nats_kv_put(cfg.get(), QV_KV_CONFIG_BUCKET, longest.c_str(), "long", 0), 0);
    EXPECT_EQ(raw_get(QV_KV_CONFIG_BUCKET, longest), "long");
}

TEST_F(KvFixture, TimeToLiveIsTriedAgainOnEveryPutAfterARefusal) {
    // A bucket whose value limit leaves no room for the time-to-live header: a full-size value
    // is refused with it and fits without it.
    kvConfig c;
    kvConfig_Init(&c);
    c.Bucket = "qv-test-ttl";
    c.MaxValueSize = 128;
    kvStore* raw = nullptr;
    ASSERT_EQ(js_CreateKeyValue(&raw, cfg->_js.get(), &c), NATS_OK);
    kvStore_Destroy(raw);
    qvtest::LogCapture log;

    const std::string full(120, 'f');
    EXPECT_EQ(qv_nats_kv_put(cfg.get(), "qv-test-ttl", "full", full.c_str(), 5000), 0);
    EXPECT_EQ(raw_get("qv-test-ttl", "full"), full);
    EXPECT_EQ(stored_header(cfg.get(), "qv-test-ttl", "full", "Nats-TTL"), "<none>");
    EXPECT_TRUE(log.contains("NATS: per-message TTL write for 'full' rejected"));

    // Later puts carry their time-to-live again, in this bucket and in others.
    EXPECT_EQ(qv_nats_kv_put(cfg.get(), "qv-test-ttl", "small", "s", 5000), 0);
    EXPECT_EQ(stored_header(cfg.get(), "qv-test-ttl", "small", "Nats-TTL"), "5000ms");
    EXPECT_EQ(qv_nats_registry_put(cfg.get(), "worker.ttl", "{}", 0), 0);
    EXPECT_EQ(stored_header(cfg.get(), QV_KV_REGISTRY_BUCKET, "worker.ttl", "Nats-TTL"), "15000ms");
    const auto data = pattern(10);
    ASSERT_EQ(kvstore_put_chunked(cfg.get(), "chunked-ttl", data.data(), data.size(), 7000), 0);
    EXPECT_EQ(stored_header(cfg.get(), QV_KV_SCAN_DATA_BUCKET, "chunked-ttl", "Nats-TTL"),
              "7000ms");
    EXPECT_EQ(stored_header(cfg.get(), QV_KV_SCAN_DATA_BUCKET, "chunked-ttl-0", "Nats-TTL"),
              "7000ms");
    EXPECT_EQ(log.count("per-message TTL write"), 1);
}

namespace {

std::atomic<int> s_holding{0};
std::atomic<int> s_most_holding{0};

// Holds its payload for a moment, as a handler that scans it would.
int holding_probe(void* context, qv_const_request_reply_t* rr) {
    const int now = ++s_holding;
    int most = s_most_holding.load();
    while (now > most && !s_most_holding.compare_exchange_weak(most, now)) {
    }
    std::this_thread::sleep_for(100ms);
    s_holding--;
    return payload_probe(context, rr);
}

}  // namespace

// Payloads that would together pass the process's budget are held one after the other; each
// request is still answered.
TEST_F(KvFixture, LargeStagedPayloadsWaitForRoomInsteadOfPilingUp) {
    ASSERT_EQ(qv_nats_start_service_handler_threads(cfg.get(), "qv-test.hold", holding_probe,
                                                    nullptr, &stop, 3),
              0);
    const size_t size = qv_staged_budget::s_limit / 2 + 1;
    const auto data = pattern(size);
    std::vector<std::string> keys(3);
    for (std::string& key : keys) {
        ASSERT_EQ(
            qv_nats_stage_scan_data(cfg.get(), data.data(), data.size(), 30000, &key, nullptr), 0);
    }
    std::vector<int64_t> sizes(keys.size(), -1);
    std::vector<std::thread> requesters;
    for (size_t i = 0; i < keys.size(); ++i) {
        requesters.emplace_back([&, i] { sizes[i] = staged_size("qv-test.hold", keys[i], 30000); });
    }
    for (std::thread& t : requesters) {
        t.join();
    }
    EXPECT_EQ(sizes, std::vector<int64_t>(keys.size(), static_cast<int64_t>(size)));
    EXPECT_EQ(s_most_holding.load(), 1);
    for (const std::string& key : keys) {
        qv_nats_unstage_scan_data(cfg.get(), key.c_str());
    }
}

// Payloads are let in in the order they came: smaller ones that keep arriving, each fitting beside
// those in flight, do not keep a large one out until its wait runs out.
TEST_F(KvFixture, ALargeStagedPayloadIsNotKeptOutBySmallerOnesAfterIt) {
    ASSERT_EQ(qv_nats_start_service_handler_threads(cfg.get(), "qv-test.hold", holding_probe,
                                                    nullptr, &stop, 8),
              0);
    const size_t small_size = qv_staged_budget::s_limit / 6;
    const size_t large_size = qv_staged_budget::s_limit - small_size;
    std::string small;
    std::string large;
    for (auto [key, size] : {std::pair{&small, small_size}, std::pair{&large, large_size}}) {
        const auto data = pattern(size);
        ASSERT_EQ(qv_nats_stage_scan_data(cfg.get(), data.data(), data.size(), 60000, key, nullptr),
                  0);
    }
    std::atomic<bool> done{false};
    std::atomic<int> small_served{0};
    std::vector<std::thread> requesters;
    for (int i = 0; i < 7; ++i) {
        requesters.emplace_back([&] {
            while (!done.load()) {
                if (staged_size("qv-test.hold", small, 60000) == static_cast<int64_t>(small_size)) {
                    small_served++;
                }
            }
        });
    }
    // The small payloads keep the budget partly taken from here on.
    ASSERT_TRUE(qvtest::wait_until([&] { return small_served.load() >= 20; }));
    // Well under the longest wait for room.
    EXPECT_EQ(staged_size("qv-test.hold", large, 20000), static_cast<int64_t>(large_size));
    done = true;
    for (std::thread& t : requesters) {
        t.join();
    }
    qv_nats_unstage_scan_data(cfg.get(), small.c_str());
    qv_nats_unstage_scan_data(cfg.get(), large.c_str());
}
