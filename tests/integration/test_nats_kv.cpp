#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
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

// A member of a reply object as text ("" without one) or as a number (-1 without one).
std::string text(json_object* object, const char* key) {
    json_object* m = nullptr;
    return json_object_object_get_ex(object, key, &m) ? json_object_get_string(m) : "";
}
int64_t number(json_object* object, const char* key) {
    json_object* m = nullptr;
    return json_object_object_get_ex(object, key, &m) ? json_object_get_int64(m) : -1;
}

// Answers with the size of the staged payload it received, the key it came under, and whether
// the request text still showed "_kv_key".
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
    // Entries in the scan-data bucket as they are, manifests and chunks alike: key, value, key...
    void put_scan_data(const std::vector<const char*>& entries) {
        for (size_t i = 0; i + 1 < entries.size(); i += 2) {
            EXPECT_EQ(
                qv_nats_kv_put(cfg.get(), QV_KV_SCAN_DATA_BUCKET, entries[i], entries[i + 1], 0), 0)
                << entries[i];
        }
    }
    int serve(const char* service, qv_service_handler_t handler, int threads) {
        return qv_nats_start_service_handler_threads(cfg.get(), service, handler, nullptr, &stop,
                                                     threads);
    }
    std::string stage(size_t size, int64_t timeout_ms) {
        const auto data = pattern(size);
        std::string key;
        EXPECT_EQ(qv_nats_stage_scan_data(cfg.get(), data.data(), size, timeout_ms, &key, nullptr),
                  0);
        return key;
    }
    // The reply of a payload probe serving `service` to a request that carries `data`, or names
    // the payload staged under `key`.
    qv::json_ptr probe(const char* service, std::vector<unsigned char> data,
                       const std::string& key = "", uint64_t timeout_ms = 5000) {
        qv_message_t request;
        request.json_txt = "{\"Command\": 101}";
        request.data = std::move(data);
        request.staged_data_key = key;
        qv_message_t reply;
        qv_const_request_reply_t rr{&request, &reply};
        return qv_nats_send_recv_json_data(cfg.get(), service, &rr, timeout_ms, 0, 0, nullptr);
    }
    int64_t staged_size(const char* service, const std::string& key, uint64_t timeout_ms) {
        return number(probe(service, {}, key, timeout_ms).get(), "Size");
    }
};

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

TEST_F(KvFixture, ReadsWaitForALateKey) {
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
}

TEST_F(KvFixture, StagedRequestsReachTheHandlerAndAreCleanedUp) {
    ASSERT_EQ(serve("qv-test.probe", payload_probe, 2), 0);
    for (size_t size : {size_t{1}, QV_KV_CHUNK_SIZE + 1}) {
        qv::json_ptr out = probe("qv-test.probe", pattern(size));
        ASSERT_TRUE(out);
        EXPECT_EQ(number(out.get(), "Size"), static_cast<int64_t>(size));
        EXPECT_EQ(text(out.get(), "Leaked"), "false");
        const std::string key = text(out.get(), "Key");
        EXPECT_EQ(key.rfind("scan-", 0), 0u);
        // The requester deleted what it staged.
        EXPECT_EQ(raw_get(QV_KV_SCAN_DATA_BUCKET, key), "<1>");
    }
    // A key the caller staged itself is passed through and left in place.
    const std::string key = stage(100, 2000);
    EXPECT_EQ(staged_size("qv-test.probe", key, 5000), 100);
    EXPECT_NE(raw_get(QV_KV_SCAN_DATA_BUCKET, key), "<1>");
}

