#include "qv_http_gateway_client.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <new>
#include <string_view>

#include "log.h"
#include "qvhlp_curl_trace.h"
#include "qv_json.h"

namespace {

constexpr size_t kInitialReceiveCapacity = 4096;
constexpr long kConnectTimeoutMs = 10000;
constexpr const char* kUserAgent = "quorvale-av-client/4";
constexpr const char* kDefaultServletPath = "/vsi";

const char* s_or_empty(const char* text) {
    return text != nullptr ? text : "";
}

bool s_is_set(const char* text) {
    return text != nullptr && text[0] != '\0';
}

// Runs an allocating step; false when it ran out of memory.
template <typename F>
bool s_alloc(F&& step) {
    try {
        step();
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

int s_fail(std::string* errmsg, const std::string& reason) {
    log_error("qv_http_gateway_client: %s", reason.c_str());
    if (errmsg != nullptr) {
        *errmsg = reason;
    }
    return -1;
}

// A gateway URL that names a path is used as it is; one that ends at the host (or at a bare '/')
// gets the servlet path appended, so "https://gw/" becomes "https://gw//vsi".
std::string s_request_url(std::string_view gateway_url, std::string_view servlet_path) {
    bool has_path = false;
    const size_t scheme_end = gateway_url.find("://");
    if (scheme_end != std::string_view::npos) {
        const size_t slash = gateway_url.find('/', scheme_end + 3);
        has_path = slash != std::string_view::npos && slash + 1 < gateway_url.size();
    }
    std::string url(gateway_url);
    if (!has_path) {
        url += servlet_path;
    }
    return url;
}

// The reply body, grown to twice the needed size whenever a chunk does not fit.
size_t s_receive(char* ptr, size_t size, size_t nmemb, void* userdata) {
    auto* buffer = static_cast<std::string*>(userdata);
    const size_t chunk = size * nmemb;
    if (buffer->size() + chunk > buffer->capacity()) {
        const size_t grown = 2 * (buffer->capacity() + chunk + 1);
        if (!s_alloc([&] { buffer->reserve(grown); })) {
            log_error("qv_http_gateway_client: realloc(%zu) failed", grown);
            return 0;  // aborts the transfer
        }
    }
    buffer->append(ptr, chunk);
    return chunk;
}

// Feeds the caller's payload to the multipart form without copying it.
struct payload_reader {
    const unsigned char* data;
    size_t len;
    size_t pos;
};

size_t s_payload_read(char* buffer, size_t size, size_t nitems, void* arg) {
    auto* reader = static_cast<payload_reader*>(arg);
    const size_t n = std::min(size * nitems, reader->len - reader->pos);
    memcpy(buffer, reader->data + reader->pos, n);
    reader->pos += n;
    return n;
}

int s_payload_seek(void* arg, curl_off_t offset, int origin) {
    auto* reader = static_cast<payload_reader*>(arg);
    if (origin != SEEK_SET || offset < 0 || static_cast<size_t>(offset) > reader->len) {
        return CURL_SEEKFUNC_CANTSEEK;
    }
    reader->pos = static_cast<size_t>(offset);
    return CURL_SEEKFUNC_OK;
}

int s_gateway_request(const char* gateway_url, const char* user, const char* password,
                      const char* target_service, const char* request_json,
                      const unsigned char* body, size_t body_len, const qv_gateway_opts_t* opts,
                      long timeout_ms, qv::json_ptr* reply_json_out, std::string* errmsg) {
    if (errmsg != nullptr) {
        errmsg->clear();
    }
    if (reply_json_out == nullptr) {
        return s_fail(errmsg, "no place for the reply given");
    }
    reply_json_out->reset();

    qv_gateway_opts_t defaults;
    if (opts == nullptr) {
        qv_gateway_opts_defaults(&defaults);
        opts = &defaults;
    }
    const std::string servlet_path =
        opts->servlet_path.empty() ? std::string(kDefaultServletPath) : opts->servlet_path;
    target_service = s_or_empty(target_service);
    request_json = s_or_empty(request_json);
    if (body == nullptr) {
        body_len = 0;
    }

    std::string url;
    if (!s_alloc([&] { url = s_request_url(s_or_empty(gateway_url), servlet_path); })) {
        return s_fail(errmsg, "OOM allocating URL buffer");
    }
    std::string response;
    if (!s_alloc([&] { response.reserve(kInitialReceiveCapacity); })) {
        return s_fail(errmsg, "OOM allocating receive buffer");
    }

    // The header list and the form outlive the transfer handle that points at them.
    qv::curl_slist_ptr headers;
    qv::curl_mime_ptr form;
    std::string proxy;
    qv::curl_ptr curl(curl_easy_init());
    if (!curl) {
        return s_fail(errmsg, "curl_easy_init failed");
    }
    CURL* h = curl.get();

    curl_easy_setopt(h, CURLOPT_URL, url.c_str());
    curl_easy_setopt(h, CURLOPT_POST, 1L);
    curl_easy_setopt(h, CURLOPT_USERAGENT, kUserAgent);
    // Service threads call this concurrently; timeouts must not rely on signals.
    curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, s_receive);
    curl_easy_setopt(h, CURLOPT_WRITEDATA, &response);
    if (log_get_level() > QVLOG_DEBUG) {
        curl_easy_setopt(h, CURLOPT_VERBOSE, 1L);
        curl_easy_setopt(h, CURLOPT_DEBUGFUNCTION, qvhlp_curl_trace);
    }
    if (s_is_set(user) && s_is_set(password)) {
        curl_easy_setopt(h, CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_BASIC));
        curl_easy_setopt(h, CURLOPT_USERNAME, user);
        curl_easy_setopt(h, CURLOPT_PASSWORD, password);
    } else {
        log_warn("qv_http_gateway_client: no Basic Auth credentials set");
    }
    curl_easy_setopt(h, CURLOPT_TIMEOUT_MS, timeout_ms);
    curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT_MS, kConnectTimeoutMs);

