#include "http_test_server.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <strings.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include "nats_server.h"
#include "qv_handles.h"

namespace qvtest {

namespace {

// A connection, plain or TLS.
class Stream {
  public:
    Stream(int fd, SSL* ssl) : fd_(fd), ssl_(ssl) {}

    // Bytes read; 0 at the end of the stream or on an error.
    size_t read_some(char* buffer, size_t size) {
        if (ssl_ != nullptr) {
            const int n = SSL_read(ssl_, buffer, static_cast<int>(size));
            return n > 0 ? static_cast<size_t>(n) : 0;
        }
        while (true) {
            const ssize_t n = recv(fd_, buffer, size, 0);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            return n > 0 ? static_cast<size_t>(n) : 0;
        }
    }

    bool write_all(std::string_view data) {
        while (!data.empty()) {
            ssize_t n;
            if (ssl_ != nullptr) {
                n = SSL_write(ssl_, data.data(), static_cast<int>(data.size()));
            } else {
                n = send(fd_, data.data(), data.size(), MSG_NOSIGNAL);
                if (n < 0 && errno == EINTR) {
                    continue;
                }
            }
            if (n <= 0) {
                return false;
            }
            data.remove_prefix(static_cast<size_t>(n));
        }
        return true;
    }

  private:
    int fd_;
    SSL* ssl_;
};

bool s_fill(Stream& stream, std::string& buffer) {
    char chunk[16384];
    const size_t n = stream.read_some(chunk, sizeof(chunk));
    buffer.append(chunk, n);
    return n > 0;
}

bool s_iequals(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::string s_trim(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) {
        text.remove_prefix(1);
    }
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r')) {
        text.remove_suffix(1);
    }
    return std::string(text);
}

// Reads one whole request; nullopt when the peer stops before one has arrived.
std::optional<HttpRequest> s_read_request(Stream& stream) {
    std::string buffer;
    size_t head_end;
    while ((head_end = buffer.find("\r\n\r\n")) == std::string::npos) {
        if (!s_fill(stream, buffer)) {
            return std::nullopt;
        }
    }
    HttpRequest request;
    std::string_view head(buffer.data(), head_end);
    size_t eol = head.find("\r\n");
    const std::string_view request_line = head.substr(0, eol);
    const size_t sp1 = request_line.find(' ');
    const size_t sp2 = request_line.find(' ', sp1 + 1);
    if (sp1 == std::string_view::npos || sp2 == std::string_view::npos) {
        return std::nullopt;
    }
    request.method = request_line.substr(0, sp1);
    request.target = request_line.substr(sp1 + 1, sp2 - sp1 - 1);
    while (eol != std::string_view::npos) {
        head.remove_prefix(eol + 2);
        eol = head.find("\r\n");
        const std::string_view line = head.substr(0, eol);
        const size_t colon = line.find(':');
        if (colon != std::string_view::npos) {
            request.headers.emplace_back(std::string(line.substr(0, colon)),
                                         s_trim(line.substr(colon + 1)));
        }
    }

    std::string rest = buffer.substr(head_end + 4);
    const auto length = request.header("Content-Length");
    const auto coding = request.header("Transfer-Encoding");
    if (coding && s_iequals(*coding, "chunked")) {
        size_t pos = 0;
        while (true) {
            size_t line_end;
            while ((line_end = rest.find("\r\n", pos)) == std::string::npos) {
                if (!s_fill(stream, rest)) {
                    return std::nullopt;
                }
            }
            const size_t size = strtoul(rest.c_str() + pos, nullptr, 16);
            pos = line_end + 2;
            if (size == 0) {
                break;  // trailers, if any, are not needed
            }
            while (rest.size() < pos + size + 2) {
                if (!s_fill(stream, rest)) {
                    return std::nullopt;
                }
            }
            request.body.append(rest, pos, size);
            pos += size + 2;
        }
    } else if (length) {
        const size_t size = strtoul(length->c_str(), nullptr, 10);
        while (rest.size() < size) {
            if (!s_fill(stream, rest)) {
                return std::nullopt;
            }
        }
        request.body = rest.substr(0, size);
    }
    return request;
}

std::string s_response_text(int status, const std::string& content_type, const std::string& body,
                            const std::vector<std::pair<std::string, std::string>>& headers = {},
                            bool chunked = false) {
    const char* reason = status == 200 ? "OK" : "Test Status";
    std::string text = "HTTP/1.1 " + std::to_string(status) + " " + reason +
                       "\r\nContent-Type: " + content_type + "\r\nConnection: close\r\n";
    bool announced = false;
    for (const auto& [name, value] : headers) {
        text += name + ": " + value + "\r\n";
        announced = announced || s_iequals(name, "Content-Length");
    }
    if (chunked) {
        text += "Transfer-Encoding: chunked\r\n\r\n";
        char size[32];
        for (size_t at = 0; at < body.size(); at += 65536) {
            const size_t n = std::min<size_t>(65536, body.size() - at);
            snprintf(size, sizeof(size), "%zx\r\n", n);
            text += size;
            text.append(body, at, n);
            text += "\r\n";
        }
        return text + "0\r\n\r\n";
    }
    if (!announced) {
        text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    }
    return text + "\r\n" + body;
}

int s_connect_tcp(const std::string& host, const std::string& port) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    if (getaddrinfo(host.c_str(), port.c_str(), &hints, &list) != 0 || list == nullptr) {
        return -1;
    }
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && connect(fd, list->ai_addr, list->ai_addrlen) != 0) {
        close(fd);
        fd = -1;
    }
    freeaddrinfo(list);
    return fd;
}

}  // namespace

