#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <curl/curl.h>

#include "amqp_broker.h"
#include "daemon_process.h"
#include "http_test_server.h"
#include "log_capture.h"
#include "nats_server.h"
#include "qv_json.h"
#include "qv_nats_client.h"
#include "qv_nats_kv.h"
#include "qv_test_util.h"
#include "qvctrl_backend_config_changes.h"
#include "qvctrl_config_kv.h"
#include "qvctrl_request_from_apigw.h"

using qvtest::base64;
using namespace std::chrono_literals;

namespace {

const std::string kScan = R"({"SCAN":{"MAXSIZE":"100"}})";
const std::string kMimeExt = R"({"MIME-type-to-extensions":{"text/plain":"txt"}})";
const std::string kMimeXlat = R"({"MIME-translations":{"application/x-pdf":"application/pdf"}})";
const std::string kAc = R"({"Active-content-definition":{"PDF":"JavaScript"}})";

// The four configurations as the backend and the API gateway deliver them: base64 members of an
// object, named as both name them.
std::string configurations(const std::string& scan = kScan, const std::string& mimeext = kMimeExt,
                           const std::string& mimexlat = kMimeXlat, const std::string& ac = kAc) {
    return R"({"fld_scanparameters":")" + base64(scan) + R"(","fld_mimetoextensionsmap":")" +
           base64(mimeext) + R"(","fld_mimetypemappings":")" + base64(mimexlat) +
           R"(","fld_activecontentconfiguration":")" + base64(ac) + R"("})";
}

// The API gateway's answer for a realm: its tenant and name, and the four configurations.
std::string gateway_reply(const std::string& ac) {
    std::string result = configurations(kScan, kMimeExt, kMimeXlat, ac);
    result.insert(1, R"("organization":{"cf_accounts_quorvalecloudid":"t1"},)"
                     R"("realm":{"fld_vtcmrealmsname":"Realm One"},)");
    return R"({"result":)" + result + "}";
}

std::string notification(const std::string& realm, const std::string& sid,
                         const std::string& result) {
    return R"({"value":{"realmId":)" + qvtest::quoted(realm) + R"(,"sid":)" + qvtest::quoted(sid) +
           R"(,"result":)" + result + "}}";
}

// A daemon's configuration record on a real server, with a running MIME scan worker and a running
// active content worker that record the flush requests they get.
class BackendConfigChanges : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { curl_global_init(CURL_GLOBAL_ALL); }

    void SetUp() override {
        ASSERT_TRUE(server.start());
        ASSERT_EQ(server.create_buckets(), 0);
        config = connected_config("instance-a");
        workers = std::make_unique<qvtest::NatsClient>(server);
        for (auto& [worker, recorder] : {std::pair{"qv-av-mimescan-w1", &mime},
                                         std::pair{"qv-av-activecontent-w1", &activecontent}}) {
            ASSERT_EQ(qv_nats_start_service_handler_threads(
                          workers->get(), worker, qvtest::Recorder::handle, recorder, &stop, 1),
                      0);
        }
        ASSERT_EQ(natsConnection_FlushTimeout(qv_nats_connection(workers->get()).get(), 10000),
                  NATS_OK);

        setenv("CURL_CA_BUNDLE", qvtest::test_certificates().ca_cert.c_str(), 1);
        qvctrl_apigw_set_timeouts_for_tests(2000, 3000);
        gateway.respond(200, gateway_reply(kAc));
    }
    void TearDown() override {
        unsetenv("CURL_CA_BUNDLE");
        qvctrl_apigw_set_timeouts_for_tests(10000, 30000);
        workers.reset();
        for (auto& c : configs) {
            qv_nats_deinit(c->main_nats_config.get());
        }
    }

    quorvale_control_config_t* connected_config(const char* confighash) {
        auto c = qvctrl_config_new();
        c->main_nats_config = server.client_config();
        EXPECT_EQ(qv_nats_init(c->main_nats_config.get()), 0);
        c->confighash = confighash;
        c->cloud_mode = true;
        c->apigw_url = gateway.url();
        c->config_poll_interval = 1;
        // Every instance projects the same two workers, so whichever holds the lease flushes them.
        for (auto [service, worker] :
             {std::pair{"qv-av-mimescan", "qv-av-mimescan-w1"},
              std::pair{"qv-av-activecontent", "qv-av-activecontent-w1"}}) {
            auto running = std::make_shared<qv_active_worker_t>();
            running->servicename = service;
            running->controlservicename = worker;
            c->running_services.append(running);
        }
        configs.push_back(std::move(c));
        return configs.back().get();
    }

    int notify(const std::string& text) {
        qv_message_t request{text, {}, {}};
        qv_message_t reply;
        qv_const_request_reply_t rr{&request, &reply};
        return qvctrl_backend_config_change_handler(config, &rr);
    }
    void cache(const char* prefix, const char* realm, const char* sid, const std::string& json) {
        qv::json_ptr object = qv_json_parse(json);
        qvctrl_config_kv_put(config, prefix, realm, sid, object.get());
    }
    std::string cached(const char* prefix, const char* realm, const char* sid) {
        qv::json_ptr object = qvctrl_config_kv_get(config, prefix, realm, sid);
        return object ? qv_json_to_string(object.get()) : "(none)";
    }
    std::string lease_holder() {
        std::string holder;
        qv_nats_kv_get(config->main_nats_config.get(), QV_KV_CONFIG_BUCKET,
                       QVCTRL_CONFIG_POLLER_LEASE_KEY, &holder);
        return holder;
    }

    static std::string flush_of(const char* realm, const char* sid) {
        return std::string(R"({"Command":10,"RealmID":")") + realm + R"(","SID":")" + sid + "\"}";
    }

    qvtest::NatsServer server;
    qvtest::HttpTestServer gateway{{.tls = true}};
    std::vector<std::unique_ptr<quorvale_control_config_t>> configs;
    quorvale_control_config_t* config = nullptr;
    std::atomic<int> stop{0};
    qvtest::Recorder mime, activecontent;
    std::unique_ptr<qvtest::NatsClient> workers;
    qvtest::LogCapture log;
};

