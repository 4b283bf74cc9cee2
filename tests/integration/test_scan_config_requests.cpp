// The configuration requests of scan clients and workers, through the daemon's two dispatchers in
// this process: configuration files in a temporary installation tree, the configuration bucket of
// a real nats-server, workers registered through the service side.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "log_capture.h"
#include "nats_server.h"
#include "qv_json.h"
#include "qv_nats_client.h"
#include "qv_nats_kv.h"
#include "qv_test_util.h"
#include "qvctrl_adjust_worker_capacity.h"
#include "qvctrl_scan_config_requests.h"
#include "qvctrl_worker_request_handlers.h"

using qvtest::LogCapture;
using qvtest::NatsServer;

namespace {

struct ScanConfigRequests : ::testing::Test {
    NatsServer server;
    qvtest::TempDir base;
    std::unique_ptr<quorvale_control_config_t> config = qvctrl_config_new();

    void SetUp() override {
        ASSERT_TRUE(server.start());
        ASSERT_EQ(server.create_buckets(), 0);
        config->main_nats_config = server.client_config();
        config->main_nats_config->broker_name = "broker-7";
        config->confighash = "c0ffee";
        config->basedir = base.path();
        for (const char* dir : {"vsa", "mime", "activecontent"}) {
            qvtest::make_dirs(base / ("config/" + std::string(dir)));
        }
        ASSERT_EQ(qv_nats_init(config->main_nats_config.get()), 0);
    }
    void TearDown() override { qv_nats_deinit(config->main_nats_config.get()); }

    void file(const std::string& dir, const std::string& name, const std::string& text) {
        qvtest::write_file(base / ("config/" + dir + "/" + name), text);
    }
    std::string client(const std::string& body) {
        return qvtest::call_handler(qv_av_control_worker_client_request_handler, config.get(),
                                    body);
    }
    std::string service(const std::string& body) {
        return qvtest::call_handler(qv_av_control_worker_service_request_handler, config.get(),
                                    body);
    }
    std::string stored(const std::string& key) {
        std::string value;
        return qv_nats_kv_get(config->main_nats_config.get(), QV_KV_CONFIG_BUCKET, key.c_str(),
                              &value) == 0
                   ? value
                   : "(none)";
    }
    // A worker as the registry poller projects it from its registration.
    int register_worker(const std::string& service_name, const std::string& worker) {
        qv::json_ptr registration =
            qv_json_parse(R"({"Command": 200, "service-name": ")" + service_name +
                          R"(", "worker-name": ")" + worker +
                          R"(", "Secret": "s", "DriverName": "engine-x", "MajorVersion": 6,)"
                          R"( "MinorVersion": 2, "NumberOfViruses": 5000000000,)"
                          R"( "NumberOfVariants": 12, "Timestamp": 1700000000})");
        return qvctrl_apply_worker_registration(config.get(), registration.get());
    }
};

}  // namespace

TEST_F(ScanConfigRequests, ScanFilesMergeFromDefaultToSidAndTheBucketAnswersUntilReleased) {
    // Without any scan file the configuration is null.
    EXPECT_EQ(client(R"({"Command": 100, "realmID": "r9", "SID": "PRD", "RequestID": "7"})"),
              R"({"SCAN":null,"ReturnCode":0,"ReplytoRequestID":"7"})");
    file("vsa", "scan.default.default", "# defaults\nA=default\nB=default\nC = x = y \n");
    file("vsa", "scan.r1.default", "B=realm\nD=realm\n");
    file("vsa", "scan.r1.PRD", "A=sid\n");
    const std::string request =
        R"({"Command": 100, "realmID": "r1", "SID": "PRD", "RequestID": "q-1"})";
    const std::string expected =
        R"({"SCAN":[["A","sid"],["B","realm"],["C","x = y"],["D","realm"]],)"
        R"("ReturnCode":0,"ReplytoRequestID":"q-1"})";
    EXPECT_EQ(client(request), expected);
    EXPECT_EQ(stored("scan.r1.PRD"),
              R"({"SCAN":[["A","sid"],["B","realm"],["C","x = y"],["D","realm"]]})");

    // An edited file is not seen until the scan configurations are released; other SIDs of the
    // realm get the realm's.
    file("vsa", "scan.r1.PRD", "A=edited\n");
    EXPECT_EQ(client(request), expected);
    EXPECT_EQ(qvctrl_release_scan_configurations(config.get()), 0);
    EXPECT_NE(client(request).find(R"(["A","edited"])"), std::string::npos);
    EXPECT_EQ(client(R"({"Command": 100, "realmID": "r1", "SID": "DEV", "RequestID": "q-2"})"),
              R"({"SCAN":[["A","default"],["B","realm"],["C","x = y"],["D","realm"]],)"
              R"("ReturnCode":0,"ReplytoRequestID":"q-2"})");
}

