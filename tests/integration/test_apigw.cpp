#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <utility>

#include <curl/curl.h>

#include "http_test_server.h"
#include "log_capture.h"
#include "nats_server.h"
#include "qv_json.h"
#include "qv_nats_client.h"
#include "qv_nats_kv.h"
#include "qvctrl_config_kv.h"
#include "qvctrl_request_from_apigw.h"
#include "qvctrl_tenants.h"
#include "qvctrl_worker_request_handlers.h"
#include "qv_test_util.h"

using qvtest::HttpTestProxy;
using qvtest::HttpTestServer;

namespace {

using qvtest::base64;

const std::string kScan = R"({"SCAN":{"MAXSIZE":"100"}})";
const std::string kMimeExt = R"({"MIME-type-to-extensions":{"text/plain":"txt"}})";
const std::string kMimeXlat = R"({"MIME-translations":{"application/x-pdf":"application/pdf"}})";
const std::string kAc = R"({"Active-content-definition":{"PDF":"JavaScript"}})";

// A gateway answer without the members of "result" named.
std::string gateway_reply(const std::string& leave_out = "", const std::string& also = "") {
    const std::pair<std::string, std::string> members[] = {
        {"organization", R"({"cf_accounts_quorvalecloudid": "tenant-7"})"},
        {"realm", R"({"fld_vtcmrealmsname": "Realm Seven"})"},
        {"fld_scanparameters", qvtest::quoted(base64(kScan))},
        {"fld_mimetoextensionsmap", qvtest::quoted(base64(kMimeExt))},
        {"fld_mimetypemappings", qvtest::quoted(base64(kMimeXlat))},
        {"fld_activecontentconfiguration", qvtest::quoted(base64(kAc))}};
    std::string result;
    for (const auto& [name, value] : members) {
        if (name != leave_out && name != also) {
            result += (result.empty() ? "\"" : ",\"") + name + "\":" + value;
        }
    }
    return R"({"result":{)" + result + "}}";
}

std::string text(const qv::json_ptr& object) {
    return object ? qv_json_to_string(object.get()) : "(none)";
}

class Apigw : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { curl_global_init(CURL_GLOBAL_ALL); }

    void SetUp() override {
        setenv("CURL_CA_BUNDLE", qvtest::test_certificates().ca_cert.c_str(), 1);
        unsetenv("SSL_CERT_FILE");
        qvctrl_apigw_set_timeouts_for_tests(2000, 3000);
        server.require_basic_auth("alice", "s3cret");
        server.respond(200, gateway_reply());
        config->apigw_url = server.url();
        config->apigw_user = "alice";
        config->apigw_password = "s3cret";
    }
    void TearDown() override {
        unsetenv("CURL_CA_BUNDLE");
        qvctrl_apigw_set_timeouts_for_tests(10000, 30000);
    }

    int fetch(const char* realm = "r7", const char* sid = "S01") {
        return qvctrl_get_configurations_from_apigw(config.get(), realm, sid, &scan, &mimeext,
                                                    &mimexlat, &ac);
    }

    HttpTestServer server{{.tls = true}};
    std::unique_ptr<quorvale_control_config_t> config = qvctrl_config_new();
    qvtest::LogCapture log;
    qv::json_ptr scan, mimeext, mimexlat, ac;
};

TEST_F(Apigw, GoodAnswerDeliversFourConfigurationsAndTheTenant) {
    ASSERT_EQ(fetch(), 0) << log.text();
    EXPECT_EQ(text(scan), kScan);
    EXPECT_EQ(text(mimeext), kMimeExt);
    EXPECT_EQ(text(mimexlat), kMimeXlat);
    EXPECT_EQ(text(ac), kAc);

    ASSERT_EQ(server.request_count(), 1u);
    EXPECT_EQ(server.requests()[0].target, "/configurations/control?realmId=r7&sidName=S01");

    std::string tenant, name;
    ASSERT_EQ(qvctrl_get_tenantID_by_realmID(config->tenants, "r7", &tenant, &name), 0);
    EXPECT_EQ(tenant, "tenant-7");
    EXPECT_EQ(name, "Realm Seven");

    // The verbose transfer is in the trace, the credentials are not.
    EXPECT_TRUE(log.contains("Authorization: Basic [redacted]"));
    EXPECT_FALSE(log.contains(base64("alice:s3cret")));

    // Neither organization nor realm: fine for the fallback realm, an error for any other.
    server.respond(200, gateway_reply("organization", "realm"));
    EXPECT_EQ(fetch("default", "default"), 0) << log.text();
    EXPECT_NE(fetch("r8", "default"), 0);
}

TEST_F(Apigw, BadAnswersFail) {
    const std::pair<int, std::string> cases[] = {
        {200, std::string(QVCTRL_APIGW_MAX_REPLY, ' ')},
        {200, "<html>gateway</html>"},
        {200, "[1]"},
        {200, ""},
        {500, gateway_reply()},
        {200, R"({"results": {}})"},
        {200, gateway_reply("fld_mimetypemappings")},
        {200, gateway_reply("realm")},
    };
    for (const auto& [status, body] : cases) {
        server.respond(status, body);
        ac.reset();
        EXPECT_NE(fetch(), 0) << body.substr(0, 60);
        EXPECT_FALSE(ac) << body.substr(0, 60);
    }

    // One byte less than the buffer still fits.
    std::string padded = gateway_reply();
    padded.append(QVCTRL_APIGW_MAX_REPLY - 1 - padded.size(), ' ');
    server.respond(200, padded);
    EXPECT_EQ(fetch(), 0) << log.text();
}

