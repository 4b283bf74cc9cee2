#include "qvhlp_network.h"

#include <cstdio>
#include <cstring>
#include <memory>

#include <arpa/inet.h>
#include <netdb.h>
#include <unistd.h>

#include "log.h"

namespace {

struct addrinfo_releaser {
    void operator()(addrinfo* ai) const { freeaddrinfo(ai); }
};

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
