#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <latch>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.h"
#include "nats_peer.h"
#include "nats_server.h"
#include "qv_json.h"
#include "qv_nats_client.h"
#include "qv_nats_kv.h"
#include "qv_validate.h"
#include "qv_worker_ping_handler.h"
#include "qvhlp_replies.h"

using qvtest::NatsPeer;
using qvtest::NatsServer;
using namespace std::chrono_literals;
using namespace std::string_literals;

namespace {

// Echoes the request text back as {"ReturnCode": 0, "Echo": <request>}.
int echo_handler(void* /*ctx*/, qv_const_request_reply_t* rr) {
    rr->reply->json_txt = "{\"ReturnCode\": 0, \"Echo\": " + rr->request->json_txt + "}";
    return 0;
}
int silent_handler(void*, qv_const_request_reply_t*) {
    return -5;
}
int seven_handler(void*, qv_const_request_reply_t* rr) {
    rr->reply->json_txt = "{\"ReturnCode\": 7}";
    return 0;
}
int garbage_handler(void*, qv_const_request_reply_t* rr) {
    rr->reply->json_txt = "no json";
    return 0;
}

// Holds every handler call until it is opened, then echoes the request. Gates live as long as the
// process: detached handler threads may still be inside one when their test has ended.
struct Gate {
    std::mutex mutex;
    std::condition_variable cv;
    bool is_open = false;
    std::atomic<int> entered{0};

    static int handle(void* context, qv_const_request_reply_t* rr) {
        auto* gate = static_cast<Gate*>(context);
        gate->entered++;
        {
            std::unique_lock<std::mutex> lock(gate->mutex);
            gate->cv.wait_for(lock, 60s, [gate] { return gate->is_open; });
        }
        return echo_handler(nullptr, rr);
    }
    void open() {
        {
            std::lock_guard<std::mutex> lock(mutex);
            is_open = true;
        }
        cv.notify_all();
    }
};
Gate s_burst_gate;
Gate s_drop_gate;

// Opens a gate when the test leaves, also through a failed assertion.
struct OpenOnExit {
    Gate& gate;
    ~OpenOnExit() { gate.open(); }
};

struct ServiceFixture : ::testing::Test {
    NatsServer server;
    std::unique_ptr<qv_nats_config> config;
    std::vector<std::unique_ptr<qv_nats_config>> others;
    std::atomic<int> stop{0};

    void SetUp() override {
        ASSERT_TRUE(server.start());
        config = server.client_config();
        ASSERT_EQ(qv_nats_init(config.get()), 0);
    }
    void TearDown() override {
        stop = 1;
        for (auto& other : others) {
            qv_nats_deinit(other.get());
        }
        qv_nats_deinit(config.get());
    }
    // Another connection of this process, released with the fixture.
    qv_nats_config* connect_another() {
        others.push_back(server.client_config());
        EXPECT_EQ(qv_nats_init(others.back().get()), 0);
        return others.back().get();
    }
    // Starts the service; the server knows its subscription when this returns.
    int serve(const char* service, qv_service_handler_t handler, void* context = nullptr,
              int threads = 1) {
        const int rc = qv_nats_start_service_handler_threads(config.get(), service, handler,
                                                             context, &stop, threads);
        EXPECT_EQ(natsConnection_FlushTimeout(connection(), 10000), NATS_OK);
        return rc;
    }
    natsConnection* connection() { return qv_nats_connection(config.get()).get(); }
    // The reply to `body` from `from` as compact JSON, or "(none) " and the error.
    static std::string reply_to(qv_nats_config* from, const char* subject, const char* body,
                                uint32_t timeout_ms = 2000) {
        std::string err;
        qv::json_ptr reply = qv_nats_send_recv_json(from, subject, body, timeout_ms, 0, &err);
        return reply ? qv_json_to_string(reply.get()) : "(none) " + err;
    }
};

int ping(qv_nats_config* from, uint32_t timeout_ms = 2000) {
    return qv_nats_simple_request(from, "qv-test.ping", "{\"Command\": 3}", timeout_ms, 0, nullptr);
}

}  // namespace

