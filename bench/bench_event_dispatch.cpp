// Event dispatch through "qv-av-events-dispatch" (the daemon's handler on its own pool) to 1 and to
// 10 matching event handlers (bare responders), against the bare responder itself, on one
// nats-server in the same run. Concurrent requesters; prints events per second, p50/p99 latency,
// the ratios to the bare round trip, and the 10-handler throughput as a share of the 1-handler one.
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

#include "bench_load.h"
#include "log.h"
#include "nats_server.h"
#include "qv-av-control-event-dispatcher.h"
#include "qv_nats_client.h"
#include "qvctrl_config.h"

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
    auto client = connect();
    if (!config->main_nats_config || !client) {
        return 1;
    }
    std::atomic<int> stop{0};
    qv_nats_config* daemon = config->main_nats_config.get();
    const int pool = config->number_of_event_dispatcher_threads;
    qv_nats_start_service_handler_threads(daemon, "qv-av-events-dispatch",
                                          qv_av_control_event_request_handler, config.get(), &stop,
                                          pool);
    qvbench::bare_responder bare(server.url(), "qv-bench.bare");
    std::vector<std::unique_ptr<qvbench::bare_responder>> handler_services;
    for (int i = 0; i < 10; ++i) {
        handler_services.push_back(std::make_unique<qvbench::bare_responder>(
            server.url(), "qv-bench.handler." + std::to_string(i)));
    }

    const std::string event =
        R"({"Command": 501, "Event": {"Type": "detection", "Name": "EICAR"}, )"
        R"("Component": "qv-av-trellix", "Hostname": "host1", "realmID": "r1", "SID": "S01"})";
    const std::string url = server.url();
    const auto body = [&event](int, int) { return event; };
    printf("%d requesters x %d requests\n", requesters, rounds);
    qvbench::print_header();
    const qvbench::load_result b =
        qvbench::run_load(url, "qv-bench.bare", requesters, rounds, body);
    qvbench::print_row("bare responder", b, b);
    double one_handler = 0;
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
        qvbench::run_load(url, "qv-av-events-dispatch", requesters, rounds / 10 + 1, body);
        const qvbench::load_result d =
            qvbench::run_load(url, "qv-av-events-dispatch", requesters, rounds, body);
        const std::string name = "event to " + std::to_string(count) + " handler(s)";
        qvbench::print_row(name.c_str(), d, b);
        if (count == 1) {
            one_handler = d.per_second;
        } else if (one_handler > 0) {
            printf("10 handlers / 1 handler throughput: %.2f\n", d.per_second / one_handler);
        }
    }
    stop = 1;
    qv_nats_deinit(client.get());
    qv_nats_deinit(daemon);
    return 0;
}
