// Worker registration throughput: concurrent workers beating through the service-side control
// service (each beat relayed into the registry bucket under its lease) against a bare
// request/reply responder with the same thread count, on one nats-server in the same run. Prints
// requests per second and p50/p99 latency of both and their ratio, then how long the registry
// poller takes to project the whole fleet. A second baseline writes each request to the bucket
// before it answers: what a registration costs the server, without the daemon around it.
//
//   bench_registration [requests per requester] [requesters] [fleet size]
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "bench_load.h"
#include "nats_server.h"
#include "qv_nats_client.h"
#include "qv_nats_kv.h"
#include "qvctrl_config.h"
#include "qvctrl_registry_poller.h"
#include "qvctrl_worker_request_handlers.h"

namespace {

using clock_type = std::chrono::steady_clock;

constexpr int kServiceThreads = 10;  // the daemon's default service-side pool

std::string s_registration(int worker) {
    const std::string name = "qv-av-trellix.bench-host-" + std::to_string(worker) + "_1";
    return R"({"Command": 200, "service-name": "qv-av-trellix", "worker-name": ")" + name +
           R"(", "Secret": "bench", "DriverName": "engine", "MajorVersion": 6,)"
           R"( "MinorVersion": 2, "NumberOfViruses": 123456, "NumberOfVariants": 7,)"
           R"( "Timestamp": 1700000000})";
}

void s_print(const char* name, const qvbench::load_result& r) {
    printf("%-22s %10.0f %9.2f %9.2f %9d\n", name, r.per_second, r.p50_ms, r.p99_ms, r.failures);
}

// The fastest responder that does what a registration does: each request is written to the
// registry bucket (a JetStream publish awaiting its acknowledgement) and then answered, from the
// subscription callbacks of a queue group, one delivery thread per member, so that the writes of
// concurrent requesters overlap as the daemon's handler threads let them.
class jetstream_responder {
  public:
    jetstream_responder(const std::string& url, const std::string& subject, int members)
        : conn_(qvbench::connect_asap(url)) {
        jsCtx* js = nullptr;
        if (!conn_ || natsConnection_JetStream(&js, conn_.get(), nullptr) != NATS_OK) {
            return;
        }
        js_.reset(js);
        for (int i = 0; i < members; ++i) {
            natsSubscription* sub = nullptr;
            if (natsConnection_QueueSubscribe(&sub, conn_.get(), subject.c_str(), "bare",
                                              on_message, this) != NATS_OK) {
                return;
            }
            subs_.emplace_back(sub);
        }
        natsConnection_Flush(conn_.get());
    }
    bool ok() const { return !subs_.empty(); }

  private:
    static void on_message(natsConnection* conn, natsSubscription*, natsMsg* msg, void* closure) {
        auto* self = static_cast<jetstream_responder*>(closure);
        static const char reply[] = "{\"ReturnCode\": 0}";
        const std::string subject = std::string("$KV.") + QV_KV_REGISTRY_BUCKET + ".bare-" +
                                    std::to_string(self->next_.fetch_add(1) % 1000);
        jsPubAck* ack = nullptr;
        js_Publish(&ack, self->js_.get(), subject.c_str(), natsMsg_GetData(msg),
                   natsMsg_GetDataLength(msg), nullptr, nullptr);
        jsPubAck_Destroy(ack);
        if (natsMsg_GetReply(msg) != nullptr) {
            natsConnection_Publish(conn, natsMsg_GetReply(msg), reply, sizeof(reply) - 1);
        }
        natsMsg_Destroy(msg);
    }

    qv::nats_connection_ptr conn_;
    qv::js_ctx_ptr js_;
    std::vector<qv::nats_subscription_ptr> subs_;
    std::atomic<unsigned> next_{0};
};

}  // namespace

int main(int argc, char** argv) {
    const int count = argc > 1 ? std::max(1, atoi(argv[1])) : 1000;
    const int requesters = argc > 2 ? std::max(1, atoi(argv[2])) : 8;
    const int fleet = argc > 3 ? std::max(1, atoi(argv[3])) : 1000;

    qvtest::NatsServer server;
    qv_kv_bucket_ages ages;
    ages.worker_registry_ms = 10 * 60 * 1000;  // the fleet must outlive the run
    if (!server.start() || server.create_buckets(ages) != 0) {
        fprintf(stderr, "cannot start nats-server\n");
        return 1;
    }
    auto config = qvctrl_config_new();
    config->main_nats_config = qv_nats_config_new();
    config->main_nats_config->server_url = server.url();
    config->controlled_services = {{"qv-av-trellix"}};
    config->worker_registry_enabled = true;
    config->worker_registry_ttl_ms = 15000;
    config->worker_registry_sync_interval_ms = 1000;
    if (qv_nats_init(config->main_nats_config.get()) != 0) {
        return 1;
    }
    std::atomic<int> stop{0};
    qvbench::bare_responder bare_service(server.url(), "qv-bench.bare");
    jetstream_responder bare_writer(server.url(), "qv-bench.write", kServiceThreads);
    if (qv_nats_start_service_handler_threads(config->main_nats_config.get(),
                                              "qv-av-worker-control",
                                              qv_av_control_worker_service_request_handler,
                                              config.get(), &stop, kServiceThreads) != 0 ||
        !bare_service.ok() || !bare_writer.ok()) {
        return 1;
    }

    // Warm both paths (bucket binding, subscriptions) before measuring.
    const std::string url = server.url();
    const auto beat = [count, fleet](int r, int i) {
        return s_registration((r * count + i) % fleet);
    };
    qvbench::run_load(url, "qv-av-worker-control", 1, 50, beat);
    qvbench::run_load(url, "qv-bench.bare", 1, 50, beat);
    qvbench::run_load(url, "qv-bench.write", 1, 50, beat);

    printf("%d requesters x %d requests, fleet of %d workers, %d service threads\n", requesters,
           count, fleet, kServiceThreads);
    printf("%-22s %10s %9s %9s %9s\n", "path", "req/s", "p50 ms", "p99 ms", "failures");
    const qvbench::load_result relay =
        qvbench::run_load(url, "qv-av-worker-control", requesters, count, beat);
    s_print("registration relay", relay);
    const qvbench::load_result bare =
        qvbench::run_load(url, "qv-bench.bare", requesters, count, beat);
    s_print("bare request/reply", bare);
    const qvbench::load_result write =
        qvbench::run_load(url, "qv-bench.write", requesters, count, beat);
    s_print("bare write and reply", write);
    printf("throughput ratio relay/bare: %.2f, relay/bare write: %.2f\n",
           bare.per_second > 0 ? relay.per_second / bare.per_second : 0,
           write.per_second > 0 ? relay.per_second / write.per_second : 0);

    // Every worker of the fleet has an entry now: time the poller's first projection of them.
    const auto t0 = clock_type::now();
    std::thread poller([&] { qvctrl_registry_poller_thread({config.get(), &stop}); });
    size_t projected = 0;
    while (clock_type::now() - t0 < std::chrono::seconds(60)) {
        {
            std::lock_guard<std::mutex> lock(config->listmutex);
            projected = config->running_services.size();
        }
        if (projected >= static_cast<size_t>(fleet)) {
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    const double ms = std::chrono::duration<double, std::milli>(clock_type::now() - t0).count();
    printf("projection of %zu registry entries: %.1f ms\n", projected, ms);

    stop = 1;
    poller.join();
    qv_nats_deinit(config->main_nats_config.get());
    return 0;
}
