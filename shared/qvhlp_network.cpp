#include "qvhlp_network.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <arpa/inet.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "log.h"
#include "qv_handles.h"

namespace {

struct addrinfo_releaser {
    void operator()(addrinfo* ai) const { freeaddrinfo(ai); }
};

constexpr int kConnectWaitMs = 3000;

std::string s_error_text(int errnum) {
    char buffer[256];
    return strerror_r(errnum, buffer, sizeof(buffer));
}

// A dotted address as it stands, otherwise the first IPv4 address of the name; 0.0.0.0 when the
// name does not resolve.
in_addr s_resolve(const char* host) {
    in_addr address{};
    if (inet_pton(AF_INET, host, &address) == 1) {
        return address;
    }
    log_debug("Resolving %s", host);
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* raw = nullptr;
    if (getaddrinfo(host, nullptr, &hints, &raw) == 0 && raw != nullptr) {
        std::unique_ptr<addrinfo, addrinfo_releaser> list(raw);
        address = reinterpret_cast<const sockaddr_in*>(list->ai_addr)->sin_addr;
    }
    return address;
}

// Connects the non-blocking socket and waits for the outcome; 0 or the errno of the failure.
int s_connect_within(int fd, const sockaddr_in& target, int wait_ms) {
    if (connect(fd, reinterpret_cast<const sockaddr*>(&target), sizeof(target)) == 0) {
        return 0;
    }
    if (errno != EINPROGRESS) {
        return errno;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(wait_ms);
    while (true) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return ETIMEDOUT;
        }
        pollfd pfd{fd, POLLOUT, 0};
        const int ready = poll(&pfd, 1, static_cast<int>(left.count()));
        if (ready > 0) {
            break;
        }
        if (ready == 0) {
            return ETIMEDOUT;
        }
        if (errno != EINTR) {
            return errno;
        }
    }
    int pending = 0;
    socklen_t len = sizeof(pending);
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &pending, &len) != 0) {
        return errno;
    }
    return pending;
}

}  // namespace

const char* qvhlp_GetMyFQDN() {
    static char fqdn[2048];
    if (gethostname(fqdn, sizeof(fqdn) - 1) != 0) {
        log_error("Failed to get hostname");
        return nullptr;
    }
    fqdn[sizeof(fqdn) - 1] = '\0';
    return fqdn;
}

const char* qvhlp_GetMyIP() {
    static char ip[2048];
    char host[2048] = {};
    if (gethostname(host, sizeof(host) - 1) != 0) {
        log_error("Failed to get hostname");
        return nullptr;
    }
    addrinfo hints{};
    hints.ai_family = AF_INET;
    addrinfo* raw = nullptr;
    if (getaddrinfo(host, nullptr, &hints, &raw) != 0 || raw == nullptr) {
        log_error("Failed to get host by name");
        return nullptr;
    }
    std::unique_ptr<addrinfo, addrinfo_releaser> list(raw);
    const auto* sin = reinterpret_cast<const sockaddr_in*>(list->ai_addr);
    if (inet_ntop(AF_INET, &sin->sin_addr, ip, sizeof(ip)) == nullptr) {
        log_error("Failed to get host by name");
        return nullptr;
    }
    return ip;
}

int qvhlp_CheckConnect(const char* host, const char* port, std::string* errmsg) {
    if (host == nullptr || port == nullptr) {
        log_error("Invalid input");
        return -1;
    }
    log_trace("Checking connection to %s:%s", host, port);

    char* end = nullptr;
    errno = 0;
    const long port_number = strtol(port, &end, 10);
    if (end == port && errno == 0) {
        errno = EINVAL;  // nothing converted: not a number at all
    }
    if (port_number == 0 && errno == EINVAL) {
        const std::string reason = s_error_text(errno);
        log_error("Failed to convert port value to integer: %s", reason.c_str());
        if (errmsg != nullptr) {
            *errmsg = "Failed to convert port value to integer: " + reason;
        }
        return -1;
    }

    qv::unique_fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd) {
        log_error("Failed to create socket: %s", s_error_text(errno).c_str());
        if (errmsg != nullptr) {
            *errmsg = "Failed to create socket: " + s_error_text(errno);
        }
        return -1;
    }

    sockaddr_in target{};
    target.sin_family = AF_INET;
    target.sin_port = htons(static_cast<uint16_t>(port_number));
    target.sin_addr = s_resolve(host);

    const int error = s_connect_within(fd.get(), target, kConnectWaitMs);
    if (error != 0) {
        log_warn("Failed to connect to %s:%s: %s", host, port, s_error_text(error).c_str());
        if (errmsg != nullptr) {
            char text[1024];
            snprintf(text, sizeof(text), "Failed to connect to %s:%d", host,
                     static_cast<int>(port_number));
            *errmsg = text;
        }
        return -2;
    }
    log_debug("Connection to %s:%s successful", host, port);
    return 0;
}
