// The real daemon under messaging stress: a minute without nats-server, and an event for
// thousands of handlers that never answer. Every service keeps answering through all of it.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "daemon_process.h"
#include "nats_peer.h"
#include "nats_server.h"
#include "qv_json.h"
#include "qv_nats_client.h"

using qvtest::DaemonProcess;
using qvtest::NatsPeer;
using qvtest::NatsServer;
using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;
using Client = qvtest::NatsClient;

namespace {

bool ok(const std::string& reply) {
    qv::json_ptr obj = qv_json_parse_object(reply);
    return obj && qv_json_get_optional_string(obj.get(), "ReturnCode") == "0";
}

struct ServiceProbe {
    const char* service;
    std::string request;
    int return_code;
};

// One request per service the daemon offers, with the code its answer carries.
const std::vector<ServiceProbe> kEveryService = {
    {"qv-av-control.ping", "{\"Command\": 3}", 0},
    {"qv-av-worker-control", "{\"Command\": 3}", 0},
    {"qv-av-control", "{\"Command\": 3}", 0},
    {"qv-av-events-dispatch",
     "{\"Command\": 501, \"Component\": \"qv-av-trellix\", \"Event\": {\"Type\": \"x\"}}", 0},
    {"qv-av-log",
     "{\"LogVersion\": 1, \"Timestamp\": \"2024-03-01 12:00:07\", \"Component\": "
     "\"qv-av-control\", \"Hostname\": \"node7\", \"EventID\": \"e-1\", \"realmID\": \"r1\", "
     "\"ErrorLog\": {\"LogData\": {\"Message\": \"back\"}}}",
     0},
    // No EPO log was written.
    {"qv-av-epolog", "{\"Command\": 400}", 301},
};

// Asks the service until its answer comes or `deadline` passes.
bool answers_by(Client& client, const ServiceProbe& probe, clock_type::time_point deadline) {
    for (auto left = deadline - clock_type::now(); left > 0ms;
         left = deadline - clock_type::now()) {
        const auto wait = std::min<std::chrono::milliseconds>(
            std::chrono::duration_cast<std::chrono::milliseconds>(left), 1000ms);
        if (client.rc(probe.service, probe.request, wait) == probe.return_code) {
            return true;
        }
    }
    return false;
}

// A nats-server with the buckets and a daemon for it, its logs in the installation tree.
struct DaemonMessaging : ::testing::Test {
    NatsServer server;
    DaemonProcess d;

    void SetUp() override {
        ASSERT_TRUE(server.start());
        ASSERT_EQ(server.create_buckets(), 0);
        d.use_nats(server.url());
        for (const char* kind : {"SCAN", "EPO", "ERROR"}) {
            d.control_keys[std::string(kind) + "_LOG_BASEDIR"] = d.basedir() + "/logs";
        }
    }
};

}  // namespace

TEST_F(DaemonMessaging, AnswersOnEveryServiceSoonAfterAMinuteWithoutNats) {
    ASSERT_TRUE(d.start_serving()) << d.logs();
    {
        Client client(server);
        for (const ServiceProbe& probe : kEveryService) {
            EXPECT_TRUE(answers_by(client, probe, clock_type::now() + 20s)) << probe.service;
        }
    }

    server.stop();
    ASSERT_TRUE(d.wait_for_log("connection lost"));
    // A minute without nats-server, on the same port and store afterwards; the daemon stays up.
    EXPECT_FALSE(qvtest::wait_until([&] { return !d.running(); }, 60s));
    ASSERT_TRUE(server.start());
    const auto back = clock_type::now();
    Client client(server);
    for (const ServiceProbe& probe : kEveryService) {
        EXPECT_TRUE(answers_by(client, probe, back + 10s)) << probe.service;
    }
    RecordProperty("all_answered_after_ms",
                   static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                        clock_type::now() - back)
                                        .count()));
    // The library itself never gave up on the connection.
    EXPECT_EQ(d.logs().find("NATS: connection closed"), std::string::npos);
    EXPECT_EQ(d.stop(), 0);
}

TEST_F(DaemonMessaging, AnEventForTwoThousandSilentHandlersIsAnsweredInTime) {
    d.control_keys["EVENT_SUBSCRIPTION_KV_ENABLED"] = "0";
    ASSERT_TRUE(d.start_serving()) << d.logs();

    NatsPeer handlers(server.url());
    ASSERT_TRUE(handlers.connected());
    std::vector<std::string> subjects;
    std::vector<NatsPeer::Request> subscriptions;
    for (int i = 0; i < 2000; ++i) {
        subjects.push_back("qv-test.silent." + std::to_string(i));
        subscriptions.emplace_back("qv-av-events-dispatch",
                                   "{\"Command\": 500, \"Service\": \"" + subjects.back() +
                                       "\", \"realmID\": \"*\", \"SID\": \"*\", \"Hostname\": "
                                       "\"*\", \"Modules\": \"qv-test-module\"}");
    }
    handlers.subscribe_silently(subjects);
    for (const std::string& reply : handlers.request_all(subscriptions, 60s)) {
        ASSERT_TRUE(ok(reply)) << reply;
    }

    Client events(server);
    Client pinger(server);
    int event_reply = 1;
    const qvtest::PingTally pings = qvtest::ping_while(
        [&] {
            // Answered within the request's time-out or not at all.
            event_reply = events.rc("qv-av-events-dispatch",
                                    "{\"Command\": 501, \"Component\": \"qv-test-module\", "
                                    "\"Event\": {\"Type\": \"x\"}}",
                                    15s);
        },
        [&] { return pinger.ping(); });
    // No handler answered: the event failed, and said so in time.
    EXPECT_EQ(event_reply, -1000);
    EXPECT_EQ(pings.failed, 0);
    EXPECT_GE(pings.answered, 5);
    EXPECT_EQ(std::ranges::count(handlers.pending(), 0), 0) << "every handler was reached";
    EXPECT_EQ(d.stop(), 0);
}
