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

namespace {

// Echoes the request text back as {"ReturnCode": 0, "Echo": <request>}; counts its calls.
std::atomic<int> s_echo_calls{0};
int echo_handler(void* /*ctx*/, qv_const_request_reply_t* rr) {
    s_echo_calls++;
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
        rr->reply->json_txt = "{\"ReturnCode\": 0, \"Echo\": " + rr->request->json_txt + "}";
        return 0;
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
        EXPECT_EQ(natsConnection_FlushTimeout(qv_nats_connection(config.get()).get(), 10000),
                  NATS_OK);
        return rc;
    }
};

int ping(qv_nats_config* from, uint32_t timeout_ms = 2000) {
    return qv_nats_simple_request(from, "qv-test.ping", "{\"Command\": 3}", timeout_ms, 0, nullptr);
}

}  // namespace

TEST_F(ServiceFixture, HandlersAnswerWithTheirReplyOrTheGenericOneAndEndOnTheStopFlag) {
    ASSERT_EQ(serve("qv-test.ping", qv_worker_ping_request_handler, nullptr, 2), 0);
    ASSERT_EQ(serve("qv-test.echo", echo_handler, nullptr, 3), 0);
    ASSERT_EQ(serve("qv-test.silent", silent_handler), 0);
    EXPECT_EQ(config->_handler_threads.load(), 6);
    std::string err;
    // A plain request returns the "ReturnCode" of its reply.
    EXPECT_EQ(
        qv_nats_simple_request(config.get(), "qv-test.ping", "{\"Command\": 3}", 2000, 0, &err), 0);
    EXPECT_EQ(
        qv_nats_simple_request(config.get(), "qv-test.ping", "{\"Command\": 4}", 2000, 0, &err),
        -1);
    const auto reply_to = [&](const char* subject, const char* body) -> std::string {
        qv::json_ptr reply = qv_nats_send_recv_json(config.get(), subject, body, 2000, 0, &err);
        return reply ? qv_json_to_string(reply.get()) : "(none) " + err;
    };
    EXPECT_EQ(reply_to("qv-test.ping", "garbage"), "{\"ReturnCode\":-1}");
    // The handler sees the body unchanged.
    EXPECT_EQ(reply_to("qv-test.echo", "{\"a\":[1,2]}"),
              "{\"ReturnCode\":0,\"Echo\":{\"a\":[1,2]}}");
    // A body that is not JSON still reaches the handler; the reply then is not JSON either.
    EXPECT_EQ(reply_to("qv-test.echo", "not json").rfind("(none) ", 0), 0u);
    // A handler that sets no reply still answers: the generic reply carries its status.
    EXPECT_EQ(reply_to("qv-test.silent", "{}"), "{\"ReturnCode\":-5}");

    EXPECT_FALSE(qv_nats_send_recv_json(config.get(), nullptr, "{}", 100, 0, &err));
    EXPECT_EQ(err, "NATS: invalid parameters for send_recv_json");
    EXPECT_EQ(
        qv_nats_start_service_handler_threads(config.get(), "x", echo_handler, nullptr, &stop, 0),
        -1);
    qv_nats_config empty;
    EXPECT_EQ(qv_nats_init(&empty), -1);
    EXPECT_EQ(qv_nats_simple_request(&empty, "x", "{}", 100, 0, nullptr), -1);

    stop = 1;
    EXPECT_TRUE(qvtest::wait_until([&] { return config->_handler_threads.load() == 0; }));
}

TEST_F(ServiceFixture, NoRespondersIsRetriedUnderTheBackOffWithoutUsingAttempts) {
    std::string err;
    const auto t0 = std::chrono::steady_clock::now();
    qv::json_ptr reply =
        qv_nats_send_recv_json(config.get(), "qv-test.nobody", "{}", 5000, 0, &err);
    const auto spent = std::chrono::steady_clock::now() - t0;
    EXPECT_FALSE(reply);
    EXPECT_NE(err.find("failed"), std::string::npos) << err;
    // The back-off sleeps at least its first three steps before giving up (lower bound only).
    EXPECT_GE(spent, std::chrono::milliseconds(175));

    // A service that appears during the back-off is reached by the same request.
    std::thread late([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        qv_nats_start_service_handler_threads(config.get(), "qv-test.late", echo_handler, nullptr,
                                              &stop, 1);
    });
    reply = qv_nats_send_recv_json(config.get(), "qv-test.late", "{}", 5000, 0, &err);
    late.join();
    EXPECT_TRUE(reply) << err;

    // In a fan-out a subject with nobody behind it yet neither ends the whole fan-out nor fails
    // at once: it is retried likewise, and reached once its service is up.
    ASSERT_EQ(serve("qv-test.zero", echo_handler), 0);
    std::thread later([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        serve("qv-test.later", seven_handler);
    });
    const std::vector<int> results = qv_nats_simple_request_all(
        config.get(), {"qv-test.nobody", "qv-test.later", "qv-test.zero"}, "{}", 4000, 3);
    later.join();
    EXPECT_EQ(results, (std::vector<int>{-1, 7, 0}));
}

