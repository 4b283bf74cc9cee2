// Event dispatch through "qv-av-events-dispatch" (the daemon's handler on its own pool) to 1 and to
// 10 matching event handlers, against a bare request/reply round trip to a responder on the same
// connection, on one nats-server in the same run. Concurrent requesters; prints events per second,
// p50/p99 latency and the ratio to the bare round trip.
//
// Usage: bench_event_dispatch [requests per requester] [requesters]
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "log.h"
#include "nats_server.h"
#include "qv-av-control-event-dispatcher.h"
#include "qv_nats_client.h"
#include "qvctrl_config.h"

namespace {

int s_ok_handler(void*, qv_const_request_reply_t* rr) {
    rr->reply->json_txt = "{\"ReturnCode\": 0}";
    return 0;
}

struct result {
    double per_second = 0;
    double p50_ms = 0;
    double p99_ms = 0;
    int failures = 0;
};

// `requesters` threads each send `rounds` requests one after the other.
result s_run(qv_nats_config* client, const char* service, const std::string& body, int requesters,
             int rounds) {
    std::vector<std::vector<double>> latencies(requesters);
    std::atomic<int> failures{0};
    const auto t0 = std::chrono::steady_clock::now();
    std::vector<std::thread> threads;
    for (int t = 0; t < requesters; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < rounds; ++i) {
                const auto s = std::chrono::steady_clock::now();
                if (qv_nats_simple_request(client, service, body.c_str(), 10000, 0, nullptr) != 0) {
                    failures++;
                }
                latencies[t].push_back(
                    std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - s)
                        .count());
            }
        });
    }
    for (auto& th : threads) {
        th.join();
    }
    const double secs =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    std::vector<double> all;
    for (auto& l : latencies) {
        all.insert(all.end(), l.begin(), l.end());
    }
    std::sort(all.begin(), all.end());
    result r;
    r.per_second = secs > 0 ? all.size() / secs : 0;
    r.p50_ms = all.empty() ? 0 : all[all.size() / 2];
    r.p99_ms = all.empty() ? 0 : all[std::min(all.size() - 1, all.size() * 99 / 100)];
    r.failures = failures.load();
    return r;
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::max(1, atoi(argv[1])) : 500;
    const int requesters = argc > 2 ? std::max(1, atoi(argv[2])) : 4;
    log_set_level(QVLOG_OFF);
    qvtest::NatsServer server;
    if (!server.start() || server.create_buckets() != 0) {
        fprintf(stderr, "cannot start nats-server\n");
        return 1;
    }
    auto connect = [&] {
        auto cfg = qv_nats_config_new();
        cfg->server_url = server.url();
        return qv_nats_init(cfg.get()) == 0 ? std::move(cfg) : nullptr;
    };
    // The daemon's side: its configuration record with local subscriptions, the event service
    // on its pool, and the bare responder on the same connection.
    auto config = qvctrl_config_new();
    config->main_nats_config = connect();
    auto handlers = connect();
    auto client = connect();
    if (!config->main_nats_config || !handlers || !client) {
        return 1;
    }
    std::atomic<int> stop{0};
    qv_nats_config* daemon = config->main_nats_config.get();
    const int pool = config->number_of_event_dispatcher_threads;
    qv_nats_start_service_handler_threads(daemon, "qv-av-events-dispatch",
                                          qv_av_control_event_request_handler, config.get(), &stop,
                                          pool);
    qv_nats_start_service_handler_threads(daemon, "qv-bench.bare", s_ok_handler, nullptr, &stop,
                                          pool);
    for (int i = 0; i < 10; ++i) {
        const std::string subject = "qv-bench.handler." + std::to_string(i);
        qv_nats_start_service_handler_threads(handlers.get(), subject.c_str(), s_ok_handler,
                                              nullptr, &stop, pool);
    }

    const std::string event =
        R"({"Command": 501, "Event": {"Type": "detection", "Name": "EICAR"}, )"
        R"("Component": "qv-av-trellix", "Hostname": "host1", "realmID": "r1", "SID": "S01"})";
    printf("%d requesters x %d requests\n", requesters, rounds);
    printf("%-9s %12s %8s %8s %12s %8s %8s %7s\n", "handlers", "dispatch/s", "p50 ms", "p99 ms",
           "bare rr/s", "p50 ms", "p99 ms", "ratio");
    for (int count : {1, 10}) {
        // Subscriptions are renewed before each run, as handlers do, so none lapses meanwhile.
        {
            std::lock_guard<std::mutex> lock(config->event_workers_listmutex);
            config->event_workers_list.clear();
        }
        for (int i = 0; i < count; ++i) {
            const std::string subscribe =
                R"({"Command": 500, "Service": "qv-bench.handler.)" + std::to_string(i) +
                R"(", "realmID": "r1;r2", "SID": "S?1", "Hostname": "host*", "Modules": "qv-av-*"})";
            qv_nats_simple_request(client.get(), "qv-av-events-dispatch", subscribe.c_str(), 5000,
                                   0, nullptr);
        }
        s_run(client.get(), "qv-av-events-dispatch", event, requesters, rounds / 10 + 1);
        const result d = s_run(client.get(), "qv-av-events-dispatch", event, requesters, rounds);
        const result b = s_run(client.get(), "qv-bench.bare", event, requesters, rounds);
        printf("%-9d %12.0f %8.2f %8.2f %12.0f %8.2f %8.2f %7.3f\n", count, d.per_second, d.p50_ms,
               d.p99_ms, b.per_second, b.p50_ms, b.p99_ms,
               b.per_second > 0 ? d.per_second / b.per_second : 0);
        if (d.failures + b.failures > 0) {
            printf("  failures: dispatch %d, bare %d\n", d.failures, b.failures);
        }
    }
    stop = 1;
    qv_nats_deinit(client.get());
    qv_nats_deinit(handlers.get());
    qv_nats_deinit(daemon);
    return 0;
}