std::optional<std::string> HttpRequest::header(std::string_view name) const {
    for (const auto& [key, value] : headers) {
        if (s_iequals(key, name)) {
            return value;
        }
    }
    return std::nullopt;
}

std::vector<MultipartPart> parse_multipart(const HttpRequest& request) {
    std::vector<MultipartPart> parts;
    const auto content_type = request.header("Content-Type");
    if (!content_type || content_type->rfind("multipart/form-data", 0) != 0) {
        return parts;
    }
    const size_t at = content_type->find("boundary=");
    if (at == std::string::npos) {
        return parts;
    }
    std::string boundary = content_type->substr(at + 9);
    boundary.erase(std::remove(boundary.begin(), boundary.end(), '"'), boundary.end());
    const std::string delimiter = "--" + boundary;
    const std::string& body = request.body;
    size_t pos = body.find(delimiter);
    if (pos == std::string::npos) {
        return parts;
    }
    pos += delimiter.size();
    while (body.compare(pos, 2, "--") != 0 && body.compare(pos, 2, "\r\n") == 0) {
        pos += 2;
        const size_t head_end = body.find("\r\n\r\n", pos);
        const size_t next = body.find("\r\n" + delimiter, head_end);
        if (head_end == std::string::npos || next == std::string::npos) {
            return {};
        }
        MultipartPart part;
        std::string_view head(body.data() + pos, head_end - pos);
        while (!head.empty()) {
            const size_t eol = head.find("\r\n");
            const std::string_view line = head.substr(0, eol);
            const size_t colon = line.find(':');
            const std::string_view name = line.substr(0, colon);
            const std::string value =
                colon == std::string_view::npos ? "" : s_trim(line.substr(colon + 1));
            if (s_iequals(name, "Content-Type")) {
                part.content_type = value;
            } else if (s_iequals(name, "Content-Disposition")) {
                const size_t n = value.find("name=\"");
                if (n != std::string::npos) {
                    part.name = value.substr(n + 6, value.find('"', n + 6) - n - 6);
                }
            }
            head.remove_prefix(eol == std::string_view::npos ? head.size() : eol + 2);
        }
        part.data = body.substr(head_end + 4, next - head_end - 4);
        parts.push_back(std::move(part));
        pos = next + 2 + delimiter.size();
    }
    return parts;
}

// ---------------------------------------------------------------------------------------------

