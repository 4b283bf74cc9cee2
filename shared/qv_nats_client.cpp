#include "qv_nats_client.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

#include <unistd.h>

#include "log.h"
#include "qv_json.h"
#include "qv_nats_kv.h"
#include "qv_nats_nr_backoff.h"
#include "qvhlp_replies.h"

std::unique_ptr<qv_nats_config> qv_nats_config_new() {
    return std::make_unique<qv_nats_config>();
}

namespace {

constexpr int N_INIT_ATTEMPTS = 5;
constexpr int s_max_reconnect = 20;

void s_set_error(std::string* errormsg, const std::string& text) {
    if (errormsg != nullptr) {
        *errormsg = text;
    }
}

const char* s_status_name(natsConnStatus status) {
    switch (status) {
        case NATS_CONN_STATUS_CONNECTED:
            return "CONNECTED";
        case NATS_CONN_STATUS_CONNECTING:
            return "CONNECTING";
        case NATS_CONN_STATUS_RECONNECTING:
            return "RECONNECTING";
        case NATS_CONN_STATUS_DISCONNECTED:
            return "DISCONNECTED";
        case NATS_CONN_STATUS_CLOSED:
            return "CLOSED";
        default:
            return "UNKNOWN";
    }
}

std::string s_connected_url(natsConnection* nc) {
    char url[1024] = {};
    if (nc == nullptr || natsConnection_GetConnectedUrl(nc, url, sizeof(url)) != NATS_OK) {
        return "";
    }
    return url;
}

void s_disconnected_cb(natsConnection* nc, void* /*closure*/) {
    const char* last = nullptr;
    natsStatus st = natsConnection_GetLastError(nc, &last);
    if (last != nullptr && last[0] != '\0') {
        log_warn("TLS-DEBUG: NATS connection lost — last_err_status=%s last_err=%s",
                 natsStatus_GetText(st), last);
    } else {
        log_warn("NATS: connection lost — attempting reconnect");
    }
}

void s_reconnected_cb(natsConnection* nc, void* /*closure*/) {
    log_info("NATS: reconnected to %s", s_connected_url(nc).c_str());
}

void s_closed_cb(natsConnection* /*nc*/, void* /*closure*/) {
    log_warn("NATS: connection closed");
}

bool s_is_transient(natsStatus s) {
    return s == NATS_TIMEOUT || s == NATS_NO_SERVER || s == NATS_IO_ERROR;
}

// The host name for certificate checks: the text after "://" up to the first ':' or '/'.
std::string s_expected_hostname(const std::string& url) {
    size_t start = url.find("://");
    if (start == std::string::npos) {
        return "";
    }
    start += 3;
    size_t end = url.find_first_of(":/", start);
    std::string host =
        url.substr(start, end == std::string::npos ? std::string::npos : end - start);
    return (host.size() >= 1 && host.size() <= 255) ? host : "";
}

int s_configure_tls(natsOptions* opts, const qv_nats_config* config) {
    const std::string& url = config->server_url;
    const bool tls = url.rfind("tls://", 0) == 0 || url.rfind("wss://", 0) == 0;
    log_debug("server_url=%s (scheme implies TLS=%s)", url.c_str(), tls ? "yes" : "no");
    if (tls) {
        natsStatus s = natsOptions_SetSecure(opts, true);
        if (s != NATS_OK) {
            log_error("SetSecure(true) failed: %s", natsStatus_GetText(s));
            return -1;
        }
#if NATS_VERSION_NUMBER >= 0x030800
        s = natsOptions_TLSHandshakeFirst(opts);
        if (s != NATS_OK) {
            log_error("TLSHandshakeFirst() failed: %s", natsStatus_GetText(s));
            return -1;
        }
#else
        log_warn(
            "TLS handshake before the server greeting needs libnats 3.8; keeping the normal "
            "TLS handshake");
#endif
        std::string host = s_expected_hostname(url);
        if (!host.empty()) {
            s = natsOptions_SetExpectedHostname(opts, host.c_str());
            if (s != NATS_OK) {
                log_warn("SetExpectedHostname(%s) failed: %s — continuing", host.c_str(),
                         natsStatus_GetText(s));
            }
        }
    }
    if (!config->cert_path.empty()) {
        log_debug("loading CA trust from file: %s", config->cert_path.c_str());
        natsStatus s = natsOptions_LoadCATrustedCertificates(opts, config->cert_path.c_str());
        if (s != NATS_OK) {
            log_error("LoadCATrustedCertificates(%s) failed: %s", config->cert_path.c_str(),
                      natsStatus_GetText(s));
            return -1;
        }
    } else {
        log_debug("no cert_path configured — falling back to system trust store");
    }
    if (!config->client_cert_path.empty() && !config->client_key_path.empty()) {
        log_debug("configuring mTLS client cert=%s key=%s", config->client_cert_path.c_str(),
                  config->client_key_path.c_str());
        natsStatus s = natsOptions_LoadCertificatesChain(opts, config->client_cert_path.c_str(),
                                                         config->client_key_path.c_str());
        if (s != NATS_OK) {
            log_error("TLS-DEBUG: LoadCertificatesChain failed: %s", natsStatus_GetText(s));
            return -1;
        }
        log_debug("Client certificate chain loaded");
    } else {
        log_debug("No client cert/key configured (user/password auth)");
    }
    return 0;
}

// Builds the options of the connection. Null on failure (logged).
qv::nats_options_ptr s_build_options(const qv_nats_config* config, unsigned int* rand_state) {
    natsOptions* raw = nullptr;
    natsStatus s = natsOptions_Create(&raw);
    qv::nats_options_ptr opts(raw);
    if (s != NATS_OK) {
        log_error("NATS: failed to create options: %s", natsStatus_GetText(s));
        return nullptr;
    }
    *rand_state = static_cast<unsigned int>(reinterpret_cast<uintptr_t>(raw)) ^
                  static_cast<unsigned int>(time(nullptr)) ^ static_cast<unsigned int>(getpid());
    natsOptions_SetURL(raw, config->server_url.c_str());
    natsOptions_SetIgnoreDiscoveredServers(raw, true);
    if (!config->user.empty() && !config->password.empty()) {
        natsOptions_SetUserInfo(raw, config->user.c_str(), config->password.c_str());
    }
    if (s_configure_tls(raw, config) != 0) {
        return nullptr;
    }
    const int wait_ms = 100 + rand_r(rand_state) % 401;
    log_debug("NATS reconnect wait jittered to %d ms", wait_ms);
    natsOptions_SetMaxReconnect(raw, s_max_reconnect);
    natsOptions_SetReconnectWait(raw, wait_ms);
    natsOptions_SetReconnectBufSize(raw, 8388608);
    natsOptions_SetTimeout(raw, 10000);
    natsOptions_SetPingInterval(raw, 15000);
    natsOptions_SetMaxPingsOut(raw, 2);
    natsOptions_SetDisconnectedCB(raw, s_disconnected_cb, nullptr);
    natsOptions_SetReconnectedCB(raw, s_reconnected_cb, nullptr);
    natsOptions_SetClosedCB(raw, s_closed_cb, nullptr);
    natsOptions_SetRetryOnFailedConnect(raw, true, nullptr, nullptr);
    return opts;
}

}  // namespace

