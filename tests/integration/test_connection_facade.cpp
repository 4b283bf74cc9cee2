#include <gtest/gtest.h>

#include <atomic>

#include "http_test_server.h"
#include "nats_server.h"
#include "qv_connection_client.h"
#include "qv_json.h"
#include "qv_worker_ping_handler.h"

using qvtest::HttpTestServer;
using qvtest::NatsServer;

namespace {

std::unique_ptr<qv_nats_config> http_config(const HttpTestServer& gw) {
    auto cfg = qv_connection_config_new();
    cfg->server_url = gw.url();
    cfg->broker_user = "client";
    cfg->broker_password = "pw";
    EXPECT_EQ(qv_connection_init(cfg.get()), 0);
    return cfg;
}

}  // namespace

TEST(ConnectionFacade, HttpModeHasNoBuckets) {
    HttpTestServer gw;
    auto cfg = http_config(gw);
    // The credentials come from the broker settings when the plain ones are unset.
    EXPECT_EQ(cfg->user, "client");
    EXPECT_EQ(cfg->password, "pw");

    // Nothing is found and every lease is held, without a request to the gateway.
    std::string value = "stale";
    EXPECT_EQ(qv_connection_kv_get(cfg.get(), "b", "k", &value), 1);
    EXPECT_TRUE(value.empty());
    EXPECT_EQ(qv_connection_kv_lease(cfg.get(), "b", "k", "me", 1000), 1);
    // A payload is not staged but travels with its request.
    const unsigned char bytes[] = {1, 2, 3};
    std::string key = "stale";
    EXPECT_EQ(qv_connection_stage_scan_data(cfg.get(), bytes, sizeof(bytes), 1000, &key, nullptr),
              0);
    EXPECT_TRUE(key.empty());
    EXPECT_EQ(gw.request_count(), 0u);
}

TEST(ConnectionFacade, HttpRetriesMakeOnePostPerAttemptAndCarryThePayloadInline) {
    HttpTestServer gw;
    gw.respond(500, "internal trouble");
    auto cfg = http_config(gw);
    std::string err;
    EXPECT_FALSE(qv_connection_send_recv_json(cfg.get(), "qv-av-control", "{\"Command\": 3}", 2000,
                                              2, &err));
    EXPECT_EQ(gw.request_count(), 3u);
    EXPECT_EQ(err.rfind("HTTP gateway returned status 500", 0), 0u) << err;
    EXPECT_EQ(qv_connection_simple_request(cfg.get(), "qv-av-control", "{}", 2000, -5, &err), -1);
    EXPECT_EQ(gw.request_count(), 4u);

    gw.respond(200, "{\"ReturnCode\":0,\"Seen\":\"yes\"}");
    qv_message_t request;
    request.json_txt = "{\"Command\": 101}";
    request.staged_data_key = "ignored-in-http-mode";
    request.data = {0, 1, 2, 255};
    qv_message_t reply;
    qv_const_request_reply_t rr{&request, &reply};
    ASSERT_TRUE(
        qv_connection_send_recv_json_data(cfg.get(), "qv-av-scan", &rr, 1000, 500, 0, nullptr));
    EXPECT_EQ(gw.requests().back().header("X-Target-Service").value_or(""), "qv-av-scan");
    const auto parts = qvtest::parse_multipart(gw.requests().back());
    ASSERT_EQ(parts.size(), 2u);
    EXPECT_EQ(parts[1].name, "payload");
    EXPECT_EQ(parts[1].data, std::string("\0\1\2\xff", 4));
    // The reply text is the reply object in its spaced form.
    EXPECT_EQ(reply.json_txt, "{ \"ReturnCode\": 0, \"Seen\": \"yes\" }");
}

TEST(ConnectionFacade, NatsModeFromBrokerHostAndPort) {
    NatsServer server({.tls = true, .users = {{"control@local", "pw"}}});
    ASSERT_TRUE(server.start());
    ASSERT_EQ(server.create_buckets({}, "control@local", "pw"), 0);
    auto config = [&](const std::string& password, const std::string& ca) {
        auto cfg = qv_connection_config_new();
        cfg->broker_host = "localhost";
        cfg->broker_port = std::to_string(server.port());
        cfg->broker_user = "control@local";
        cfg->broker_password = password;
        cfg->cert_path = ca;
        return cfg;
    };
    // Bad credentials and an unreadable CA file are permanent failures.
    EXPECT_EQ(qv_connection_init(config("wrong", qvtest::test_certificates().ca_cert).get()), -1);
    EXPECT_EQ(qv_connection_init(config("pw", "/nonexistent/ca.pem").get()), -1);

    auto cfg = config("pw", qvtest::test_certificates().ca_cert);
    ASSERT_EQ(qv_connection_init(cfg.get()), 0);
    EXPECT_EQ(cfg->server_url, "tls://localhost:" + std::to_string(server.port()));
    std::atomic<int> stop{0};
    ASSERT_EQ(qv_connection_start_service_handler_threads(
                  cfg.get(), "qv-test.ping", qv_worker_ping_request_handler, nullptr, &stop, 1),
              0);
    EXPECT_EQ(qv_connection_simple_request(cfg.get(), "qv-test.ping", "{\"Command\":3}", 2000, 0,
                                           nullptr),
              0);
    EXPECT_EQ(qv_connection_kv_lease(cfg.get(), "qv-av-config", "lease", "me", 5000), 1);
    stop = 1;
    qv_connection_deinit(cfg.get());
}
