// The worker-control services of real daemons: registration through the service, the projection
// each daemon builds from the shared registry bucket, the cache flushes a test worker receives,
// and two daemons on one NATS server acting as one service.
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <utime.h>

#include "daemon_process.h"
#include "nats_server.h"
#include "qv_json.h"
#include "qv_nats_client.h"
#include "qvhlp_network.h"

using qvtest::DaemonProcess;
using qvtest::NatsServer;
using qvtest::wait_until;

namespace {

// A test worker on its own subject: answers flush requests and counts them.
struct FlushCounter {
    std::atomic<int> flushes{0};
    static int handler(void* context, qv_const_request_reply_t* rr) {
        auto* self = static_cast<FlushCounter*>(context);
        if (rr->request->json_txt == R"({"Command":12,"RealmID":"*","SID":"*"})") {
            self->flushes++;
        }
        rr->reply->json_txt = "{\"ReturnCode\": 0}";
        return 0;
    }
};

class WorkerDaemons : public ::testing::Test {
  protected:
    NatsServer server;
    std::unique_ptr<qv_nats_config> client;
    std::atomic<int> stop{0};

    void SetUp() override {
        ASSERT_TRUE(server.start());
        qv_kv_bucket_ages ages;
        ages.worker_registry_ms = 5000;
        ASSERT_EQ(server.create_buckets(ages), 0);
        client = qv_nats_config_new();
        client->server_url = server.url();
        client->cert_path = qvtest::test_certificates().ca_cert;
        ASSERT_EQ(qv_nats_init(client.get()), 0);
    }
    void TearDown() override {
        stop = 1;
        qv_nats_deinit(client.get());
    }

    // A daemon that leases registrations for 2 s and reconciles every second.
    void start_daemon(DaemonProcess& d) {
        d.use_nats(server.url());
        d.control_keys["WORKER_REGISTRY_TTL"] = "2";
        d.control_keys["WORKER_REGISTRY_SYNC_INTERVAL"] = "1";
        d.control_keys["SERVICE-SIDE-WORKER-THREADS"] = "2";
        d.control_keys["CLIENT-SIDE-WORKER-THREADS"] = "2";
        d.write_config();
        ASSERT_TRUE(d.start());
        ASSERT_TRUE(d.wait_for_log("Entering main loop")) << d.logs();
    }
    std::string request(const char* service, const std::string& body) {
        std::string err;
        qv::json_ptr reply =
            qv_nats_send_recv_json(client.get(), service, body.c_str(), 5000, 0, &err);
        return reply ? qv_json_to_string(reply.get()) : "no reply: " + err;
    }
    std::string register_worker(const std::string& service, const std::string& name) {
        return request("qv-av-worker-control", R"({"Command": 200, "service-name": ")" + service +
                                                   R"(", "worker-name": ")" + name +
                                                   R"(", "Secret": "s3cret"})");
    }
    void serve_worker(const std::string& subject, FlushCounter* counter) {
        ASSERT_EQ(qv_nats_start_service_handler_threads(client.get(), subject.c_str(),
                                                        FlushCounter::handler, counter, &stop, 1),
                  0);
    }
    static bool has(const DaemonProcess& d, const std::string& text) {
        return d.logs().find(text) != std::string::npos;
    }
};

std::string local_mimescan(const std::string& suffix) {
    return std::string("qv-av-mimescan.") + qvhlp_GetMyFQDN() + "_" + suffix;
}

}  // namespace

TEST_F(WorkerDaemons, TwoDaemonsProjectTheSameWorkersAndOneKeepsServingAlone) {
    DaemonProcess first;
    DaemonProcess second;
    start_daemon(first);
    start_daemon(second);

    const std::string name = local_mimescan("7");
    FlushCounter worker;
    serve_worker(name, &worker);
    ASSERT_EQ(register_worker("qv-av-mimescan", name), R"({"ReturnCode":0})");

    // One daemon relayed the registration; both project it from the bucket, and each, finding
    // a new local mime-scan worker, flushes it once.
    const std::string projected = "Registry: new worker node qv-av-mimescan @ " + name;
    EXPECT_TRUE(wait_until([&] { return has(first, projected) && has(second, projected); }))
        << first.logs() << second.logs();
    const bool first_relayed = has(first, "qvctrl_handle_service_registration()");
    const bool second_relayed = has(second, "qvctrl_handle_service_registration()");
    EXPECT_NE(first_relayed, second_relayed);
    EXPECT_TRUE(wait_until([&] { return worker.flushes.load() == 2; }));

    // No further beat: the lease lapses and both daemons drop the worker.
    const std::string dropped = "Registry: worker " + name + " gone (KV entry expired)";
    EXPECT_TRUE(wait_until([&] { return has(first, dropped) && has(second, dropped); }))
        << first.logs() << second.logs();

    // The second daemon serves alone: registration, both pools, and the main loop's check of the
    // mime configuration directory (its time set back: any difference counts).
    EXPECT_EQ(first.stop(), 0);
    const std::string later = local_mimescan("8");
    FlushCounter later_worker;
    serve_worker(later, &later_worker);
    EXPECT_EQ(register_worker("qv-av-mimescan", later), R"({"ReturnCode":0})");
    EXPECT_TRUE(wait_until([&] { return later_worker.flushes.load() == 1; })) << second.logs();
    const utimbuf times{1600000000, 1600000000};
    ASSERT_EQ(utime((second.basedir() + "/config/mime").c_str(), &times), 0);
    EXPECT_TRUE(wait_until([&] { return later_worker.flushes.load() == 2; })) << second.logs();
    EXPECT_EQ(request("qv-av-control", R"({"Command": 2, "realmID": "r1", "SID": "PRD",
                                            "Hostname": "sap01", "Servicename": "x"})"),
              R"({"ReturnCode":0})");
    const std::string hash = request("qv-av-worker-control", R"({"Command": 11})");
    EXPECT_EQ(hash.rfind(R"({"ReturnCode":-1000,"Confighash":")", 0), 0u) << hash;
    EXPECT_EQ(second.stop(), 0);
}