int qv_nats_init(qv_nats_config* config) {
    if (config == nullptr || config->server_url.empty()) {
        log_error("NATS: config or server_url is NULL");
        return -1;
    }
    log_debug("cnats library runtime version: %s", nats_GetVersion());
    unsigned int rand_state = 0;
    qv::nats_options_ptr opts = s_build_options(config, &rand_state);
    if (!opts) {
        return -1;
    }
    const char* url = config->server_url.c_str();
    natsConnection* raw = nullptr;
    natsStatus s = NATS_OK;
    for (int attempt = 1; attempt <= N_INIT_ATTEMPTS; ++attempt) {
        raw = nullptr;
        s = natsConnection_Connect(&raw, opts.get());
        if (s == NATS_OK) {
            break;
        }
        const char* last = nats_GetLastError(nullptr);
        const bool has_last = last != nullptr && last[0] != '\0';
        if (!s_is_transient(s)) {
            log_error("NATS: connect to %s failed permanently on attempt %d/%d: %s%s%s", url,
                      attempt, N_INIT_ATTEMPTS, natsStatus_GetText(s), has_last ? " — " : "",
                      has_last ? last : "");
            qv::nats_connection_ptr discard(raw);
            return -1;
        }
        if (attempt == N_INIT_ATTEMPTS) {
            log_warn(
                "NATS: connect to %s still failing on final attempt %d/%d (%s) — handing off "
                "to background reconnect (MaxReconnect=%d)",
                url, attempt, N_INIT_ATTEMPTS, natsStatus_GetText(s), s_max_reconnect);
            break;
        }
        int base = 200 << (attempt - 1);
        if (base > 2000) {
            base = 2000;
        }
        const int wait = base + rand_r(&rand_state) % (base / 2 + 1);
        log_warn("NATS: connect to %s failed transiently on attempt %d/%d (%s) — retrying in %d ms",
                 url, attempt, N_INIT_ATTEMPTS, natsStatus_GetText(s), wait);
        qv::nats_connection_ptr discard(raw);
        raw = nullptr;
        std::this_thread::sleep_for(std::chrono::milliseconds(wait));
    }
    opts.reset();
    if (raw == nullptr) {
        log_error("NATS: failed to obtain connection handle to %s after %d attempts: %s", url,
                  N_INIT_ATTEMPTS, natsStatus_GetText(s));
        return -1;
    }
    config->_conn.reset(raw);

    const char* last = nullptr;
    natsStatus last_status = natsConnection_GetLastError(raw, &last);
    const natsConnStatus status = natsConnection_Status(raw);
    log_debug("Post-connect status=%s last_err_status=%s last_err=%s", s_status_name(status),
              natsStatus_GetText(last_status),
              (last != nullptr && last[0] != '\0') ? last : "(none)");
    const std::string connected = s_connected_url(raw);
    const bool tls_url = connected.rfind("tls://", 0) == 0 || connected.rfind("wss://", 0) == 0;
    log_debug("Negotiated connected_url=%s (scheme implies TLS=%s)", connected.c_str(),
              tls_url ? "yes" : "no");
    const bool tls_requested =
        config->server_url.rfind("tls://", 0) == 0 || config->server_url.rfind("wss://", 0) == 0;
    if (tls_requested && status == NATS_CONN_STATUS_CONNECTED && !tls_url) {
        log_error(
            "*** TLS requested via %s but negotiated url is %s — connection is NOT "
            "encrypted. Likely causes: server has allow_non_tls=true and cnats did not "
            "initiate the TLS handshake, OR the cnats build in use does not enforce "
            "SetSecure(true) for this scheme.",
            config->server_url.c_str(), connected.c_str());
    }
    if (tls_requested && status != NATS_CONN_STATUS_CONNECTED) {
        log_warn(
            "Connection not yet established — if this persists, the handshake is failing. "
            "Common causes: (1) server cert SAN does not cover the URL hostname or resolved "
            "IP, (2) server cert not signed by the CA in cert_path, (3) server presented an "
            "expired cert or clock skew.");
    }

    jsCtx* js = nullptr;
    s = natsConnection_JetStream(&js, raw, nullptr);
    if (s != NATS_OK) {
        log_warn("NATS: JetStream init failed: %s — binary data transfer will not work",
                 natsStatus_GetText(s));
        js = nullptr;
    }
    config->_js.reset(js);
    log_info("NATS: connected to %s (user=%s, jetstream=%s)", url,
             config->user.empty() ? "(none)" : config->user.c_str(), js != nullptr ? "yes" : "no");
    return 0;
}