TEST_F(ServiceFixture, NoRespondersIsRetriedUnderTheBackOffWithoutUsingAttempts) {
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_NE(reply_to(config.get(), "qv-test.nobody", "{}", 5000).find("failed"),
              std::string::npos);
    // The back-off sleeps at least its first three steps before giving up (lower bound only).
    EXPECT_GE(std::chrono::steady_clock::now() - t0, 175ms);

    // A service that appears during the back-off is reached by the same request; in a fan-out a
    // subject with nobody behind it yet neither ends the whole fan-out nor fails at once.
    std::thread late([&] {
        std::this_thread::sleep_for(30ms);
        serve("qv-test.late", seven_handler);
    });
    EXPECT_EQ(qv_nats_simple_request(config.get(), "qv-test.late", "{}", 5000, 0, nullptr), 7);
    late.join();
    ASSERT_EQ(serve("qv-test.zero", echo_handler), 0);
    std::thread later([&] {
        std::this_thread::sleep_for(30ms);
        serve("qv-test.later", seven_handler);
    });
    EXPECT_EQ(qv_nats_simple_request_all(
                  config.get(), {"qv-test.nobody", "qv-test.later", "qv-test.zero"}, "{}", 4000, 3),
              (std::vector<int>{-1, 7, 0}));
    later.join();
}

TEST(NatsConnect, ServiceSurvivesAServerRestart) {
    NatsServer server;
    ASSERT_TRUE(server.start());
    std::atomic<int> stop{0};
    qvtest::NatsClient service(server);
    ASSERT_EQ(qv_nats_start_service_handler_threads(
                  service.get(), "qv-test.ping", qv_worker_ping_request_handler, nullptr, &stop, 1),
              0);
    qvtest::NatsClient requester(server);
    server.stop();
    ASSERT_TRUE(server.start());
    EXPECT_TRUE(qvtest::wait_until([&] { return requester.ping("qv-test.ping", 500ms) == 0; }));
    stop = 1;
}

