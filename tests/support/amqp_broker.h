// A small AMQP 1.0 broker for tests, on qpid-proton's C++ connection engine.
//
// One thread of its own owns the listening socket and every accepted connection; each connection
// is a proton connection driver fed from its socket, so all proton objects live on that thread.
// Clients must authenticate with SASL PLAIN (the user and password the broker was given; a wrong
// one is refused); TLS with the test certificate for localhost is optional. The library's own
// server side knows no PLAIN without Cyrus SASL, so the broker installs a PLAIN checker of its
// own on each accepted transport.
//
// Routing is by address: a message goes to the address in its "to" (or the target of the link it
// came on). Addresses starting with "topic://" fan out to every receiver attached to them (the
// message is dropped when there is none, and skipped for a receiver without credit); other
// addresses are queues that keep messages until a receiver with credit is attached, then hand them
// out round-robin. Tests can inject messages, hold back what arrives on an address and answer it
// in any order, read counters, and stop and start the broker on the same port.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <proton/binary.hpp>
#include <proton/codec/vector.hpp>
#include <proton/message.hpp>
#include <proton/message_id.hpp>
#include <proton/value.hpp>

#include "qv_nats_config.h"

namespace qvtest {

class AmqpBroker {
  public:
    struct Options {
        std::string user = "qv-test";
        std::string password = "qv-test-secret";
        bool tls = false;  // TLS with the test certificate for localhost / 127.0.0.1
        int port = 0;      // 0: a free port
    };

    AmqpBroker();
    explicit AmqpBroker(Options options);
    ~AmqpBroker();
    AmqpBroker(const AmqpBroker&) = delete;
    AmqpBroker& operator=(const AmqpBroker&) = delete;

    // Listens (on the same port every time) and starts the broker thread. False on failure.
    bool start();
    // Drops every connection and everything queued, and closes the port.
    void stop();

    int port() const { return options_.port; }
    // The host a client names: localhost with TLS (the certificate's name), else 127.0.0.1.
    std::string host() const;
    // Fills the AMQP fields of a connection record for this broker (user, password, host, port
    // and, with TLS, the test CA as cert_path).
    void configure(qv_nats_config* config) const;

    // Routes a message as if a client had sent it (thread-safe). The body is the sequence of the
    // JSON text and, when given, the data; or `body` as it is.
    void publish(const std::string& address, const std::string& json, const std::string& data = "",
                 const std::string& reply_to = "");
    void publish_body(const std::string& address, const proton::value& body,
                      const std::string& reply_to = "");
    // From now on messages for `address` are kept back instead of being routed.
    void hold(const std::string& address);
    // Waits (bounded) until `count` messages are held for `address`; copies of all of them.
    std::vector<proton::message> wait_held(const std::string& address, size_t count);
    // Sends a reply with `json` to the request's reply-to, correlated by the request's id.
    void reply(const proton::message& request, const std::string& json);

    // Counters: messages routed (injected ones included), connections accepted, logins refused.
    long routed() const { return routed_; }
    long connections() const { return connections_; }
    long refused_logins() const { return refused_; }
    // Receiver links attached to `address` that have credit, asked of the broker thread.
    int receivers(const std::string& address);

    struct impl;

  private:
    void run();
    void post(std::function<void()> work);

    Options options_;
    std::unique_ptr<impl> impl_;
    std::thread thread_;
    std::atomic<bool> running_{false};
    std::atomic<long> routed_{0};
    std::atomic<long> connections_{0};
    std::atomic<long> refused_{0};
    int listen_fd_ = -1;
    int wake_fd_ = -1;
    std::atomic<bool> stopping_{false};

    mutable std::mutex mutex_;  // guards the members below
    std::condition_variable cv_;
    std::vector<std::function<void()>> inbox_;
    std::map<std::string, std::vector<proton::message>> held_;
};

}  // namespace qvtest
