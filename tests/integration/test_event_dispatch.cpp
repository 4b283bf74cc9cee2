#include <gtest/gtest.h>

#include <atomic>
#include <ctime>
#include <list>
#include <string>
#include <vector>

#include "log_capture.h"
#include "nats_server.h"
#include "qv-av-control-event-dispatcher.h"
#include "qv_json.h"
#include "qv_nats_client.h"
#include "qv_nats_kv.h"
#include "qvctrl_config.h"

using qvtest::NatsServer;

namespace {

constexpr const char* kBucket = QV_KV_EVENT_SUBSCRIPTIONS_BUCKET;

using qvtest::Recorder;

// A connection of the test's own: it serves recorders and sends requests.
struct Peer {
    std::atomic<int> stop{0};  // outlives the connection's handler threads
    std::list<Recorder> recorders;
    qvtest::NatsClient client;

    explicit Peer(const NatsServer& server) : client(server) {}
    ~Peer() { stop = 1; }
    Recorder& serve(const std::string& subject) {
        Recorder& r = recorders.emplace_back();
        EXPECT_EQ(qv_nats_start_service_handler_threads(client.get(), subject.c_str(),
                                                        Recorder::handle, &r, &stop, 1),
                  0);
        return r;
    }
};

std::string subscribe(const std::string& service, const std::string& modules,
                      const std::string& hosts = "*", const std::string& realms = "*",
                      const std::string& sids = "*") {
    return R"({"Command": 500, "Service": ")" + service + R"(", "realmID": ")" + realms +
           R"(", "SID": ")" + sids + R"(", "Hostname": ")" + hosts + R"(", "Modules": ")" +
           modules + R"("})";
}

// An event; the members given as "" are left out.
std::string event(const std::string& component, const std::string& host = "",
                  const std::string& realm = "", const std::string& sid = "") {
    std::string text = R"({"Command": 501, "Event": {"Type": "detection", "Path": "/srv/a b"})";
    for (const auto& [key, value] : {std::pair{"Component", component},
                                     {"Hostname", host},
                                     {"realmID", realm},
                                     {"SID", sid}}) {
        if (!value.empty()) {
            text += std::string(", \"") + key + "\": \"" + value + "\"";
        }
    }
    return text + "}";
}

// The dispatcher called in this process on a configuration record of its own.
struct EventService : ::testing::Test {
    NatsServer server;
    std::unique_ptr<quorvale_control_config_t> config = qvctrl_config_new();
    std::unique_ptr<Peer> peer;

    void SetUp() override {
        ASSERT_TRUE(server.start());
        ASSERT_EQ(server.create_buckets(), 0);
        config->main_nats_config = server.client_config();
        ASSERT_EQ(qv_nats_init(config->main_nats_config.get()), 0);
        config->event_subscription_ttl_ms = 30000;
        peer = std::make_unique<Peer>(server);
    }
    void TearDown() override {
        peer.reset();
        qv_nats_deinit(config->main_nats_config.get());
    }
    std::string call(const std::string& body, int* rc = nullptr) {
        return qvtest::call_handler(qv_av_control_event_request_handler, config.get(), body, rc);
    }
    std::list<qv_eventhandler_t>& handlers() { return config->event_workers_list; }
    void add_handler(const std::string& service, const std::string& hosts,
                     const std::string& realms = "*", const std::string& sids = "*",
                     const std::string& modules = "*") {
        handlers().push_back({service, realms, sids, hosts, modules, time(nullptr) + 3600});
    }
    int bucket_get(const std::string& key, std::string* value) {
        return qv_nats_kv_get(peer->client.get(), kBucket, key.c_str(), value);
    }
};

const std::string kOK = "{\"ReturnCode\": 0}";

}  // namespace

TEST_F(EventService, LocalSubscriptionsRenewWithoutRescopingAndLapse) {
    Recorder& a = peer->serve("qv-test.a");
    const time_t before = time(nullptr);
    EXPECT_EQ(call(subscribe("qv-test.a", "qv-av-trellix", "h1", "r1", "S1")), kOK);
    const time_t after = time(nullptr);
    ASSERT_EQ(handlers().size(), 1u);
    const qv_eventhandler_t& h = handlers().front();
    EXPECT_EQ(h.service + "|" + h.realm + "|" + h.SID + "|" + h.hostname + "|" + h.modules,
              "qv-test.a|r1|S1|h1|qv-av-trellix");
    EXPECT_GE(h.expiration, before + 30);
    EXPECT_LE(h.expiration, after + 30);

    // A renewal refreshes the lifetime but keeps the first scope.
    handlers().front().expiration = before + 5;
    EXPECT_EQ(call(subscribe("qv-test.a", "qv-av-mimescan", "h1", "r1", "S1")), kOK);
    ASSERT_EQ(handlers().size(), 1u);
    EXPECT_GE(handlers().front().expiration, after + 30);
    EXPECT_EQ(handlers().front().modules, "qv-av-trellix");
    // An event nobody takes is no failure.
    EXPECT_EQ(call(event("qv-av-mimescan", "h1", "r1", "S1")), kOK);
    EXPECT_EQ(a.count(), 0u);
    EXPECT_EQ(call(event("qv-av-trellix", "h1", "r1", "S1")), kOK);
    EXPECT_EQ(a.count(), 1u);
    std::string value;
    EXPECT_EQ(bucket_get("qv-test.a", &value), 1) << "local mode never writes the bucket";

    // Lapsed handlers go before any request is looked at, even an undecodable one.
    add_handler("qv-test.b", "*");
    handlers().front().expiration = time(nullptr) - 1;
    int rc = 0;
    EXPECT_EQ(call("not json", &rc), "{\"ReturnCode\": -1}");
    EXPECT_EQ(rc, -1);
    ASSERT_EQ(handlers().size(), 1u);
    EXPECT_EQ(handlers().front().service, "qv-test.b");
}

