#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include <curl/curl.h>
#include <sodium.h>

#include "http_test_server.h"
#include "log_capture.h"
#include "nats_server.h"
#include "qv_http_gateway_client.h"
#include "qv_json.h"
#include "qv_test_util.h"
#include "qvhlp_network.h"

using qvtest::HttpRequest;
using qvtest::HttpTestProxy;
using qvtest::HttpTestServer;
using qvtest::parse_multipart;

namespace {

std::string basic_credentials(const std::string& user, const std::string& password) {
    const std::string plain = user + ":" + password;
    std::vector<char> encoded(
        sodium_base64_encoded_len(plain.size(), sodium_base64_VARIANT_ORIGINAL));
    sodium_bin2base64(encoded.data(), encoded.size(),
                      reinterpret_cast<const unsigned char*>(plain.data()), plain.size(),
                      sodium_base64_VARIANT_ORIGINAL);
    return std::string("Basic ") + encoded.data();
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

    std::string log_text() const { return log_.text(); }

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

TEST_F(GatewayTest, PostsTheRequestAsMultipartFormWithServiceHeaderAndBasicAuth) {
    HttpTestServer server;
    server.respond(200, "{\"ReturnCode\": 0, \"TenantID\": \"t-1\"}");

    ASSERT_EQ(post(server.url()), 0) << error_;
    EXPECT_EQ(return_code(), 0);
    json_object* tenant = nullptr;
    ASSERT_TRUE(json_object_object_get_ex(reply_.get(), "TenantID", &tenant));
    EXPECT_STREQ(json_object_get_string(tenant), "t-1");
    EXPECT_EQ(error_, "");

    const std::vector<HttpRequest> seen = server.requests();
    ASSERT_EQ(seen.size(), 1u);
    const HttpRequest& r = seen[0];
    EXPECT_EQ(r.method, "POST");
    EXPECT_EQ(r.target, "/vsi");
    EXPECT_EQ(r.header("X-Target-Service"), "qv-av-control");
    EXPECT_EQ(r.header("Authorization"), basic_credentials("alice", "s3cret"));
    EXPECT_EQ(r.header("User-Agent"), "quorvale-av-client/4");
    EXPECT_FALSE(r.header("Expect").has_value());
    const auto parts = parse_multipart(r);
    ASSERT_EQ(parts.size(), 1u) << r.body;
    EXPECT_EQ(parts[0].name, "request");
    EXPECT_EQ(parts[0].content_type, "application/json");
    EXPECT_EQ(parts[0].data, request_);

    // At trace level the transfer is narrated line by line, headers included.
    const std::string log = log_text();
    EXPECT_NE(log.find("curl > POST /vsi HTTP/1.1"), std::string::npos) << log;
    EXPECT_NE(log.find("curl > X-Target-Service: qv-av-control"), std::string::npos);
    EXPECT_NE(log.find("curl < HTTP/1.1 200 OK"), std::string::npos);
    EXPECT_NE(log.find("qv_http_gateway_client: POST " + server.url("/vsi") +
                       " service=qv-av-control json_len=" + std::to_string(strlen(request_)) +
                       " body_len=0 timeout=10000ms"),
              std::string::npos);

    // A service failure inside a valid reply is still a reply.
    server.respond(200, "{\"ReturnCode\": -1000, \"Error\": \"no worker\"}");
    ASSERT_EQ(post(server.url()), 0) << error_;
    EXPECT_EQ(return_code(), -1000);
}

TEST_F(GatewayTest, PayloadPartOnlyWhenThereAreBytesAndSentExactly) {
    HttpTestServer server;

    const std::vector<unsigned char> none;
    ASSERT_EQ(qv_gateway_send_recv_scan(server.url().c_str(), "alice", "s3cret", "qv-av-trellix",
                                        request_, none.data(), none.size(), nullptr, 10000, &reply_,
                                        &error_),
              0)
        << error_;

    // Larger than the size at which curl would otherwise wait for "100 Continue".
    std::vector<unsigned char> payload(2 * 1024 * 1024 + 17);
    randombytes_buf(payload.data(), payload.size());
    ASSERT_EQ(qv_gateway_send_recv_scan(server.url().c_str(), "alice", "s3cret", "qv-av-trellix",
                                        request_, payload.data(), payload.size(), nullptr, 30000,
                                        &reply_, &error_),
              0)
        << error_;

    const std::vector<HttpRequest> seen = server.requests();
    ASSERT_EQ(seen.size(), 2u);
    const auto without = parse_multipart(seen[0]);
    ASSERT_EQ(without.size(), 1u);
    EXPECT_EQ(without[0].name, "request");

    EXPECT_FALSE(seen[1].header("Expect").has_value());
    EXPECT_EQ(seen[1].header("X-Target-Service"), "qv-av-trellix");
    const auto with = parse_multipart(seen[1]);
    ASSERT_EQ(with.size(), 2u);
    EXPECT_EQ(with[0].data, request_);
    EXPECT_EQ(with[1].name, "payload");
    EXPECT_EQ(with[1].content_type, "application/octet-stream");
    EXPECT_EQ(with[1].data, std::string(payload.begin(), payload.end()));
}

TEST_F(GatewayTest, ServletPathIsAppendedOnlyToAUrlWithoutPath) {
    HttpTestServer server;
    qv_gateway_opts_t custom;
    qv_gateway_opts_defaults(&custom);
    custom.servlet_path = "/gateway";

    ASSERT_EQ(post(server.url("/api/v2/scan")), 0) << error_;
    ASSERT_EQ(post(server.url()), 0) << error_;
    ASSERT_EQ(post(server.url("/")), 0) << error_;  // the bare slash stays: "//vsi"
    ASSERT_EQ(post(server.url(), &custom), 0) << error_;

    const auto seen = server.requests();
    ASSERT_EQ(seen.size(), 4u);
    EXPECT_EQ(seen[0].target, "/api/v2/scan");
    EXPECT_EQ(seen[1].target, "/vsi");
    EXPECT_EQ(seen[2].target, "//vsi");
    EXPECT_EQ(seen[3].target, "/gateway");
}

TEST_F(GatewayTest, BasicAuthNeedsBothUserAndPassword) {
    HttpTestServer server;
    ASSERT_EQ(post(server.url(), nullptr, "", ""), 0) << error_;
    ASSERT_EQ(post(server.url(), nullptr, "alice", ""), 0) << error_;

    for (const HttpRequest& r : server.requests()) {
        EXPECT_FALSE(r.header("Authorization").has_value());
    }
    EXPECT_NE(log_text().find("qv_http_gateway_client: no Basic Auth credentials set"),
              std::string::npos);
}

TEST_F(GatewayTest, FailuresReportTheirReasonAndLeaveNoReply) {
    HttpTestServer server;
    const std::string long_body(300, 'x');

    struct Case {
        HttpTestServer::Response response;
        std::string expected_error;
        long timeout_ms = 10000;
    };
    const std::vector<Case> cases = {
        {{HttpTestServer::Mode::answer, 500, "internal trouble", "text/plain"},
         "HTTP gateway returned status 500: internal trouble"},
        {{HttpTestServer::Mode::answer, 503, long_body, "text/plain"},
         "HTTP gateway returned status 503: " + long_body.substr(0, 200)},
        {{HttpTestServer::Mode::answer, 401, "", "text/plain"},
         "HTTP gateway returned status 401: "},
        {{HttpTestServer::Mode::answer, 200, "", "application/json"},
         "empty response from HTTP gateway"},
        {{HttpTestServer::Mode::answer, 200, "{\"ReturnCode\": 0", "application/json"},
         "failed to parse JSON from HTTP gateway response"},
        {{HttpTestServer::Mode::hang_up, 200, "", ""},
         "HTTP gateway request failed: " + std::string(curl_easy_strerror(CURLE_GOT_NOTHING))},
        // A silent gateway ends in the transfer time-out.
        {{HttpTestServer::Mode::no_answer},
         "HTTP gateway request failed: " +
             std::string(curl_easy_strerror(CURLE_OPERATION_TIMEDOUT)),
         300},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.expected_error);
        server.respond(c.response);
        reply_.reset(json_object_new_object());  // a stale reply must not survive a failure
        EXPECT_EQ(post(server.url(), nullptr, "alice", "s3cret", c.timeout_ms), -1);
        EXPECT_EQ(error_, c.expected_error);
        EXPECT_FALSE(reply_);
    }
    EXPECT_EQ(server.request_count(), cases.size());

    const std::string log = log_text();
    EXPECT_NE(log.find("qv_http_gateway_client: HTTP gateway returned status 500: internal "
                       "trouble"),
              std::string::npos);
    EXPECT_NE(log.find("qv_http_gateway_client: failed to parse JSON from HTTP gateway response "
                       "(body={\"ReturnCode\": 0)"),
              std::string::npos);

    // Nobody listening at all.
    const int closed_port = qvtest::free_port();
    EXPECT_EQ(post("http://127.0.0.1:" + std::to_string(closed_port)), -1);
    EXPECT_EQ(error_, "HTTP gateway request failed: " +
                          std::string(curl_easy_strerror(CURLE_COULDNT_CONNECT)));
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
    opts.proxy_password.clear();  // without a password no proxy credentials are sent
    ASSERT_EQ(post(server.url(), &opts), 0) << error_;

    const auto via_proxy = proxy.requests();
    ASSERT_EQ(via_proxy.size(), 2u);
    EXPECT_EQ(via_proxy[0].target, server.url("/vsi"));
    EXPECT_EQ(via_proxy[0].header("Proxy-Authorization"), basic_credentials("puser", "ppass"));
    EXPECT_FALSE(via_proxy[1].header("Proxy-Authorization").has_value());

    const auto at_origin = server.requests();
    ASSERT_EQ(at_origin.size(), 2u);
    EXPECT_EQ(at_origin[0].target, "/vsi");
    EXPECT_EQ(at_origin[0].header("X-Target-Service"), "qv-av-control");
    EXPECT_EQ(at_origin[0].header("Authorization"), basic_credentials("alice", "s3cret"));
    EXPECT_EQ(parse_multipart(at_origin[0]).at(0).data, request_);

    EXPECT_NE(log_text().find("qv_http_gateway_client: using proxy 127.0.0.1:" +
                              std::to_string(proxy.port())),
              std::string::npos);
}

TEST_F(GatewayTest, HttpsVerifiesPeerAndHostAsConfigured) {
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

    system_store.verify_peer = false;
    EXPECT_EQ(post(server.url(), &system_store), 0) << error_;
    EXPECT_EQ(server.request_count(), 2u);

    // A certificate for localhost / 127.0.0.1 does not name 127.0.0.2.
    HttpTestServer other({.tls = true, .bind_address = "127.0.0.2"});
    const std::string other_url = "https://127.0.0.2:" + std::to_string(other.port());
    EXPECT_EQ(post(other_url, &opts), -1);
    opts.verify_host = false;
    EXPECT_EQ(post(other_url, &opts), 0) << error_;
    EXPECT_EQ(other.request_count(), 1u);
}

TEST(CheckConnect, ReachableClosedAndInvalidPorts) {
    HttpTestServer server;
    const std::string open_port = std::to_string(server.port());
    std::string error;
    EXPECT_EQ(qvhlp_CheckConnect("127.0.0.1", open_port.c_str(), &error), 0);
    EXPECT_EQ(qvhlp_CheckConnect("localhost", open_port.c_str(), &error), 0);

    const int closed = qvtest::free_port();
    EXPECT_EQ(qvhlp_CheckConnect("127.0.0.1", std::to_string(closed).c_str(), &error), -2);
    EXPECT_EQ(error, "Failed to connect to 127.0.0.1:" + std::to_string(closed));

    EXPECT_EQ(qvhlp_CheckConnect("127.0.0.1", "gateway", nullptr), -1);
}
