// Discovery by the NATS services tooling: this process answers the discovery subjects
// ($SRV.PING, $SRV.INFO, $SRV.STATS; plain, by service name and by service name plus instance
// id) as one service, "qv-av-control", with an instance id of its own, and one endpoint per
// service subject that the connection serves, with per-endpoint statistics.
//
// The libnats of the platform has no services API, so the responder is written on the plain
// API. Every instance answers (plain subscriptions, no queue group). The nine discovery subjects
// are covered by three subscriptions whose verb token is a wildcard ("$SRV.*", "$SRV.*.<name>",
// "$SRV.*.<name>.<id>"): each asynchronous subscription costs the library a delivery thread, and
// a verb other than PING, INFO or STATS gets no answer. The document is built and published from
// the subscription's callback; the connection writes each publish at once.
//
// Endpoints are registered by the service handler pools (one per subject, kept for the life of
// the connection record, so that a pool started again continues the same counters) and record
// each request from the handler threads with relaxed atomic counters; only an error takes the
// endpoint's lock, for its text. The registry is a member of the connection record: two records
// in one process keep separate instances.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include <nats/nats.h>

// The statistics of one served subject.
struct qv_nats_micro_endpoint {
    explicit qv_nats_micro_endpoint(std::string served_subject)
        : subject(std::move(served_subject)) {}
    const std::string subject;
    std::atomic<int64_t> requests{0};
    std::atomic<int64_t> errors{0};
    std::atomic<int64_t> processing_ns{0};
    std::mutex error_mutex;
    std::string last_error;
};

class qv_nats_micro {
  public:
    static constexpr const char* SERVICE_NAME = "qv-av-control";

    qv_nats_micro();
    ~qv_nats_micro();
    qv_nats_micro(const qv_nats_micro&) = delete;
    qv_nats_micro& operator=(const qv_nats_micro&) = delete;

    // The endpoint of `subject`, registered on first use. Never null; stays valid for the life
    // of this object.
    qv_nats_micro_endpoint* add_endpoint(const std::string& subject);
    // One request of the endpoint that took `elapsed`; `error` (null when it succeeded) becomes
    // the endpoint's last error. Null endpoint: nothing is recorded.
    static void record(qv_nats_micro_endpoint* endpoint, std::chrono::nanoseconds elapsed,
                       const char* error) noexcept;

    // Starts answering discovery requests on `conn`. A subscription that cannot be made now is
    // made by renew(). 0 when all are in place, -1 otherwise (logged). Starting again is harmless.
    int start(natsConnection* conn);
    // Subscribes again what did not survive (a rebuilt connection); nothing while not started.
    // 0 when all is in place, -1 when something must be tried again later.
    int renew(natsConnection* conn);
    // Stops answering and waits (bounded) until no discovery callback runs any more.
    void stop();

    const std::string& id() const { return id_; }
    // The discovery document for `verb` ("PING", "INFO" or "STATS"); empty for any other verb.
    std::string document(const std::string& verb);

  private:
    static void s_on_request(natsConnection* nc, natsSubscription* sub, natsMsg* msg,
                             void* closure);
    static void s_on_complete(void* closure);
    int subscribe_missing(natsConnection* conn);

    const std::string id_;
    std::string started_;

    std::mutex endpoints_mutex_;
    std::deque<qv_nats_micro_endpoint> endpoints_;

    // Guards the subscriptions and the running state; never taken inside a callback.
    std::mutex subs_mutex_;
    bool running_ = false;
    std::array<std::shared_ptr<natsSubscription>, 3> subs_;

    // Subscriptions whose callback may still run.
    std::mutex live_mutex_;
    std::condition_variable live_cv_;
    int live_ = 0;
};