TEST_F(ScanConfigRequests, WorkerKindsReadTheirOwnFilesAndMimeFallsBackToTheRealmsDefault) {
    file("activecontent", "activecontent.default.default", "Macros=block\nScripts=allow\n");
    file("activecontent", "activecontent.r1.PRD", "Scripts=block\n");
    EXPECT_EQ(service(R"({"Command": 203, "realmID": "r1", "SID": "PRD"})"),
              R"({"Active-content-definition":[["Macros","block"],["Scripts","block"]],)"
              R"("ReturnCode":0})");
    // MIME takes the most specific file only, not a merge.
    file("mime", "mimetype_to_extensions_mappings.default.default",
         "application/pdf -> pdf\nimage/jpeg -> jpg;jpeg\nimage/jpeg -> jpe\n");
    file("mime", "mimetype-translations.r1.default", "application/x-pdf -> application/pdf\n");
    EXPECT_EQ(service(R"({"Command": 204, "realmID": "r1", "SID": "PRD"})"),
              R"({"MIME-type-to-extensions":[["application/pdf","pdf"],["image/jpeg","jpg;jpeg"],)"
              R"(["image/jpeg","jpe"]],"ReturnCode":0})");
    EXPECT_EQ(service(R"({"Command": 205, "realmID": "r1", "SID": "PRD"})"),
              R"({"MIME-translations":[["application/x-pdf","application/pdf"]],"ReturnCode":0})");
    EXPECT_EQ(stored("mimexlat.r1.PRD"),
              R"({"MIME-translations":[["application/x-pdf","application/pdf"]]})");
    // Another realm has no translations at all: an installation without its default file.
    EXPECT_EQ(service(R"({"Command": 205, "realmID": "r2", "SID": "PRD"})"),
              R"({"ReturnCode": -1000, "Error": "Failed to load MIME translation config"})");
}

TEST_F(ScanConfigRequests, TenantOnPremisesAndFromTheBucketInCloudMode) {
    EXPECT_EQ(client(R"({"Command": 5, "realmID": "r1", "RequestID": "t1"})"),
              R"({ "ReplytoRequestID":"t1","ReturnCode" : 0 , "tenantID" : "on-premises", )"
              R"("realmName" : "broker-7" })");
    // In cloud mode a "tenant." entry answers without the gateway; its texts are escaped.
    config->cloud_mode = true;
    ASSERT_EQ(qv_nats_kv_put(config->main_nats_config.get(), QV_KV_CONFIG_BUCKET, "tenant.r1",
                             R"({"tenantID":"T-9","realmName":"Realm \"One\""})", 0),
              0);
    const std::string reply = client(R"({"Command": 5, "realmID": "r1", "RequestID": "t3"})");
    EXPECT_EQ(reply, R"({ "ReplytoRequestID":"t3","ReturnCode" : 0 , "tenantID" : "T-9", )"
                     R"("realmName" : "Realm \"One\"" })");
    EXPECT_TRUE(qv_json_parse_object(reply));
    // An entry with an empty member does not count; without a gateway the lookup fails.
    ASSERT_EQ(qv_nats_kv_put(config->main_nats_config.get(), QV_KV_CONFIG_BUCKET, "tenant.r2",
                             R"({"tenantID":"","realmName":"x"})", 0),
              0);
    config->apigw_url = "https://127.0.0.1:1";
    EXPECT_EQ(client(R"({"Command": 5, "realmID": "r2", "RequestID": "t2"})"),
              R"({ "ReplytoRequestID":"t2","ReturnCode" : -1000 , "Error" : "Failed to retrieve )"
              R"(tenantID or realmName" })");
}

TEST_F(ScanConfigRequests, DispatchersAcceptOnlyTheirCommands) {
    int rc = -2;
    for (const char* body : {R"({"Command": 201})", R"({"Command": 202})", R"({"Command": 100})",
                             R"({"Command": 6})", R"({"x": 1})"}) {
        EXPECT_EQ(qvtest::call_handler(qv_av_control_worker_service_request_handler, config.get(),
                                       body, &rc),
                  R"({"ReturnCode": 0})")
            << body;
        EXPECT_EQ(rc, 0);
    }
    // Kept: the code is -1000 although the hash is delivered.
    EXPECT_EQ(service(R"({"Command": 11})"), R"({ "ReturnCode": -1000, "Confighash": "c0ffee"})");
    for (const char* body : {R"({"Command": 203})", R"({"Command": 200})", R"({"Command": 11})",
                             R"({"Command": 3})"}) {
        EXPECT_EQ(client(body), R"({"ReturnCode": 0})") << body;
    }
}