TEST_F(ServiceFixture, AConnectionTheLibraryClosedIsRebuiltWithItsServices) {
    ASSERT_EQ(server.create_buckets(), 0);
    qvtest::LogCapture log;
    ASSERT_EQ(serve("qv-test.ping", qv_worker_ping_request_handler), 0);
    ASSERT_EQ(serve("qv-test.echo", echo_handler, nullptr, 2), 0);
    qv_nats_config* requester = connect_another();
    ASSERT_EQ(ping(requester), 0);
    ASSERT_EQ(qv_nats_kv_put(config.get(), QV_KV_CONFIG_BUCKET, "k", "before", 0), 0);

    // What the library does when it gives the connection up.
    std::shared_ptr<natsConnection> old = qv_nats_connection(config.get());
    natsConnection_Close(old.get());
    EXPECT_EQ(ping(requester, 500), -1);
    EXPECT_NE(reply_to(config.get(), "qv-test.echo", "{}", 500).find("failed"), std::string::npos);
    EXPECT_EQ(qv_nats_kv_put(config.get(), QV_KV_CONFIG_BUCKET, "k", "closed", 0), -1);
    // Its handler threads wait for a new connection rather than end.
    EXPECT_EQ(config->_handler_threads.load(), 3);

    EXPECT_EQ(qv_nats_check_connection(config.get()), 0);
    natsConnection* fresh = connection();
    ASSERT_NE(fresh, nullptr);
    EXPECT_NE(fresh, old.get());
    old.reset();
    EXPECT_EQ(natsConnection_Status(fresh), NATS_CONN_STATUS_CONNECTED);
    EXPECT_TRUE(log.contains("NATS: new connection to " + server.url() + " in place"));
    EXPECT_TRUE(qvtest::wait_until([&] { return ping(requester, 500) == 0; }));
    EXPECT_EQ(reply_to(requester, "qv-test.echo", "{\"n\":1}"),
              "{\"ReturnCode\":0,\"Echo\":{\"n\":1}}");
    // Requests from the rebuilt connection, and buckets bound anew on it.
    EXPECT_EQ(ping(config.get()), 0);
    std::string value;
    EXPECT_EQ(qv_nats_kv_get(config.get(), QV_KV_CONFIG_BUCKET, "k", &value), 0);
    EXPECT_EQ(value, "before");
    EXPECT_EQ(qv_nats_kv_put(config.get(), QV_KV_CONFIG_BUCKET, "k", "after", 0), 0);
    EXPECT_EQ(qv_nats_kv_get(requester, QV_KV_CONFIG_BUCKET, "k", &value), 0);
    EXPECT_EQ(value, "after");

    // With everything in place a second check changes nothing.
    const std::shared_ptr<jsCtx> js = qv_nats_jetstream(config.get());
    EXPECT_EQ(qv_nats_check_connection(config.get()), 0);
    EXPECT_EQ(connection(), fresh);
    EXPECT_EQ(qv_nats_jetstream(config.get()).get(), js.get());
    EXPECT_EQ(log.count("NATS: new connection"), 1);
    EXPECT_EQ(log.count("renewed"), 1);
    EXPECT_TRUE(log.contains("NATS: 2 service subscription(s) renewed"));
    EXPECT_EQ(config->_handler_threads.load(), 3);

    // Threads waiting on a closed connection still end on the stop flag.
    natsConnection_Close(fresh);
    stop = 1;
    EXPECT_TRUE(qvtest::wait_until([&] { return config->_handler_threads.load() == 0; }));
}

TEST_F(ServiceFixture, AThousandConcurrentRequestsFromFourClientsAreAllAnswered) {
    Gate& gate = s_burst_gate;
    OpenOnExit opener{gate};
    ASSERT_EQ(serve("qv-test.burst", Gate::handle, &gate, 2), 0);
    constexpr int kClients = 4;
    constexpr int kPerClient = 250;
    auto body = [](int c, int i) {
        return "{\"c\":" + std::to_string(c) + ",\"i\":" + std::to_string(i) + "}";
    };
    std::vector<std::unique_ptr<NatsPeer>> peers;
    for (int c = 0; c < kClients; ++c) {
        peers.push_back(std::make_unique<NatsPeer>(server.url()));
        ASSERT_TRUE(peers.back()->connected());
    }
    std::latch sent(kClients);
    std::vector<std::vector<std::string>> replies(kClients);
    std::vector<std::thread> clients;
    for (int c = 0; c < kClients; ++c) {
        clients.emplace_back([&, c] {
            std::vector<NatsPeer::Request> requests;
            for (int i = 0; i < kPerClient; ++i) {
                requests.emplace_back("qv-test.burst", body(c, i));
            }
            NatsPeer::Batch batch = peers[c]->send(requests);
            sent.count_down();
            replies[c] = peers[c]->collect(batch, 30s);
        });
    }
    // All requests have reached the service's connection before any handler may run, so the
    // whole burst waits in the service's queue at once.
    sent.wait();
    EXPECT_EQ(natsConnection_FlushTimeout(connection(), 10000), NATS_OK);
    gate.open();
    for (std::thread& t : clients) {
        t.join();
    }
    int answered = 0;
    for (int c = 0; c < kClients; ++c) {
        for (int i = 0; i < kPerClient; ++i) {
            answered += replies[c][i] == "{\"ReturnCode\": 0, \"Echo\": " + body(c, i) + "}";
        }
    }
    EXPECT_EQ(answered, kClients * kPerClient);
}

