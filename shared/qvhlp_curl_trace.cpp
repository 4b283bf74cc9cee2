#include "qvhlp_curl_trace.h"

#include <strings.h>

#include <cstdlib>
#include <exception>
#include <string_view>

#include "log.h"
#include "qv_validate.h"

namespace {

// How much of one verbose line the trace shows.
constexpr size_t s_trace_line_max = 512;

bool s_starts_with_nocase(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() &&
           strncasecmp(text.data(), prefix.data(), prefix.size()) == 0;
}

void s_trace_line(const char* direction, std::string_view line) {
    if (s_starts_with_nocase(line, "authorization:") ||
        s_starts_with_nocase(line, "proxy-authorization:")) {
        const size_t colon = line.find(':');
        std::string_view value = line.substr(colon + 1);
        while (!value.empty() && value.front() == ' ') {
            value.remove_prefix(1);
        }
        const std::string_view scheme = value.substr(0, value.find(' '));
        log_trace("curl %s %.*s: %.*s [redacted]", direction, static_cast<int>(colon), line.data(),
                  static_cast<int>(scheme.size()), scheme.data());
        return;
    }
    log_trace("curl %s %s", direction, qv_escape_for_log(line, s_trace_line_max).c_str());
}

}  // namespace

int qvhlp_curl_trace(CURL* /*handle*/, curl_infotype type, char* data, size_t size,
                     void* /*user*/) {
    const char* direction = nullptr;
    switch (type) {
        case CURLINFO_TEXT:
            direction = "*";
            break;
        case CURLINFO_HEADER_IN:
            direction = "<";
            break;
        case CURLINFO_HEADER_OUT:
            direction = ">";
            break;
        default:
            return 0;
    }
    try {
        std::string_view text(data, size);
        while (!text.empty()) {
            const size_t eol = text.find('\n');
            std::string_view line = text.substr(0, eol);
            if (!line.empty() && line.back() == '\r') {
                line.remove_suffix(1);
            }
            if (!line.empty()) {
                s_trace_line(direction, line);
            }
            if (eol == std::string_view::npos) {
                break;
            }
            text.remove_prefix(eol + 1);
        }
    } catch (const std::exception&) {
        // A trace line that cannot be built is dropped; the transfer goes on.
    }
    return 0;
}

std::string qvhlp_curl_proxy_for_log(const std::string& proxy) {
    const size_t scheme = proxy.find("://");
    const size_t start = scheme == std::string::npos ? 0 : scheme + 3;
    const size_t at = proxy.find('@', start);
    const size_t slash = proxy.find('/', start);
    if (at == std::string::npos || (slash != std::string::npos && slash < at)) {
        return proxy;
    }
    const size_t colon = proxy.find(':', start);
    if (colon == std::string::npos || colon > at) {
        return proxy;
    }
    return proxy.substr(0, colon + 1) + "***" + proxy.substr(at);
}

const char* qvhlp_curl_ca_bundle() {
    for (const char* name : {"CURL_CA_BUNDLE", "SSL_CERT_FILE"}) {
        const char* value = getenv(name);
        if (value != nullptr && value[0] != '\0') {
            return value;
        }
    }
    return nullptr;
}