TEST_F(KvFixture, TwoContendersNeverBothHoldALease) {
    qvtest::NatsClient other(server);
    constexpr int kKeys = 100;
    auto key = [](int i) { return "lease." + std::to_string(i); };
    qv_nats_config* const contenders[] = {cfg.get(), other.get()};
    const char* const owners[] = {"a", "b"};
    auto lease = [&](int c, int i) {
        return qv_nats_kv_lease(contenders[c], QV_KV_CONFIG_BUCKET, key(i).c_str(), owners[c],
                                30000);
    };
    // Both contenders ask for each key at the same moment; the holder of each key, by index.
    auto race = [&] {
        int got[2][kKeys] = {};
        std::barrier sync(2);
        auto contend = [&](int c) {
            for (int i = 0; i < kKeys; ++i) {
                sync.arrive_and_wait();
                got[c][i] = lease(c, i);
            }
        };
        std::thread second(contend, 1);
        contend(0);
        second.join();
        std::vector<int> holder(kKeys);
        for (int i = 0; i < kKeys; ++i) {
            EXPECT_TRUE((got[0][i] == 1 && got[1][i] == 0) || (got[0][i] == 0 && got[1][i] == 1))
                << key(i) << ": a=" << got[0][i] << " b=" << got[1][i];
            holder[i] = got[0][i] == 1 ? 0 : 1;
            EXPECT_EQ(raw_get(QV_KV_CONFIG_BUCKET, key(i)), owners[holder[i]]);
        }
        return holder;
    };
    const std::vector<int> holder = race();
    for (int i = 0; i < kKeys; ++i) {
        // The holder renews; the other stays out.
        EXPECT_EQ(lease(holder[i], i), 1);
        EXPECT_EQ(lease(1 - holder[i], i), 0);
        qv_nats_kv_delete(cfg.get(), QV_KV_CONFIG_BUCKET, key(i).c_str());
    }
    // A released lease can be taken again, still by one contender only.
    race();
}