TEST(NatsConnect, TlsWithUsersAndWrongPassword) {
    NatsServer server({.tls = true, .users = {{"control@local", "pw1"}}});
    ASSERT_TRUE(server.start());

    std::atomic<int> stop{0};  // outlives the connection's handler threads
    qvtest::NatsClient good(server, "control@local", "pw1");
    ASSERT_EQ(qv_nats_start_service_handler_threads(
                  good.get(), "qv-test.ping", qv_worker_ping_request_handler, nullptr, &stop, 1),
              0);
    EXPECT_EQ(good.ping("qv-test.ping"), 0);
    EXPECT_TRUE(good.get()->_js);

    // Bad credentials are a permanent failure: no retries, -1.
    auto bad = server.client_config();
    bad->user = "control@local";
    bad->password = "wrong";
    EXPECT_EQ(qv_nats_init(bad.get()), -1);
    EXPECT_FALSE(bad->_conn);

    // An unreadable CA file fails before connecting.
    bad->password = "pw1";
    bad->cert_path = "/nonexistent/ca.pem";
    EXPECT_EQ(qv_nats_init(bad.get()), -1);
    stop = 1;
}

TEST(NatsConnect, ServiceSurvivesAServerRestart) {
    NatsServer server;
    ASSERT_TRUE(server.start());
    auto config = server.client_config();
    ASSERT_EQ(qv_nats_init(config.get()), 0);
    std::atomic<int> stop{0};
    ASSERT_EQ(qv_nats_start_service_handler_threads(
                  config.get(), "qv-test.ping", qv_worker_ping_request_handler, nullptr, &stop, 1),
              0);
    qvtest::NatsClient requester(server);
    server.stop();
    ASSERT_TRUE(server.start());
    EXPECT_TRUE(qvtest::wait_until([&] { return requester.ping("qv-test.ping", 500ms) == 0; }));
    stop = 1;
    qv_nats_deinit(config.get());
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
    std::string err;
    EXPECT_FALSE(qv_nats_send_recv_json(config.get(), "qv-test.echo", "{}", 500, 0, &err));
    EXPECT_NE(err.find("failed"), std::string::npos) << err;
    EXPECT_EQ(qv_nats_kv_put(config.get(), QV_KV_CONFIG_BUCKET, "k", "closed", 0), -1);
    // Its handler threads wait for a new connection rather than end.
    EXPECT_EQ(config->_handler_threads.load(), 3);

    EXPECT_EQ(qv_nats_check_connection(config.get()), 0);
    const std::shared_ptr<natsConnection> fresh = qv_nats_connection(config.get());
    ASSERT_TRUE(fresh);
    EXPECT_NE(fresh.get(), old.get());
    old.reset();
    EXPECT_EQ(natsConnection_Status(fresh.get()), NATS_CONN_STATUS_CONNECTED);
    EXPECT_TRUE(log.contains("NATS: new connection to " + server.url() + " in place"));
    EXPECT_TRUE(qvtest::wait_until([&] { return ping(requester, 500) == 0; }));
    qv::json_ptr reply =
        qv_nats_send_recv_json(requester, "qv-test.echo", "{\"n\":1}", 2000, 0, &err);
    ASSERT_TRUE(reply) << err;
    EXPECT_EQ(qv_json_to_string(reply.get()), "{\"ReturnCode\":0,\"Echo\":{\"n\":1}}");
    // Requests from the rebuilt connection, and buckets bound anew on it.
    EXPECT_EQ(
        qv_nats_simple_request(config.get(), "qv-test.ping", "{\"Command\": 3}", 2000, 0, &err), 0)
        << err;
    std::string value;
    EXPECT_EQ(qv_nats_kv_get(config.get(), QV_KV_CONFIG_BUCKET, "k", &value), 0);
    EXPECT_EQ(value, "before");
    EXPECT_EQ(qv_nats_kv_put(config.get(), QV_KV_CONFIG_BUCKET, "k", "after", 0), 0);
    EXPECT_EQ(qv_nats_kv_get(requester, QV_KV_CONFIG_BUCKET, "k", &value), 0);
    EXPECT_EQ(value, "after");
    const std::vector<unsigned char> data(QV_KV_CHUNK_SIZE + 3, 0x5a);
    std::vector<unsigned char> back;
    ASSERT_EQ(kvstore_put_chunked(config.get(), "rebuilt", data.data(), data.size(), 0), 0);
    ASSERT_EQ(kvstore_get_chunked(config.get(), "rebuilt", &back), 0);
    EXPECT_EQ(back, data);

    // With everything in place a second check changes nothing.
    const std::shared_ptr<jsCtx> js = qv_nats_jetstream(config.get());
    EXPECT_EQ(qv_nats_check_connection(config.get()), 0);
    EXPECT_EQ(qv_nats_connection(config.get()).get(), fresh.get());
    EXPECT_EQ(qv_nats_jetstream(config.get()).get(), js.get());
    EXPECT_EQ(log.count("NATS: new connection"), 1);
    EXPECT_EQ(log.count("renewed"), 1);
    EXPECT_TRUE(log.contains("NATS: 2 service subscription(s) renewed"));
    EXPECT_EQ(ping(requester), 0);
    EXPECT_EQ(config->_handler_threads.load(), 3);

    // Threads waiting on a closed connection still end on the stop flag.
    natsConnection_Close(fresh.get());
    stop = 1;
    EXPECT_TRUE(qvtest::wait_until([&] { return config->_handler_threads.load() == 0; }));
}

