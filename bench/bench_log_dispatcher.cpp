// Log entries through the persistent queue and its dispatcher, on one nats-server in one run:
//   push:     N entries into the queue, against writing the same N files by temp-and-rename alone;
//   dispatch: N queued entries delivered to a sink service by the dispatcher, against the same N
//             documents sent straight to the sink by one requester.
// Prints entries per second for each and the ratios. Usage: bench_log_dispatcher [N]
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "log.h"
#include "nats_server.h"
#include "qv_connection_client.h"
#include "qv_json.h"
#include "qv_log.h"
#include "qv_nats_client.h"
#include "qv_pqueue.h"
#include "qv_test_util.h"
#include "qvhlp_replies.h"

namespace {

std::atomic<int> s_received{0};

int s_sink_handler(void*, qv_const_request_reply_t* rr) {
    s_received++;
    return qv_reply_set_OK(rr->reply);
}

double s_rate(int n, std::chrono::steady_clock::duration d) {
    const double secs = std::chrono::duration<double>(d).count();
    return secs > 0 ? n / secs : 0;
}

std::vector<std::string> s_documents(int n) {
    std::vector<std::string> docs;
    for (int i = 0; i < n; ++i) {
        qv::json_ptr msg = qv_log_create_message();
        qv::json_ptr data(json_object_new_object());
        json_object_object_add(
            data.get(), "Message",
            json_object_new_string(("benchmark line " + std::to_string(i)).c_str()));
        qv_log_add_log_section(msg.get(), "StatusLog", "bench", std::move(data));
        docs.push_back(qv_json_to_string(msg.get()));
    }
    return docs;
}

}  // namespace

int main(int argc, char** argv) {
    const int n = argc > 1 ? std::max(1, atoi(argv[1])) : 1000;
    qvtest::NatsServer server;
    if (!server.start()) {
        fprintf(stderr, "cannot start nats-server\n");
        return 1;
    }
    auto sink_cfg = qv_nats_config_new();
    sink_cfg->server_url = server.url();
    auto cfg = qv_nats_config_new();
    cfg->server_url = server.url();
    if (qv_nats_init(sink_cfg.get()) != 0 || qv_nats_init(cfg.get()) != 0) {
        return 1;
    }
    std::atomic<int> stop{0};
    qv_nats_start_service_handler_threads(sink_cfg.get(), "qv-av-log", s_sink_handler, nullptr,
                                          &stop, 2);
    const std::vector<std::string> docs = s_documents(n);
    qvtest::TempDir run;

    // Push: the queue's push (recount, unique name, temp file, rename) against temp-and-rename.
    auto pq = qv_pqueue_open(run.path().c_str(), "qv-av-control.pq", 10000000, 50000000000ULL,
                             O_CREAT, RINGBUFFER);
    auto t0 = std::chrono::steady_clock::now();
    for (const std::string& doc : docs) {
        if (qv_pqueue_push(pq.get(), 'L', doc.data(), doc.size()) != 0) {
            return 1;
        }
    }
    const auto push = std::chrono::steady_clock::now() - t0;
    const std::string bare_dir = run / "bare";
    qvtest::make_dirs(bare_dir);
    t0 = std::chrono::steady_clock::now();
    for (int i = 0; i < n; ++i) {
        const std::string tmp = bare_dir + "/temp_" + std::to_string(i);
        const std::string fin = bare_dir + "/L" + std::to_string(i) + ".dat";
        FILE* f = fopen(tmp.c_str(), "w");
        fwrite(docs[i].data(), 1, docs[i].size(), f);
        fclose(f);
        rename(tmp.c_str(), fin.c_str());
    }
    const auto bare_push = std::chrono::steady_clock::now() - t0;

    // Dispatch: the queued entries through the dispatcher against direct requests.
    t0 = std::chrono::steady_clock::now();
    auto dispatcher = qv_log_create_log_dispatcher(run.path().c_str(), cfg.get());
    while (s_received.load() < n) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    const auto dispatch = std::chrono::steady_clock::now() - t0;
    dispatcher.reset();
    s_received = 0;
    t0 = std::chrono::steady_clock::now();
    for (const std::string& doc : docs) {
        if (qv_connection_simple_request(cfg.get(), "qv-av-log", doc.c_str(), 3000, 3, nullptr) !=
            0) {
            return 1;
        }
    }
    const auto direct = std::chrono::steady_clock::now() - t0;

    const double a = s_rate(n, push), b = s_rate(n, bare_push);
    const double c = s_rate(n, dispatch), d = s_rate(n, direct);
    printf("%d entries of about %zu bytes\n", n, docs[0].size());
    printf("%-10s %14s %14s %8s\n", "", "queue /s", "baseline /s", "ratio");
    printf("%-10s %14.0f %14.0f %8.3f\n", "push", a, b, b > 0 ? a / b : 0);
    printf("%-10s %14.0f %14.0f %8.3f\n", "dispatch", c, d, d > 0 ? c / d : 0);
    stop = 1;
    qv_nats_deinit(cfg.get());
    qv_nats_deinit(sink_cfg.get());
    return 0;
}
