#include "qv_connection_client.h"

#include <curl/curl.h>

#include "log.h"
#include "qv_http_gateway_client.h"
#include "qv_nats_client.h"

namespace {

bool s_starts_with(const std::string& s, const char* prefix) {
    return s.rfind(prefix, 0) == 0;
}

qv_gateway_opts_t s_gateway_opts(const qv_nats_config* cfg) {
    qv_gateway_opts_t opts;
    qv_gateway_opts_defaults(&opts);
    opts.proxy_host = cfg->http_proxy_host;
    opts.proxy_port = cfg->http_proxy_port;
    opts.proxy_user = cfg->http_proxy_user;
    opts.proxy_password = cfg->http_proxy_password;
    opts.ca_path = cfg->cert_path;
    return opts;
}

// The gateway request loop: `retries` + 1 attempts without a pause; `body` is sent as the
// payload part of scan requests.
qv::json_ptr s_gateway_loop(qv_nats_config* cfg, const char* caller, const char* service,
                            const char* request_json, const std::vector<unsigned char>* body,
                            uint64_t timeout_ms, int retries, std::string* errormsg) {
    const qv_gateway_opts_t opts = s_gateway_opts(cfg);
    std::string local;
    std::string& err = errormsg != nullptr ? *errormsg : local;
    err.clear();
    if (retries < 0) {
        retries = 0;
    }
    const unsigned attempts = static_cast<unsigned>(retries) + 1;
    for (unsigned attempt = 1; attempt <= attempts; ++attempt) {
        qv::json_ptr reply;
        int rc;
        if (body != nullptr) {
            rc = qv_gateway_send_recv_scan(cfg->server_url.c_str(), cfg->user.c_str(),
                                           cfg->password.c_str(), service, request_json,
                                           body->data(), body->size(), &opts,
                                           static_cast<long>(timeout_ms), &reply, &err);
        } else {
            rc = qv_gateway_send_recv_json(cfg->server_url.c_str(), cfg->user.c_str(),
                                           cfg->password.c_str(), service, request_json, &opts,
                                           static_cast<long>(timeout_ms), &reply, &err);
        }
        if (rc == 0 && reply) {
            return reply;
        }
        log_debug("%s: HTTP attempt %u/%u to %s failed: %s", caller, attempt, attempts, service,
                  err.c_str());
    }
    return nullptr;
}

}  // namespace

bool qv_connection_is_http(const qv_nats_config* cfg) {
    return cfg != nullptr && (s_starts_with(cfg->server_url, "http://") ||
                              s_starts_with(cfg->server_url, "https://"));
}

std::unique_ptr<qv_nats_config> qv_connection_config_new() {
    return qv_nats_config_new();
}

int qv_connection_init(qv_nats_config* cfg) {
    if (cfg == nullptr) {
        return -1;
    }
    if (cfg->server_url.empty() && !cfg->broker_host.empty() && !cfg->broker_port.empty()) {
        cfg->server_url = "tls://" + cfg->broker_host + ":" + cfg->broker_port;
        log_info(
            "qv_connection_init: synthesised server_url=%s from broker_host/broker_port (no "
            "explicit URL supplied; tls:// is the default — set cfg->server_url before "
            "calling if you need a different scheme)",
            cfg->server_url.c_str());
    }
    if (cfg->user.empty()) {
        cfg->user = cfg->broker_user;
    }
    if (cfg->password.empty()) {
        cfg->password = cfg->broker_password;
    }
    if (qv_connection_is_http(cfg)) {
        CURLcode rc = curl_global_init(CURL_GLOBAL_ALL);
        if (rc != CURLE_OK) {
            log_error("qv_connection_init: curl_global_init failed: %s", curl_easy_strerror(rc));
            return -1;
        }
        std::string proxy = cfg->http_proxy_host;
        if (!proxy.empty() && !cfg->http_proxy_port.empty()) {
            proxy += ":" + cfg->http_proxy_port;
        }
        log_info("qv_connection_init: HTTP gateway mode (server=%s user=%s proxy=%s)",
                 cfg->server_url.c_str(), cfg->user.empty() ? "(none)" : cfg->user.c_str(),
                 proxy.empty() ? "(none)" : proxy.c_str());
        return 0;
    }
    return qv_nats_init(cfg);
}

