// A queue consumer or a log dispatcher in a process of its own, for tests that need a second
// process on one queue or a process to kill.
//
//   qv_test_queue_tool claim <rundir> <qname> <outfile> lock|nolock
//       Claims batches of 8 until the queue has nothing left, appending each element's text and a
//       line feed to <outfile> and deleting it. "nolock" claims without the queue lock, so that
//       consumers race on the renames themselves.
//   qv_test_queue_tool dispatch <rundir> <nats_url> <ca_file> <trace_file>
//       Runs the log dispatcher on <rundir> until SIGTERM, then stops it and exits 0.
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "log-helper.h"
#include "log.h"
#include "qv_log.h"
#include "qv_nats_client.h"
#include "qv_pqueue.h"

namespace {

std::atomic<int> s_stop{0};

void s_on_sigterm(int) {
    s_stop.store(1);
}

int s_claim(const char* rundir, const char* qname, const char* outfile, bool use_lock) {
    auto q = qv_pqueue_open(rundir, qname, 1000000, 1000000000, O_CREAT, RINGBUFFER);
    qv::file_ptr out(fopen(outfile, "a"));
    if (!q || !out) {
        return 2;
    }
    setvbuf(out.get(), nullptr, _IONBF, 0);
    while (true) {
        if (use_lock && qv_pqueue_lock(q.get()) != 0) {
            usleep(1000);
            continue;
        }
        std::vector<std::unique_ptr<qv_pqueue_data>> batch;
        const int n = qv_pqueue_claim_batch(q.get(), "LE", 8, &batch);
        if (use_lock) {
            qv_pqueue_unlock(q.get());
        }
        if (n < 0) {
            return 3;
        }
        if (n == 0) {
            return 0;
        }
        for (const auto& element : batch) {
            if (qv_pqueue_data_read(element.get()) != 0) {
                return 4;
            }
            const std::string line(reinterpret_cast<const char*>(element->data.data()),
                                   element->datalen);
            fprintf(out.get(), "%s\n", line.c_str());
            unlink(element->id.c_str());
        }
    }
}

int s_dispatch(const char* rundir, const char* url, const char* ca_file, const char* trace) {
    QVOpenTraceFile(trace, QVLOG_TRACE, 0);
    log_set_quiet(1);
    struct sigaction action {};
    action.sa_handler = s_on_sigterm;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);

    auto cfg = qv_nats_config_new();
    cfg->server_url = url;
    cfg->cert_path = ca_file;
    if (qv_nats_init(cfg.get()) != 0) {
        return 2;
    }
    auto dispatcher = qv_log_create_log_dispatcher(rundir, cfg.get());
    if (!dispatcher) {
        return 3;
    }
    log_info("dispatcher running");
    while (s_stop.load() == 0) {
        usleep(20000);
    }
    dispatcher.reset();
    qv_nats_deinit(cfg.get());
    nats_CloseAndWait(1000);
    log_info("dispatcher stopped");
    QVCloseTraceFile();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 6 && strcmp(argv[1], "claim") == 0) {
        return s_claim(argv[2], argv[3], argv[4], strcmp(argv[5], "lock") == 0);
    }
    if (argc == 6 && strcmp(argv[1], "dispatch") == 0) {
        return s_dispatch(argv[2], argv[3], argv[4], argv[5]);
    }
    fprintf(stderr, "usage: %s claim|dispatch ...\n", argv[0]);
    return 1;
}
