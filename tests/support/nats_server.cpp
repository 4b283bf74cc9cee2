#include "nats_server.h"

#include <csignal>
#include <cstdlib>
#include <memory>
#include <stdexcept>

#include <gtest/gtest.h>

#include "qv_handles.h"
#include "qv_json.h"
#include "qv_nats_client.h"
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// True when a TCP connection to 127.0.0.1:port succeeds.
bool port_open(int port) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    qv::unique_fd fd(socket(AF_INET, SOCK_STREAM, 0));
    return connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
}

// Connections closed by a test are released by the library's own threads a moment later; at the
// end of the test program they must be gone before OpenSSL's exit-time clean-up frees what their
// TLS contexts still use, as the daemon does at its end.
struct NatsLibraryTearDown : ::testing::Environment {
    // The library sets OpenSSL up before any test server of ours does, whichever a test starts
    // first, so that OpenSSL's exit-time clean-up runs in the order both expect.
    void SetUp() override { nats_Open(-1); }
    void TearDown() override { nats_CloseAndWait(5000); }
};
// gtest owns registered environments.
::testing::Environment* const s_nats_teardown =
    ::testing::AddGlobalTestEnvironment(std::make_unique<NatsLibraryTearDown>().release());

}  // namespace

namespace qvtest {

const TestCertificates& test_certificates() {
    static TempDir dir;
    static TestCertificates certs = [] {
        TestCertificates c{dir / "ca.pem", dir / "server.pem", dir / "server-key.pem"};
        write_file(dir / "san.ext",
                   "subjectAltName=DNS:localhost,IP:127.0.0.1\n"
                   "basicConstraints=CA:FALSE\n"
                   "keyUsage=digitalSignature,keyEncipherment\n"
                   "extendedKeyUsage=serverAuth,clientAuth\n");
        const std::string d = dir.path();
        const std::string cmd =
            "cd '" + d +
            "' && openssl req -x509 -newkey rsa:2048 -nodes -keyout ca-key.pem -out ca.pem "
            "-days 30 -subj '/CN=qv test CA' >/dev/null 2>&1"
            " && openssl req -newkey rsa:2048 -nodes -keyout server-key.pem -out server.csr "
            "-subj '/CN=localhost' >/dev/null 2>&1"
            " && openssl x509 -req -in server.csr -CA ca.pem -CAkey ca-key.pem -CAcreateserial "
            "-out server.pem -days 30 -extfile san.ext >/dev/null 2>&1";
        if (system(cmd.c_str()) != 0) {
            throw std::runtime_error("openssl failed to generate test certificates");
        }
        return c;
    }();
    return certs;
}

NatsServer::NatsServer() : NatsServer(Options{}) {}

NatsServer::NatsServer(Options options)
    : options_(std::move(options)), store_(dir_ / "store"), port_(free_port()) {}

NatsServer::~NatsServer() {
    stop();
}

std::string NatsServer::url() const {
    return (options_.tls ? "tls://localhost:" : "nats://127.0.0.1:") + std::to_string(port_);
}

bool NatsServer::start() {
    if (pid_ > 0) {
        return true;
    }
    std::string conf = "listen: 127.0.0.1:" + std::to_string(port_) + "\n";
    conf += "jetstream {\n  store_dir: \"" + store_ +
            "\"\n  max_memory_store: 268435456\n"
            "  max_file_store: 4294967296\n}\n";
    if (!options_.users.empty()) {
        conf += "authorization {\n  users = [\n";
        for (const auto& [user, password] : options_.users) {
            conf += "    {user: \"" + user + "\", password: \"" + password + "\"}\n";
        }
        conf += "  ]\n}\n";
    }
    if (options_.tls) {
        const TestCertificates& certs = test_certificates();
        conf += "tls {\n  cert_file: \"" + certs.server_cert + "\"\n  key_file: \"" +
                certs.server_key + "\"\n  timeout: 5\n}\n";
    }
    if (options_.pid_file) {
        conf += "pid_file: \"" + file("nats.pid") + "\"\n";
    }
    conf += options_.extra_conf;
    const std::string conf_path = dir_ / "nats.conf";
    write_file(conf_path, conf);
    const std::string log_path = dir_ / "nats.log";
    pid_t pid = fork();
    if (pid == 0) {
        // The server goes with the test process, even when that one dies without cleaning up;
        // and it keeps none of the test's output descriptors open (the test runner waits on them).
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        int null_fd = open("/dev/null", O_RDWR);
        dup2(null_fd, 0);
        dup2(null_fd, 1);
        dup2(null_fd, 2);
        execlp("nats-server", "nats-server", "-c", conf_path.c_str(), "-l", log_path.c_str(),
               static_cast<char*>(nullptr));
        _exit(127);
    }
    if (pid < 0) {
        return false;
    }
    pid_ = pid;
    const bool up = wait_until([this] {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            return true;
        }
        return port_open(port_);
    });
    return up && pid_ > 0;
}