void qv_connection_deinit(qv_nats_config* cfg) {
    if (cfg != nullptr && !qv_connection_is_http(cfg)) {
        qv_nats_deinit(cfg);
    }
}

qv::json_ptr qv_connection_send_recv_json(qv_nats_config* cfg, const char* service,
                                          const char* request_json_txt, uint32_t timeout_ms,
                                          int retries, std::string* errormsg) {
    if (!qv_connection_is_http(cfg)) {
        return qv_nats_send_recv_json(cfg, service, request_json_txt, timeout_ms, retries,
                                      errormsg);
    }
    return s_gateway_loop(cfg, "qv_connection_send_recv_json", service, request_json_txt, nullptr,
                          timeout_ms, retries, errormsg);
}

qv::json_ptr qv_connection_send_recv_json_data(qv_nats_config* cfg, const char* service,
                                               qv_const_request_reply_t* rr, uint64_t timeout_ms,
                                               uint64_t extra_timeout_ms, int retries,
                                               std::string* errormsg) {
    if (!qv_connection_is_http(cfg)) {
        return qv_nats_send_recv_json_data(cfg, service, rr, timeout_ms, extra_timeout_ms, retries,
                                           errormsg);
    }
    if (rr == nullptr || rr->request == nullptr) {
        if (errormsg != nullptr) {
            *errormsg = "invalid parameters for send_recv_json_data";
        }
        return nullptr;
    }
    qv::json_ptr reply = s_gateway_loop(cfg, "qv_connection_send_recv_json_data", service,
                                        rr->request->json_txt.c_str(), &rr->request->data,
                                        timeout_ms + extra_timeout_ms, retries, errormsg);
    if (reply && rr->reply != nullptr) {
        rr->reply->json_txt = json_object_to_json_string_ext(reply.get(), JSON_C_TO_STRING_SPACED);
    }
    return reply;
}

int qv_connection_simple_request(qv_nats_config* cfg, const char* service,
                                 const char* request_json_txt, uint32_t timeout_ms, int retries,
                                 std::string* errormsg) {
    if (!qv_connection_is_http(cfg)) {
        return qv_nats_simple_request(cfg, service, request_json_txt, timeout_ms, retries,
                                      errormsg);
    }
    qv::json_ptr reply = qv_connection_send_recv_json(cfg, service, request_json_txt, timeout_ms,
                                                      retries < 0 ? 0 : retries, errormsg);
    json_object* rc = nullptr;
    if (!reply || !json_object_object_get_ex(reply.get(), "ReturnCode", &rc)) {
        return -1;
    }
    return json_object_get_int(rc);
}

std::vector<int> qv_connection_simple_request_all(qv_nats_config* cfg,
                                                  const std::vector<std::string>& subjects,
                                                  const std::string& request_json_txt,
                                                  uint32_t timeout_ms, int attempts) {
    if (!qv_connection_is_http(cfg)) {
        return qv_nats_simple_request_all(cfg, subjects, request_json_txt, timeout_ms, attempts);
    }
    std::vector<int> results;
    for (const std::string& subject : subjects) {
        results.push_back(qv_connection_simple_request(
            cfg, subject.c_str(), request_json_txt.c_str(), timeout_ms, attempts - 1, nullptr));
    }
    return results;
}

int qv_connection_stage_scan_data(qv_nats_config* cfg, const unsigned char* data, size_t data_len,
                                  int64_t timeout_ms, std::string* out_key, std::string* errormsg) {
    if (out_key != nullptr) {
        out_key->clear();
    }
    if (cfg == nullptr || data == nullptr || data_len == 0 || out_key == nullptr) {
        return -1;
    }
    if (qv_connection_is_http(cfg)) {
        return 0;  // the payload travels inline with the request
    }
    return qv_nats_stage_scan_data(cfg, data, data_len, timeout_ms, out_key, errormsg);
}