TEST_F(ServiceFixture, RequestsDroppedByAServiceThatFallsBehindAreCountedInTheLog) {
    Gate& gate = s_drop_gate;
    OpenOnExit opener{gate};
    qvtest::LogCapture log;
    ASSERT_EQ(serve("qv-test.drops", Gate::handle, &gate), 0);
    NatsPeer peer(server.url());
    ASSERT_TRUE(peer.connected());
    // The only handler thread is held; then more (empty, cheap) messages come than the
    // subscription keeps waiting.
    peer.publish("qv-test.drops", "{}");
    ASSERT_TRUE(qvtest::wait_until([&] { return gate.entered.load() == 1; }));
    for (int i = 0; i < 101000; ++i) {
        ASSERT_EQ(natsConnection_Publish(peer.conn(), "qv-test.drops", nullptr, 0), NATS_OK) << i;
    }
    ASSERT_TRUE(peer.flush());
    ASSERT_EQ(natsConnection_FlushTimeout(connection(), 10000), NATS_OK);
    EXPECT_FALSE(log.contains("dropped"));
    gate.open();

    const std::string line = "NATS: service 'qv-test.drops' dropped ";
    ASSERT_TRUE(log.wait_for(line));
    const std::string text = log.text();
    const long long dropped = std::stoll(text.substr(text.find(line) + line.size()));
    EXPECT_GT(dropped, 0);
    EXPECT_LE(dropped, 101000);
    EXPECT_NE(text.find("request(s) so far: its handler threads fall behind"), std::string::npos);
    // The service answers again once it has worked through its queue.
    EXPECT_EQ(reply_to(connect_another(), "qv-test.drops", "{\"after\":1}", 60000),
              "{\"ReturnCode\":0,\"Echo\":{\"after\":1}}");
    EXPECT_EQ(log.count(line), 1);
}

TEST_F(ServiceFixture, OneRequestToTwoThousandSilentHandlersEndsInTimeAndBlocksNoService) {
    ASSERT_EQ(serve("qv-test.ping", qv_worker_ping_request_handler), 0);
    NatsPeer handlers(server.url());
    ASSERT_TRUE(handlers.connected());
    std::vector<std::string> subjects;
    for (int i = 0; i < 2000; ++i) {
        subjects.push_back("qv-test.silent." + std::to_string(i));
    }
    handlers.subscribe_silently(subjects);
    qv_nats_config* requester = connect_another();

    std::vector<int> results;
    std::chrono::steady_clock::duration spent{};
    // The connection that waits for 2,000 replies keeps serving its own service.
    const qvtest::PingTally pings = qvtest::ping_while(
        [&] {
            const auto t0 = std::chrono::steady_clock::now();
            results =
                qv_nats_simple_request_all(config.get(), subjects, "{\"Command\": 501}", 4000, 3);
            spent = std::chrono::steady_clock::now() - t0;
        },
        [&] { return ping(requester); });
    EXPECT_LT(spent, 15s);
    EXPECT_EQ(results, std::vector<int>(subjects.size(), -1));
    EXPECT_EQ(pings.failed, 0);
    EXPECT_GE(pings.answered, 5);
    // Every handler was asked once per attempt.
    EXPECT_EQ(handlers.pending(), std::vector<int>(subjects.size(), 3));
}

TEST_F(ServiceFixture, FanOutResultsFollowTheSubjectsInOrder) {
    ASSERT_EQ(serve("qv-test.zero", echo_handler), 0);
    ASSERT_EQ(serve("qv-test.seven", seven_handler), 0);
    ASSERT_EQ(serve("qv-test.garbage", garbage_handler), 0);
    ASSERT_EQ(serve("qv-test.silent", silent_handler), 0);
    NatsPeer peer(server.url());
    ASSERT_TRUE(peer.connected());
    peer.subscribe_silently({"qv-test.quiet"});

    EXPECT_TRUE(qv_nats_simple_request_all(config.get(), {}, "{}", 500, 2).empty());
    EXPECT_EQ(qv_nats_simple_request_all(
                  config.get(),
                  {"qv-test.zero", "qv-test.seven", "qv-test.quiet", "qv-test.nobody", "a b",
                   "qv-test.garbage", "qv-test.silent", "qv-test.zero"},
                  "{\"Command\": 3}", 1000, 2),
              (std::vector<int>{0, 7, -1, -1, -1, -1, -5, 0}));
    EXPECT_EQ(peer.pending(), std::vector<int>{2});
}