namespace detail {

LoopbackService::LoopbackService(const std::string& bind_address) {
    listen_fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    socklen_t len = sizeof(addr);
    if (listen_fd_ < 0 || inet_pton(AF_INET, bind_address.c_str(), &addr.sin_addr) != 1 ||
        bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
        listen(listen_fd_, 16) != 0 ||
        getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&addr), &len) != 0 ||
        pipe2(wake_, O_CLOEXEC) != 0) {
        const std::string reason = strerror(errno);
        if (listen_fd_ >= 0) {
            close(listen_fd_);
        }
        throw std::runtime_error("cannot listen on " + bind_address + ": " + reason);
    }
    port_ = ntohs(addr.sin_port);
}

LoopbackService::~LoopbackService() {
    stop();
    close(listen_fd_);
    close(wake_[0]);
    close(wake_[1]);
}

void LoopbackService::start() {
    acceptor_ = std::thread(&LoopbackService::accept_loop, this);
}

void LoopbackService::stop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_) {
            return;
        }
        stopping_ = true;
    }
    const char wake = 1;
    (void)!write(wake_[1], &wake, 1);
    if (acceptor_.joinable()) {
        acceptor_.join();
    }
    std::vector<std::thread> connections;
    {
        // Connections still open (a client that never hangs up) are cut so that their threads
        // end.
        std::lock_guard<std::mutex> lock(mutex_);
        for (int fd : open_fds_) {
            shutdown(fd, SHUT_RDWR);
        }
        connections.swap(connections_);
    }
    for (std::thread& t : connections) {
        t.join();
    }
}

void LoopbackService::accept_loop() {
    while (true) {
        pollfd fds[2] = {{listen_fd_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        if (fds[1].revents != 0) {
            return;
        }
        const int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            continue;
        }
        std::lock_guard<std::mutex> lock(mutex_);
        open_fds_.push_back(fd);
        connections_.emplace_back([this, fd] {
            // A TLS write to a client that already went (one that rejected the certificate, say)
            // must fail with EPIPE, not end the test process.
            sigset_t pipe_signal;
            sigemptyset(&pipe_signal);
            sigaddset(&pipe_signal, SIGPIPE);
            pthread_sigmask(SIG_BLOCK, &pipe_signal, nullptr);
            serve(fd);
            std::lock_guard<std::mutex> done(mutex_);
            open_fds_.erase(std::find(open_fds_.begin(), open_fds_.end(), fd));
            close(fd);
        });
    }
}

}  // namespace detail

// ---------------------------------------------------------------------------------------------

struct HttpTestServer::TlsContext {
    SSL_CTX* ctx = nullptr;
    ~TlsContext() { SSL_CTX_free(ctx); }
};

HttpTestServer::HttpTestServer() : HttpTestServer(Options{}) {}

HttpTestServer::HttpTestServer(Options options)
    : LoopbackService(options.bind_address), options_(std::move(options)) {
    if (options_.tls) {
        const TestCertificates& certs = test_certificates();
        tls_ = std::make_unique<TlsContext>();
        tls_->ctx = SSL_CTX_new(TLS_server_method());
        if (tls_->ctx == nullptr ||
            SSL_CTX_use_certificate_chain_file(tls_->ctx, certs.server_cert.c_str()) != 1 ||
            SSL_CTX_use_PrivateKey_file(tls_->ctx, certs.server_key.c_str(), SSL_FILETYPE_PEM) !=
                1) {
            throw std::runtime_error("cannot set up the TLS test server");
        }
    }
    start();
}

HttpTestServer::~HttpTestServer() {
    stop();
}

void HttpTestServer::respond(Response response) {
    std::lock_guard<std::mutex> lock(mutex_);
    standing_ = std::move(response);
}

void HttpTestServer::respond(int status, std::string body) {
    Response response;
    response.status = status;
    response.body = std::move(body);
    respond(std::move(response));
}

void HttpTestServer::queue(Response response) {
    std::lock_guard<std::mutex> lock(mutex_);
    queued_.push_back(std::move(response));
}

void HttpTestServer::require_basic_auth(const std::string& user, const std::string& password) {
    std::lock_guard<std::mutex> lock(mutex_);
    expected_authorization_ = "Basic " + base64(user + ":" + password);
}

std::string HttpTestServer::url(std::string_view path) const {
    const std::string origin =
        options_.tls ? std::string("https://localhost") : "http://" + options_.bind_address;
    return origin + ":" + std::to_string(port()) + std::string(path);
}

