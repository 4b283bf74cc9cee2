// A plain libnats connection of the test's own, independent of the messaging layer under test:
// it sends many requests at once and collects their replies, holds subscriptions that never
// answer, and watches every subject the server routes.
#pragma once

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "qv_handles.h"

namespace qvtest {

class NatsPeer {
  public:
    // A subject and the request body sent to it.
    using Request = std::pair<std::string, std::string>;

    // Requests that went out together; their replies arrive on one wildcard inbox.
    struct Batch {
        std::string inbox;
        qv::nats_subscription_ptr replies;
        size_t count = 0;
    };

    // Connects to `url` (a tls:// URL trusts the test CA). connected() tells whether it worked.
    explicit NatsPeer(const std::string& url);
    bool connected() const { return conn_ != nullptr; }
    natsConnection* conn() const { return conn_.get(); }

    // Publishes every request with a reply subject of its own and flushes, so that the server
    // has routed all of them when this returns.
    Batch send(const std::vector<Request>& requests);
    // The reply bodies of a batch in request order; "" where none came before `timeout` (a
    // no-responders status counts as none).
    std::vector<std::string> collect(Batch& batch, std::chrono::milliseconds timeout);
    std::vector<std::string> request_all(const std::vector<Request>& requests,
                                         std::chrono::milliseconds timeout);

    // Subscribes every subject and never reads: each holds what it was sent (pending()).
    void subscribe_silently(const std::vector<std::string>& subjects);
    // Messages each silent subscription received, in subscription order.
    std::vector<int> pending() const;

    // From now on records every subject the server routes (a subscription to ">").
    void watch_everything();
    // The subjects the watch saw before `marker`; fails the test when the marker does not come.
    std::vector<std::string> watched_until(const std::string& marker,
                                           std::chrono::milliseconds timeout);

    void publish(const std::string& subject, const std::string& body);
    bool flush();

  private:
    qv::nats_connection_ptr conn_;
    std::vector<qv::nats_subscription_ptr> silent_;
    qv::nats_subscription_ptr watch_;
};

}  // namespace qvtest
