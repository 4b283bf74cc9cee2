#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

#include <curl/curl.h>
#include <sodium.h>

#include "http_test_server.h"
#include "log_capture.h"
#include "nats_server.h"
#include "qv_http_gateway_client.h"
#include "qv_json.h"
#include "qv_test_util.h"

using qvtest::HttpRequest;
using qvtest::HttpTestProxy;
using qvtest::HttpTestServer;
using qvtest::parse_multipart;

namespace {

std::string basic_credentials(const std::string& user, const std::string& password) {
    return "Basic " + qvtest::base64(user + ":" + password);
}

class GatewayTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { curl_global_init(CURL_GLOBAL_ALL); }

    void SetUp() override {
        // A proxy from the environment would take the loopback requests elsewhere.
        for (const char* name : {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY",
                                 "all_proxy", "ALL_PROXY", "no_proxy", "NO_PROXY"}) {
            unsetenv(name);
        }
    }

    // One plain request; the reply (or null) goes to reply_, the reason to error_.
    int post(const std::string& url, const qv_gateway_opts_t* opts = nullptr,
             const std::string& user = "alice", const std::string& password = "s3cret",
             long timeout_ms = 10000) {
        return qv_gateway_send_recv_json(url.c_str(), user.c_str(), password.c_str(),
                                         "qv-av-control", request_, opts, timeout_ms, &reply_,
                                         &error_);
    }

    int return_code() const {
        json_object* rc = nullptr;
        return json_object_object_get_ex(reply_.get(), "ReturnCode", &rc) ? json_object_get_int(rc)
                                                                          : 12345;
    }

    const char* request_ = "{\"Command\": 6, \"realmID\": \"default\", \"SID\": \"QV1\"}";
    qvtest::LogCapture log_;
    qv::json_ptr reply_;
    std::string error_;
};

}  // namespace

// A payload larger than the size at which curl would otherwise wait for "100 Continue".
TEST_F(GatewayTest, PostsRequestAndPayloadAsMultipartFormWithServiceHeaderAndBasicAuth) {
    HttpTestServer server;
    server.respond(200, "{\"ReturnCode\": 0, \"TenantID\": \"t-1\"}");
    std::vector<unsigned char> payload(2 * 1024 * 1024 + 17);
    randombytes_buf(payload.data(), payload.size());
    ASSERT_EQ(qv_gateway_send_recv_scan(server.url().c_str(), "alice", "s3cret", "qv-av-trellix",
                                        request_, payload.data(), payload.size(), nullptr, 30000,
                                        &reply_, &error_),
              0)
        << error_;
    EXPECT_EQ(return_code(), 0);
    EXPECT_EQ(error_, "");

    const HttpRequest r = server.requests().at(0);
    EXPECT_EQ(r.method, "POST");
    EXPECT_EQ(r.target, "/vsi");
    EXPECT_EQ(r.header("X-Target-Service"), "qv-av-trellix");
    EXPECT_EQ(r.header("Authorization"), basic_credentials("alice", "s3cret"));
    EXPECT_EQ(r.header("User-Agent"), "quorvale-av-client/4");
    EXPECT_FALSE(r.header("Expect").has_value());
    const auto parts = parse_multipart(r);
    ASSERT_EQ(parts.size(), 2u) << r.body.substr(0, 200);
    EXPECT_EQ(parts[0].name, "request");
    EXPECT_EQ(parts[0].content_type, "application/json");
    EXPECT_EQ(parts[0].data, request_);
    EXPECT_EQ(parts[1].name, "payload");
    EXPECT_EQ(parts[1].content_type, "application/octet-stream");
    EXPECT_EQ(parts[1].data, std::string(payload.begin(), payload.end()));

    // A URL with a path of its own is used as it is; without credentials there is no header.
    ASSERT_EQ(post(server.url("/api/v2/scan"), nullptr, "alice", ""), 0) << error_;
    EXPECT_EQ(server.requests().back().target, "/api/v2/scan");
    EXPECT_FALSE(server.requests().back().header("Authorization").has_value());
}

TEST_F(GatewayTest, FailuresReportTheirReasonAndLeaveNoReply) {
    HttpTestServer server;
    const std::string long_body(300, 'x');

    using Mode = HttpTestServer::Mode;
    const std::tuple<HttpTestServer::Response, std::string, long> cases[] = {
        {{Mode::answer, 503, long_body, "text/plain"},
         "HTTP gateway returned status 503: " + long_body.substr(0, 200),
         10000},
        {{Mode::answer, 200, "", "application/json"}, "empty response from HTTP gateway", 10000},
        {{Mode::answer, 200, "{\"ReturnCode\": 0", "application/json"},
         "failed to parse JSON from HTTP gateway response",
         10000},
        // A silent gateway ends in the transfer time-out.
        {{Mode::no_answer},
         "HTTP gateway request failed: " +
             std::string(curl_easy_strerror(CURLE_OPERATION_TIMEDOUT)),
         300},
    };
    for (const auto& [response, expected_error, timeout_ms] : cases) {
        SCOPED_TRACE(expected_error);
        server.respond(response);
        reply_.reset(json_object_new_object());  // a stale reply must not survive a failure
        EXPECT_EQ(post(server.url(), nullptr, "alice", "s3cret", timeout_ms), -1);
        EXPECT_EQ(error_, expected_error);
        EXPECT_FALSE(reply_);
    }
    EXPECT_EQ(server.request_count(), std::size(cases));
}

TEST_F(GatewayTest, ProxyCarriesTheRequestAndItsOwnCredentials) {
    HttpTestServer server;
    HttpTestProxy proxy;
    qv_gateway_opts_t opts;
    qv_gateway_opts_defaults(&opts);
    opts.proxy_host = proxy.host();
    opts.proxy_port = std::to_string(proxy.port());
    opts.proxy_user = "puser";
    opts.proxy_password = "ppass";

    ASSERT_EQ(post(server.url(), &opts), 0) << error_;
    EXPECT_EQ(return_code(), 0);

    const auto via_proxy = proxy.requests();
    ASSERT_EQ(via_proxy.size(), 1u);
    EXPECT_EQ(via_proxy[0].target, server.url("/vsi"));
    EXPECT_EQ(via_proxy[0].header("Proxy-Authorization"), basic_credentials("puser", "ppass"));

    const auto at_origin = server.requests();
    ASSERT_EQ(at_origin.size(), 1u);
    EXPECT_EQ(at_origin[0].header("Authorization"), basic_credentials("alice", "s3cret"));
    EXPECT_EQ(parse_multipart(at_origin[0]).at(0).data, request_);
}

TEST_F(GatewayTest, HttpsVerifiesPeerAndHost) {
    HttpTestServer server({.tls = true});
    qv_gateway_opts_t opts;
    qv_gateway_opts_defaults(&opts);
    opts.ca_path = qvtest::test_certificates().ca_cert;
    ASSERT_EQ(post(server.url(), &opts), 0) << error_;

    // The test CA is not in the system store.
    qv_gateway_opts_t system_store;
    qv_gateway_opts_defaults(&system_store);
    EXPECT_EQ(post(server.url(), &system_store), -1);
    EXPECT_EQ(error_.rfind("HTTP gateway request failed: ", 0), 0u) << error_;

    // A certificate for localhost / 127.0.0.1 does not name 127.0.0.2.
    HttpTestServer other({.tls = true, .bind_address = "127.0.0.2"});
    EXPECT_EQ(post("https://127.0.0.2:" + std::to_string(other.port()), &opts), -1);
    EXPECT_EQ(server.request_count(), 1u);
}