std::vector<HttpRequest> HttpTestServer::requests() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
}

size_t HttpTestServer::request_count() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_.size();
}

HttpTestServer::Response HttpTestServer::next_response() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!queued_.empty()) {
        Response next = std::move(queued_.front());
        queued_.pop_front();
        return next;
    }
    return standing_;
}

void HttpTestServer::serve(int fd) {
    using ssl_ptr = std::unique_ptr<SSL, decltype(&SSL_free)>;
    ssl_ptr ssl(nullptr, SSL_free);
    if (tls_) {
        ssl.reset(SSL_new(tls_->ctx));
        if (!ssl || SSL_set_fd(ssl.get(), fd) != 1 || SSL_accept(ssl.get()) != 1) {
            ERR_clear_error();
            return;  // e.g. a client that rejected the certificate
        }
    }
    Stream stream(fd, ssl.get());
    std::optional<HttpRequest> request = s_read_request(stream);
    if (!request) {
        return;
    }
    bool authorized = true;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        requests_.push_back(*request);
        authorized = expected_authorization_.empty() ||
                     request->header("Authorization") == expected_authorization_;
    }
    Response refused;
    refused.status = 401;
    refused.body = "unauthorized";
    refused.content_type = "text/plain";
    const Response response = authorized ? next_response() : refused;
    switch (response.mode) {
        case Mode::answer:
            stream.write_all(s_response_text(response.status, response.content_type, response.body,
                                             response.headers, response.chunked));
            break;
        case Mode::no_answer: {
            char sink[4096];
            while (stream.read_some(sink, sizeof(sink)) > 0) {
            }
            break;
        }
        case Mode::hang_up:
            break;
    }
    if (ssl && response.mode != Mode::hang_up) {
        SSL_shutdown(ssl.get());
    }
    ERR_clear_error();
}

// ---------------------------------------------------------------------------------------------

HttpTestProxy::HttpTestProxy() : LoopbackService("127.0.0.1") {
    start();
}

HttpTestProxy::~HttpTestProxy() {
    stop();
}

std::vector<HttpRequest> HttpTestProxy::requests() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
}

void HttpTestProxy::serve(int fd) {
    Stream client(fd, nullptr);
    std::optional<HttpRequest> request = s_read_request(client);
    if (!request) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        requests_.push_back(*request);
    }
    const std::string_view scheme = "http://";
    if (request->target.rfind(scheme, 0) != 0) {
        client.write_all(s_response_text(400, "text/plain", "absolute http:// target required"));
        return;
    }
    const std::string rest = request->target.substr(scheme.size());
    const size_t slash = rest.find('/');
    const std::string authority = rest.substr(0, slash);
    const std::string path = slash == std::string::npos ? "/" : rest.substr(slash);
    const size_t colon = authority.find(':');
    const std::string host = authority.substr(0, colon);
    const std::string port = colon == std::string::npos ? "80" : authority.substr(colon + 1);

    qv::unique_fd origin_fd(s_connect_tcp(host, port));
    if (!origin_fd) {
        client.write_all(s_response_text(502, "text/plain", "origin unreachable"));
        return;
    }
    std::string forward = request->method + " " + path + " HTTP/1.1\r\n";
    for (const auto& [name, value] : request->headers) {
        if (s_iequals(name, "Proxy-Authorization") || s_iequals(name, "Proxy-Connection") ||
            s_iequals(name, "Connection") || s_iequals(name, "Content-Length") ||
            s_iequals(name, "Transfer-Encoding")) {
            continue;
        }
        forward += name + ": " + value + "\r\n";
    }
    forward += "Content-Length: " + std::to_string(request->body.size()) +
               "\r\nConnection: close\r\n\r\n" + request->body;
    Stream origin(origin_fd.get(), nullptr);
    if (!origin.write_all(forward)) {
        return;
    }
    char chunk[16384];
    size_t n;
    while ((n = origin.read_some(chunk, sizeof(chunk))) > 0) {
        if (!client.write_all(std::string_view(chunk, n))) {
            break;
        }
    }
}

}  // namespace qvtest
