#include "amqp_broker.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <future>

#include <proton/connection.hpp>
#include <proton/connection_options.hpp>
#include <proton/delivery.hpp>
#include <proton/error_condition.hpp>
#include <proton/io/connection_driver.hpp>
#include <proton/messaging_handler.hpp>
#include <proton/receiver.hpp>
#include <proton/receiver_options.hpp>
#include <proton/sasl.h>
#include <proton/sasl_plugin.h>
#include <proton/sender.hpp>
#include <proton/sender_options.hpp>
#include <proton/source.hpp>
#include <proton/source_options.hpp>
#include <proton/ssl.hpp>
#include <proton/target.hpp>
#include <proton/target_options.hpp>
#include <proton/transport.hpp>

#include "nats_server.h"
#include "qv_test_util.h"

namespace qvtest {

namespace {

// The C transport behind a C++ one: the SASL plug-in interface is only offered in C.
struct transport_access : proton::transport {
    static pn_transport_t* raw(const proton::transport& t) {
        return static_cast<const transport_access&>(t).pn_object();
    }
};

const char* s_topic_prefix = "topic://";

}  // namespace

struct AmqpBroker::impl : proton::messaging_handler {
    struct conn {
        int fd = -1;
        proton::io::connection_driver driver;
    };

    explicit impl(AmqpBroker& owner) : owner(owner) {}

    AmqpBroker& owner;
    std::vector<std::unique_ptr<conn>> conns;
    std::map<std::string, std::vector<proton::sender>> consumers;
    std::map<std::string, size_t> next_consumer;
    std::map<std::string, std::deque<proton::message>> queues;

    bool check_login(const std::string& user, const std::string& password) {
        const bool ok = user == owner.options_.user && password == owner.options_.password;
        if (!ok) {
            ++owner.refused_;
        }
        return ok;
    }

    void route(const proton::message& message, const std::string& address) {
        ++owner.routed_;
        {
            std::lock_guard<std::mutex> lock(owner.mutex_);
            auto held = owner.held_.find(address);
            if (held != owner.held_.end()) {
                held->second.push_back(message);
                owner.cv_.notify_all();
                return;
            }
        }
        if (address.rfind(s_topic_prefix, 0) == 0) {
            for (auto& s : consumers[address]) {
                if (s.active() && s.credit() > 0) {
                    s.send(message);
                }
            }
            return;
        }
        queues[address].push_back(message);
        flush(address);
    }

    // Hands queued messages to the receivers of `address` that have credit, in turn.
    void flush(const std::string& address) {
        auto queue = queues.find(address);
        if (queue == queues.end()) {
            return;
        }
        auto& links = consumers[address];
        while (!queue->second.empty() && !links.empty()) {
            size_t& next = next_consumer[address];
            bool sent = false;
            for (size_t tried = 0; tried < links.size(); ++tried) {
                proton::sender& s = links[next % links.size()];
                ++next;
                if (s.active() && s.credit() > 0) {
                    s.send(queue->second.front());
                    queue->second.pop_front();
                    sent = true;
                    break;
                }
            }
            if (!sent) {
                break;
            }
        }
    }

    void forget(const proton::sender& sender) {
        for (auto& [address, links] : consumers) {
            for (auto it = links.begin(); it != links.end();) {
                if (*it == sender) {
                    it = links.erase(it);
                } else {
                    ++it;
                }
            }
        }
    }

    void forget_connection(const proton::connection& connection) {
        for (auto& [address, links] : consumers) {
            for (auto it = links.begin(); it != links.end();) {
                if (it->connection() == connection) {
                    it = links.erase(it);
                } else {
                    ++it;
                }
            }
        }
    }

    void on_sender_open(proton::sender& sender) override {
        const std::string address = sender.source().address();
        if (!sender.active()) {
            sender.open(proton::sender_options().source(proton::source_options().address(address)));
        }
        consumers[address].push_back(sender);
        flush(address);
    }

