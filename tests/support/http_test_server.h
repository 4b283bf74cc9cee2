// Real HTTP peers on loopback for tests: a server (plain or TLS) that records every request and
// answers with a chosen status, headers and (binary) body, or never answers, or hangs up; and a
// forward proxy that records what the client sent it and really forwards to the origin.
#pragma once

#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace qvtest {

struct HttpRequest {
    std::string method;
    std::string target;  // as sent: origin form, or absolute form to a proxy
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;  // raw body, chunked transfer coding undone

    // The first value of the header (name compared without case), or nullopt.
    std::optional<std::string> header(std::string_view name) const;
};

struct MultipartPart {
    std::string name;
    std::optional<std::string> content_type;
    std::string data;
};
// The parts of a multipart/form-data body, in order; empty when the body is not one.
std::vector<MultipartPart> parse_multipart(const HttpRequest& request);

namespace detail {

// A listening socket with an accept thread and one thread per connection; stops on destruction
// of the derived object (which must call stop() in its destructor).
class LoopbackService {
  public:
    LoopbackService(const LoopbackService&) = delete;
    LoopbackService& operator=(const LoopbackService&) = delete;
    int port() const { return port_; }

  protected:
    explicit LoopbackService(const std::string& bind_address);
    virtual ~LoopbackService();
    void start();
    void stop();
    virtual void serve(int fd) = 0;

  private:
    void accept_loop();

    int listen_fd_ = -1;
    int wake_[2] = {-1, -1};
    int port_ = 0;
    std::thread acceptor_;
    std::mutex mutex_;
    std::vector<std::thread> connections_;
    std::vector<int> open_fds_;
    bool stopping_ = false;
};

}  // namespace detail

class HttpTestServer : public detail::LoopbackService {
  public:
    enum class Mode {
        answer,     // send the status and body
        no_answer,  // read the request, then keep the connection open without a word
        hang_up,    // read the request, then close the connection without answering
    };
    struct Response {
        Mode mode = Mode::answer;
        int status = 200;
        std::string body = "{\"ReturnCode\": 0}";
        std::string content_type = "application/json";
        // Further header lines, sent after the standard ones. A "Content-Length" among them
        // replaces the computed one, so that a size other than the body's can be announced.
        std::vector<std::pair<std::string, std::string>> headers{};
        // The body in chunked transfer coding (any "Content-Length" of `headers` is sent too).
        bool chunked = false;
    };
    struct Options {
        bool tls = false;  // HTTPS with the test certificate for localhost / 127.0.0.1
        std::string bind_address = "127.0.0.1";
    };

    HttpTestServer();
    explicit HttpTestServer(Options options);
    ~HttpTestServer() override;

    // The answer to every request from now on (after any queued ones).
    void respond(Response response);
    void respond(int status, std::string body);
    // Answers used once each, in order, before the standing one.
    void queue(Response response);
    // From now on a request without exactly these Basic credentials gets 401 and uses up none of
    // the chosen answers.
    void require_basic_auth(const std::string& user, const std::string& password);

    // http://<bind address>:port, or https://localhost:port with TLS (the certificate names
    // localhost), followed by `path`.
    std::string url(std::string_view path = "") const;

    std::vector<HttpRequest> requests() const;
    size_t request_count() const;

  private:
    void serve(int fd) override;
    Response next_response();

    Options options_;
    struct TlsContext;
    std::unique_ptr<TlsContext> tls_;
    mutable std::mutex mutex_;
    Response standing_;
    std::deque<Response> queued_;
    std::string expected_authorization_;  // empty: no check
    std::vector<HttpRequest> requests_;
};

// A forward proxy for plain HTTP: records each request as the client sent it (absolute target,
// Proxy-Authorization included), forwards it without the proxy headers to the origin named in
// the target and relays the origin's answer.
class HttpTestProxy : public detail::LoopbackService {
  public:
    HttpTestProxy();
    ~HttpTestProxy() override;

    std::string host() const { return "127.0.0.1"; }
    std::vector<HttpRequest> requests() const;

  private:
    void serve(int fd) override;

    mutable std::mutex mutex_;
    std::vector<HttpRequest> requests_;
};

}  // namespace qvtest