void qv_connection_unstage_scan_data(qv_nats_config* cfg, const char* key) {
    if (cfg != nullptr && key != nullptr && !qv_connection_is_http(cfg)) {
        qv_nats_unstage_scan_data(cfg, key);
    }
}

int qv_connection_registry_put(qv_nats_config* cfg, const char* key, const char* value,
                               int64_t ttl_ms) {
    if (cfg == nullptr || key == nullptr || value == nullptr) {
        return -1;
    }
    return qv_connection_is_http(cfg) ? 0 : qv_nats_registry_put(cfg, key, value, ttl_ms);
}

void qv_connection_registry_delete(qv_nats_config* cfg, const char* key) {
    if (cfg != nullptr && key != nullptr && !qv_connection_is_http(cfg)) {
        qv_nats_registry_delete(cfg, key);
    }
}

int qv_connection_kv_get(qv_nats_config* cfg, const char* bucket, const char* key,
                         std::string* out_value) {
    if (out_value != nullptr) {
        out_value->clear();
    }
    if (cfg == nullptr || bucket == nullptr || key == nullptr || out_value == nullptr) {
        return -1;
    }
    return qv_connection_is_http(cfg) ? 1 : qv_nats_kv_get(cfg, bucket, key, out_value);
}

int qv_connection_kv_put(qv_nats_config* cfg, const char* bucket, const char* key,
                         const char* value, int64_t ttl_ms) {
    if (cfg == nullptr || bucket == nullptr || key == nullptr || value == nullptr) {
        return -1;
    }
    return qv_connection_is_http(cfg) ? 0 : qv_nats_kv_put(cfg, bucket, key, value, ttl_ms);
}

void qv_connection_kv_delete(qv_nats_config* cfg, const char* bucket, const char* key) {
    if (cfg != nullptr && bucket != nullptr && key != nullptr && !qv_connection_is_http(cfg)) {
        qv_nats_kv_delete(cfg, bucket, key);
    }
}

int qv_connection_kv_keys(qv_nats_config* cfg, const char* bucket, const char* prefix,
                          const qv_kv_key_cb& callback) {
    if (cfg == nullptr || bucket == nullptr || !callback) {
        return -1;
    }
    return qv_connection_is_http(cfg) ? 0 : qv_nats_kv_keys(cfg, bucket, prefix, callback);
}

int qv_connection_kv_snapshot(qv_nats_config* cfg, const char* bucket,
                              const qv_kv_snapshot_cb& callback) {
    if (cfg == nullptr || bucket == nullptr || !callback) {
        return -1;
    }
    return qv_connection_is_http(cfg) ? -1 : qv_nats_kv_snapshot(cfg, bucket, callback);
}

int qv_connection_kv_lease(qv_nats_config* cfg, const char* bucket, const char* key,
                           const char* owner, int64_t ttl_ms) {
    if (cfg == nullptr || bucket == nullptr || key == nullptr || owner == nullptr) {
        return -1;
    }
    return qv_connection_is_http(cfg) ? 1 : qv_nats_kv_lease(cfg, bucket, key, owner, ttl_ms);
}

int qv_connection_start_service_handler_threads(qv_nats_config* cfg, const char* service,
                                                qv_service_handler_t handler, void* handler_config,
                                                const std::atomic<int>* terminate,
                                                int number_of_threads) {
    if (qv_connection_is_http(cfg)) {
        log_error(
            "qv_connection_start_service_handler_threads: HTTP gateway mode is client-only; "
            "cannot run service handler threads for service '%s' (server_url=%s)",
            service != nullptr ? service : "(null)", cfg->server_url.c_str());
        return -1;
    }
    return qv_nats_start_service_handler_threads(cfg, service, handler, handler_config, terminate,
                                                 number_of_threads);
}
