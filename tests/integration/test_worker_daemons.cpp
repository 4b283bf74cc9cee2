// Two real daemons on one NATS server acting as one worker-control service: a registration is
// relayed by one of them, projected by both from the shared registry bucket, flushed once by
// each, and dropped by both when its lease lapses.
#include <gtest/gtest.h>

#include <atomic>
#include <string>

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
        if (rr->request->json_txt == R"({"Command":12,"RealmID":"*","SID":"*"})") {
            static_cast<FlushCounter*>(context)->flushes++;
        }
        rr->reply->json_txt = "{\"ReturnCode\": 0}";
        return 0;
    }
};

bool has(const DaemonProcess& d, const std::string& text) {
    return d.logs().find(text) != std::string::npos;
}

}  // namespace

TEST(WorkerDaemons, TwoDaemonsProjectTheSameWorkersAndDropThemWhenTheLeaseLapses) {
    NatsServer server;
    ASSERT_TRUE(server.start());
    qv_kv_bucket_ages ages;
    ages.worker_registry_ms = 5000;
    ASSERT_EQ(server.create_buckets(ages), 0);
    // Registrations are leased for 2 s (shorter than the bucket's age) and reconciled every second.
    DaemonProcess first;
    DaemonProcess second;
    for (DaemonProcess* d : {&first, &second}) {
        d->use_nats(server.url());
        d->control_keys["WORKER_REGISTRY_TTL"] = "2";
        d->control_keys["WORKER_REGISTRY_SYNC_INTERVAL"] = "1";
        ASSERT_TRUE(d->start_serving()) << d->logs();
    }

    FlushCounter worker;
    std::atomic<int> stop{0};  // both outlive the worker's handler threads
    qvtest::NatsClient client(server);
    const std::string name = std::string("qv-av-mimescan.") + qvhlp_GetMyFQDN() + "_7";
    ASSERT_EQ(qv_nats_start_service_handler_threads(client.get(), name.c_str(),
                                                    FlushCounter::handler, &worker, &stop, 1),
              0);
    ASSERT_EQ(
        client.request("qv-av-worker-control",
                       R"({"Command": 200, "service-name": "qv-av-mimescan", "worker-name": ")" +
                           name + R"(", "Secret": "s3cret"})"),
        R"({"ReturnCode":0})");

    // Each daemon, finding a new local mime-scan worker in the bucket, flushes it once.
    const std::string projected = "Registry: new worker node qv-av-mimescan @ " + name;
    EXPECT_TRUE(wait_until([&] { return has(first, projected) && has(second, projected); }))
        << first.logs() << second.logs();
    EXPECT_NE(has(first, "qvctrl_handle_service_registration()"),
              has(second, "qvctrl_handle_service_registration()"));
    EXPECT_TRUE(wait_until([&] { return worker.flushes.load() == 2; }));

    // No further beat: the lease lapses and both daemons drop the worker.
    const std::string dropped = "Registry: worker " + name + " gone (KV entry expired)";
    EXPECT_TRUE(wait_until([&] { return has(first, dropped) && has(second, dropped); }))
        << first.logs() << second.logs();
    EXPECT_EQ(first.stop(), 0);
    EXPECT_EQ(second.stop(), 0);
}