TEST_F(ScanConfigRequests, ConsolidatedInitAnswersTenantScanAndDriversInOrder) {
    file("vsa", "scan.default.default", "A=1\n");
    ASSERT_EQ(register_worker("qv-av-trellix", "qv-av-trellix.host1_1"), 0);
    const auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(
        client(
            R"({"Command": 6, "realmID": "r1", "SID": "PRD", "Hostname": "sap01",)"
            R"( "RequestID": "i1", "Services": [" QV-AV-Trellix\t", 42, null, "qv-av-mimescan"]})"),
        R"({"ReplytoRequestID":"i1","tenantID":"on-premises","realmName":"broker-7",)"
        R"("SCAN":[["A","1"]],"Services":[{"Servicename":"qv-av-trellix","Driverinfo":)"
        R"({"Present":true,"ReturnCode":0,"MajorVersion":6,"MinorVersion":2,)"
        R"("NumberOfViruses":5000000000,"NumberOfVariants":12,"Timestamp":1700000000,)"
        R"("DriverName":"engine-x"}},{"Servicename":"qv-av-mimescan","Driverinfo":)"
        R"({"Present":false,"ReturnCode":-1000}}],"ReturnCode":0})");
    // The missing service was looked for eleven times, 200 ms apart.
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(2200));
}

// A stored scan configuration without "SCAN", and the null "SCAN" of an installation without
// scan files, are no configuration to start with.
TEST_F(ScanConfigRequests, ConsolidatedInitFailsWholeWithoutAScanConfiguration) {
    ASSERT_EQ(qv_nats_kv_put(config->main_nats_config.get(), QV_KV_CONFIG_BUCKET, "scan.r1.PRD",
                             R"({"OTHER": 1})", 0),
              0);
    for (const char* realm : {"r1", "r2"}) {
        EXPECT_EQ(client(R"({"Command": 6, "realmID": ")" + std::string(realm) +
                         R"(", "SID": "PRD", "Hostname": "h", "RequestID": "f", "Services": []})"),
                  R"({ "ReplytoRequestID":"f","ReturnCode" : -1000 , )"
                  R"("Error" : "CONSOLIDATED_INIT failed" })")
            << realm;
    }
}

TEST_F(ScanConfigRequests, ConsolidatedInitWaitsForALateWorker) {
    file("vsa", "scan.default.default", "A=1\n");
    // A worker that registers while the request waits is reported present.
    std::thread late([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        register_worker("qv-av-mimescan", "qv-av-mimescan.host2_1");
    });
    const std::string reply =
        client(R"({"Command": 6, "realmID": "r1", "SID": "PRD", "Hostname": "h", "RequestID": "w",)"
               R"( "Services": ["qv-av-mimescan"]})");
    late.join();
    EXPECT_NE(reply.find(R"({"Servicename":"qv-av-mimescan","Driverinfo":{"Present":true)"),
              std::string::npos)
        << reply;
}

TEST_F(ScanConfigRequests, ConsolidatedInitBoundsTheWaitOfOneRequest) {
    file("vsa", "scan.default.default", "A=1\n");
    std::string request =
        R"({"Command": 6, "realmID": "r1", "SID": "PRD", "Hostname": "h", "RequestID": "b",)"
        R"( "Services": [)";
    for (int i = 0; i < 20; ++i) {
        request += std::string(i ? "," : "") + "\"qv-av-missing" + std::to_string(i) + "\"";
    }
    LogCapture log;
    const std::string reply = client(request + "]}");
    // Twenty missing services would wait 44 s one after the other; after five the rest are
    // looked up once each.
    EXPECT_EQ(log.count("CONSOLIDATED_INIT: wait budget of this request spent"), 1);
    EXPECT_EQ(log.count("CONSOLIDATED_INIT: no worker registered for service qv-av-missing"), 20);
    EXPECT_TRUE(qv_json_parse_object(reply)) << reply;
    EXPECT_EQ(qvtest::count_of(reply, "\"Servicename\""), 20u);
}