TEST_F(KvFixture, StagedPayloadsAreCheckedBeforeAnythingIsReadOrAllocated) {
    auto serving = server.client_config();
    serving->max_staged_payload = 2 * QV_KV_CHUNK_SIZE;
    ASSERT_EQ(qv_nats_init(serving.get()), 0);
    ASSERT_EQ(qv_nats_start_service_handler_threads(serving.get(), "qv-test.staged", counting_probe,
                                                    nullptr, &stop, 2),
              0);
    ASSERT_EQ(natsConnection_Flush(qv_nats_connection(serving.get()).get()), NATS_OK);
    // The reply to a request naming `key_json` as its staged payload (none when empty).
    auto staged = [&](const std::string& key_json) {
        const std::string body =
            "{\"Command\": 101" + (key_json.empty() ? "" : ", \"_kv_key\": " + key_json) + "}";
        std::string err;
        qv::json_ptr reply =
            qv_nats_send_recv_json(cfg.get(), "qv-test.staged", body.c_str(), 10000, 0, &err);
        return reply ? qv_json_to_string(reply.get()) : err;
    };
    auto size_of = [](const std::string& reply) {
        return number(qv_json_parse(reply).get(), "Size");
    };
    const std::string unavailable =
        "{\"ReturnCode\":-1000,\"Error\":\"Scan data unavailable: staged payload could not be "
        "retrieved from the KV store\"}";

    // Manifests that do not parse, whose chunk count cannot hold their size or holds far more,
    // that lack a chunk, and one consistent but larger than this service takes.
    put_scan_data({"corrupt",   "{chunks",
                   "huge",      "{\"chunks\": 0, \"size\": 2000000000}",
                   "many",      "{\"chunks\":3,\"size\":10}",
                   "negative",  "{\"chunks\":1,\"size\":-1}",
                   "holes",     "{\"chunks\":2,\"size\":10}",
                   "holes-0",   "abcde",
                   "spare",     "{\"chunks\":2,\"size\":5}",
                   "spare-0",   "abcde",
                   "spare-1",   "",
                   "overrun",   "{\"chunks\":2,\"size\":4}",
                   "overrun-0", "ab",
                   "overrun-1", "cdef"});
    const auto over = pattern(2 * QV_KV_CHUNK_SIZE + 1);
    ASSERT_EQ(kvstore_put_chunked(cfg.get(), "over", over.data(), over.size(), 0), 0);
    for (const char* key : {"corrupt", "huge", "many", "negative", "holes", "over"}) {
        EXPECT_EQ(staged("\""s + key + "\""), unavailable) << key;
    }
    EXPECT_EQ(s_probe_calls.load(), 0);
    // The largest payload it takes and a writer's one spare empty chunk pass; a chunk that would
    // run past the promised size is left out rather than written beyond the buffer.
    const auto largest = pattern(2 * QV_KV_CHUNK_SIZE);
    ASSERT_EQ(kvstore_put_chunked(cfg.get(), "largest", largest.data(), largest.size(), 0), 0);
    EXPECT_EQ(size_of(staged("\"largest\"")), static_cast<int64_t>(largest.size()));
    EXPECT_EQ(size_of(staged("\"spare\"")), 5);
    EXPECT_EQ(size_of(staged("\"overrun\"")), 4);
    EXPECT_EQ(s_probe_calls.load(), 3);

    // Keys that cannot be bucket keys are refused before any lookup.
    const std::string invalid = "{\"ReturnCode\":-1000,\"Error\":\"Invalid staged payload key\"}";
    for (const std::string& key_json : {"5"s, "null"s, "{\"k\":1}"s, "\"\""s, "\"a\\r\\nb\""s,
                                        "\"*\""s, "\"" + std::string(70000, 'k') + "\""}) {
        EXPECT_EQ(staged(key_json), invalid) << key_json.substr(0, 40);
    }
    // The serving connection stayed up and goes on answering.
    EXPECT_EQ(size_of(staged("")), 0);
    EXPECT_EQ(s_probe_calls.load(), 4);
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

    for (const std::string& key : {""s, "a b"s, ">"s, "a..b"s, "a\r\nPUB $KV.qv-av-config.x 0\r\n"s,
                                   std::string(1025, 'k')}) {
        const char* k = key.c_str();
        std::vector<unsigned char> out;
        EXPECT_EQ(qv_nats_kv_put(cfg.get(), QV_KV_CONFIG_BUCKET, k, "v", 5000), -1);
        EXPECT_EQ(raw_get(QV_KV_CONFIG_BUCKET, k), "<-1>");
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
    // The longest key the layer takes goes through, on the same connection.
    const std::string longest(1024, 'k');
    EXPECT_EQ(qv_nats_kv_put(cfg.get(), QV_KV_CONFIG_BUCKET, longest.c_str(), "long", 0), 0);
    EXPECT_EQ(raw_get(QV_KV_CONFIG_BUCKET, longest), "long");
}

// Payloads that would together pass the process's budget are held one after the other; each
// request is still answered.
TEST_F(KvFixture, LargeStagedPayloadsWaitForRoomInsteadOfPilingUp) {
    ASSERT_EQ(serve("qv-test.hold", holding_probe, 3), 0);
    const size_t size = qv_staged_budget::s_limit / 2 + 1;
    const std::vector<std::string> keys = {stage(size, 30000), stage(size, 30000),
                                           stage(size, 30000)};
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

    // Later puts carry their time-to-live again, in this bucket and in others; registry entries
    // always have one (at least a second, with a tenth more than the caller's timeout).
    EXPECT_EQ(qv_nats_kv_put(cfg.get(), "qv-test-ttl", "small", "s", 5000), 0);
    EXPECT_EQ(stored_header(cfg.get(), "qv-test-ttl", "small", "Nats-TTL"), "5000ms");
    EXPECT_EQ(qv_nats_registry_put(cfg.get(), "worker.ttl", "{}", 0), 0);
    EXPECT_EQ(stored_header(cfg.get(), QV_KV_REGISTRY_BUCKET, "worker.ttl", "Nats-TTL"), "15000ms");
    EXPECT_EQ(qv_kv_ttl_ms_for(100), 1000);
    EXPECT_EQ(qv_kv_ttl_ms_for(5000), 5500);
    const auto data = pattern(10);
    ASSERT_EQ(kvstore_put_chunked(cfg.get(), "chunked-ttl", data.data(), data.size(), 7000), 0);
    for (const char* key : {"chunked-ttl", "chunked-ttl-0"}) {
        EXPECT_EQ(stored_header(cfg.get(), QV_KV_SCAN_DATA_BUCKET, key, "Nats-TTL"), "7000ms");
    }
    EXPECT_EQ(log.count("per-message TTL write"), 1);
    qv_nats_registry_delete(cfg.get(), "worker.ttl");
    EXPECT_EQ(raw_get(QV_KV_REGISTRY_BUCKET, "worker.ttl"), "<1>");
}
