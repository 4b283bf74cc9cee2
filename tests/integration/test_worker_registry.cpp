// The registry relay, the registry poller's projection and the cache flush against a real
// nats-server, with the daemon's units in this process and test workers as NATS clients that
// answer on their own subjects.
#include <gtest/gtest.h>

#include <atomic>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.h"
#include "nats_server.h"
#include "qv_connection_client.h"
#include "qv_json.h"
#include "qv_nats_client.h"
#include "qvctrl_adjust_worker_capacity.h"
#include "qvctrl_flush_worker_caches.h"
#include "qvctrl_registry_poller.h"
#include "qvhlp_network.h"

using qvtest::NatsServer;
using qvtest::Recorder;
using qvtest::wait_until;

namespace {

class RegistryWithBroker : public ::testing::Test {
  protected:
    qvtest::LogCapture log;  // outlives the threads below, which log until they end
    NatsServer server;
    std::unique_ptr<quorvale_control_config_t> config = qvctrl_config_new();
    std::atomic<int> stop{0};
    std::thread poller;
    std::list<Recorder> workers;
    std::unique_ptr<qvtest::NatsClient> workers_connection;

    void SetUp() override {
        ASSERT_TRUE(server.start());
        qv_kv_bucket_ages ages;
        ages.worker_registry_ms = 3000;
        ASSERT_EQ(server.create_buckets(ages), 0);
        config->main_nats_config = server.client_config();
        ASSERT_EQ(qv_nats_init(config->main_nats_config.get()), 0);
        workers_connection = std::make_unique<qvtest::NatsClient>(server);
        config->controlled_services = {{"qv-av-trellix"}, {"qv-av-mimescan"}};
        config->worker_registry_enabled = true;
        config->worker_registry_ttl_ms = 2000;
        config->worker_registry_sync_interval_ms = 1000;
    }
    void TearDown() override {
        stop = 1;
        if (poller.joinable()) {
            poller.join();
        }
        workers_connection.reset();
        qv_nats_deinit(config->main_nats_config.get());
    }

    // A test worker: answers every request on its subject with {"ReturnCode": 0}, keeping them.
    Recorder& start_worker(const std::string& subject) {
        Recorder& worker = workers.emplace_back();
        EXPECT_EQ(qv_nats_start_service_handler_threads(workers_connection->get(), subject.c_str(),
                                                        Recorder::handle, &worker, &stop, 1),
                  0);
        return worker;
    }
    void start_poller() {
        poller = std::thread([this] { qvctrl_registry_poller_thread({config.get(), &stop}); });
    }
    void put_entry(const std::string& key, const std::string& value) {
        ASSERT_EQ(qv_connection_registry_put(config->main_nats_config.get(), key.c_str(),
                                             value.c_str(), 2000),
                  0);
    }
    static std::string registration(const std::string& service, const std::string& name) {
        return R"({"Command": 200, "service-name": ")" + service + R"(", "worker-name": ")" + name +
               R"(", "Secret": "s3cret"})";
    }
    void add_running(const std::string& service, const std::string& name) {
        auto w = std::make_shared<qv_active_worker_t>();
        w->servicename = service;
        w->controlservicename = name;
        w->secret = "s";
        config->running_services.append(w);
    }
    // The engine name of the projected worker; "-" when there is none.
    std::string driver_of(const std::string& name) {
        std::lock_guard<std::mutex> lock(config->listmutex);
        auto w = qvctrl_find_worker_by_name(&config->running_services, name.c_str());
        return w ? w->driver_name : "-";
    }
    bool running(const std::string& name) { return driver_of(name) != "-"; }
    int apply(const std::string& document) {
        return qvctrl_apply_worker_registration(config.get(), qv_json_parse(document).get());
    }
};

std::string local_name(const std::string& service, const std::string& suffix) {
    return service + "." + qvhlp_GetMyFQDN() + "_" + suffix;
}

const std::string kFlushAll = R"({"Command":12,"RealmID":"*","SID":"*"})";

}  // namespace

