// Log lines per second through the log service "qv-av-log" (5 handler threads, as the daemon
// starts them by default) with 8 concurrent producers, each on its own NATS connection and
// waiting for every reply, against 8 threads appending the same lines directly to one file on the
// same disk (open, append, close per line, as the service does). Prints both rates, their ratio
// and the service's request latency, and for scale the same load against a bare responder that
// writes nothing.
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
#include "qv-av-control-logger.h"
#include "qv_handles.h"
#include "qv_nats_client.h"
#include "qvctrl_config.h"

namespace {

constexpr int kProducers = 8;
constexpr int kServiceThreads = 5;

using clock_type = std::chrono::steady_clock;

std::string s_request(int producer, int i) {
    char text[1024];
    snprintf(text, sizeof(text),
             "{\"LogVersion\": 1, \"Timestamp\": \"2024-03-01 12:00:07\", \"Timestamp_epoch\": "
             "1709294407, \"Component\": \"qv-av-trellix\", \"Hostname\": \"node%d\", "
             "\"EventID\": \"1b4e28ba-2fa1-11d2-883f-%012d\", \"realmID\": \"r1\", \"ScanLog\": "
             "{\"ScanLogPath\": \"scan.log\", \"LogData\": {\"SID\": \"PRD\", \"Filename\": "
             "\"/data/in/%d/file-%06d.pdf\", \"File-size\": %d, \"MIME-type\": "
             "\"application/pdf\", \"Result-Text\": \"clean\", \"Reason-Text\": \"\", "
             "\"Duration\": 7}}}",
             producer, i, producer, i, 1000 + i);
    return text;
}

// The line the service writes for s_request(producer, i).
std::string s_line(int producer, int i) {
    char text[512];
    snprintf(text, sizeof(text),
             "2024-03-01 12:00:07;qv-av-trellix;1b4e28ba-2fa1-11d2-883f-%012d;node%d;PRD;"
             "/data/in/%d/file-%06d.pdf;%d;application/pdf;clean;;7 ms\r\n",
             i, producer, producer, i, 1000 + i);
    return text;
}

int s_bare_handler(void*, qv_const_request_reply_t* rr) {
    rr->reply->json_txt = "{\"ReturnCode\": 0}";
    return 0;
}

double s_seconds(clock_type::duration d) {
    return std::chrono::duration<double>(d).count();
}

}  // namespace