TEST_F(ServiceFixture, AThousandConcurrentRequestsFromFourClientsAreAllAnswered) {
    Gate& gate = s_burst_gate;
    OpenOnExit opener{gate};
    ASSERT_EQ(serve("qv-test.burst", Gate::handle, &gate, 2), 0);
    constexpr int kClients = 4;
    constexpr int kPerClient = 250;
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
                requests.emplace_back("qv-test.burst", "{\"c\":" + std::to_string(c) +
                                                           ",\"i\":" + std::to_string(i) + "}");
            }
            NatsPeer::Batch batch = peers[c]->send(requests);
            sent.count_down();
            replies[c] = peers[c]->collect(batch, 30s);
        });
    }
    // All requests have reached the service's connection before any handler may run, so the
    // whole burst waits in the service's queue at once.
    sent.wait();
    EXPECT_EQ(natsConnection_FlushTimeout(qv_nats_connection(config.get()).get(), 10000), NATS_OK);
    gate.open();
    for (std::thread& t : clients) {
        t.join();
    }
    int answered = 0;
    for (int c = 0; c < kClients; ++c) {
        for (int i = 0; i < kPerClient; ++i) {
            const std::string request =
                "{\"c\":" + std::to_string(c) + ",\"i\":" + std::to_string(i) + "}";
            if (replies[c][i] == "{\"ReturnCode\": 0, \"Echo\": " + request + "}") {
                ++answered;
            }
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
        if (natsConnection_Publish(peer.conn(), "qv-test.drops", nullptr, 0) != NATS_OK) {
            FAIL() << "publish " << i << " failed";
        }
    }
    ASSERT_TRUE(peer.flush());
    ASSERT_EQ(natsConnection_FlushTimeout(qv_nats_connection(config.get()).get(), 10000), NATS_OK);
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
    qv_nats_config* requester = connect_another();
    std::string err;
    qv::json_ptr reply =
        qv_nats_send_recv_json(requester, "qv-test.drops", "{\"after\":1}", 60000, 0, &err);
    ASSERT_TRUE(reply) << err;
    EXPECT_EQ(qv_json_to_string(reply.get()), "{\"ReturnCode\":0,\"Echo\":{\"after\":1}}");
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
    peer.watch_everything();

    EXPECT_TRUE(qv_nats_simple_request_all(config.get(), {}, "{}", 500, 2).empty());
    const std::vector<std::string> subjects = {"qv-test.zero",
                                               "qv-test.seven",
                                               "qv-test.quiet",
                                               "qv-test.nobody",
                                               "a b",
                                               "qv-test.garbage",
                                               "x.*",
                                               "",
                                               "qv-test.silent",
                                               "qv-test.zero"};
    EXPECT_EQ(qv_nats_simple_request_all(config.get(), subjects, "{\"Command\": 3}", 1000, 2),
              (std::vector<int>{0, 7, -1, -1, -1, -1, -1, -1, -5, 0}));
    EXPECT_EQ(peer.pending(), std::vector<int>{2});

    // The refused subjects never reached the server, and the connection stays up.
    natsConnection_Publish(qv_nats_connection(config.get()).get(), "qv-test.marker", "", 0);
    natsConnection_Flush(qv_nats_connection(config.get()).get());
    for (const std::string& subject : peer.watched_until("qv-test.marker", 10s)) {
        EXPECT_TRUE(subject.rfind("qv-test.", 0) == 0 || subject.rfind("_INBOX.", 0) == 0)
            << subject;
    }
    EXPECT_EQ(natsConnection_Status(qv_nats_connection(config.get()).get()),
              NATS_CONN_STATUS_CONNECTED);
    EXPECT_EQ(qv_nats_simple_request(config.get(), "qv-test.seven", "{}", 2000, 0, nullptr), 7);
}

