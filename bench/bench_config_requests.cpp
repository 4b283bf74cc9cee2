// Scan configuration requests on the client-side control service: VSA configurations answered
// from the configuration bucket, and consolidated inits with one registered worker (tenant, scan
// configuration and driver data in one reply), each from concurrent requesters against the bare
// responder on the same nats-server in the same run. Prints requests per second, p50 and p99 and
// the ratios to the bare responder.
//
//   bench_config_requests [requests per requester] [requesters] [service threads]
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "bench_load.h"
#include "nats_server.h"
#include "qv_json.h"
#include "qv_nats_client.h"
#include "qv_test_util.h"
#include "qvctrl_adjust_worker_capacity.h"
#include "qvctrl_config.h"
#include "qvctrl_worker_request_handlers.h"

namespace {

bool s_succeeded(const std::string& reply) {
    return reply.find("\"ReturnCode\":0") != std::string::npos;
}

}  // namespace

int main(int argc, char** argv) {
    const int count = argc > 1 ? std::max(1, atoi(argv[1])) : 2000;
    const int requesters = argc > 2 ? std::max(1, atoi(argv[2])) : 8;
    const int threads = argc > 3 ? std::max(1, atoi(argv[3])) : 10;

    qvtest::NatsServer server;
    if (!server.start() || server.create_buckets() != 0) {
        fprintf(stderr, "cannot start nats-server\n");
        return 1;
    }
    qvtest::TempDir base;
    qvtest::make_dirs(base / "config/vsa");
    qvtest::write_file(base / "config/vsa/scan.default.default", qvbench::scan_file());

    auto config = qvctrl_config_new();
    config->basedir = base.path();
    config->main_nats_config = server.client_config();
    config->main_nats_config->broker_name = "bench";
    if (qv_nats_init(config->main_nats_config.get()) != 0) {
        return 1;
    }
    qv::json_ptr worker = qv_json_parse(
        R"({"service-name": "qv-av-trellix", "worker-name": "qv-av-trellix.bench_1",)"
        R"( "Secret": "s", "DriverName": "engine", "MajorVersion": 6, "MinorVersion": 2,)"
        R"( "NumberOfViruses": 123456, "NumberOfVariants": 7, "Timestamp": 1700000000})");
    if (qvctrl_apply_worker_registration(config.get(), worker.get()) != 0) {
        return 1;
    }
    std::atomic<int> stop{0};
    if (qv_nats_start_service_handler_threads(config->main_nats_config.get(), "qv-av-control",
                                              qv_av_control_worker_client_request_handler,
                                              config.get(), &stop, threads) != 0) {
        return 1;
    }
    qvbench::bare_responder bare_service(server.url(), "qv-bench.bare");
    if (!bare_service.ok()) {
        return 1;
    }

    // Realms and SIDs of the requests: each requester asks for a few, all cached after warm-up.
    const auto vsa = [](int r, int i) {
        return R"({"Command": 100, "realmID": "realm)" + std::to_string(r % 4) + R"(", "SID": "S)" +
               std::to_string(i % 8) + R"(", "RequestID": "req-)" + std::to_string(i) + "\"}";
    };
    const auto init = [](int r, int i) {
        return R"({"Command": 6, "realmID": "realm)" + std::to_string(r % 4) + R"(", "SID": "S)" +
               std::to_string(i % 8) + R"(", "Hostname": "sap)" + std::to_string(r) +
               R"(", "RequestID": "init-)" + std::to_string(i) +
               R"(", "Services": ["qv-av-trellix"]})";
    };
    const auto plain = [](int, int) { return std::string(R"({"Command": 3})"); };
    const std::string url = server.url();
    qvbench::run_load(url, "qv-av-control", 4, 32, vsa, s_succeeded);
    qvbench::run_load(url, "qv-bench.bare", 4, 32, plain);

    printf("%d requesters x %d requests, %d service threads\n", requesters, count, threads);
    qvbench::print_header();
    const auto bare = qvbench::run_load(url, "qv-bench.bare", requesters, count, plain);
    qvbench::print_row("bare responder", bare, bare);
    qvbench::print_row("VSA config (bucket hit)",
                       qvbench::run_load(url, "qv-av-control", requesters, count, vsa, s_succeeded),
                       bare);
    qvbench::print_row(
        "consolidated init (1 svc)",
        qvbench::run_load(url, "qv-av-control", requesters, count, init, s_succeeded), bare);

    stop = 1;
    qv_nats_deinit(config->main_nats_config.get());
    return 0;
}