TEST_F(BackendConfigChanges, NotificationReplacesOnlyCachedEntriesAndFlushesTheirWorkers) {
    cache(QVCTRL_CONFIG_PREFIX_SCAN, "r1", "s1", R"({"SCAN":{"MAXSIZE":"1"}})");
    cache(QVCTRL_CONFIG_PREFIX_AC, "r1", "s1", R"({"Active-content-definition":{}})");
    cache(QVCTRL_CONFIG_PREFIX_MIMEEXT, "r1", "s1", kMimeExt);

    ASSERT_EQ(notify(notification("r1", "s1", configurations())), 0);
    EXPECT_EQ(cached(QVCTRL_CONFIG_PREFIX_SCAN, "r1", "s1"), kScan);
    EXPECT_EQ(cached(QVCTRL_CONFIG_PREFIX_AC, "r1", "s1"), kAc);
    EXPECT_EQ(cached(QVCTRL_CONFIG_PREFIX_MIMEEXT, "r1", "s1"), kMimeExt);
    // Not cached before, not cached now: nobody asked for it.
    EXPECT_EQ(cached(QVCTRL_CONFIG_PREFIX_MIMEXLAT, "r1", "s1"), "(none)");
    // Active content changed: its workers flush that pair. The scan change flushes nobody, and
    // the MIME workers have nothing new.
    EXPECT_EQ(activecontent.received(), std::vector<std::string>{flush_of("r1", "s1")});
    EXPECT_EQ(mime.count(), 0u);

    const std::string other_map = R"({"MIME-type-to-extensions":{"text/html":"htm"}})";
    ASSERT_EQ(notify(notification("r1", "s1", configurations(kScan, other_map))), 0);
    EXPECT_EQ(cached(QVCTRL_CONFIG_PREFIX_MIMEEXT, "r1", "s1"), other_map);
    EXPECT_EQ(mime.received(), std::vector<std::string>{flush_of("r1", "s1")});
    EXPECT_EQ(activecontent.count(), 1u);

    // A pair no client asked for: nothing is created, nobody is flushed.
    ASSERT_EQ(notify(notification("r9", "s9", configurations())), 0);
    for (const char* prefix : {QVCTRL_CONFIG_PREFIX_SCAN, QVCTRL_CONFIG_PREFIX_MIMEEXT,
                               QVCTRL_CONFIG_PREFIX_MIMEXLAT, QVCTRL_CONFIG_PREFIX_AC}) {
        EXPECT_EQ(cached(prefix, "r9", "s9"), "(none)") << prefix;
    }
    EXPECT_EQ(mime.count() + activecontent.count(), 2u);
}