void qv_nats_deinit(qv_nats_config* config) {
    if (config == nullptr) {
        return;
    }
    {
        std::lock_guard<std::mutex> guard(config->_kv_mutex);
        config->_kv_registry.reset();
        for (size_t i = 0; i < config->_kv_extra.size(); ++i) {
            config->_kv_extra[i].reset();
            config->_kv_extra_name[i].clear();
        }
        config->_kv.reset();
    }
    config->_js.reset();
    if (config->_conn) {
        // Closing wakes the handler threads out of their receive; give them a moment to leave
        // before the connection goes, so that none of them outlives it mid-request.
        natsConnection_Close(config->_conn.get());
        for (int waited = 0; config->_handler_threads.load() > 0 && waited < 1000; waited += 10) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        config->_conn.reset();
        log_info("NATS: disconnected");
    }
}

namespace {

// The request loop shared by the plain and the staged sends: `attempt_budget_ms` is what each
// attempt may take (less what back-off slept), `nr_timeout_ms` what the back-off rule sees.
qv::nats_msg_ptr s_request_loop(qv_nats_config* config, const char* service,
                                const std::string& body, uint64_t attempt_budget_ms,
                                uint64_t nr_timeout_ms, bool staged, int retries,
                                std::string* errormsg) {
    qv_nats_nr_state_t nr;
    qv_nats_nr_init(&nr);
    int attempts_left = retries + 1;
    while (attempts_left > 0) {
        natsMsg* raw = nullptr;
        const uint64_t attempt_timeout = qv_nats_nr_attempt_timeout_ms(&nr, attempt_budget_ms);
        natsStatus s = natsConnection_Request(&raw, config->_conn.get(), service, body.data(),
                                              static_cast<int>(body.size()),
                                              static_cast<int64_t>(attempt_timeout));
        qv::nats_msg_ptr msg(raw);
        if (s == NATS_NO_RESPONDERS && qv_nats_nr_should_retry(&nr, nr_timeout_ms, service)) {
            continue;
        }
        if (s == NATS_OK && msg) {
            return msg;
        }
        if (s == NATS_TIMEOUT) {
            if (staged) {
                log_debug("NATS: request to %s timed out after %lums", service,
                          static_cast<unsigned long>(attempt_budget_ms));
            } else {
                log_debug("NATS: request to %s timed out after %ums", service,
                          static_cast<unsigned>(attempt_budget_ms));
            }
            s_set_error(errormsg, std::string("NATS: request to ") + service + " timed out");
        } else {
            log_error("NATS: request to %s failed: %s", service, natsStatus_GetText(s));
            s_set_error(errormsg, std::string("NATS: request to ") + service +
                                      " failed: " + natsStatus_GetText(s));
        }
        attempts_left--;
        if (attempts_left > 0) {
            log_debug("NATS: retrying %s... retries left: %d", service, attempts_left - 1);
        }
    }
    return nullptr;
}

// Parses a reply body; null (logged) when it is empty or not JSON.
qv::json_ptr s_parse_reply(const char* service, natsMsg* reply) {
    const int body_len = natsMsg_GetDataLength(reply);
    if (body_len <= 0) {
        log_warn("NATS: received empty reply from %s", service);
        return nullptr;
    }
    std::string_view body(natsMsg_GetData(reply), static_cast<size_t>(body_len));
    log_trace("NATS: received reply from %s (%d bytes):\n%.*s", service, body_len, body_len,
              body.data());
    const char* perr = nullptr;
    qv::json_ptr parsed = qv_json_parse(body, &perr);
    if (!parsed) {
        log_error("NATS: failed to parse reply JSON from %s: %s", service, perr);
    }
    return parsed;
}

}  // namespace