TEST_F(EventService, DispatchReachesEveryMatchingScope) {
    Recorder& lists = peer->serve("qv-test.lists");
    Recorder& upper = peer->serve("qv-test.upper");
    Recorder& empty = peer->serve("qv-test.empty");
    Recorder& any = peer->serve("qv-test.any");
    Recorder& narrow = peer->serve("qv-test.narrow");
    add_handler("qv-test.lists", "host1;host2");
    add_handler("qv-test.upper", "HOST2");
    add_handler("qv-test.empty", "");
    add_handler("qv-test.any", "*");
    add_handler("qv-test.narrow", "*", "r1;r2", "S?1", "qv-av-*");
    auto counts = [&] {
        std::string s;
        for (Recorder* r : {&lists, &upper, &empty, &any, &narrow}) {
            s += std::to_string(r->count());
        }
        return s;
    };
    const std::string first = event("qv-av-mimescan", "host2", "r2", "S01");
    EXPECT_EQ(call(first), kOK);
    EXPECT_EQ(counts(), "10011");
    // Forwarded whole: "Command", the event and the filter members as they came.
    qv::json_ptr sent = qv_json_parse(any.received().at(0));
    ASSERT_TRUE(sent);
    EXPECT_TRUE(json_object_equal(sent.get(), qv_json_parse(first).get()));

    EXPECT_EQ(call(event("qv-av-mimescan")), kOK);  // no host, realm or SID
    EXPECT_EQ(counts(), "10121");
    EXPECT_EQ(call(event("other", "host1", "r1", "S11")), kOK);
    EXPECT_EQ(counts(), "20131");
}

TEST_F(EventService, FailedForwardsAreReportedToTheSenderAndSkipNoOtherHandler) {
    Recorder& good = peer->serve("qv-test.good");
    Recorder& refusing = peer->serve("qv-test.refusing");
    refusing.reply_code = -3;
    add_handler("qv-test.unreachable", "*");
    add_handler("qv-test.good", "*");
    const std::string failed =
        "{\"ReturnCode\": -1000, \"Error\": \"Failed to send event to handler\"}";
    // The handler after the unreachable one is still served.
    EXPECT_EQ(call(event("qv-av-trellix")), failed);
    EXPECT_EQ(good.count(), 1u);
    handlers().pop_front();
    EXPECT_EQ(call(event("qv-av-trellix")), kOK);
    add_handler("qv-test.refusing", "*");
    EXPECT_EQ(call(event("qv-av-trellix")), failed);
    EXPECT_EQ(good.count(), 3u);
    EXPECT_EQ(refusing.count(), 1u);
}

TEST_F(EventService, SharedSubscriptionsFollowTheBucket) {
    config->event_subscription_kv_enabled = true;
    const std::string request = subscribe("qv-test.s", "qv-av-trellix", "h1");
    EXPECT_EQ(call(request), kOK);
    EXPECT_TRUE(handlers().empty()) << "only the watcher projects";
    std::string value;
    ASSERT_EQ(bucket_get("qv-test.s", &value), 0);
    EXPECT_EQ(value, qv_json_to_string(qv_json_parse(request).get()));

    ASSERT_EQ(qvctrl_event_sub_reconcile(config.get()), 0);
    ASSERT_EQ(handlers().size(), 1u);
    EXPECT_EQ(handlers().front().hostname, "h1");
    EXPECT_GE(handlers().front().expiration, time(nullptr) + 31536000 - 5);
    // In the bucket a new scope applies at once (unlike a local renewal).
    EXPECT_EQ(call(subscribe("qv-test.s", "qv-av-mimescan", "h2")), kOK);
    ASSERT_EQ(qv_nats_kv_put(peer->client.get(), kBucket, "qv-test.other", "{}", 0), 0);
    ASSERT_EQ(qvctrl_event_sub_reconcile(config.get()), 0);
    ASSERT_EQ(handlers().size(), 2u);
    EXPECT_EQ(handlers().front().modules + "|" + handlers().front().hostname, "qv-av-mimescan|h2");

    // An unreadable value keeps the scope it replaced; a deleted key drops its handler.
    ASSERT_EQ(qv_nats_kv_put(peer->client.get(), kBucket, "qv-test.s", "not json", 0), 0);
    qv_nats_kv_delete(peer->client.get(), kBucket, "qv-test.other");
    ASSERT_EQ(qvctrl_event_sub_reconcile(config.get()), 0);
    ASSERT_EQ(handlers().size(), 1u);
    EXPECT_EQ(handlers().front().hostname, "h2");

    // Without the server nothing can be read, so nothing is dropped.
    qv_nats_kv_delete(peer->client.get(), kBucket, "qv-test.s");
    server.stop();
    EXPECT_EQ(qvctrl_event_sub_reconcile(config.get()), -1);
    EXPECT_EQ(handlers().size(), 1u);
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(qvtest::wait_until([&] { return qvctrl_event_sub_reconcile(config.get()) == 0; },
                                   std::chrono::seconds(30)));
    EXPECT_TRUE(handlers().empty());

    // Projected handlers do not lapse on their own in shared mode.
    add_handler("qv-test.old", "*");
    handlers().front().expiration = time(nullptr) - 10;
    call(event("x"));
    EXPECT_EQ(handlers().size(), 1u);
}