    void on_sendable(proton::sender& sender) override { flush(sender.source().address()); }

    void on_sender_close(proton::sender& sender) override { forget(sender); }

    void on_receiver_open(proton::receiver& receiver) override {
        if (!receiver.active()) {
            receiver.open(proton::receiver_options().credit_window(200).target(
                proton::target_options().address(receiver.target().address())));
        }
    }

    void on_message(proton::delivery& delivery, proton::message& message) override {
        std::string address = message.to();
        if (address.empty()) {
            address = delivery.receiver().target().address();
        }
        route(message, address);
    }

    void on_error(const proton::error_condition&) override {}
};

namespace {

// Server-side SASL PLAIN against the broker's one user.
void s_sasl_free(pn_transport_t*) {}
const char* s_sasl_list(pn_transport_t*) {
    return "PLAIN";
}
bool s_sasl_init_server(pn_transport_t* t) {
    pnx_sasl_set_desired_state(t, SASL_POSTED_MECHANISMS);
    return true;
}
bool s_sasl_false(pn_transport_t*) {
    return false;
}
void s_sasl_prepare(pn_transport_t*) {}
void s_sasl_process_init(pn_transport_t* t, const char* mechanism, const pn_bytes_t* recv) {
    auto* broker = static_cast<AmqpBroker::impl*>(pnx_sasl_get_context(t));
    bool ok = false;
    std::string user;
    if (std::strcmp(mechanism, "PLAIN") == 0 && recv != nullptr) {
        // authzid NUL user NUL password
        const std::string text(recv->start, recv->size);
        const size_t first = text.find('\0');
        const size_t second = first == std::string::npos ? first : text.find('\0', first + 1);
        if (second != std::string::npos) {
            user = text.substr(first + 1, second - first - 1);
            ok = broker->check_login(user, text.substr(second + 1));
        } else {
            broker->check_login("", "");
        }
    } else {
        broker->check_login("", "");
    }
    if (ok) {
        pnx_sasl_set_succeeded(t, user.c_str(), nullptr);
    } else {
        pnx_sasl_set_failed(t);
    }
    pnx_sasl_set_desired_state(t, SASL_POSTED_OUTCOME);
}
void s_sasl_process_response(pn_transport_t* t, const pn_bytes_t*) {
    pnx_sasl_set_failed(t);
    pnx_sasl_set_desired_state(t, SASL_POSTED_OUTCOME);
}
bool s_sasl_mechanisms(pn_transport_t*, const char*) {
    return false;
}
void s_sasl_bytes(pn_transport_t*, const pn_bytes_t*) {}
ssize_t s_sasl_max(pn_transport_t*) {
    return 0;
}
ssize_t s_sasl_code(pn_transport_t*, pn_bytes_t, pn_bytes_t*) {
    return 0;
}
const pnx_sasl_implementation s_plain_server = {
    s_sasl_free,
    s_sasl_list,
    s_sasl_init_server,
    s_sasl_false,
    s_sasl_prepare,
    s_sasl_process_init,
    s_sasl_process_response,
    s_sasl_mechanisms,
    s_sasl_bytes,
    s_sasl_bytes,
    s_sasl_false,
    s_sasl_max,
    s_sasl_code,
    s_sasl_code,
};

// A body made of the JSON text and, when given, the data, as the client sends it.
proton::value amqp_body(const std::string& json, const std::string& data = "") {
    std::vector<std::string> elements{json};
    if (!data.empty()) {
        elements.push_back(data);
    }
    proton::value body;
    body = elements;
    return body;
}

}  // namespace

AmqpBroker::AmqpBroker() : AmqpBroker(Options{}) {}

AmqpBroker::AmqpBroker(Options options) : options_(std::move(options)) {
    if (options_.port == 0) {
        options_.port = free_port();
    }
}

AmqpBroker::~AmqpBroker() {
    stop();
}

std::string AmqpBroker::host() const {
    return options_.tls ? "localhost" : "127.0.0.1";
}

void AmqpBroker::configure(qv_nats_config* config) const {
    config->broker_host = host();
    config->broker_port = std::to_string(options_.port);
    config->broker_user = options_.user;
    config->broker_password = options_.password;
    config->cert_path = options_.tls ? test_certificates().ca_cert : "";
}

bool AmqpBroker::start() {
    if (running_) {
        return true;
    }
    listen_fd_ = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (listen_fd_ < 0) {
        return false;
    }
    const int one = 1;
    setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(options_.port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    // The port may still be held by connections of the previous run for a moment.
    const bool bound = wait_until(
        [&] { return bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0; },
        std::chrono::seconds(10));
    if (!bound || listen(listen_fd_, 64) != 0) {
        close(listen_fd_);
        listen_fd_ = -1;
        return false;
    }
    wake_fd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (options_.tls) {
        test_certificates();  // generated before the first client needs them
    }
    impl_ = std::make_unique<impl>(*this);
    stopping_ = false;
    running_ = true;
    thread_ = std::thread([this] { run(); });
    return true;
}

void AmqpBroker::stop() {
    if (!running_) {
        return;
    }
    stopping_ = true;
    const uint64_t one = 1;
    (void)!write(wake_fd_, &one, sizeof(one));
    thread_.join();
    impl_.reset();
    close(listen_fd_);
    close(wake_fd_);
    listen_fd_ = wake_fd_ = -1;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        inbox_.clear();
    }
    running_ = false;
}

void AmqpBroker::post(std::function<void()> work) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        inbox_.push_back(std::move(work));
    }
    const uint64_t one = 1;
    if (wake_fd_ >= 0) {
        (void)!write(wake_fd_, &one, sizeof(one));
    }
}

