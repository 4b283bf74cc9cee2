// A real nats-server with JetStream for tests: started on 127.0.0.1 with a free port and a
// temporary store, optionally with TLS (a generated CA and server certificate) and a users list.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "qv_kv_setup.h"
#include "qv_test_util.h"

namespace qvtest {

// A CA and a server certificate for localhost / 127.0.0.1, generated once per test process.
struct TestCertificates {
    std::string ca_cert;
    std::string server_cert;
    std::string server_key;
};
const TestCertificates& test_certificates();

class NatsServer {
  public:
    struct Options {
        bool tls = false;
        std::vector<std::pair<std::string, std::string>> users{};  // user, password
        // Appended to the configuration as it is. An include names a file relative to the
        // server's directory (see file()).
        std::string extra_conf{};
        bool pid_file = false;  // the server writes its pid to file("nats.pid")
    };

    NatsServer();
    explicit NatsServer(Options options);
    ~NatsServer();
    NatsServer(const NatsServer&) = delete;
    NatsServer& operator=(const NatsServer&) = delete;

    // Starts the server (same port and store on every call) and waits until it accepts clients.
    bool start();
    // Stops the server by its pid and waits for it to end.
    void stop();
    bool running() const { return pid_ > 0; }

    int port() const { return port_; }
    // nats://127.0.0.1:port, or tls://localhost:port with TLS.
    std::string url() const;
    // A path in the server's directory, where its configuration lives.
    std::string file(const std::string& name) const { return dir_ / name; }
    // A connection record for this server, not yet connected: its URL and the test CA.
    std::unique_ptr<qv_nats_config> client_config() const;

    // Creates the four buckets of the daemon, as the broker's set-up would. 0 or -1.
    int create_buckets(const qv_kv_bucket_ages& ages = {}, const std::string& user = "",
                       const std::string& password = "");

  private:
    Options options_;
    TempDir dir_;
    std::string store_;
    int port_;
    int pid_ = -1;
};

// Three JetStream servers routed into one cluster on loopback, each with its own port and store.
// A node stopped by a test starts again on the same port and store.
class NatsCluster {
  public:
    static constexpr int kNodes = 3;
    NatsCluster();

    // Starts every node and waits until the cluster can keep replicated buckets.
    bool start();
    NatsServer& node(int i) { return *nodes_[static_cast<size_t>(i)]; }
    // The client URLs of the given nodes, comma-separated.
    std::string url(const std::vector<int>& nodes) const;
    std::string url() const { return url({0, 1, 2}); }

  private:
    std::vector<std::unique_ptr<NatsServer>> nodes_;
};

// Whether the server accepts a connection with these credentials (within 2 s).
bool can_log_in(const NatsServer& server, const std::string& user, const std::string& password);

// A connection of the test's own to a server, released with the object.
class NatsClient {
  public:
    explicit NatsClient(const NatsServer& server, const std::string& user = "",
                        const std::string& password = "");
    ~NatsClient();
    NatsClient(const NatsClient&) = delete;
    NatsClient& operator=(const NatsClient&) = delete;
    qv_nats_config* get() const { return config_.get(); }

    // The reply as plain JSON text, or the transport's error text (also for a reply that is
    // not JSON).
    std::string request(const std::string& subject, const std::string& body,
                        std::chrono::milliseconds timeout = std::chrono::seconds(5));
    // The "ReturnCode" of the reply; -1 without one.
    int rc(const std::string& subject, const std::string& body,
           std::chrono::milliseconds timeout = std::chrono::seconds(2));
    int ping(const std::string& subject = "qv-av-control.ping",
             std::chrono::milliseconds timeout = std::chrono::seconds(2)) {
        return rc(subject, "{\"Command\": 3}", timeout);
    }

  private:
    std::unique_ptr<qv_nats_config> config_;
};

}  // namespace qvtest
