// Load on one NATS service from concurrent requesters, and the baseline it is measured against.
//
// Requesters are plain libnats connections, one per thread, that write each request at once
// (SendAsap), so that their own batching adds nothing to what is measured. The baseline is the
// fastest bare responder libnats allows: a connection of its own that answers from the
// subscription callback and writes each reply at once. A baseline that used the daemon's own
// messaging options would carry the same overheads and hide them.
//
// A run is either a number of requests per requester (run_load) or a time (run_load_for); any
// other kind of request (a staged payload, say) is timed the same way through measure().
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <nats/nats.h>

#include "qv_handles.h"

namespace qvbench {

using clock_type = std::chrono::steady_clock;

struct load_result {
    double per_second = 0;
    double p50_ms = 0;
    double p99_ms = 0;
    int failures = 0;
    long requests = 0;
};

inline qv::nats_connection_ptr connect_asap(const std::string& url) {
    natsOptions* raw = nullptr;
    if (natsOptions_Create(&raw) != NATS_OK) {
        return nullptr;
    }
    qv::nats_options_ptr opts(raw);
    natsOptions_SetURL(opts.get(), url.c_str());
    natsOptions_SetSendAsap(opts.get(), true);
    natsConnection* conn = nullptr;
    if (natsConnection_Connect(&conn, opts.get()) != NATS_OK) {
        return nullptr;
    }
    return qv::nats_connection_ptr(conn);
}

// Answers every request on `subject` with {"ReturnCode": 0} from the delivery callback, and
// counts what it received (before it answers, so that a requester that has its reply sees the
// count).
class bare_responder {
  public:
    bare_responder(const std::string& url, const std::string& subject) : conn_(connect_asap(url)) {
        natsSubscription* sub = nullptr;
        if (conn_ && natsConnection_Subscribe(&sub, conn_.get(), subject.c_str(), on_message,
                                              this) == NATS_OK) {
            sub_.reset(sub);
            natsConnection_Flush(conn_.get());
        }
    }
    bare_responder(const bare_responder&) = delete;
    bare_responder& operator=(const bare_responder&) = delete;
    bool ok() const { return sub_ != nullptr; }
    long received() const { return received_.load(); }
    void reset_count() { received_ = 0; }

  private:
    static void on_message(natsConnection* conn, natsSubscription*, natsMsg* msg, void* closure) {
        static const char reply[] = "{\"ReturnCode\": 0}";
        static_cast<bare_responder*>(closure)->received_++;
        if (natsMsg_GetReply(msg) != nullptr) {
            natsConnection_Publish(conn, natsMsg_GetReply(msg), reply, sizeof(reply) - 1);
        }
        natsMsg_Destroy(msg);
    }