void AmqpBroker::publish(const std::string& address, const std::string& json,
                         const std::string& data, const std::string& reply_to) {
    publish_body(address, amqp_body(json, data), reply_to);
}

void AmqpBroker::publish_body(const std::string& address, const proton::value& body,
                              const std::string& reply_to) {
    static std::atomic<long> serial{0};
    proton::message message;
    message.id(proton::message_id(std::string("test-") + std::to_string(++serial)));
    message.to(address);
    if (!reply_to.empty()) {
        message.reply_to(reply_to);
    }
    message.body(body);
    post([this, message, address] { impl_->route(message, address); });
}

void AmqpBroker::hold(const std::string& address) {
    std::lock_guard<std::mutex> lock(mutex_);
    held_[address];
}

std::vector<proton::message> AmqpBroker::wait_held(const std::string& address, size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    cv_.wait_for(lock, std::chrono::seconds(20), [&] { return held_[address].size() >= count; });
    return held_[address];
}

void AmqpBroker::reply(const proton::message& request, const std::string& json) {
    proton::message message;
    message.id(proton::message_id("reply-to-" + proton::to_string(request.id())));
    message.to(request.reply_to());
    message.correlation_id(request.id());
    message.body(amqp_body(json));
    const std::string address = request.reply_to();
    post([this, message, address] { impl_->route(message, address); });
}

int AmqpBroker::receivers(const std::string& address) {
    if (!running_) {
        return 0;
    }
    auto answer = std::make_shared<std::promise<int>>();
    std::future<int> count = answer->get_future();
    post([this, answer, address] {
        int n = 0;
        for (auto& s : impl_->consumers[address]) {
            if (s.active() && s.credit() > 0) {
                ++n;
            }
        }
        answer->set_value(n);
    });
    return count.wait_for(std::chrono::seconds(10)) == std::future_status::ready ? count.get() : 0;
}

