#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "nats_server.h"
#include "qv_json.h"
#include "qv_nats_client.h"
#include "qv_worker_ping_handler.h"
#include "qvhlp_replies.h"

using qvtest::NatsServer;

namespace {

std::unique_ptr<qv_nats_config> client_for(const NatsServer& server, const std::string& user = "",
                                           const std::string& password = "") {
    auto config = qv_nats_config_new();
    config->server_url = server.url();
    config->user = user;
    config->password = password;
    config->cert_path = qvtest::test_certificates().ca_cert;
    return config;
}

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

struct ServiceFixture : ::testing::Test {
    NatsServer server;
    std::unique_ptr<qv_nats_config> config;
    std::atomic<int> stop{0};

    void SetUp() override {
        ASSERT_TRUE(server.start());
        config = client_for(server);
        ASSERT_EQ(qv_nats_init(config.get()), 0);
    }
    void TearDown() override {
        stop = 1;
        qv_nats_deinit(config.get());
    }
};

}  // namespace

TEST_F(ServiceFixture, PingServiceAnswersAndRejects) {
    ASSERT_EQ(qv_nats_start_service_handler_threads(
                  config.get(), "qv-test.ping", qv_worker_ping_request_handler, nullptr, &stop, 2),
              0);
    std::string err;
    EXPECT_EQ(
        qv_nats_simple_request(config.get(), "qv-test.ping", "{\"Command\": 3}", 2000, 0, &err), 0);
    EXPECT_EQ(
        qv_nats_simple_request(config.get(), "qv-test.ping", "{\"Command\": 4}", 2000, 0, &err),
        -1);
    qv::json_ptr reply =
        qv_nats_send_recv_json(config.get(), "qv-test.ping", "garbage", 2000, 0, &err);
    ASSERT_TRUE(reply);
    EXPECT_EQ(qv_json_to_string(reply.get()), "{\"ReturnCode\":-1}");
}

TEST_F(ServiceFixture, HandlerSeesTheBodyUnchangedAndGenericRepliesAreSent) {
    ASSERT_EQ(qv_nats_start_service_handler_threads(config.get(), "qv-test.echo", echo_handler,
                                                    nullptr, &stop, 3),
              0);
    ASSERT_EQ(qv_nats_start_service_handler_threads(config.get(), "qv-test.silent", silent_handler,
                                                    nullptr, &stop, 1),
              0);
    std::string err;
    qv::json_ptr reply =
        qv_nats_send_recv_json(config.get(), "qv-test.echo", "{\"a\":[1,2]}", 2000, 0, &err);
    ASSERT_TRUE(reply) << err;
    EXPECT_EQ(qv_json_to_string(reply.get()), "{\"ReturnCode\":0,\"Echo\":{\"a\":[1,2]}}");
    // A body that is not JSON still reaches the handler; the reply then is not JSON either.
    reply = qv_nats_send_recv_json(config.get(), "qv-test.echo", "not json", 2000, 0, &err);
    EXPECT_FALSE(reply);
    // A handler that sets no reply still answers: the generic reply carries its status.
    reply = qv_nats_send_recv_json(config.get(), "qv-test.silent", "{}", 2000, 0, &err);
    ASSERT_TRUE(reply) << err;
    EXPECT_EQ(qv_json_to_string(reply.get()), "{\"ReturnCode\":-5}");
}

TEST_F(ServiceFixture, NoRespondersIsRetriedWithoutUsingAttempts) {
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
}

TEST_F(ServiceFixture, InvalidParametersAreReported) {
    std::string err;
    EXPECT_FALSE(qv_nats_send_recv_json(config.get(), nullptr, "{}", 100, 0, &err));
    EXPECT_EQ(err, "NATS: invalid parameters for send_recv_json");
    EXPECT_EQ(
        qv_nats_start_service_handler_threads(config.get(), "x", echo_handler, nullptr, &stop, 0),
        -1);
    qv_nats_config empty;
    EXPECT_EQ(qv_nats_init(&empty), -1);
    EXPECT_EQ(qv_nats_simple_request(&empty, "x", "{}", 100, 0, nullptr), -1);
}

TEST_F(ServiceFixture, HandlerThreadsEndOnTheStopFlag) {
    ASSERT_EQ(qv_nats_start_service_handler_threads(config.get(), "qv-test.stop", echo_handler,
                                                    nullptr, &stop, 4),
              0);
    EXPECT_EQ(config->_handler_threads.load(), 4);
    stop = 1;
    EXPECT_TRUE(qvtest::wait_until([&] { return config->_handler_threads.load() == 0; }));
}

TEST(NatsConnect, TlsWithUsersAndWrongPassword) {
    NatsServer::Options opts;
    opts.tls = true;
    opts.users = {{"control@local", "pw1"}};
    NatsServer server(opts);
    ASSERT_TRUE(server.start());

    auto good = client_for(server, "control@local", "pw1");
    ASSERT_EQ(qv_nats_init(good.get()), 0);
    std::atomic<int> stop{0};
    ASSERT_EQ(qv_nats_start_service_handler_threads(
                  good.get(), "qv-test.ping", qv_worker_ping_request_handler, nullptr, &stop, 1),
              0);
    EXPECT_EQ(
        qv_nats_simple_request(good.get(), "qv-test.ping", "{\"Command\":3}", 2000, 0, nullptr), 0);
    EXPECT_TRUE(good->_js);

    // Bad credentials are a permanent failure: no retries, -1.
    auto bad = client_for(server, "control@local", "wrong");
    EXPECT_EQ(qv_nats_init(bad.get()), -1);
    EXPECT_FALSE(bad->_conn);

    // An unreadable CA file fails before connecting.
    auto nocert = client_for(server, "control@local", "pw1");
    nocert->cert_path = "/nonexistent/ca.pem";
    EXPECT_EQ(qv_nats_init(nocert.get()), -1);

    stop = 1;
    qv_nats_deinit(good.get());
}

TEST(NatsConnect, ServiceSurvivesAServerRestart) {
    NatsServer server;
    ASSERT_TRUE(server.start());
    auto config = client_for(server);
    ASSERT_EQ(qv_nats_init(config.get()), 0);
    std::atomic<int> stop{0};
    ASSERT_EQ(qv_nats_start_service_handler_threads(
                  config.get(), "qv-test.ping", qv_worker_ping_request_handler, nullptr, &stop, 1),
              0);
    auto requester = client_for(server);
    ASSERT_EQ(qv_nats_init(requester.get()), 0);
    server.stop();
    ASSERT_TRUE(server.start());
    EXPECT_TRUE(qvtest::wait_until([&] {
        return qv_nats_simple_request(requester.get(), "qv-test.ping", "{\"Command\":3}", 500, 0,
                                      nullptr) == 0;
    }));
    stop = 1;
    qv_nats_deinit(requester.get());
    qv_nats_deinit(config.get());
}