TEST_F(BackendConfigChanges, UndecodableNotificationsChangeNothing) {
    cache(QVCTRL_CONFIG_PREFIX_SCAN, "r1", "s1", kScan);
    const std::string changed = configurations(R"({"SCAN":{}})");

    EXPECT_EQ(notify("not json"), -1);
    EXPECT_TRUE(log.contains("Failed to parse JSON. Errorcode: "));
    // Without "value" the realm and SID are empty and the result is missing.
    EXPECT_EQ(notify(R"({"result":)" + changed + "}"), -1);
    EXPECT_TRUE(log.contains("No result in response"));
    EXPECT_EQ(notify(R"({"value":{"realmId":"r1","sid":"s1","result":"x"}})"), -1);

    // Members that are not base64 JSON, or are missing, are skipped with a warning.
    EXPECT_EQ(notify(notification("r1", "s1", R"({"fld_scanparameters":"%%%"})")), 0);
    EXPECT_TRUE(log.contains("No Scan configuration found in result"));
    EXPECT_TRUE(log.contains("No MIME translations configuration found in result"));
    // A realm that only looks like r1 up to an embedded NUL, or carries characters no key may
    // hold, never reaches r1's entry.
    EXPECT_EQ(notify(R"({"value":{"realmId":"r1\u0000x","sid":"s1","result":)" + changed + "}}"),
              0);
    EXPECT_EQ(notify(notification("r1 *", "s1", changed)), 0);
    EXPECT_EQ(notify(notification("r1", "s1>", changed)), 0);
    EXPECT_EQ(cached(QVCTRL_CONFIG_PREFIX_SCAN, "r1", "s1"), kScan);
    EXPECT_EQ(mime.count() + activecontent.count(), 0u);
}

TEST_F(BackendConfigChanges, OnePollerHoldsTheLeaseAndAnotherTakesOverWhenItStops) {
    EXPECT_EQ(qvctrl_config_poller_lease_ms(3), 10000);
    EXPECT_EQ(qvctrl_config_poller_lease_ms(60), 120000);

    cache(QVCTRL_CONFIG_PREFIX_SCAN, "r1", "s1", R"({"SCAN":{"MAXSIZE":"1"}})");
    cache(QVCTRL_CONFIG_PREFIX_AC, "r1", "s1", kAc);
    quorvale_control_config_t* second = connected_config("instance-b");
    poller_thread_params_t params_a, params_b;
    params_a.config = config;
    params_b.config = second;
    struct Pollers {
        std::atomic<int>& stop;
        std::thread a, b;
        ~Pollers() {
            stop = 1;
            a.join();
            b.join();
        }
    } pollers{stop, std::thread([&] { qvctrl_config_poller_thread(&params_a, &stop); }),
              std::thread([&] { qvctrl_config_poller_thread(&params_b, &stop); })};

    ASSERT_TRUE(qvtest::wait_until(
        [&] { return cached(QVCTRL_CONFIG_PREFIX_SCAN, "r1", "s1") == kScan; }, 20s))
        << log.text();
    const std::string holder = lease_holder();
    ASSERT_TRUE(holder == "instance-a" || holder == "instance-b") << holder;
    EXPECT_EQ(gateway.requests()[0].target, "/configurations/control?realmId=r1&sidName=s1");
    // Kinds that were not cached stay uncached; unchanged ones flush nobody.
    EXPECT_EQ(cached(QVCTRL_CONFIG_PREFIX_MIMEEXT, "r1", "s1"), "(none)");
    EXPECT_EQ(activecontent.count(), 0u);

    // A change on the management side reaches the cache and the workers within a pass or two.
    const std::string ac2 = R"({"Active-content-definition":{"DOCX":"Macro"}})";
    gateway.respond(200, gateway_reply(ac2));
    ASSERT_TRUE(qvtest::wait_until([&] { return activecontent.count() >= 1; }, 20s));
    EXPECT_TRUE(
        qvtest::wait_until([&] { return cached(QVCTRL_CONFIG_PREFIX_AC, "r1", "s1") == ac2; }));
    EXPECT_EQ(activecontent.received()[0], flush_of("r1", "s1"));

    // The holder stops: the other instance takes the lease once it has run out.
    poller_thread_params_t& holding = holder == "instance-a" ? params_a : params_b;
    holding.targetstatus = STOP;
    ASSERT_TRUE(qvtest::wait_until([&] { return holding.currentstatus == TERMINATED; }, 5s));
    const std::string other = holder == "instance-a" ? "instance-b" : "instance-a";
    EXPECT_TRUE(qvtest::wait_until([&] { return lease_holder() == other; }, 30s)) << lease_holder();
    const size_t before = gateway.request_count();
    EXPECT_TRUE(qvtest::wait_until([&] { return gateway.request_count() > before; }, 10s));
}

}  // namespace