    if (!opts->proxy_host.empty()) {
        if (!s_alloc([&] {
                proxy = opts->proxy_host;
                if (!opts->proxy_port.empty()) {
                    proxy += ':';
                    proxy += opts->proxy_port;
                }
            })) {
            return s_fail(errmsg, "OOM allocating proxy string");
        }
        curl_easy_setopt(h, CURLOPT_PROXY, proxy.c_str());
        if (!opts->proxy_user.empty() && !opts->proxy_password.empty()) {
            std::string creds;
            if (!s_alloc([&] { creds = opts->proxy_user + ':' + opts->proxy_password; })) {
                return s_fail(errmsg, "OOM allocating proxy creds");
            }
            curl_easy_setopt(h, CURLOPT_PROXYUSERPWD, creds.c_str());  // copied by curl
        }
        log_debug("qv_http_gateway_client: using proxy %s", proxy.c_str());
    }

    curl_easy_setopt(h, CURLOPT_SSL_VERIFYPEER, opts->verify_peer ? 1L : 0L);
    curl_easy_setopt(h, CURLOPT_SSL_VERIFYHOST, opts->verify_host ? 2L : 0L);
    if (!opts->ca_path.empty()) {
        curl_easy_setopt(h, CURLOPT_CAINFO, opts->ca_path.c_str());
    }