TEST_F(ServiceFixture, InvalidSubjectsAreRefusedBeforeAnythingIsSent) {
    ASSERT_EQ(serve("qv-test.ping", qv_worker_ping_request_handler), 0);
    NatsPeer peer(server.url());
    ASSERT_TRUE(peer.connected());
    peer.watch_everything();
    const std::vector<std::string> subjects = {
        "a b",       "x.*",
        ">",         std::string(5000, 's'),
        "",          "a..b",
        ".a",        "a.",
        "tab\there", "qv-test.ping\r\nPUB qv-test.injected 0\r\n"};
    for (const std::string& subject : subjects) {
        const std::string expected = "NATS: invalid subject '" + qv_escape_for_log(subject) + "'";
        std::string err;
        EXPECT_FALSE(qv_nats_send_recv_json(config.get(), subject.c_str(), "{\"Command\": 3}", 500,
                                            0, &err));
        EXPECT_EQ(err, expected);
        err.clear();
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
        EXPECT_EQ(serve(subject.c_str(), echo_handler), -1);
    }
    natsConnection_Publish(qv_nats_connection(config.get()).get(), "qv-test.marker", "", 0);
    natsConnection_Flush(qv_nats_connection(config.get()).get());
    EXPECT_EQ(peer.watched_until("qv-test.marker", 10s), std::vector<std::string>{});
    EXPECT_EQ(natsConnection_Status(qv_nats_connection(config.get()).get()),
              NATS_CONN_STATUS_CONNECTED);
    EXPECT_EQ(ping(config.get()), 0);
    EXPECT_EQ(config->_handler_threads.load(), 1);
}

TEST_F(ServiceFixture, AConnectionRebuiltWhileTheServerIsAwayServesOnceItIsBack) {
    ASSERT_EQ(serve("qv-test.ping", qv_worker_ping_request_handler), 0);
    natsConnection_Close(qv_nats_connection(config.get()).get());
    server.stop();
    // The new connection keeps trying in the background; its services are subscribed already.
    EXPECT_EQ(qv_nats_check_connection(config.get()), 0);
    ASSERT_TRUE(qv_nats_connection(config.get()));
    EXPECT_FALSE(natsConnection_IsClosed(qv_nats_connection(config.get()).get()));
    ASSERT_TRUE(server.start());
    qv_nats_config* requester = connect_another();
    EXPECT_TRUE(qvtest::wait_until([&] { return ping(requester, 500) == 0; }));
    EXPECT_EQ(qv_nats_check_connection(config.get()), 0);
    EXPECT_EQ(ping(requester), 0);
    // Closing it on purpose ends its handler threads, without the stop flag.
    qv_nats_deinit(config.get());
    EXPECT_EQ(config->_handler_threads.load(), 0);
}