qv::json_ptr qv_nats_send_recv_json(qv_nats_config* config, const char* service,
                                    const char* request_json_txt, uint32_t timeout_ms, int retries,
                                    std::string* errormsg) {
    if (config == nullptr || !config->_conn || service == nullptr || request_json_txt == nullptr) {
        s_set_error(errormsg, "NATS: invalid parameters for send_recv_json");
        return nullptr;
    }
    log_trace("NATS: sending request to %s (timeout: %ums):\n%s", service, timeout_ms,
              request_json_txt);
    qv::nats_msg_ptr reply = s_request_loop(config, service, request_json_txt, timeout_ms,
                                            timeout_ms, false, retries, errormsg);
    return reply ? s_parse_reply(service, reply.get()) : nullptr;
}

qv::json_ptr qv_nats_send_recv_json_data(qv_nats_config* config, const char* service,
                                         qv_const_request_reply_t* rr, uint64_t timeout_ms,
                                         uint64_t extra_timeout_ms, int retries,
                                         std::string* errormsg) {
    if (config == nullptr || !config->_conn || service == nullptr || rr == nullptr ||
        rr->request == nullptr) {
        s_set_error(errormsg, "NATS: invalid parameters for send_recv_json_data");
        return nullptr;
    }
    const qv_message_t& request = *rr->request;
    std::string key;
    bool generated = false;
    const uint64_t total = timeout_ms + extra_timeout_ms;
    if (!request.staged_data_key.empty()) {
        key = request.staged_data_key;
    } else if (!request.data.empty()) {
        key = qv_nats_make_scan_key();
        const int64_t ttl = static_cast<int64_t>(std::max<uint64_t>(total + total / 10, 1000));
        if (kvstore_put_chunked(config, key.c_str(), request.data.data(), request.data.size(),
                                ttl) != 0) {
            s_set_error(errormsg, "NATS: failed to store binary data in KV store");
            return nullptr;
        }
        generated = true;
    }
    std::string body = request.json_txt;
    if (!key.empty()) {
        qv::json_ptr obj = qv_json_parse(request.json_txt);
        if (obj && json_object_is_type(obj.get(), json_type_object)) {
            json_object_object_add(obj.get(), "_kv_key", json_object_new_string(key.c_str()));
            body = qv_json_to_string(obj.get());
        }
    }
    log_trace("NATS: sending request to %s (timeout: %lums):\n%s", service,
              static_cast<unsigned long>(total), body.c_str());
    qv::nats_msg_ptr reply =
        s_request_loop(config, service, body, total, timeout_ms, true, retries, errormsg);
    qv::json_ptr parsed = reply ? s_parse_reply(service, reply.get()) : nullptr;
    // Without a reply the worker may still be reading the chunks: they expire by themselves.
    if (generated && parsed) {
        kvstore_delete_chunked(config, key.c_str());
    }
    if (rr->reply != nullptr) {
        rr->reply->json_txt.clear();
    }
    return parsed;
}