    std::string target_header;
    if (!s_alloc([&] { target_header = std::string("X-Target-Service: ") + target_service; })) {
        return s_fail(errmsg, "OOM allocating X-Target-Service header");
    }
    for (const char* line : {target_header.c_str(), "Expect:"}) {
        curl_slist* grown = curl_slist_append(headers.get(), line);
        if (grown == nullptr) {
            return s_fail(errmsg, "OOM allocating X-Target-Service header");
        }
        (void)headers.release();
        headers.reset(grown);
    }
    curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers.get());

    form.reset(curl_mime_init(h));
    if (!form) {
        return s_fail(errmsg, "curl_mime_init failed");
    }
    curl_mimepart* part = curl_mime_addpart(form.get());
    if (part == nullptr || curl_mime_name(part, "request") != CURLE_OK ||
        curl_mime_type(part, "application/json") != CURLE_OK ||
        curl_mime_data(part, request_json, CURL_ZERO_TERMINATED) != CURLE_OK) {
        return s_fail(errmsg, "curl_mime_addpart(request) failed");
    }
    payload_reader payload{body, body_len, 0};
    if (body_len > 0) {
        part = curl_mime_addpart(form.get());
        if (part == nullptr || curl_mime_name(part, "payload") != CURLE_OK ||
            curl_mime_type(part, "application/octet-stream") != CURLE_OK ||
            curl_mime_data_cb(part, static_cast<curl_off_t>(body_len), s_payload_read,
                              s_payload_seek, nullptr, &payload) != CURLE_OK) {
            return s_fail(errmsg, "curl_mime_addpart(payload) failed");
        }
    }
    curl_easy_setopt(h, CURLOPT_MIMEPOST, form.get());

    log_debug("qv_http_gateway_client: POST %s service=%s json_len=%zu body_len=%zu timeout=%lums",
              url.c_str(), target_service, strlen(request_json), body_len,
              static_cast<unsigned long>(timeout_ms));
    const CURLcode rc = curl_easy_perform(h);
    if (rc != CURLE_OK) {
        return s_fail(errmsg,
                      std::string("HTTP gateway request failed: ") + curl_easy_strerror(rc));
    }
    long status = 0;
    curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &status);
    if (status != 200) {
        char reason[512];
        snprintf(reason, sizeof(reason), "HTTP gateway returned status %ld: %.200s", status,
                 response.c_str());
        return s_fail(errmsg, reason);
    }
    if (response.empty()) {
        return s_fail(errmsg, "empty response from HTTP gateway");
    }

    log_trace("qv_http_gateway_client: response (%zu bytes): %s", response.size(),
              response.c_str());
    qv::json_ptr reply = qv_json_parse(response);
    if (!reply) {
        static const char kParseError[] = "failed to parse JSON from HTTP gateway response";
        log_error("qv_http_gateway_client: %s (body=%.200s)", kParseError, response.c_str());
        if (errmsg != nullptr) {
            *errmsg = kParseError;
        }
        return -1;
    }
    *reply_json_out = std::move(reply);
    return 0;
}

int s_guarded_request(const char* gateway_url, const char* user, const char* password,
                      const char* target_service, const char* request_json,
                      const unsigned char* body, size_t body_len, const qv_gateway_opts_t* opts,
                      long timeout_ms, qv::json_ptr* reply_json_out, std::string* errmsg) {
    try {
        return s_gateway_request(gateway_url, user, password, target_service, request_json, body,
                                 body_len, opts, timeout_ms, reply_json_out, errmsg);
    } catch (const std::exception& e) {
        log_error("qv_http_gateway_client: %s", e.what());
        if (reply_json_out != nullptr) {
            reply_json_out->reset();
        }
        return -1;
    }
}

}  // namespace

void qv_gateway_opts_defaults(qv_gateway_opts_t* opts) {
    if (opts != nullptr) {
        *opts = qv_gateway_opts_t{};
    }
}

int qv_gateway_send_recv_json(const char* gateway_url, const char* user, const char* password,
                              const char* target_service, const char* request_json,
                              const qv_gateway_opts_t* opts, long timeout_ms,
                              qv::json_ptr* reply_json_out, std::string* errmsg) {
    return s_guarded_request(gateway_url, user, password, target_service, request_json, nullptr, 0,
                             opts, timeout_ms, reply_json_out, errmsg);
}

int qv_gateway_send_recv_scan(const char* gateway_url, const char* user, const char* password,
                              const char* target_service, const char* request_json,
                              const unsigned char* body, size_t body_len,
                              const qv_gateway_opts_t* opts, long timeout_ms,
                              qv::json_ptr* reply_json_out, std::string* errmsg) {
    return s_guarded_request(gateway_url, user, password, target_service, request_json, body,
                             body_len, opts, timeout_ms, reply_json_out, errmsg);
}