// The daemon in cloud mode with a real AMQP backend: change notifications on the backend topic
// reach the cached configurations in the bucket; garbage, a flood and a backend that goes away
// and comes back leave it serving.
TEST(BackendDaemon, NotificationsReachTheCacheThroughABadAndVanishingBackend) {
    qvtest::NatsServer server;
    ASSERT_TRUE(server.start());
    ASSERT_EQ(server.create_buckets(), 0);
    qvtest::AmqpBroker backend({.tls = true});
    ASSERT_TRUE(backend.start());

    // The test's own view of the bucket, through the same key rules as the daemon's.
    auto view = qvctrl_config_new();
    view->main_nats_config = server.client_config();
    ASSERT_EQ(qv_nats_init(view->main_nats_config.get()), 0);
    const auto cached = [&] {
        qv::json_ptr object =
            qvctrl_config_kv_get(view.get(), QVCTRL_CONFIG_PREFIX_SCAN, "r1", "s1");
        return object ? qv_json_to_string(object.get()) : std::string("(none)");
    };
    qvctrl_config_kv_put(view.get(), QVCTRL_CONFIG_PREFIX_SCAN, "r1", "s1",
                         qv_json_parse(R"({"SCAN":{"MAXSIZE":"1"}})").get());

    qvtest::DaemonProcess d;
    d.use_nats(server.url());
    d.global_keys["CLOUD_MODE"] = "1";
    d.global_keys["BACKEND_BROKER_URL"] =
        "amqp://" + backend.host() + ":" + std::to_string(backend.port());
    d.global_keys["BACKEND_BROKER_CERT"] = qvtest::test_certificates().ca_cert;
    d.control_keys["BACKEND_BROKER_USER"] = "qv-test";
    d.control_keys["BACKEND_BROKER_PASSWORD"] = "qv-test-secret";
    ASSERT_TRUE(d.start_serving()) << d.logs();
    EXPECT_TRUE(d.wait_for_log("Created backend thread"));
    ASSERT_TRUE(qvtest::wait_until([&] {
        return backend.receivers(QVCTRL_BACKEND_CONTROL_ADDRESS) >= 1;
    })) << d.logs();
    qvtest::NatsClient client(server);

    // Garbage and a flood of notifications for pairs nobody cached change nothing.
    backend.publish(QVCTRL_BACKEND_CONTROL_ADDRESS, "not json");
    backend.publish_body(QVCTRL_BACKEND_CONTROL_ADDRESS,
                         std::vector<proton::value>{proton::value(42)});
    const std::string other = configurations(R"({"SCAN":{"MAXSIZE":"7"}})");
    for (int i = 0; i < 1000; ++i) {
        backend.publish(QVCTRL_BACKEND_CONTROL_ADDRESS,
                        notification("r" + std::to_string(i + 2), "s1", other));
    }
    EXPECT_EQ(client.ping(), 0);
    // A topic drops what arrives while its receiver has no credit left, as the flood may leave
    // it: the notification that must arrive waits until the daemon has given credit again.
    ASSERT_TRUE(qvtest::wait_until(
        [&] { return backend.receivers(QVCTRL_BACKEND_CONTROL_ADDRESS) >= 1; }, 60s));
    backend.publish(QVCTRL_BACKEND_CONTROL_ADDRESS, notification("r1", "s1", configurations()));
    EXPECT_TRUE(qvtest::wait_until([&] { return cached() == kScan; }, 60s)) << cached();
    EXPECT_TRUE(d.wait_for_log("Failed to parse JSON. Errorcode: "));
    EXPECT_TRUE(d.wait_for_log("Invalid data type in message"));

    // The backend goes away: the daemon serves on; once it is back, notifications arrive again.
    backend.stop();
    EXPECT_EQ(client.ping(), 0);
    ASSERT_TRUE(backend.start());
    ASSERT_TRUE(qvtest::wait_until(
        [&] { return backend.receivers(QVCTRL_BACKEND_CONTROL_ADDRESS) >= 1; }, 90s));
    const std::string scan3 = R"({"SCAN":{"MAXSIZE":"3"}})";
    backend.publish(QVCTRL_BACKEND_CONTROL_ADDRESS,
                    notification("r1", "s1", configurations(scan3)));
    EXPECT_TRUE(qvtest::wait_until([&] { return cached() == scan3; })) << cached();
    EXPECT_EQ(client.ping(), 0);
    EXPECT_EQ(d.stop(), 0);
    qv_nats_deinit(view->main_nats_config.get());
}