    std::atomic<long> received_{0};
    qv::nats_connection_ptr conn_;
    qv::nats_subscription_ptr sub_;
};

// One request of requester `r`, its `i`-th: true when it was answered as expected.
using request_fn = std::function<bool(int r, int i)>;
// Whether requester's request `i` is still to be made, asked just before it is.
using continue_fn = std::function<bool(int i, clock_type::time_point now)>;

// `requesters` threads each call `one` back to back while `more` says so; every call is timed,
// every false counts as a failure, and the rate is over the whole run.
inline load_result measure(int requesters, const continue_fn& more, const request_fn& one) {
    std::vector<std::vector<double>> latencies(static_cast<size_t>(requesters));
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    const auto t0 = clock_type::now();
    for (int r = 0; r < requesters; ++r) {
        threads.emplace_back([&, r] {
            auto& mine = latencies[static_cast<size_t>(r)];
            for (int i = 0;; ++i) {
                const auto start = clock_type::now();
                if (!more(i, start)) {
                    break;
                }
                if (!one(r, i)) {
                    failures++;
                }
                mine.push_back(
                    std::chrono::duration<double, std::milli>(clock_type::now() - start).count());
            }
        });
    }
    for (std::thread& t : threads) {
        t.join();
    }
    const double secs = std::chrono::duration<double>(clock_type::now() - t0).count();
    std::vector<double> all;
    for (const auto& l : latencies) {
        all.insert(all.end(), l.begin(), l.end());
    }
    std::sort(all.begin(), all.end());
    load_result result;
    result.requests = static_cast<long>(all.size());
    result.per_second = secs > 0 ? static_cast<double>(all.size()) / secs : 0;
    result.p50_ms = all.empty() ? 0 : all[all.size() / 2];
    result.p99_ms = all.empty() ? 0 : all[std::min(all.size() - 1, all.size() * 99 / 100)];
    result.failures = failures.load();
    return result;
}

// One request on `conn`: true for a reply within 10 s that `ok` accepts (any reply without `ok`).
inline bool request_once(natsConnection* conn, const std::string& subject, const std::string& text,
                         const std::function<bool(const std::string&)>& ok) {
    natsMsg* raw = nullptr;
    if (conn == nullptr ||
        natsConnection_Request(&raw, conn, subject.c_str(), text.data(),
                               static_cast<int>(text.size()), 10000) != NATS_OK) {
        return false;
    }
    qv::nats_msg_ptr reply(raw);
    return !ok || ok(std::string(natsMsg_GetData(reply.get()),
                                 static_cast<size_t>(natsMsg_GetDataLength(reply.get()))));
}

// Plain connections with SendAsap, one per requester, made before any clock starts.
inline std::vector<qv::nats_connection_ptr> connect_requesters(const std::string& url,
                                                               int requesters) {
    std::vector<qv::nats_connection_ptr> conns;
    for (int r = 0; r < requesters; ++r) {
        conns.push_back(connect_asap(url));
    }
    return conns;
}

// `requesters` threads each send `count` requests to `subject`, request i of requester r with
// body(r, i); a reply missing within 10 s or whose body `ok` refuses counts as a failure.
inline load_result run_load(const std::string& url, const std::string& subject, int requesters,
                            int count, const std::function<std::string(int, int)>& body,
                            const std::function<bool(const std::string&)>& ok = {}) {
    const auto conns = connect_requesters(url, requesters);
    return measure(
        requesters, [count](int i, clock_type::time_point) { return i < count; },
        [&](int r, int i) {
            return request_once(conns[static_cast<size_t>(r)].get(), subject, body(r, i), ok);
        });
}

// As run_load, for a time instead of a count: requests start until `duration` has passed.
inline load_result run_load_for(const std::string& url, const std::string& subject, int requesters,
                                std::chrono::milliseconds duration,
                                const std::function<std::string(int, int)>& body,
                                const std::function<bool(const std::string&)>& ok = {}) {
    const auto conns = connect_requesters(url, requesters);
    const auto deadline = clock_type::now() + duration;
    return measure(
        requesters, [deadline](int, clock_type::time_point now) { return now < deadline; },
        [&](int r, int i) {
            return request_once(conns[static_cast<size_t>(r)].get(), subject, body(r, i), ok);
        });
}

// A scan configuration of realistic size: the example installation's parameters and a few dozen
// more.
inline std::string scan_file() {
    std::string text =
        "ScanBestEffort=1\nScanArchives=1\nMaxArchiveDepth=10\nMaxFileSizeMB=512\n"
        "ScanTimeoutSeconds=120\nCheckMimeType=1\nScanActiveContent=1\nBlockOnScanError=1\n";
    for (int i = 0; i < 40; ++i) {
        text += "Parameter" + std::to_string(i) + "=value-" + std::to_string(i) + "\n";
    }
    return text;
}

// With `cpu` set, a last column gives the CPU time the measured process spent per request.
inline void print_header(bool cpu = false) {
    printf("%-28s %10s %9s %9s %9s %8s %8s%s\n", "path", "req/s", "p50 ms", "p99 ms", "failures",
           "x bare", "p99 x", cpu ? "  cpu us/req" : "");
}

inline void print_row(const char* name, const load_result& r, const load_result& bare,
                      double cpu_us = -1) {
    printf("%-28s %10.0f %9.2f %9.2f %9d %8.2f %8.2f", name, r.per_second, r.p50_ms, r.p99_ms,
           r.failures, bare.per_second > 0 ? r.per_second / bare.per_second : 0,
           bare.p99_ms > 0 ? r.p99_ms / bare.p99_ms : 0);
    if (cpu_us >= 0) {
        printf(" %12.1f", cpu_us);
    }
    printf("\n");
}

}  // namespace qvbench
