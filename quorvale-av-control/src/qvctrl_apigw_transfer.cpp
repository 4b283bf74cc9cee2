#include "qvctrl_apigw_transfer.h"

#include <atomic>
#include <cstdlib>

#include "log.h"
#include "qv_validate.h"
#include "qvhlp_curl_trace.h"

namespace {

// How long an operator's CA bundle stays cached between transfers: one week.
constexpr long kCaCacheSeconds = 604800;
// How much of the proxy setting the log shows.
constexpr size_t kProxyLogMax = 1024;

std::atomic<long> s_connect_timeout_ms{10000};
std::atomic<long> s_total_timeout_ms{30000};

}  // namespace

CURLcode qvctrl_apigw_set_transfer_options(CURL* curl, const std::string& url,
                                           const quorvale_control_config_t* config,
                                           char* error_buffer) {
    CURLcode rc = CURLE_OK;
    const auto set = [&](CURLoption option, auto value) {
        if (rc == CURLE_OK) {
            rc = curl_easy_setopt(curl, option, value);
        }
    };
    set(CURLOPT_ERRORBUFFER, error_buffer);
    set(CURLOPT_URL, url.c_str());
    set(CURLOPT_HTTPGET, 1L);
    // Threads run transfers side by side; timeouts must not rely on signals.
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_BASIC));
    set(CURLOPT_USERNAME, config->apigw_user.c_str());
    set(CURLOPT_PASSWORD, config->apigw_password.c_str());
    // An error status is a failed transfer, not a reply to parse.
    set(CURLOPT_FAILONERROR, 1L);
    set(CURLOPT_SSL_VERIFYPEER, 1L);
    set(CURLOPT_SSL_VERIFYHOST, 2L);
    if (const char* bundle = qvhlp_curl_ca_bundle(); bundle != nullptr) {
        set(CURLOPT_CAINFO, bundle);
    }
#if LIBCURL_VERSION_NUM >= 0x075700
    set(CURLOPT_CA_CACHE_TIMEOUT, kCaCacheSeconds);
#endif
    set(CURLOPT_CONNECTTIMEOUT_MS, s_connect_timeout_ms.load());
    set(CURLOPT_TIMEOUT_MS, s_total_timeout_ms.load());
    set(CURLOPT_VERBOSE, 1L);
    set(CURLOPT_DEBUGFUNCTION, qvhlp_curl_trace);
    if (config->network_config && !config->network_config->http_proxy.empty()) {
        const std::string& proxy = config->network_config->http_proxy;
        log_info("Using http proxy: %s",
                 qv_escape_for_log(qvhlp_curl_proxy_for_log(proxy), kProxyLogMax).c_str());
        set(CURLOPT_PROXY, proxy.c_str());
    }
    return rc;
}

void qvctrl_apigw_set_timeouts_for_tests(long connect_ms, long total_ms) {
    s_connect_timeout_ms = connect_ms;
    s_total_timeout_ms = total_ms;
}