TEST_F(ServiceFixture, InvalidSubjectsAreRefusedBeforeAnythingIsSent) {
    ASSERT_EQ(serve("qv-test.ping", qv_worker_ping_request_handler), 0);
    NatsPeer peer(server.url());
    ASSERT_TRUE(peer.connected());
    peer.watch_everything();
    for (const std::string& subject :
         {"a b"s, "x.*"s, ">"s, std::string(5000, 's'), ""s, "a..b"s, ".a"s, "a."s, "tab\there"s,
          "qv-test.ping\r\nPUB qv-test.injected 0\r\n"s}) {
        const std::string expected = "NATS: invalid subject '" + qv_escape_for_log(subject) + "'";
        EXPECT_EQ(reply_to(config.get(), subject.c_str(), "{\"Command\": 3}", 500),
                  "(none) " + expected);
        std::string err;
        EXPECT_EQ(qv_nats_simple_request(config.get(), subject.c_str(), "{}", 500, 2, &err), -1);
        EXPECT_EQ(err, expected);
        qv_message_t request;
        request.json_txt = "{}";
        request.data = {1, 2, 3};
        qv_message_t reply;
        qv_const_request_reply_t rr{&request, &reply};
        err.clear();
        EXPECT_FALSE(
            qv_nats_send_recv_json_data(config.get(), subject.c_str(), &rr, 500, 0, 0, &err));
        EXPECT_EQ(err, expected);
        // In a fan-out only the invalid subject fails.
        EXPECT_EQ(qv_nats_simple_request_all(config.get(), {subject, "qv-test.ping"},
                                             "{\"Command\": 3}", 500, 2),
                  (std::vector<int>{-1, 0}));
        EXPECT_EQ(serve(subject.c_str(), echo_handler), -1);
    }
    natsConnection_Publish(connection(), "qv-test.marker", "", 0);
    natsConnection_Flush(connection());
    for (const std::string& subject : peer.watched_until("qv-test.marker", 10s)) {
        EXPECT_TRUE(subject == "qv-test.ping" || subject.rfind("_INBOX.", 0) == 0) << subject;
    }
    EXPECT_EQ(natsConnection_Status(connection()), NATS_CONN_STATUS_CONNECTED);
    EXPECT_EQ(ping(config.get()), 0);
    EXPECT_EQ(config->_handler_threads.load(), 1);
}

TEST_F(ServiceFixture, AConnectionRebuiltWhileTheServerIsAwayServesOnceItIsBack) {
    ASSERT_EQ(serve("qv-test.ping", qv_worker_ping_request_handler), 0);
    natsConnection_Close(connection());
    server.stop();
    // The new connection keeps trying in the background; its services are subscribed already.
    EXPECT_EQ(qv_nats_check_connection(config.get()), 0);
    ASSERT_TRUE(qv_nats_connection(config.get()));
    EXPECT_FALSE(natsConnection_IsClosed(connection()));
    ASSERT_TRUE(server.start());
    qv_nats_config* requester = connect_another();
    EXPECT_TRUE(qvtest::wait_until([&] { return ping(requester, 500) == 0; }));
    EXPECT_EQ(qv_nats_check_connection(config.get()), 0);
    EXPECT_EQ(ping(requester), 0);
    // Closing it on purpose ends its handler threads, without the stop flag.
    qv_nats_deinit(config.get());
    EXPECT_EQ(config->_handler_threads.load(), 0);
}
