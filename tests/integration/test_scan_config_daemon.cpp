// The configuration services of the real daemon on premises: the example installation answering
// a consolidated init for a worker registered over NATS, a changed vsa directory releasing the
// cached scan configurations, and a changed mime directory clearing the bucket before the
// workers are told to flush.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <string>

#include <utime.h>

#include "daemon_process.h"
#include "nats_server.h"
#include "qv_json.h"
#include "qv_nats_client.h"
#include "qv_nats_kv.h"

using qvtest::DaemonProcess;
using qvtest::NatsServer;
using qvtest::wait_until;

namespace {

class ScanConfigDaemon : public ::testing::Test {
  protected:
    NatsServer server;
    std::unique_ptr<qv_nats_config> client;
    DaemonProcess daemon;
    std::atomic<int> stop{0};

    void SetUp() override {
        ASSERT_TRUE(server.start());
        ASSERT_EQ(server.create_buckets(), 0);
        client = server.client_config();
        ASSERT_EQ(qv_nats_init(client.get()), 0);
        // The shipped example files, with directory times well in the past, so that any change
        // the test makes is newer even within the daemon's first second.
        const std::filesystem::path config = std::filesystem::path(daemon.basedir()) / "config";
        std::filesystem::copy(std::string(QV_SOURCE_DIR) + "/examples/basedir/config", config,
                              std::filesystem::copy_options::recursive |
                                  std::filesystem::copy_options::overwrite_existing);
        const utimbuf times{1600000000, 1600000000};
        for (const char* dir : {"vsa", "mime", "activecontent"}) {
            ASSERT_EQ(utime((config / dir).c_str(), &times), 0);
        }
        daemon.use_nats(server.url());
        daemon.global_keys["BROKER_NAME"] = "broker-x";
        daemon.global_keys["INSTALLED"] = "qv-av-trellix;qv-av-mimescan;qv-av-activecontent";
        daemon.control_keys["WORKER_REGISTRY_SYNC_INTERVAL"] = "1";
        ASSERT_TRUE(daemon.start_serving()) << daemon.logs();
    }
    void TearDown() override {
        stop = 1;
        EXPECT_EQ(daemon.stop(), 0);
        qv_nats_deinit(client.get());
    }

    std::string request(const char* service, const std::string& body) {
        std::string err;
        qv::json_ptr reply =
            qv_nats_send_recv_json(client.get(), service, body.c_str(), 10000, 0, &err);
        return reply ? qv_json_to_string(reply.get()) : "no reply: " + err;
    }
    // A worker configuration request (203 active content, 204/205 MIME) for r1/PRD.
    std::string worker_config(int command) {
        return request("qv-av-worker-control", R"({"Command": )" + std::to_string(command) +
                                                   R"(, "realmID": "r1", "SID": "PRD"})");
    }
    bool stored(const std::string& key) {
        std::string value;
        return qv_nats_kv_get(client.get(), QV_KV_CONFIG_BUCKET, key.c_str(), &value) == 0;
    }
};

// A test mime-scan worker: answers flush requests and notes whether the daemon had cleared the
// bucket's MIME entries by the time the flush arrived.
struct MimeWorker {
    qv_nats_config* client = nullptr;
    std::atomic<int> flushes{0};
    std::atomic<int> flushes_after_clearing{0};

    static int handler(void* context, qv_const_request_reply_t* rr) {
        auto* self = static_cast<MimeWorker*>(context);
        if (rr->request->json_txt == R"({"Command":12,"RealmID":"*","SID":"*"})") {
            std::string value;
            if (qv_nats_kv_get(self->client, QV_KV_CONFIG_BUCKET, "mimeext.r1.PRD", &value) != 0 &&
                qv_nats_kv_get(self->client, QV_KV_CONFIG_BUCKET, "mimexlat.r1.PRD", &value) != 0) {
                self->flushes_after_clearing++;
            }
            self->flushes++;
        }
        rr->reply->json_txt = "{\"ReturnCode\": 0}";
        return 0;
    }
};

}  // namespace