int qv_nats_simple_request(qv_nats_config* config, const char* service,
                           const char* request_json_txt, uint32_t timeout_ms, int retries,
                           std::string* errormsg) {
    qv::json_ptr reply =
        qv_nats_send_recv_json(config, service, request_json_txt, timeout_ms, retries, errormsg);
    json_object* rc = nullptr;
    if (!reply || !json_object_object_get_ex(reply.get(), "ReturnCode", &rc)) {
        return -1;
    }
    return json_object_get_int(rc);
}

std::vector<int> qv_nats_simple_request_all(qv_nats_config* config,
                                            const std::vector<std::string>& subjects,
                                            const std::string& request_json_txt,
                                            uint32_t timeout_ms, int attempts) {
    std::vector<int> results;
    for (const std::string& subject : subjects) {
        results.push_back(qv_nats_simple_request(config, subject.c_str(), request_json_txt.c_str(),
                                                 timeout_ms, attempts - 1, nullptr));
    }
    return results;
}

namespace {

struct qv_nats_handler_thread_args_t {
    qv_nats_config* config = nullptr;
    qv::nats_subscription_ptr sub;
    qv_service_handler_t handler = nullptr;
    void* handler_config = nullptr;
    const std::atomic<int>* terminate = nullptr;
};

void s_handle_message(qv_nats_handler_thread_args_t& args, natsMsg* msg) {
    const int body_len = natsMsg_GetDataLength(msg);
    if (body_len <= 0) {
        return;
    }
    qv_request_reply_t rr;
    rr.request.json_txt.assign(natsMsg_GetData(msg), static_cast<size_t>(body_len));
    bool failed = false;
    qv::json_ptr obj = qv_json_parse(rr.request.json_txt);
    json_object* kv_key = nullptr;
    if (obj && json_object_is_type(obj.get(), json_type_object) &&
        json_object_object_get_ex(obj.get(), "_kv_key", &kv_key)) {
        const std::string key = json_object_get_string(kv_key);
        if (kvstore_get_chunked(args.config, key.c_str(), &rr.request.data) != 0) {
            log_error(
                "NATS: could not retrieve staged payload for key '%s' — failing the "
                "request closed (handler not invoked)",
                key.c_str());
            failed = true;
        }
        rr.request.staged_data_key = key;
        json_object_object_del(obj.get(), "_kv_key");
        rr.request.json_txt = qv_json_to_string(obj.get());
    }
    qv_const_request_reply_t crr{&rr.request, &rr.reply};
    if (failed) {
        qv_reply_set_ERROR(&rr.reply, SERVICE_ERROR,
                           "Scan data unavailable: staged payload could not be retrieved from "
                           "the KV store");
    } else {
        try {
            args.handler(args.handler_config, &crr);
        } catch (const std::exception& e) {
            log_error("NATS: handler for '%s' threw: %s", natsMsg_GetSubject(msg), e.what());
        } catch (...) {
            log_error("NATS: handler for '%s' threw an unknown exception", natsMsg_GetSubject(msg));
        }
    }
    const char* reply_subject = natsMsg_GetReply(msg);
    if (!rr.reply.json_txt.empty() && reply_subject != nullptr && reply_subject[0] != '\0') {
        natsStatus s = natsConnection_Publish(args.config->_conn.get(), reply_subject,
                                              rr.reply.json_txt.data(),
                                              static_cast<int>(rr.reply.json_txt.size()));
        if (s != NATS_OK) {
            log_error("NATS: failed to publish reply: %s", natsStatus_GetText(s));
        }
    }
}

void s_handler_thread(std::shared_ptr<qv_nats_handler_thread_args_t> args) {
    log_info("NATS: handler thread started");
    while (args->terminate == nullptr || args->terminate->load() == 0) {
        natsMsg* raw = nullptr;
        natsStatus s = natsSubscription_NextMsg(&raw, args->sub.get(), 500);
        qv::nats_msg_ptr msg(raw);
        if (s == NATS_TIMEOUT) {
            continue;
        }
        if (s == NATS_CONNECTION_CLOSED || s == NATS_INVALID_SUBSCRIPTION) {
            break;
        }
        if (s != NATS_OK) {
            log_warn("NATS: handler NextMsg error: %s", natsStatus_GetText(s));
            continue;
        }
        s_handle_message(*args, msg.get());
    }
    log_info("NATS: handler thread exiting");
}

}  // namespace

