#include "qv_nats_client.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <cstdlib>
#include <cstring>
#include <random>
#include <thread>
#include <unordered_map>
#include <vector>

#include <pthread.h>
#include <unistd.h>

#include "log.h"
#include "qv_json.h"
#include "qv_nats_kv.h"
#include "qv_nats_kv_cache.h"
#include "qv_nats_micro.h"
#include "qv_nats_nr_backoff.h"
#include "qv_validate.h"
#include "qvhlp_replies.h"

std::unique_ptr<qv_nats_config> qv_nats_config_new() {
    return std::make_unique<qv_nats_config>();
}

namespace {

constexpr int N_INIT_ATTEMPTS = 5;
// Decision: the connection never ends while the daemon runs. A library that gave up after a fixed
// number of reconnects left the daemon up but deaf once nats-server was away for more than a few
// seconds; reconnects are unlimited instead, with waits that grow to at most s_reconnect_cap_ms.
constexpr int s_max_reconnect = -1;
constexpr int64_t s_reconnect_cap_ms = 2000;
// Decision: a burst never silences a service. Each service subscription holds up to this many
// pending messages (the byte bound stays at 800 MiB) instead of 50; what is dropped beyond that
// is counted and reported per service.
constexpr int s_pending_msgs_limit = 100000;
constexpr int s_pending_bytes_limit = 838860800;
constexpr auto s_drop_report_interval = std::chrono::seconds(10);

void s_set_error(std::string* errormsg, const std::string& text) {
    if (errormsg != nullptr) {
        *errormsg = text;
    }
}

bool s_tls_scheme(const std::string& url) {
    return url.rfind("tls://", 0) == 0 || url.rfind("wss://", 0) == 0;
}

// A connection URL may list several servers of one cluster, separated by commas; blanks around
// each are dropped, and so are empty items.
std::vector<std::string> s_server_urls(const std::string& list) {
    std::vector<std::string> urls;
    size_t start = 0;
    while (start <= list.size()) {
        size_t end = list.find(',', start);
        if (end == std::string::npos) {
            end = list.size();
        }
        size_t first = list.find_first_not_of(" \t", start);
        size_t last = list.find_last_not_of(" \t", end == 0 ? 0 : end - 1);
        if (first != std::string::npos && first < end && last != std::string::npos &&
            last >= first) {
            urls.push_back(list.substr(first, last - first + 1));
        }
        start = end + 1;
    }
    return urls;
}

// TLS is used when any listed server is named with a TLS scheme: the library secures every
// connection of the record alike, and a cluster is not half encrypted.
bool s_tls_requested(const std::string& list) {
    for (const std::string& url : s_server_urls(list)) {
        if (s_tls_scheme(url)) {
            return true;
        }
    }
    return false;
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

// Slow consumers are counted by the handler threads of their service (s_report_drops); other
// asynchronous errors are only logged.
void s_async_error_cb(natsConnection* /*nc*/, natsSubscription* /*sub*/, natsStatus err,
                      void* /*closure*/) {
    if (err != NATS_SLOW_CONSUMER) {
        log_warn("NATS: asynchronous error: %s", natsStatus_GetText(err));
    }
}

// The wait before reconnect pass `attempts`: 250, 500, 1000, then 2000 ms, each with up to a
// quarter more at random so that many daemons do not come back in step, never above the cap.
int64_t s_reconnect_delay_cb(natsConnection* /*nc*/, int attempts, void* /*closure*/) {
    thread_local std::minstd_rand rng(static_cast<unsigned>(time(nullptr)) ^
                                      static_cast<unsigned>(getpid()) ^
                                      static_cast<unsigned>(pthread_self()));
    const int64_t base = int64_t{250} << std::clamp(attempts - 1, 0, 3);
    const int64_t wait = base + static_cast<int64_t>(rng() % static_cast<unsigned>(base / 4 + 1));
    return std::min(wait, s_reconnect_cap_ms);
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
    const bool tls = s_tls_requested(url);
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
        // With several servers the library checks each certificate against the host of the
        // server it connects to; one expected name would fail every other node.
        std::string host = s_server_urls(url).size() == 1 ? s_expected_hostname(url) : "";
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
    // Several servers: the library connects to any of them and fails over among exactly these;
    // servers the cluster announces are ignored, so the operator decides where the daemon
    // connects.
    const std::vector<std::string> urls = s_server_urls(config->server_url);
    if (urls.size() > 1) {
        std::vector<const char*> servers;
        for (const std::string& url : urls) {
            servers.push_back(url.c_str());
        }
        s = natsOptions_SetServers(raw, servers.data(), static_cast<int>(servers.size()));
    } else {
        s = natsOptions_SetURL(raw, urls.empty() ? config->server_url.c_str() : urls[0].c_str());
    }
    if (s != NATS_OK) {
        log_error("NATS: invalid server URL %s: %s", config->server_url.c_str(),
                  natsStatus_GetText(s));
        return nullptr;
    }
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
    natsOptions_SetCustomReconnectDelay(raw, s_reconnect_delay_cb, nullptr);
    natsOptions_SetReconnectBufSize(raw, 8388608);
    natsOptions_SetTimeout(raw, 10000);
    natsOptions_SetPingInterval(raw, 15000);
    natsOptions_SetMaxPingsOut(raw, 2);
    natsOptions_SetDisconnectedCB(raw, s_disconnected_cb, nullptr);
    natsOptions_SetReconnectedCB(raw, s_reconnected_cb, nullptr);
    natsOptions_SetClosedCB(raw, s_closed_cb, nullptr);
    natsOptions_SetErrorHandler(raw, s_async_error_cb, nullptr);
    // Every reply, request and bucket operation is written as soon as it is made: the library's
    // default flusher batches writes and adds about a millisecond to each round trip.
    natsOptions_SetSendAsap(raw, true);
    // Each early attempt is a single try (s_connect counts them); only the last one is handed to
    // the library to keep trying in the background. A synchronous retry inside the library would
    // block for ever with unlimited reconnects, also on a wrong password.
    natsOptions_SetRetryOnFailedConnect(raw, false, nullptr, nullptr);
    return opts;
}

std::shared_ptr<natsConnection> s_share(natsConnection* nc) {
    return std::shared_ptr<natsConnection>(nc, qv::release_conn);
}

// Connects with the configured settings (up to N_INIT_ATTEMPTS attempts, then the library keeps
// trying in the background) and creates the JetStream context. 0 or -1.
int s_connect(qv_nats_config* config, std::shared_ptr<natsConnection>* conn_out,
              std::shared_ptr<jsCtx>* js_out) {
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
        if (attempt == N_INIT_ATTEMPTS) {
            natsOptions_SetRetryOnFailedConnect(opts.get(), true, s_reconnected_cb, nullptr);
        }
        s = natsConnection_Connect(&raw, opts.get());
        if (s == NATS_OK) {
            break;
        }
        if (s == NATS_NOT_YET_CONNECTED && raw != nullptr) {
            log_warn(
                "NATS: connect to %s still failing on final attempt %d/%d (%s) — handing off "
                "to background reconnect (MaxReconnect=%d)",
                url, attempt, N_INIT_ATTEMPTS, natsStatus_GetText(s), s_max_reconnect);
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
    std::shared_ptr<natsConnection> conn = s_share(raw);

    const char* last = nullptr;
    natsStatus last_status = natsConnection_GetLastError(raw, &last);
    const natsConnStatus status = natsConnection_Status(raw);
    log_debug("Post-connect status=%s last_err_status=%s last_err=%s", s_status_name(status),
              natsStatus_GetText(last_status),
              (last != nullptr && last[0] != '\0') ? last : "(none)");
    const std::string connected = s_connected_url(raw);
    const bool tls_url = s_tls_scheme(connected);
    log_debug("Negotiated connected_url=%s (scheme implies TLS=%s)", connected.c_str(),
              tls_url ? "yes" : "no");
    const bool tls_requested = s_tls_requested(config->server_url);
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
    *js_out = js != nullptr ? std::shared_ptr<jsCtx>(js, jsCtx_Destroy) : nullptr;
    *conn_out = std::move(conn);
    return 0;
}

// The queue subscription of a service on `conn`, with its pending limits. Null (logged) on
// failure.
std::shared_ptr<natsSubscription> s_subscribe(natsConnection* conn, const std::string& service) {
    natsSubscription* raw = nullptr;
    natsStatus s = natsConnection_QueueSubscribeSync(&raw, conn, service.c_str(), service.c_str());
    std::shared_ptr<natsSubscription> sub(raw, natsSubscription_Destroy);
    if (s != NATS_OK) {
        log_error("NATS: failed to subscribe to '%s': %s", service.c_str(), natsStatus_GetText(s));
        return nullptr;
    }
    natsSubscription_SetPendingLimits(sub.get(), s_pending_msgs_limit, s_pending_bytes_limit);
    return sub;
}

}  // namespace

// One service offered on the connection: shared by its handler threads, kept in the
// connection's service list while any of them runs.
struct qv_nats_handler_thread_args_t {
    qv_nats_config* config = nullptr;
    std::string service;
    qv_service_handler_t handler = nullptr;
    void* handler_config = nullptr;
    const std::atomic<int>* terminate = nullptr;
    std::atomic<int> threads{0};
    // Replaced when the connection is rebuilt.
    std::mutex sub_mutex;
    std::shared_ptr<natsSubscription> sub;
    // Dropped-message reporting (s_report_drops); one thread at a time.
    std::mutex drop_mutex;
    natsSubscription* drops_sub = nullptr;
    int64_t drops_earlier = 0;  // dropped on subscriptions replaced since
    int64_t drops_seen = 0;     // dropped on drops_sub
    int64_t drops_reported = 0;
    std::chrono::steady_clock::time_point drops_logged{};
    // The service's discovery statistics.
    qv_nats_micro_endpoint* endpoint = nullptr;
};

std::shared_ptr<natsConnection> qv_nats_connection(qv_nats_config* config) {
    if (config == nullptr) {
        return nullptr;
    }
    std::lock_guard<std::mutex> guard(config->_kv_mutex);
    return config->_conn;
}

std::shared_ptr<jsCtx> qv_nats_jetstream(qv_nats_config* config) {
    if (config == nullptr) {
        return nullptr;
    }
    std::lock_guard<std::mutex> guard(config->_kv_mutex);
    return config->_js;
}

int qv_nats_init(qv_nats_config* config) {
    if (config == nullptr || config->server_url.empty()) {
        log_error("NATS: config or server_url is NULL");
        return -1;
    }
    log_debug("cnats library runtime version: %s", nats_GetVersion());
    std::shared_ptr<natsConnection> conn;
    std::shared_ptr<jsCtx> js;
    if (s_connect(config, &conn, &js) != 0) {
        return -1;
    }
    {
        std::lock_guard<std::mutex> guard(config->_kv_mutex);
        config->_conn = std::move(conn);
        config->_js = js;
    }
    config->_closing.store(false);
    log_info("NATS: connected to %s (user=%s, jetstream=%s)", config->server_url.c_str(),
             config->user.empty() ? "(none)" : config->user.c_str(), js ? "yes" : "no");
    return 0;
}

int qv_nats_check_connection(qv_nats_config* config) {
    if (config == nullptr || config->_closing.load()) {
        return 0;
    }
    std::shared_ptr<natsConnection> conn = qv_nats_connection(config);
    if (!conn) {
        return -1;
    }
    if (natsConnection_IsClosed(conn.get())) {
        log_warn("NATS: the connection to %s is closed — building a new one",
                 config->server_url.c_str());
        std::shared_ptr<natsConnection> fresh;
        std::shared_ptr<jsCtx> js;
        if (s_connect(config, &fresh, &js) != 0) {
            log_error("NATS: could not build a new connection to %s — trying again later",
                      config->server_url.c_str());
            return -1;
        }
        {
            std::lock_guard<std::mutex> guard(config->_kv_mutex);
            config->_conn = fresh;
            config->_js = std::move(js);
            config->_kv.reset();
            config->_kv_registry.reset();
            for (size_t i = 0; i < config->_kv_extra.size(); ++i) {
                config->_kv_extra[i].reset();
                config->_kv_extra_name[i].clear();
            }
        }
        log_info("NATS: new connection to %s in place", config->server_url.c_str());
        conn = std::move(fresh);
    }
    // Services whose subscription did not survive (a rebuilt connection, a failed renewal) are
    // subscribed again on the live connection.
    int renewed = 0;
    int failed = 0;
    std::lock_guard<std::mutex> services(config->_services_mutex);
    for (const auto& args : config->_services) {
        {
            std::lock_guard<std::mutex> guard(args->sub_mutex);
            if (args->sub && natsSubscription_IsValid(args->sub.get())) {
                continue;
            }
        }
        std::shared_ptr<natsSubscription> sub = s_subscribe(conn.get(), args->service);
        if (!sub) {
            failed++;
            continue;
        }
        std::lock_guard<std::mutex> guard(args->sub_mutex);
        args->sub = std::move(sub);
        renewed++;
    }
    if (renewed > 0) {
        log_info("NATS: %d service subscription(s) renewed", renewed);
    }
    // The discovery responder's subscriptions, likewise.
    if (config->_micro.renew(conn.get()) != 0) {
        failed++;
    }
    return failed == 0 ? 0 : -1;
}

namespace {

// The replies of one fan-out. They arrive through an asynchronous subscription: a synchronous
// one turns a no-responders answer into a bare status and drops the message, and with it the
// subject it was for.
struct s_reply_queue {
    std::mutex mutex;
    std::condition_variable arrived;
    std::deque<qv::nats_msg_ptr> msgs;
};

}  // namespace

// One wildcard subscription, "<inbox>.*.*", receives the replies of every fan-out on a
// connection: the second-last token names the fan-out, the last one its target. Subscribing per
// fan-out would cost a subscription round trip and a delivery thread for every event.
struct qv_nats_fanout_inbox {
    std::mutex mutex;
    std::weak_ptr<natsConnection> conn;  // the connection `sub` belongs to
    qv::nats_subscription_ptr sub;
    std::string prefix;
    uint64_t next = 0;
    std::unordered_map<uint64_t, s_reply_queue*> queues;
};

void qv_nats_deinit(qv_nats_config* config) {
    if (config == nullptr) {
        return;
    }
    config->_closing.store(true);
    std::shared_ptr<natsConnection> conn;
    std::shared_ptr<qv_nats_kv_cache> cache;
    {
        std::lock_guard<std::mutex> guard(config->_kv_mutex);
        cache = std::move(config->_config_cache);
        config->_kv_registry.reset();
        for (size_t i = 0; i < config->_kv_extra.size(); ++i) {
            config->_kv_extra[i].reset();
            config->_kv_extra_name[i].clear();
        }
        config->_kv.reset();
        config->_js.reset();
        conn = std::move(config->_conn);
    }
    if (cache) {
        cache->stop();
    }
    std::shared_ptr<qv_nats_fanout_inbox> inbox;
    {
        std::lock_guard<std::mutex> guard(config->_services_mutex);
        inbox = config->_fanout_inbox;
    }
    if (inbox) {
        std::lock_guard<std::mutex> guard(inbox->mutex);
        inbox->sub.reset();
    }
    if (conn) {
        // Closing wakes the handler threads out of their receive; give them a moment to leave
        // before the connection goes, so that none of them outlives it mid-request.
        natsConnection_Close(conn.get());
        for (int waited = 0; config->_handler_threads.load() > 0 && waited < 1000; waited += 10) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        conn.reset();
        log_info("NATS: disconnected");
    }
}

namespace {

// Refuses a subject that nats-server would answer by closing the connection.
bool s_check_subject(const char* service, std::string* errormsg) {
    if (qv_valid_publish_subject(service)) {
        return true;
    }
    const std::string shown = qv_escape_for_log(service);
    log_error("NATS: refusing to send to invalid subject '%s'", shown.c_str());
    s_set_error(errormsg, "NATS: invalid subject '" + shown + "'");
    return false;
}

// The request loop shared by the plain and the staged sends: `attempt_budget_ms` is what each
// attempt may take (less what back-off slept), `nr_timeout_ms` what the back-off rule sees.
qv::nats_msg_ptr s_request_loop(natsConnection* conn, const char* service, const std::string& body,
                                uint64_t attempt_budget_ms, uint64_t nr_timeout_ms, bool staged,
                                int retries, std::string* errormsg) {
    qv_nats_nr_state_t nr;
    qv_nats_nr_init(&nr);
    int attempts_left = retries + 1;
    while (attempts_left > 0) {
        natsMsg* raw = nullptr;
        const uint64_t attempt_timeout = qv_nats_nr_attempt_timeout_ms(&nr, attempt_budget_ms);
        natsStatus s =
            natsConnection_Request(&raw, conn, service, body.data(), static_cast<int>(body.size()),
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

// The "ReturnCode" of a reply object; -1 without a reply or without that member.
int s_return_code(json_object* reply) {
    json_object* rc = nullptr;
    if (reply == nullptr || !json_object_object_get_ex(reply, "ReturnCode", &rc)) {
        return -1;
    }
    return json_object_get_int(rc);
}

}  // namespace

qv::json_ptr qv_nats_send_recv_json(qv_nats_config* config, const char* service,
                                    const char* request_json_txt, uint32_t timeout_ms, int retries,
                                    std::string* errormsg) {
    std::shared_ptr<natsConnection> conn = qv_nats_connection(config);
    if (!conn || service == nullptr || request_json_txt == nullptr) {
        s_set_error(errormsg, "NATS: invalid parameters for send_recv_json");
        return nullptr;
    }
    if (!s_check_subject(service, errormsg)) {
        return nullptr;
    }
    log_trace("NATS: sending request to %s (timeout: %ums):\n%s", service, timeout_ms,
              request_json_txt);
    qv::nats_msg_ptr reply = s_request_loop(conn.get(), service, request_json_txt, timeout_ms,
                                            timeout_ms, false, retries, errormsg);
    return reply ? s_parse_reply(service, reply.get()) : nullptr;
}

qv::json_ptr qv_nats_send_recv_json_data(qv_nats_config* config, const char* service,
                                         qv_const_request_reply_t* rr, uint64_t timeout_ms,
                                         uint64_t extra_timeout_ms, int retries,
                                         std::string* errormsg) {
    std::shared_ptr<natsConnection> conn = qv_nats_connection(config);
    if (!conn || service == nullptr || rr == nullptr || rr->request == nullptr) {
        s_set_error(errormsg, "NATS: invalid parameters for send_recv_json_data");
        return nullptr;
    }
    if (!s_check_subject(service, errormsg)) {
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
        s_request_loop(conn.get(), service, body, total, timeout_ms, true, retries, errormsg);
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
    return s_return_code(reply.get());
}

namespace {

// One subject of qv_nats_simple_request_all: an attempt is in flight until its deadline, or
// waits for its due time (a no-responders back-off) before it is sent.
struct s_fanout_target {
    const char* subject = nullptr;
    std::string reply_subject;
    int attempts_left = 0;
    qv_nats_nr_state_t nr;
    bool in_flight = false;
    bool done = false;
    std::chrono::steady_clock::time_point due;
    std::chrono::steady_clock::time_point deadline;
};

void s_on_fanout_reply(natsConnection* /*nc*/, natsSubscription* /*sub*/, natsMsg* msg,
                       void* closure) {
    qv::nats_msg_ptr owned(msg);
    auto* inbox = static_cast<qv_nats_fanout_inbox*>(closure);
    const std::string_view subject(natsMsg_GetSubject(msg));
    const size_t last = subject.rfind('.');
    const size_t id_dot = last == std::string_view::npos || last == 0
                              ? std::string_view::npos
                              : subject.rfind('.', last - 1);
    if (id_dot == std::string_view::npos) {
        return;
    }
    const uint64_t id =
        strtoull(std::string(subject.substr(id_dot + 1, last - id_dot - 1)).c_str(), nullptr, 10);
    // The fan-out's queue stays registered, and so alive, while this lock is held.
    std::lock_guard<std::mutex> guard(inbox->mutex);
    auto it = inbox->queues.find(id);
    if (it == inbox->queues.end()) {
        return;  // a late answer to a fan-out that has ended
    }
    s_reply_queue* queue = it->second;
    std::lock_guard<std::mutex> queue_guard(queue->mutex);
    queue->msgs.push_back(std::move(owned));
    queue->arrived.notify_one();
}

// Registers a fan-out's queue with the connection's reply subscription (made for this
// connection when it has none yet). The reply subject prefix of the fan-out, or empty on failure.
std::string s_register_fanout(qv_nats_config* config, const std::shared_ptr<natsConnection>& conn,
                              s_reply_queue* queue, uint64_t* id) {
    std::shared_ptr<qv_nats_fanout_inbox> inbox;
    {
        std::lock_guard<std::mutex> guard(config->_services_mutex);
        if (!config->_fanout_inbox) {
            config->_fanout_inbox = std::make_shared<qv_nats_fanout_inbox>();
        }
        inbox = config->_fanout_inbox;
    }
    std::lock_guard<std::mutex> guard(inbox->mutex);
    if (inbox->conn.lock() != conn || !inbox->sub || !natsSubscription_IsValid(inbox->sub.get())) {
        natsInbox* name = nullptr;
        if (natsInbox_Create(&name) != NATS_OK) {
            log_error("Failed to allocate %s", "inbox");
            return "";
        }
        const std::string prefix = name;
        natsInbox_Destroy(name);
        natsSubscription* raw = nullptr;
        const natsStatus s = natsConnection_Subscribe(&raw, conn.get(), (prefix + ".*.*").c_str(),
                                                      s_on_fanout_reply, inbox.get());
        if (s != NATS_OK) {
            log_error("NATS: failed to subscribe to '%s': %s", prefix.c_str(),
                      natsStatus_GetText(s));
            return "";
        }
        natsSubscription_SetPendingLimits(raw, -1, -1);
        inbox->sub.reset(raw);
        inbox->conn = conn;
        inbox->prefix = prefix;
    }
    *id = ++inbox->next;
    inbox->queues[*id] = queue;
    return inbox->prefix + "." + std::to_string(*id);
}

void s_unregister_fanout(qv_nats_config* config, uint64_t id) {
    std::shared_ptr<qv_nats_fanout_inbox> inbox;
    {
        std::lock_guard<std::mutex> guard(config->_services_mutex);
        inbox = config->_fanout_inbox;
    }
    if (inbox) {
        std::lock_guard<std::mutex> guard(inbox->mutex);
        inbox->queues.erase(id);
    }
}

}  // namespace

std::vector<int> qv_nats_simple_request_all(qv_nats_config* config,
                                            const std::vector<std::string>& subjects,
                                            const std::string& request_json_txt,
                                            uint32_t timeout_ms, int attempts) {
    using clock = std::chrono::steady_clock;
    std::vector<int> results(subjects.size(), -1);
    std::shared_ptr<natsConnection> conn = qv_nats_connection(config);
    if (!conn || subjects.empty()) {
        return results;
    }
    // Every reply comes to the connection's fan-out inbox; the last token tells the subjects
    // apart.
    s_reply_queue queue;
    uint64_t fanout_id = 0;
    const std::string prefix = s_register_fanout(config, conn, &queue, &fanout_id);
    if (prefix.empty()) {
        return results;
    }
    natsStatus s = NATS_OK;
    log_trace("NATS: sending request to %zu subject(s) (timeout: %ums, attempts: %d):\n%s",
              subjects.size(), timeout_ms, attempts, request_json_txt.c_str());

    std::vector<s_fanout_target> targets(subjects.size());
    size_t open = 0;
    const clock::time_point start = clock::now();
    for (size_t i = 0; i < subjects.size(); ++i) {
        s_fanout_target& t = targets[i];
        t.subject = subjects[i].c_str();
        t.attempts_left = attempts < 1 ? 1 : attempts;
        qv_nats_nr_init(&t.nr);
        t.due = start;
        if (!s_check_subject(t.subject, nullptr)) {
            t.done = true;
            continue;
        }
        t.reply_subject = prefix + "." + std::to_string(i);
        open++;
    }
    // A failed attempt: the next one goes out at once, or the subject has failed.
    auto attempt_failed = [&](s_fanout_target& t, clock::time_point now) {
        t.in_flight = false;
        t.attempts_left--;
        if (t.attempts_left > 0) {
            log_debug("NATS: retrying %s... retries left: %d", t.subject, t.attempts_left - 1);
            t.due = now;
        } else {
            t.done = true;
            open--;
        }
    };
    while (open > 0) {
        clock::time_point now = clock::now();
        clock::time_point wake = now + std::chrono::milliseconds(timeout_ms);
        for (s_fanout_target& t : targets) {
            if (t.done) {
                continue;
            }
            if (t.in_flight && t.deadline <= now) {
                log_debug("NATS: request to %s timed out after %ums", t.subject, timeout_ms);
                attempt_failed(t, now);
                if (t.done) {
                    continue;
                }
            }
            if (!t.in_flight && t.due <= now) {
                s = natsConnection_PublishRequest(conn.get(), t.subject, t.reply_subject.c_str(),
                                                  request_json_txt.data(),
                                                  static_cast<int>(request_json_txt.size()));
                if (s == NATS_OK) {
                    t.in_flight = true;
                    t.deadline = now + std::chrono::milliseconds(
                                           qv_nats_nr_attempt_timeout_ms(&t.nr, timeout_ms));
                } else {
                    log_error("NATS: request to %s failed: %s", t.subject, natsStatus_GetText(s));
                    attempt_failed(t, now);
                    // A connection that refuses to publish will not accept the retry at once.
                    t.due = now + std::chrono::milliseconds(100);
                }
            }
            if (!t.done) {
                wake = std::min(wake, t.in_flight ? t.deadline : t.due);
            }
        }
        if (open == 0) {
            break;
        }
        qv::nats_msg_ptr msg;
        {
            std::unique_lock<std::mutex> guard(queue.mutex);
            queue.arrived.wait_until(guard, wake, [&queue] { return !queue.msgs.empty(); });
            if (queue.msgs.empty()) {
                continue;
            }
            msg = std::move(queue.msgs.front());
            queue.msgs.pop_front();
        }
        const char* subject = natsMsg_GetSubject(msg.get());
        const char* dot = subject != nullptr ? strrchr(subject, '.') : nullptr;
        const size_t index = dot != nullptr ? strtoul(dot + 1, nullptr, 10) : targets.size();
        if (index >= targets.size() || targets[index].done) {
            continue;  // a late answer to an attempt that was already settled
        }
        s_fanout_target& t = targets[index];
        now = clock::now();
        if (natsMsg_IsNoResponders(msg.get())) {
            const uint64_t backoff = qv_nats_nr_take_step(&t.nr, timeout_ms, t.subject);
            if (backoff > 0) {
                t.in_flight = false;
                t.due = now + std::chrono::milliseconds(backoff);
            } else {
                log_error("NATS: request to %s failed: %s", t.subject,
                          natsStatus_GetText(NATS_NO_RESPONDERS));
                attempt_failed(t, now);
            }
            continue;
        }
        qv::json_ptr reply = s_parse_reply(t.subject, msg.get());
        results[index] = s_return_code(reply.get());
        t.done = true;
        open--;
    }
    s_unregister_fanout(config, fanout_id);
    return results;
}

namespace {

bool s_stopped(const qv_nats_handler_thread_args_t& args) {
    return args.terminate != nullptr && args.terminate->load() != 0;
}

std::shared_ptr<natsSubscription> s_current_sub(qv_nats_handler_thread_args_t& args) {
    std::lock_guard<std::mutex> guard(args.sub_mutex);
    return args.sub;
}

// Logs the messages the service's subscription dropped for want of pending space, with their
// count, at most once every s_drop_report_interval.
void s_report_drops(qv_nats_handler_thread_args_t& args, natsSubscription* sub) {
    std::unique_lock<std::mutex> guard(args.drop_mutex, std::try_to_lock);
    int64_t dropped = 0;
    if (!guard.owns_lock() || natsSubscription_GetDropped(sub, &dropped) != NATS_OK) {
        return;
    }
    if (sub != args.drops_sub) {
        args.drops_earlier += args.drops_seen;
        args.drops_seen = 0;
        args.drops_sub = sub;
    }
    args.drops_seen = std::max(args.drops_seen, dropped);
    const int64_t total = args.drops_earlier + args.drops_seen;
    const auto now = std::chrono::steady_clock::now();
    if (total > args.drops_reported &&
        (args.drops_reported == 0 || now - args.drops_logged >= s_drop_report_interval)) {
        log_warn(
            "NATS: service '%s' dropped %lld request(s) so far: its handler threads fall "
            "behind (pending limit %d messages)",
            args.service.c_str(), static_cast<long long>(total), s_pending_msgs_limit);
        args.drops_reported = total;
        args.drops_logged = now;
    }
}

// The staged payload named by the request's "_kv_key" into request.data; false (logged, with
// the reply text in *failure) when the key is malformed or the payload cannot be had.
bool s_fetch_staged(qv_nats_config* config, json_object* kv_key, qv_message_t* request,
                    qv_staged_budget::ticket* ticket, const char** failure) {
    const std::string_view key =
        json_object_is_type(kv_key, json_type_string)
            ? std::string_view(json_object_get_string(kv_key),
                               static_cast<size_t>(json_object_get_string_len(kv_key)))
            : std::string_view();
    if (!qv_valid_key(key)) {
        qv_log_refused("NATS: invalid staged payload key", key);
        *failure = "Invalid staged payload key";
        return false;
    }
    request->staged_data_key.assign(key);
    if (kvstore_get_chunked_budgeted(config, request->staged_data_key.c_str(), &request->data,
                                     ticket) != 0) {
        log_error(
            "NATS: could not retrieve staged payload for key '%s' — failing the request closed "
            "(handler not invoked)",
            request->staged_data_key.c_str());
        *failure = "Scan data unavailable: staged payload could not be retrieved from the KV store";
        return false;
    }
    return true;
}

// One request in the service's discovery statistics, timed until its handling ends (the reply
// sent); a status other than 0 counts as an error.
struct s_discovery_record {
    qv_nats_micro_endpoint* endpoint;
    const int& status;
    std::chrono::steady_clock::time_point begin = std::chrono::steady_clock::now();
    ~s_discovery_record() {
        const auto elapsed = std::chrono::steady_clock::now() - begin;
        if (status == 0) {
            qv_nats_micro::record(endpoint, elapsed, nullptr);
            return;
        }
        char error[32];
        snprintf(error, sizeof(error), "status %d", status);
        qv_nats_micro::record(endpoint, elapsed, error);
    }
};

void s_handle_message(qv_nats_handler_thread_args_t& args, natsMsg* msg) {
    const int body_len = natsMsg_GetDataLength(msg);
    const char* reply_subject = natsMsg_GetReply(msg);
    const bool answer = reply_subject != nullptr && reply_subject[0] != '\0';
    // Declared first, so that the payload's share of the budget is given back only after the
    // payload itself is gone.
    qv_staged_budget::ticket staged_share;
    qv_request_reply_t rr;
    int rc = -1;
    const s_discovery_record discovery{args.endpoint, rc};
    if (body_len > 0) {
        rr.request.json_txt.assign(natsMsg_GetData(msg), static_cast<size_t>(body_len));
        const char* failure = nullptr;
        // Only a request that names a staged payload is parsed here; the handler parses the rest.
        qv::json_ptr obj = rr.request.json_txt.find("_kv_key") != std::string::npos
                               ? qv_json_parse(rr.request.json_txt)
                               : nullptr;
        json_object* kv_key = nullptr;
        if (obj && json_object_is_type(obj.get(), json_type_object) &&
            json_object_object_get_ex(obj.get(), "_kv_key", &kv_key)) {
            s_fetch_staged(args.config, kv_key, &rr.request, &staged_share, &failure);
            json_object_object_del(obj.get(), "_kv_key");
            rr.request.json_txt = qv_json_to_string(obj.get());
        }
        if (failure != nullptr) {
            qv_reply_set_ERROR(&rr.reply, SERVICE_ERROR, failure);
        } else {
            qv_const_request_reply_t crr{&rr.request, &rr.reply};
            try {
                rc = args.handler(args.handler_config, &crr);
            } catch (const std::exception& e) {
                log_error("NATS: handler for '%s' threw: %s", args.service.c_str(), e.what());
            } catch (...) {
                log_error("NATS: handler for '%s' threw an unknown exception",
                          args.service.c_str());
            }
        }
    }
    if (!answer) {
        return;
    }
    // Every request with a reply subject gets a body, also when the handler left none (or the
    // request had none): a requester never waits out its time-out for nothing.
    if (rr.reply.json_txt.empty()) {
        log_warn("Creating generic error reply");
        qv_reply_set_return_code(&rr.reply, rc);
    }
    std::shared_ptr<natsConnection> conn = qv_nats_connection(args.config);
    natsStatus s = conn
                       ? natsConnection_Publish(conn.get(), reply_subject, rr.reply.json_txt.data(),
                                                static_cast<int>(rr.reply.json_txt.size()))
                       : NATS_CONNECTION_CLOSED;
    if (s != NATS_OK) {
        log_error("NATS: failed to publish reply: %s", natsStatus_GetText(s));
    }
}

void s_handler_thread(const std::shared_ptr<qv_nats_handler_thread_args_t>& args) {
    log_info("NATS: handler thread started");
    qv_nats_config* config = args->config;
    while (!s_stopped(*args)) {
        std::shared_ptr<natsSubscription> sub = s_current_sub(*args);
        natsStatus s = NATS_INVALID_SUBSCRIPTION;
        natsMsg* raw = nullptr;
        if (sub) {
            s = natsSubscription_NextMsg(&raw, sub.get(), 500);
            s_report_drops(*args, sub.get());
        }
        qv::nats_msg_ptr msg(raw);
        if (s == NATS_TIMEOUT || s == NATS_SLOW_CONSUMER) {
            continue;
        }
        if (s == NATS_CONNECTION_CLOSED || s == NATS_INVALID_SUBSCRIPTION) {
            if (config->_closing.load()) {
                break;
            }
            // The library gave the connection up: qv_nats_check_connection builds a new one and
            // subscribes again; until then there is nothing to receive.
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            continue;
        }
        if (s != NATS_OK) {
            log_warn("NATS: handler NextMsg error: %s", natsStatus_GetText(s));
            continue;
        }
        s_handle_message(*args, msg.get());
    }
    log_info("NATS: handler thread exiting");
}

// Ends one handler thread's share of the service; the last one takes the service off the
// connection's list (its subscription goes with it).
void s_thread_done(const std::shared_ptr<qv_nats_handler_thread_args_t>& args) {
    qv_nats_config* config = args->config;
    if (args->threads.fetch_sub(1) == 1) {
        std::lock_guard<std::mutex> guard(config->_services_mutex);
        auto& services = config->_services;
        services.erase(std::remove(services.begin(), services.end(), args), services.end());
    }
    config->_handler_threads.fetch_sub(1);
}

}  // namespace

int qv_nats_start_service_handler_threads(qv_nats_config* config, const char* service,
                                          qv_service_handler_t request_handler,
                                          void* request_handler_config,
                                          const std::atomic<int>* terminate,
                                          int number_of_threads) {
    std::shared_ptr<natsConnection> conn = qv_nats_connection(config);
    if (!conn || service == nullptr || request_handler == nullptr || number_of_threads <= 0) {
        log_error("NATS: invalid parameters for start_service_handler_threads");
        return -1;
    }
    if (!qv_valid_publish_subject(service)) {
        qv_log_refused("NATS: invalid service subject", service);
        return -1;
    }
    std::shared_ptr<natsSubscription> sub = s_subscribe(conn.get(), service);
    if (!sub) {
        return -1;
    }
    log_info("NATS: starting %d handler thread(s) for service '%s'", number_of_threads, service);
    auto args = std::make_shared<qv_nats_handler_thread_args_t>();
    args->config = config;
    args->service = service;
    args->sub = std::move(sub);
    args->handler = request_handler;
    args->handler_config = request_handler_config;
    args->terminate = terminate;
    args->endpoint = config->_micro.add_endpoint(service);
    {
        std::lock_guard<std::mutex> guard(config->_services_mutex);
        config->_services.push_back(args);
    }
    // Held until every thread is started, so that an early exit cannot unlist the service.
    args->threads.fetch_add(1);
    for (int i = 0; i < number_of_threads; ++i) {
        try {
            args->threads.fetch_add(1);
            config->_handler_threads.fetch_add(1);
            std::thread([args]() {
                try {
                    s_handler_thread(args);
                } catch (const std::exception& e) {
                    log_error("NATS: handler thread ended by exception: %s", e.what());
                }
                s_thread_done(args);
            }).detach();
        } catch (const std::system_error& e) {
            args->threads.fetch_sub(1);
            config->_handler_threads.fetch_sub(1);
            log_error("NATS: failed to create handler thread %d: %s", i, e.what());
        }
    }
    if (args->threads.fetch_sub(1) == 1) {
        std::lock_guard<std::mutex> guard(config->_services_mutex);
        auto& services = config->_services;
        services.erase(std::remove(services.begin(), services.end(), args), services.end());
    }
    return 0;
}
