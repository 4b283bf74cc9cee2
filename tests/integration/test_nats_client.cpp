#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <latch>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "nats_peer.h"
#include "nats_server.h"
#include "qv_json.h"
#include "qv_nats_client.h"
#include "qv_nats_kv.h"
#include "qv_validate.h"
#include "qv_worker_ping_handler.h"

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

    static int handle(void* context, qv_const_request_reply_t* rr) {
        auto* gate = static_cast<Gate*>(context);
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
    // A service that appears during the back-off is reached by the same request.
    std::thread late([&] {
        std::this_thread::sleep_for(30ms);
        serve("qv-test.late", seven_handler);
    });
    EXPECT_EQ(qv_nats_simple_request(config.get(), "qv-test.late", "{}", 5000, 0, nullptr), 7);
    late.join();
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

TEST_F(ServiceFixture, FanOutResultsFollowTheSubjectsInOrder) {
    ASSERT_EQ(serve("qv-test.zero", echo_handler), 0);
    ASSERT_EQ(serve("qv-test.seven", seven_handler), 0);
    ASSERT_EQ(serve("qv-test.garbage", garbage_handler), 0);
    ASSERT_EQ(serve("qv-test.silent", silent_handler), 0);
    NatsPeer peer(server.url());
    ASSERT_TRUE(peer.connected());
    peer.subscribe_silently({"qv-test.quiet"});

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
    for (const std::string& subject : {"x.*"s, std::string(5000, 's'), ""s, "a..b"s,
                                       "qv-test.ping\r\nPUB qv-test.injected 0\r\n"s}) {
        const std::string expected = "NATS: invalid subject '" + qv_escape_for_log(subject) + "'";
        EXPECT_EQ(reply_to(config.get(), subject.c_str(), "{\"Command\": 3}", 500),
                  "(none) " + expected);
        qv_message_t request;
        request.json_txt = "{}";
        request.data = {1, 2, 3};
        qv_message_t reply;
        qv_const_request_reply_t rr{&request, &reply};
        std::string err;
        EXPECT_FALSE(
            qv_nats_send_recv_json_data(config.get(), subject.c_str(), &rr, 500, 0, 0, &err));
        EXPECT_EQ(err, expected);
        EXPECT_EQ(serve(subject.c_str(), echo_handler), -1);
    }
    natsConnection_Publish(connection(), "qv-test.marker", "", 0);
    natsConnection_Flush(connection());
    for (const std::string& subject : peer.watched_until("qv-test.marker", 10s)) {
        EXPECT_TRUE(subject == "qv-test.ping" || subject.rfind("_INBOX.", 0) == 0) << subject;
    }
    EXPECT_EQ(ping(config.get()), 0);
    EXPECT_EQ(config->_handler_threads.load(), 1);
}

TEST_F(ServiceFixture, AConnectionRebuiltWhileTheServerIsAwayServesOnceItIsBack) {
    ASSERT_EQ(server.create_buckets(), 0);
    ASSERT_EQ(serve("qv-test.ping", qv_worker_ping_request_handler), 0);
    ASSERT_EQ(serve("qv-test.echo", echo_handler, nullptr, 2), 0);
    // Binds the bucket on the first connection.
    ASSERT_EQ(qv_nats_kv_put(config.get(), QV_KV_CONFIG_BUCKET, "k", "before", 0), 0);

    // What the library does when it gives the connection up in a long outage.
    std::shared_ptr<natsConnection> old = qv_nats_connection(config.get());
    natsConnection_Close(old.get());
    server.stop();
    // Its handler threads wait for a new connection rather than end.
    EXPECT_EQ(config->_handler_threads.load(), 3);
    // The new connection keeps trying in the background; its services are subscribed already.
    EXPECT_EQ(qv_nats_check_connection(config.get()), 0);
    natsConnection* fresh = connection();
    ASSERT_NE(fresh, nullptr);
    EXPECT_NE(fresh, old.get());
    old.reset();
    EXPECT_FALSE(natsConnection_IsClosed(fresh));

    ASSERT_TRUE(server.start());
    qv_nats_config* requester = connect_another();
    EXPECT_TRUE(qvtest::wait_until([&] { return ping(requester, 500) == 0; }));
    EXPECT_EQ(reply_to(requester, "qv-test.echo", "{\"n\":1}"),
              "{\"ReturnCode\":0,\"Echo\":{\"n\":1}}");
    // Requests from the rebuilt connection, and buckets bound anew on it.
    EXPECT_EQ(ping(config.get()), 0);
    EXPECT_EQ(qv_nats_kv_put(config.get(), QV_KV_CONFIG_BUCKET, "k", "after", 0), 0);
    std::string value;
    EXPECT_EQ(qv_nats_kv_get(requester, QV_KV_CONFIG_BUCKET, "k", &value), 0);
    EXPECT_EQ(value, "after");

    // With everything in place a further check changes nothing.
    const std::shared_ptr<jsCtx> js = qv_nats_jetstream(config.get());
    EXPECT_EQ(qv_nats_check_connection(config.get()), 0);
    EXPECT_EQ(connection(), fresh);
    EXPECT_EQ(qv_nats_jetstream(config.get()).get(), js.get());
    EXPECT_EQ(config->_handler_threads.load(), 3);
    // Closing it on purpose ends its handler threads, without the stop flag.
    qv_nats_deinit(config.get());
    EXPECT_EQ(config->_handler_threads.load(), 0);
}