int qv_nats_start_service_handler_threads(qv_nats_config* config, const char* service,
                                          qv_service_handler_t request_handler,
                                          void* request_handler_config,
                                          const std::atomic<int>* terminate,
                                          int number_of_threads) {
    if (config == nullptr || !config->_conn || service == nullptr || request_handler == nullptr ||
        number_of_threads <= 0) {
        log_error("NATS: invalid parameters for start_service_handler_threads");
        return -1;
    }
    natsSubscription* raw = nullptr;
    natsStatus s = natsConnection_QueueSubscribeSync(&raw, config->_conn.get(), service, service);
    qv::nats_subscription_ptr sub(raw);
    if (s != NATS_OK) {
        log_error("NATS: failed to subscribe to '%s': %s", service, natsStatus_GetText(s));
        return -1;
    }
    natsSubscription_SetPendingLimits(sub.get(), 50, 838860800);
    log_info("NATS: starting %d handler thread(s) for service '%s'", number_of_threads, service);
    auto args = std::make_shared<qv_nats_handler_thread_args_t>();
    args->config = config;
    args->sub = std::move(sub);
    args->handler = request_handler;
    args->handler_config = request_handler_config;
    args->terminate = terminate;
    for (int i = 0; i < number_of_threads; ++i) {
        try {
            config->_handler_threads.fetch_add(1);
            std::thread([args]() {
                try {
                    s_handler_thread(args);
                } catch (const std::exception& e) {
                    log_error("NATS: handler thread ended by exception: %s", e.what());
                }
                args->config->_handler_threads.fetch_sub(1);
            }).detach();
        } catch (const std::system_error& e) {
            config->_handler_threads.fetch_sub(1);
            log_error("NATS: failed to create handler thread %d: %s", i, e.what());
        }
    }
    return 0;
}