int main(int argc, char** argv) {
    const int per_producer = argc > 1 ? std::max(1, atoi(argv[1])) : 2000;
    log_set_level(0);
    log_set_screentrace(0);
    qvtest::NatsServer server;
    if (!server.start()) {
        fprintf(stderr, "cannot start nats-server\n");
        return 1;
    }
    qvtest::TempDir dir;
    auto config = qvctrl_config_new();
    config->log->basedir_scanlog = dir / "service";
    config->main_nats_config = qv_nats_config_new();
    config->main_nats_config->server_url = server.url();
    if (qv_nats_init(config->main_nats_config.get()) != 0) {
        return 1;
    }
    std::atomic<int> stop{0};
    qv_nats_start_service_handler_threads(config->main_nats_config.get(), "qv-av-log",
                                          qv_av_control_logger_request_handler, config.get(), &stop,
                                          kServiceThreads);
    qv_nats_start_service_handler_threads(config->main_nats_config.get(), "qv-bench.bare",
                                          s_bare_handler, nullptr, &stop, kServiceThreads);

    std::vector<std::unique_ptr<qv_nats_config>> clients;
    for (int p = 0; p < kProducers; ++p) {
        clients.push_back(qv_nats_config_new());
        clients.back()->server_url = server.url();
        if (qv_nats_init(clients.back().get()) != 0) {
            return 1;
        }
    }
    // Warm-up: the realm directory and file exist before timing starts.
    qv_nats_simple_request(clients[0].get(), "qv-av-log", s_request(0, 0).c_str(), 5000, 0,
                           nullptr);

    std::atomic<int> failures{0};
    // Lines per second of 8 producers against `service`, with each request's latency in ms.
    auto run = [&](const char* service, std::vector<double>* latencies) {
        std::vector<std::vector<double>> per_thread(kProducers);
        const auto t0 = clock_type::now();
        std::vector<std::thread> threads;
        for (int p = 0; p < kProducers; ++p) {
            threads.emplace_back([&, p] {
                per_thread[p].reserve(static_cast<size_t>(per_producer));
                for (int i = 1; i <= per_producer; ++i) {
                    const std::string body = s_request(p, i);
                    const auto start = clock_type::now();
                    if (qv_nats_simple_request(clients[p].get(), service, body.c_str(), 10000, 0,
                                               nullptr) != 0) {
                        ++failures;
                    }
                    per_thread[p].push_back(s_seconds(clock_type::now() - start) * 1000);
                }
            });
        }
        for (auto& t : threads) {
            t.join();
        }
        const double secs = s_seconds(clock_type::now() - t0);
        latencies->clear();
        for (const auto& l : per_thread) {
            latencies->insert(latencies->end(), l.begin(), l.end());
        }
        std::sort(latencies->begin(), latencies->end());
        return static_cast<double>(kProducers) * per_producer / secs;
    };
    std::vector<double> all;
    std::vector<double> bare_latencies;
    const double service_rate = run("qv-av-log", &all);
    const double bare_rate = run("qv-bench.bare", &bare_latencies);

    std::vector<std::thread> threads;
    const std::string direct_path = dir / "direct.log";
    const auto t0 = clock_type::now();
    for (int p = 0; p < kProducers; ++p) {
        threads.emplace_back([&, p] {
            for (int i = 1; i <= per_producer; ++i) {
                const std::string line = s_line(p, i);
                qv::file_ptr file(fopen(direct_path.c_str(), "a"));
                if (!file) {
                    ++failures;
                    continue;
                }
                setvbuf(file.get(), nullptr, _IONBF, 0);
                fwrite(line.data(), 1, line.size(), file.get());
            }
        });
    }
    for (auto& t : threads) {
        t.join();
    }
    const double direct_secs = s_seconds(clock_type::now() - t0);

    const double direct_rate = static_cast<double>(kProducers) * per_producer / direct_secs;
    printf("%d producers x %d lines, %d service threads\n", kProducers, per_producer,
           kServiceThreads);
    printf("%-28s %12.0f lines/s   (p50 %.3f ms, p99 %.3f ms per request)\n", "qv-av-log service",
           service_rate, all[all.size() / 2], all[all.size() * 99 / 100]);
    printf("%-28s %12.0f lines/s\n", "direct append to a file", direct_rate);
    printf("%-28s %12.0f requests/s (p50 %.3f ms, p99 %.3f ms)\n", "bare responder, no write",
           bare_rate, bare_latencies[bare_latencies.size() / 2],
           bare_latencies[bare_latencies.size() * 99 / 100]);
    printf("%-28s %12.3f\n", "ratio service / direct", service_rate / direct_rate);
    // Every request answered must have left its line (plus the warm-up line).
    const std::string written = qvtest::read_file(dir / "service/r1/scan.log");
    const long expected = static_cast<long>(kProducers) * per_producer + 1;
    if (std::count(written.begin(), written.end(), '\n') != expected) {
        printf("service wrote %ld lines, expected %ld\n",
               static_cast<long>(std::count(written.begin(), written.end(), '\n')), expected);
        ++failures;
    }
    if (failures.load() != 0) {
        printf("failures: %d\n", failures.load());
    }
    stop = 1;
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    for (auto& c : clients) {
        qv_nats_deinit(c.get());
    }
    qv_nats_deinit(config->main_nats_config.get());
    return failures.load() == 0 ? 0 : 1;
}