TEST_F(Apigw, UntrustedCertificateAndSilentGatewayFailTheTransfer) {
    // The test CA is not in the system trust store.
    unsetenv("CURL_CA_BUNDLE");
    EXPECT_EQ(fetch(), CURLE_PEER_FAILED_VERIFICATION);
    setenv("CURL_CA_BUNDLE", qvtest::test_certificates().ca_cert.c_str(), 1);

    // A gateway that never answers is given up after the total timeout.
    server.respond({.mode = HttpTestServer::Mode::no_answer});
    EXPECT_EQ(fetch(), CURLE_OPERATION_TIMEDOUT);
}

TEST_F(Apigw, RealmAndSidThatAreNoPlainNamesNeverReachAUrl) {
    const std::string overlong(300, 'r');
    for (const char* bad :
         {"", "r 7", "r7&sidName=x", "r7#", "../r7", "r7\r\nX: y", "r%41", overlong.c_str()}) {
        EXPECT_NE(fetch(bad, "S01"), 0) << bad;
        EXPECT_NE(fetch("r7", bad), 0) << bad;
    }
    EXPECT_NE(fetch(nullptr, "S01"), 0);
    EXPECT_EQ(server.request_count(), 0u);
}

TEST_F(Apigw, ConfiguredProxyCarriesTheRequest) {
    HttpTestServer origin;
    origin.require_basic_auth("alice", "s3cret");
    origin.respond(200, gateway_reply());
    HttpTestProxy proxy;
    config->apigw_url = origin.url();
    config->network_config->http_proxy =
        "http://puser:ppass@" + proxy.host() + ":" + std::to_string(proxy.port());

    ASSERT_EQ(fetch(), 0) << log.text();
    const auto via_proxy = proxy.requests();
    ASSERT_EQ(via_proxy.size(), 1u);
    EXPECT_EQ(via_proxy[0].target, origin.url("/configurations/control?realmId=r7&sidName=S01"));
    EXPECT_TRUE(via_proxy[0].header("Proxy-Authorization").has_value());
    EXPECT_EQ(origin.request_count(), 1u);
    EXPECT_TRUE(log.contains("Using http proxy: http://puser:***@"));
    EXPECT_FALSE(log.contains("ppass"));
}

// The configuration bucket filled from the gateway on a miss.
class CloudFill : public Apigw {
  protected:
    void SetUp() override {
        Apigw::SetUp();
        ASSERT_TRUE(nats.start());
        ASSERT_EQ(nats.create_buckets(), 0);
        config->main_nats_config = nats.client_config();
        ASSERT_EQ(qv_nats_init(config->main_nats_config.get()), 0);
    }
    void TearDown() override {
        qv_nats_deinit(config->main_nats_config.get());
        Apigw::TearDown();
    }
    std::string raw(const std::string& key) {
        std::string value;
        return qv_nats_kv_get(config->main_nats_config.get(), QV_KV_CONFIG_BUCKET, key.c_str(),
                              &value) == 0
                   ? value
                   : "(absent)";
    }

    qvtest::NatsServer nats;
};

// Scan clients and workers in cloud mode: a first request fills the bucket from the gateway with
// every kind, so later ones of any kind are answered from the bucket; the tenant likewise.
TEST_F(CloudFill, RequestsInCloudModeAskTheGatewayOncePerRealmAndSid) {
    config->cloud_mode = true;
    const auto client = [&](const std::string& body) {
        return qvtest::call_handler(qv_av_control_worker_client_request_handler, config.get(),
                                    body);
    };
    EXPECT_EQ(qvtest::call_handler(qv_av_control_worker_service_request_handler, config.get(),
                                   R"({"Command": 203, "realmID": "r7", "SID": "S01"})"),
              R"({"Active-content-definition":{"PDF":"JavaScript"},"ReturnCode":0})");
    EXPECT_EQ(raw("mimeext.r7.S01"), kMimeExt);
    EXPECT_EQ(raw("mimexlat.r7.S01"), kMimeXlat);
    EXPECT_EQ(client(R"({"Command": 100, "realmID": "r7", "SID": "S01", "RequestID": "q"})"),
              R"({"SCAN":{"MAXSIZE":"100"},"ReturnCode":0,"ReplytoRequestID":"q"})");
    EXPECT_EQ(server.request_count(), 1u);

    // The tenant: the gateway's answer for the realm with SID "default", then kept in the bucket.
    const std::string tenant = R"({"Command": 5, "realmID": "r7", "RequestID": "t"})";
    const std::string tenant_reply =
        R"({ "ReplytoRequestID":"t","ReturnCode" : 0 , "tenantID" : "tenant-7", )"
        R"("realmName" : "Realm Seven" })";
    EXPECT_EQ(client(tenant), tenant_reply);
    EXPECT_EQ(raw("tenant.r7"), R"({"tenantID":"tenant-7","realmName":"Realm Seven"})");
    ASSERT_EQ(server.request_count(), 2u);
    EXPECT_EQ(server.requests()[1].target, "/configurations/control?realmId=r7&sidName=default");
    EXPECT_EQ(client(tenant), tenant_reply);
    EXPECT_EQ(server.request_count(), 2u);

    // A fetch that fails on its last member stores none of the earlier ones.
    server.respond(200, gateway_reply("fld_activecontentconfiguration"));
    EXPECT_FALSE(qvctrl_config_kv_cloud_fill(config.get(), "r9", "S01", QVCTRL_CONFIG_PREFIX_SCAN));
    EXPECT_EQ(raw("scan.r9.S01"), "(absent)");
}

}  // namespace