TEST_F(RegistryWithBroker, PollerProjectsTheBucketAndDropsWhatLeftIt) {
    // Relayed as a worker sends it: the whole document reaches the projection.
    const qv_message_t reply = qvctrl_handle_service_registration(
        config.get(), qv_json_parse(R"({"Command": 200, "service-name": "qv-av-trellix",
            "worker-name": "qv-av-trellix.remote-host_1", "Secret": "s", "DriverName": "eng"})")
                          .get());
    ASSERT_EQ(reply.json_txt, "{\"ReturnCode\": 0}");
    put_entry("qv-av-trellix.broken_1", "this is not JSON");
    put_entry("qv-av-trellix.nosecret_1",
              R"({"service-name": "qv-av-trellix", "worker-name": "qv-av-trellix.nosecret_1"})");
    put_entry("qv-av-mimescan", registration("qv-av-mimescan", "qv-av-mimescan"));
    // Projected by an earlier pass: one whose entry became unreadable (its key still shields
    // it), one whose entry is gone.
    add_running("qv-av-trellix", "qv-av-trellix.broken_1");
    add_running("qv-av-trellix", "qv-av-trellix.stale_1");

    start_poller();
    ASSERT_TRUE(log.wait_for("registry reconcile done"));
    EXPECT_EQ(driver_of("qv-av-trellix.remote-host_1"), "eng");
    EXPECT_TRUE(running("qv-av-trellix.broken_1"));
    EXPECT_FALSE(running("qv-av-trellix.stale_1"));
    EXPECT_FALSE(running("qv-av-trellix.nosecret_1"));
    EXPECT_FALSE(running("qv-av-mimescan"));
    EXPECT_TRUE(log.contains(
        "registry reconcile: could not parse registration for key 'qv-av-trellix.broken_1'"));
    // Four keys; the registration without a secret counts as upserted although it was refused,
    // the unparsable one and the key without a dot do not.
    EXPECT_TRUE(
        log.contains("registry reconcile done: KV keys=4 (upserted=2, not-installed-here=0), "
                     "running_services=2, dropped=1 (bucket 'qv-av-worker-registry')"));

    // Nobody beats: the entries lapse with the bucket's age and the next pass drops both.
    EXPECT_TRUE(wait_until([&] {
        return !running("qv-av-trellix.remote-host_1") && !running("qv-av-trellix.broken_1");
    }));
}

TEST_F(RegistryWithBroker, FailedSnapshotKeepsTheProjection) {
    const std::string name = "qv-av-trellix.remote-host_1";
    put_entry(name, registration("qv-av-trellix", name));
    start_poller();
    ASSERT_TRUE(wait_until([&] { return running(name); }));
    server.stop();
    ASSERT_TRUE(wait_until(
        [&] {
            return log.contains(
                "registry reconcile: KV snapshot failed (rc=-1) — keeping current projection");
        },
        std::chrono::seconds(60)));
    EXPECT_TRUE(running(name));
    EXPECT_FALSE(log.contains("absent from KV"));
}

TEST_F(RegistryWithBroker, ANewLocalMimeScanWorkerIsFlushedOnceInAnyLetterCase) {
    // The service name in capitals still names the mime-scan service; the worker name must start
    // with the service name as registered.
    const std::string mime = local_name("QV-AV-MIMESCAN", "2");
    const std::string ac = local_name("qv-av-activecontent", "1");
    const std::string remote = "qv-av-mimescan.elsewhere.example_1";
    const std::string trellix = local_name("qv-av-trellix", "1");
    Recorder& mime_worker = start_worker(mime);
    Recorder& ac_worker = start_worker(ac);
    Recorder& remote_worker = start_worker(remote);
    Recorder& trellix_worker = start_worker(trellix);
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(apply(registration("QV-AV-MIMESCAN", mime)), 0);
        ASSERT_EQ(apply(registration("qv-av-activecontent", ac)), 0);
        ASSERT_EQ(apply(registration("qv-av-mimescan", remote)), 0);
        ASSERT_EQ(apply(registration("qv-av-trellix", trellix)), 0);
    }
    // The flush is answered before the registration returns, so the counts are final here.
    EXPECT_EQ(mime_worker.received(), std::vector<std::string>{kFlushAll});
    EXPECT_EQ(ac_worker.received(), std::vector<std::string>{kFlushAll});
    EXPECT_TRUE(remote_worker.received().empty());
    EXPECT_TRUE(trellix_worker.received().empty());
}

TEST_F(RegistryWithBroker, FlushReachesEveryWorkerOfTheServiceDespiteAnUnreachableOne) {
    // The unreachable worker comes first, so the walk must go on after its failure.
    add_running("qv-av-mimescan", "qv-av-mimescan.gone-host_1");
    add_running("qv-av-mimescan", "qv-av-mimescan.host-a_1");
    add_running("qv-av-trellix", "qv-av-trellix.host-a_1");
    Recorder& mime = start_worker("qv-av-mimescan.host-a_1");
    Recorder& trellix = start_worker("qv-av-trellix.host-a_1");

    qvctrl_flush_worker_caches(config.get(), "qv-av-mimescan", "r1", nullptr);
    qvctrl_flush_worker_caches(config.get(), "qv-av-mimescan", "r1", "");
    qvctrl_flush_worker_caches(config.get(), "qv-av-mimescan", "r1", "PRD");
    qvctrl_flush_worker_caches(config.get(), "qv-av-mimescan", nullptr, "PRD");
    const std::vector<std::string> expected = {
        kFlushAll,
        R"({"Command":10,"RealmID":"r1"})",
        R"({"Command":10,"RealmID":"r1","SID":"PRD"})",
        kFlushAll,
    };
    EXPECT_EQ(mime.received(), expected);
    EXPECT_TRUE(trellix.received().empty());
    EXPECT_TRUE(log.contains("Failed to flush cache for worker qv-av-mimescan.gone-host_1 "));
}
