// The real daemon under messaging stress: a minute without nats-server, bursts of concurrent
// requests, and an event for thousands of handlers that never answer. Every service keeps
// answering through all of it.
#include <gtest/gtest.h>

#include <chrono>
#include <latch>
#include <string>
#include <thread>
#include <utility>
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

namespace {

using Client = qvtest::NatsClient;

// The "ReturnCode" of a reply text; -1 when there is none.
int return_code(const std::string& reply) {
    qv::json_ptr obj = qv_json_parse(reply);
    json_object* rc = nullptr;
    return obj && json_object_is_type(obj.get(), json_type_object) &&
                   json_object_object_get_ex(obj.get(), "ReturnCode", &rc)
               ? json_object_get_int(rc)
               : -1;
}

struct ServiceProbe {
    const char* service;
    std::string request;
    int return_code;
};

// One request per service the daemon offers, with the code its answer carries.
const std::vector<ServiceProbe>& every_service() {
    static const std::vector<ServiceProbe> probes = {
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
    return probes;
}

// Asks the service until its answer comes or `deadline` passes.
bool answers_by(Client& client, const ServiceProbe& probe, clock_type::time_point deadline) {
    while (true) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock_type::now());
        if (left <= 0ms) {
            return false;
        }
        if (client.rc(probe.service, probe.request,
                      std::min<std::chrono::milliseconds>(left, 1000ms)) == probe.return_code) {
            return true;
        }
    }
}

// A nats-server with the buckets and the daemon on it, its logs in the installation tree.
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
    // Starts the daemon with `extra` control keys and waits for its main loop.
    void start_daemon(const DaemonProcess::Keys& extra = {}) {
        for (const auto& [key, value] : extra) {
            d.control_keys[key] = value;
        }
        ASSERT_TRUE(d.start_serving()) << d.logs();
    }
};

}  // namespace

TEST_F(DaemonMessaging, AnswersOnEveryServiceSoonAfterAMinuteWithoutNats) {
    ASSERT_NO_FATAL_FAILURE(start_daemon());
    {
        Client client(server);
        for (const ServiceProbe& probe : every_service()) {
            EXPECT_TRUE(answers_by(client, probe, clock_type::now() + 20s)) << probe.service;
        }
    }

    server.stop();
    ASSERT_TRUE(d.wait_for_log("connection lost"));
    // A minute without nats-server, on the same port and store afterwards. The daemon stays up
    // all along.
    EXPECT_FALSE(qvtest::wait_until([&] { return !d.running(); }, 60s));
    ASSERT_TRUE(server.start());
    const auto back = clock_type::now();
    Client client(server);
    for (const ServiceProbe& probe : every_service()) {
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

TEST_F(DaemonMessaging, AThousandConcurrentPingsFromFourClientsAreAllAnswered) {
    ASSERT_NO_FATAL_FAILURE(start_daemon());
    {
        Client client(server);
        ASSERT_TRUE(qvtest::wait_until([&] { return client.ping() == 0; }));
    }
    constexpr int kClients = 4;
    constexpr int kPerClient = 250;
    for (const char* service : {"qv-av-control.ping", "qv-av-worker-control"}) {
        std::vector<std::unique_ptr<NatsPeer>> peers;
        for (int c = 0; c < kClients; ++c) {
            peers.push_back(std::make_unique<NatsPeer>(server.url()));
            ASSERT_TRUE(peers.back()->connected());
        }
        const std::vector<NatsPeer::Request> requests(kPerClient, {service, "{\"Command\": 3}"});
        std::latch ready(kClients);
        std::vector<std::vector<std::string>> replies(kClients);
        std::vector<std::thread> clients;
        for (int c = 0; c < kClients; ++c) {
            clients.emplace_back([&, c] {
                ready.arrive_and_wait();
                replies[c] = peers[c]->request_all(requests, 15s);
            });
        }
        for (std::thread& t : clients) {
            t.join();
        }
        int answered = 0;
        for (const auto& client_replies : replies) {
            for (const std::string& reply : client_replies) {
                answered += return_code(reply) == 0 ? 1 : 0;
            }
        }
        EXPECT_EQ(answered, kClients * kPerClient) << service;
    }
    EXPECT_EQ(d.stop(), 0);
}

TEST_F(DaemonMessaging, AnEventForTwoThousandSilentHandlersIsAnsweredInTime) {
    ASSERT_NO_FATAL_FAILURE(start_daemon({{"EVENT_SUBSCRIPTION_KV_ENABLED", "0"}}));

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
        ASSERT_EQ(return_code(reply), 0) << reply;
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
    int reached = 0;
    for (int n : handlers.pending()) {
        reached += n > 0 ? 1 : 0;
    }
    EXPECT_EQ(reached, 2000);
    EXPECT_EQ(d.stop(), 0);
}