void NatsServer::stop() {
    if (pid_ <= 0) {
        return;
    }
    kill(pid_, SIGTERM);
    int status = 0;
    if (!wait_until([&] { return waitpid(pid_, &status, WNOHANG) == pid_; },
                    std::chrono::seconds(10))) {
        kill(pid_, SIGKILL);
        waitpid(pid_, &status, 0);
    }
    pid_ = -1;
}

std::unique_ptr<qv_nats_config> NatsServer::client_config() const {
    auto cfg = qv_nats_config_new();
    cfg->server_url = url();
    cfg->cert_path = test_certificates().ca_cert;
    return cfg;
}

int NatsServer::create_buckets(const qv_kv_bucket_ages& ages, const std::string& user,
                               const std::string& password) {
    auto cfg = client_config();
    cfg->user = user;
    cfg->password = password;
    if (qv_nats_init(cfg.get()) != 0) {
        return -1;
    }
    int rc = qv_kv_setup_buckets(cfg.get(), ages, nullptr);
    qv_nats_deinit(cfg.get());
    return rc;
}

NatsCluster::NatsCluster() {
    std::vector<int> route_ports;
    for (int i = 0; i < kNodes; ++i) {
        route_ports.push_back(free_port());
    }
    for (int i = 0; i < kNodes; ++i) {
        std::string conf =
            "server_name: node" + std::to_string(i) + "\ncluster {\n  name: qvtest\n" +
            "  listen: 127.0.0.1:" + std::to_string(route_ports[i]) + "\n  routes: [\n";
        for (int j = 0; j < kNodes; ++j) {
            if (j != i) {
                conf += "    nats-route://127.0.0.1:" + std::to_string(route_ports[j]) + "\n";
            }
        }
        conf += "  ]\n}\n";
        NatsServer::Options options;
        options.extra_conf = conf;
        nodes_.push_back(std::make_unique<NatsServer>(options));
    }
}

bool NatsCluster::start() {
    for (auto& node : nodes_) {
        if (!node->start()) {
            return false;
        }
    }
    return true;
}

std::string NatsCluster::url(const std::vector<int>& nodes) const {
    std::string list;
    for (int i : nodes) {
        list.append(list.empty() ? "" : ",").append(nodes_[static_cast<size_t>(i)]->url());
    }
    return list;
}

bool can_log_in(const NatsServer& server, const std::string& user, const std::string& password) {
    natsOptions* raw = nullptr;
    if (natsOptions_Create(&raw) != NATS_OK) {
        return false;
    }
    qv::nats_options_ptr options(raw);
    natsOptions_SetURL(raw, server.url().c_str());
    natsOptions_SetUserInfo(raw, user.c_str(), password.c_str());
    natsOptions_SetTimeout(raw, 2000);
    natsConnection* connection = nullptr;
    const natsStatus status = natsConnection_Connect(&connection, raw);
    qv::nats_connection_ptr owned(connection);
    return status == NATS_OK;
}

NatsClient::NatsClient(const NatsServer& server, const std::string& user,
                       const std::string& password)
    : config_(server.client_config()) {
    config_->user = user;
    config_->password = password;
    EXPECT_EQ(qv_nats_init(config_.get()), 0);
}

NatsClient::~NatsClient() {
    qv_nats_deinit(config_.get());
}

std::string NatsClient::request(const std::string& subject, const std::string& body,
                                std::chrono::milliseconds timeout) {
    std::string err;
    qv::json_ptr reply = qv_nats_send_recv_json(config_.get(), subject.c_str(), body.c_str(),
                                                static_cast<uint32_t>(timeout.count()), 0, &err);
    return reply ? qv_json_to_string(reply.get()) : err;
}

int NatsClient::rc(const std::string& subject, const std::string& body,
                   std::chrono::milliseconds timeout) {
    return qv_nats_simple_request(config_.get(), subject.c_str(), body.c_str(),
                                  static_cast<uint32_t>(timeout.count()), 0, nullptr);
}

}  // namespace qvtest