void AmqpBroker::run() {
    proton::connection_options options;
    options.handler(*impl_).sasl_enabled(true).sasl_allow_insecure_mechs(true).sasl_allowed_mechs(
        "PLAIN");
    if (options_.tls) {
        const TestCertificates& certs = test_certificates();
        options.ssl_server_options(proton::ssl_server_options(
            proton::ssl_certificate(certs.server_cert, certs.server_key)));
    }
    auto& conns = impl_->conns;
    while (!stopping_) {
        std::vector<pollfd> fds{{listen_fd_, POLLIN, 0}, {wake_fd_, POLLIN, 0}};
        for (auto& c : conns) {
            short events = 0;
            if (c->driver.read_buffer().size > 0) {
                events |= POLLIN;
            }
            if (c->driver.write_buffer().size > 0) {
                events |= POLLOUT;
            }
            fds.push_back({c->fd, events, 0});
        }
        if (poll(fds.data(), fds.size(), 200) < 0 && errno != EINTR) {
            break;
        }
        if (fds[1].revents & POLLIN) {
            uint64_t count = 0;
            (void)!read(wake_fd_, &count, sizeof(count));
            std::vector<std::function<void()>> work;
            {
                std::lock_guard<std::mutex> lock(mutex_);
                work.swap(inbox_);
            }
            for (auto& w : work) {
                w();
            }
        }
        // Connections accepted below were not polled yet: only the ones before them are.
        const size_t polled = conns.size();
        for (size_t i = 0; i < polled; ++i) {
            auto& c = *conns[i];
            const short revents = fds[i + 2].revents;
            if (revents & (POLLIN | POLLHUP | POLLERR)) {
                auto buffer = c.driver.read_buffer();
                if (buffer.size > 0) {
                    const ssize_t n = ::read(c.fd, buffer.data, buffer.size);
                    if (n > 0) {
                        c.driver.read_done(static_cast<size_t>(n));
                    } else if (n == 0) {
                        c.driver.read_close();
                    } else if (errno != EAGAIN && errno != EINTR) {
                        c.driver.disconnected(proton::error_condition("io", strerror(errno)));
                    }
                } else if (revents & (POLLHUP | POLLERR)) {
                    c.driver.disconnected(proton::error_condition("io", "hang-up"));
                }
            }
            if (revents & POLLOUT) {
                auto buffer = c.driver.write_buffer();
                if (buffer.size > 0) {
                    const ssize_t n = ::send(c.fd, buffer.data, buffer.size, MSG_NOSIGNAL);
                    if (n > 0) {
                        c.driver.write_done(static_cast<size_t>(n));
                    } else if (n < 0 && errno != EAGAIN && errno != EINTR) {
                        c.driver.disconnected(proton::error_condition("io", strerror(errno)));
                    }
                }
            }
        }
        if (fds[0].revents & POLLIN) {
            for (;;) {
                const int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
                if (fd < 0) {
                    break;
                }
                const int one = 1;
                setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
                auto c = std::make_unique<impl::conn>();
                c->fd = fd;
                c->driver.accept(options);
                pn_transport_t* transport = transport_access::raw(c->driver.transport());
                pn_sasl(transport);
                pnx_sasl_set_implementation(transport, &s_plain_server, impl_.get());
                conns.push_back(std::move(c));
                ++connections_;
            }
        }
        for (auto it = conns.begin(); it != conns.end();) {
            auto& c = **it;
            bool alive = true;
            try {
                alive = c.driver.dispatch();
            } catch (const std::exception&) {
                c.driver.disconnected(proton::error_condition("broker", "handler failed"));
                alive = c.driver.dispatch();
            }
            if (!alive && c.driver.write_buffer().size == 0) {
                impl_->forget_connection(c.driver.connection());
                close(c.fd);
                it = conns.erase(it);
            } else {
                ++it;
            }
        }
    }
    for (auto& c : conns) {
        impl_->forget_connection(c->driver.connection());
        close(c->fd);
    }
    impl_->consumers.clear();
    impl_->queues.clear();
    conns.clear();
}

}  // namespace qvtest