TEST_F(ScanConfigDaemon, TheExampleInstallationAnswersAConsolidatedInit) {
    ASSERT_EQ(request("qv-av-worker-control",
                      R"({"Command": 200, "service-name": "qv-av-trellix", "worker-name": )"
                      R"("qv-av-trellix.scanhost_1", "Secret": "s", "DriverName": "engine",)"
                      R"( "MajorVersion": 6, "MinorVersion": 1, "NumberOfViruses": 100,)"
                      R"( "NumberOfVariants": 3, "Timestamp": 1700000000})"),
              R"({"ReturnCode":0})");
    const std::string reply = request(
        "qv-av-control", R"({"Command": 6, "realmID": "r1", "SID": "PRD", "Hostname": "sap01",)"
                         R"( "RequestID": "init-1", "Services": ["qv-av-trellix"]})");
    qv::json_ptr parsed = qv_json_parse_object(reply);
    ASSERT_TRUE(parsed) << reply;
    EXPECT_EQ(reply.rfind(R"({"ReplytoRequestID":"init-1","tenantID":"on-premises",)"
                          R"("realmName":"broker-x","SCAN":[["ScanBestEffort","1"],)",
                          0),
              0u)
        << reply;
    EXPECT_NE(reply.find(R"("Services":[{"Servicename":"qv-av-trellix","Driverinfo":)"
                         R"({"Present":true,"ReturnCode":0,"MajorVersion":6,"MinorVersion":1,)"
                         R"("NumberOfViruses":100,"NumberOfVariants":3,"Timestamp":1700000000,)"
                         R"("DriverName":"engine"}}],"ReturnCode":0})"),
              std::string::npos)
        << reply;
    EXPECT_TRUE(stored("scan.r1.PRD"));

    // The example's MIME and active-content defaults are served to workers as well.
    EXPECT_EQ(worker_config(205).rfind(
                  R"({"MIME-translations":[["application/x-pdf","application/pdf"],)", 0),
              0u);
    EXPECT_EQ(
        worker_config(203).rfind(R"({"Active-content-definition":[["PDF-JavaScript","block"],)", 0),
        0u);
}

TEST_F(ScanConfigDaemon, ANewerVsaDirectoryReleasesTheCachedScanConfigurations) {
    const std::string vsa = R"({"Command": 100, "realmID": "r1", "SID": "PRD", "RequestID": "v"})";
    ASSERT_EQ(request("qv-av-control", vsa).find("MaxArchiveDepth\",\"3\""), std::string::npos);
    ASSERT_TRUE(stored("scan.r1.PRD"));
    qvtest::write_file(daemon.basedir() + "/config/vsa/scan.r1.default", "MaxArchiveDepth=3\n");
    EXPECT_TRUE(daemon.wait_for_log("Scan configurations were updated - reloading"))
        << daemon.logs();
    EXPECT_TRUE(wait_until([&] {
        return request("qv-av-control", vsa).find(R"(["MaxArchiveDepth","3"])") !=
               std::string::npos;
    }));
}

TEST_F(ScanConfigDaemon, AChangedMimeDirectoryClearsTheBucketBeforeTheWorkersFlush) {
    MimeWorker worker;
    worker.client = client.get();
    const std::string name = "qv-av-mimescan.otherhost_1";
    ASSERT_EQ(qv_nats_start_service_handler_threads(client.get(), name.c_str(), MimeWorker::handler,
                                                    &worker, &stop, 1),
              0);
    ASSERT_EQ(request("qv-av-worker-control",
                      R"({"Command": 200, "service-name": "qv-av-mimescan", "worker-name": ")" +
                          name + R"(", "Secret": "s"})"),
              R"({"ReturnCode":0})");
    ASSERT_TRUE(daemon.wait_for_log("Registry: new worker node qv-av-mimescan @ " + name))
        << daemon.logs();
    for (int command : {203, 204, 205}) {
        ASSERT_NE(worker_config(command).find("ReturnCode\":0"), std::string::npos) << command;
    }
    ASSERT_TRUE(stored("mimeext.r1.PRD") && stored("mimexlat.r1.PRD"));

    qvtest::write_file(daemon.basedir() + "/config/mime/mimetype-translations.r1.default",
                       "a/x -> a/y\n");
    EXPECT_TRUE(wait_until([&] { return worker.flushes.load() == 1; })) << daemon.logs();
    EXPECT_EQ(worker.flushes_after_clearing.load(), 1);
    // Active content is another kind: its entry stays.
    EXPECT_TRUE(stored("ac.r1.PRD"));
    EXPECT_EQ(worker_config(205), R"({"MIME-translations":[["a/x","a/y"]],"ReturnCode":0})");
}
