#include "qv_nats_micro.h"

#include <cstring>
#include <ctime>
#include <exception>
#include <random>
#include <string_view>

#include "log.h"
#include "qv_handles.h"
#include "qv_json.h"

#ifndef QV_SERVICE_VERSION
#define QV_SERVICE_VERSION "0.0.0"
#endif

namespace {

constexpr const char* s_description =
    "Control daemon of the distributed anti-virus scanning service";
constexpr const char* s_prefix = "$SRV.";
constexpr auto s_stop_wait = std::chrono::seconds(5);

// An instance id in the form the services tooling uses: 22 characters of [A-Za-z0-9].
std::string s_new_id() {
    static constexpr char alphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    std::random_device device;
    std::mt19937_64 rng((static_cast<uint64_t>(device()) << 32) ^ device());
    std::uniform_int_distribution<size_t> pick(0, sizeof(alphabet) - 2);
    std::string id(22, '0');
    for (char& c : id) {
        c = alphabet[pick(rng)];
    }
    return id;
}

// Now in RFC 3339, UTC, with milliseconds.
std::string s_now_rfc3339() {
    const auto now = std::chrono::system_clock::now();
    const time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() %
        1000;
    struct tm utc {};
    gmtime_r(&seconds, &utc);
    char text[40];
    const size_t len = strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", &utc);
    snprintf(text + len, sizeof(text) - len, ".%03dZ", static_cast<int>(ms));
    return text;
}

// Endpoint names allow only [A-Za-z0-9_-]; subjects also hold dots.
std::string s_endpoint_name(const std::string& subject) {
    std::string name = subject;
    for (char& c : name) {
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                           (c >= '0' && c <= '9') || c == '-' || c == '_';
        if (!plain) {
            c = '_';
        }
    }
    return name;
}

void s_add_string(json_object* object, const char* key, const std::string& value) {
    json_object_object_add(
        object, key, json_object_new_string_len(value.data(), static_cast<int>(value.size())));
}

}  // namespace

qv_nats_micro::qv_nats_micro() : id_(s_new_id()) {}

qv_nats_micro::~qv_nats_micro() {
    stop();
}

qv_nats_micro_endpoint* qv_nats_micro::add_endpoint(const std::string& subject) {
    std::lock_guard<std::mutex> guard(endpoints_mutex_);
    for (qv_nats_micro_endpoint& endpoint : endpoints_) {
        if (endpoint.subject == subject) {
            return &endpoint;
        }
    }
    return &endpoints_.emplace_back(subject);
}

void qv_nats_micro::record(qv_nats_micro_endpoint* endpoint, std::chrono::nanoseconds elapsed,
                           const char* error) noexcept {
    if (endpoint == nullptr) {
        return;
    }
    endpoint->processing_ns.fetch_add(elapsed.count(), std::memory_order_relaxed);
    endpoint->requests.fetch_add(1, std::memory_order_relaxed);
    if (error != nullptr) {
        endpoint->errors.fetch_add(1, std::memory_order_relaxed);
        std::lock_guard<std::mutex> guard(endpoint->error_mutex);
        try {
            endpoint->last_error = error;
        } catch (const std::exception&) {
            endpoint->last_error.clear();  // the count is kept; the text is not worth a failure
        }
    }
}

std::string qv_nats_micro::document(const std::string& verb) {
    const char* type = nullptr;
    if (verb == "PING") {
        type = "io.nats.micro.v1.ping_response";
    } else if (verb == "INFO") {
        type = "io.nats.micro.v1.info_response";
    } else if (verb == "STATS") {
        type = "io.nats.micro.v1.stats_response";
    } else {
        return "";
    }
    qv::json_ptr doc(json_object_new_object());
    json_object_object_add(doc.get(), "type", json_object_new_string(type));
    json_object_object_add(doc.get(), "name", json_object_new_string(SERVICE_NAME));
    s_add_string(doc.get(), "id", id_);
    json_object_object_add(doc.get(), "version", json_object_new_string(QV_SERVICE_VERSION));
    json_object_object_add(doc.get(), "metadata", json_object_new_object());
    if (verb == "PING") {
        return qv_json_to_string(doc.get());
    }
    json_object* endpoints = json_object_new_array();
    json_object_object_add(doc.get(), "endpoints", endpoints);
    std::lock_guard<std::mutex> guard(endpoints_mutex_);
    if (verb == "INFO") {
        json_object_object_add(doc.get(), "description", json_object_new_string(s_description));
    } else {
        s_add_string(doc.get(), "started", started_);
    }
    for (qv_nats_micro_endpoint& endpoint : endpoints_) {
        json_object* entry = json_object_new_object();
        json_object_array_add(endpoints, entry);
        s_add_string(entry, "name", s_endpoint_name(endpoint.subject));
        s_add_string(entry, "subject", endpoint.subject);
        // The handler pools share one queue subscription named after the subject.
        s_add_string(entry, "queue_group", endpoint.subject);
        if (verb == "INFO") {
            json_object_object_add(entry, "metadata", json_object_new_object());
            continue;
        }
        const int64_t requests = endpoint.requests.load(std::memory_order_relaxed);
        const int64_t errors = endpoint.errors.load(std::memory_order_relaxed);
        const int64_t processing = endpoint.processing_ns.load(std::memory_order_relaxed);
        std::string last_error;
        {
            std::lock_guard<std::mutex> error_guard(endpoint.error_mutex);
            last_error = endpoint.last_error;
        }
        json_object_object_add(entry, "num_requests", json_object_new_int64(requests));
        json_object_object_add(entry, "num_errors", json_object_new_int64(errors));
        s_add_string(entry, "last_error", last_error);
        json_object_object_add(entry, "processing_time", json_object_new_int64(processing));
        json_object_object_add(entry, "average_processing_time",
                               json_object_new_int64(requests > 0 ? processing / requests : 0));
    }
    return qv_json_to_string(doc.get());
}

void qv_nats_micro::s_on_request(natsConnection* nc, natsSubscription* /*sub*/, natsMsg* msg,
                                 void* closure) {
    qv::nats_msg_ptr owned(msg);
    auto* self = static_cast<qv_nats_micro*>(closure);
    const char* reply = natsMsg_GetReply(msg);
    const char* subject = natsMsg_GetSubject(msg);
    if (reply == nullptr || reply[0] == '\0' || subject == nullptr) {
        return;
    }
    const std::string_view full(subject);
    if (full.size() <= strlen(s_prefix)) {
        return;
    }
    try {
        // Every subscribed subject is "$SRV.<verb>[...]".
        const std::string_view rest = full.substr(strlen(s_prefix));
        const std::string verb(rest.substr(0, rest.find('.')));
        const std::string doc = self->document(verb);
        if (doc.empty()) {
            return;
        }
        const natsStatus s =
            natsConnection_Publish(nc, reply, doc.data(), static_cast<int>(doc.size()));
        if (s != NATS_OK) {
            log_warn("NATS: failed to answer the discovery request on %s: %s", subject,
                     natsStatus_GetText(s));
        }
    } catch (const std::exception& e) {
        log_error("NATS: discovery request on %s failed: %s", subject, e.what());
    }
}

void qv_nats_micro::s_on_complete(void* closure) {
    auto* self = static_cast<qv_nats_micro*>(closure);
    {
        std::lock_guard<std::mutex> guard(self->live_mutex_);
        self->live_--;
    }
    self->live_cv_.notify_all();
}

int qv_nats_micro::subscribe_missing(natsConnection* conn) {
    if (conn == nullptr) {
        return -1;
    }
    const std::string base = std::string(s_prefix) + "*";
    const std::array<std::string, 3> subjects = {base, base + "." + SERVICE_NAME,
                                                 base + "." + SERVICE_NAME + "." + id_};
    int failed = 0;
    int renewed = 0;
    for (size_t i = 0; i < subs_.size(); ++i) {
        if (subs_[i] && natsSubscription_IsValid(subs_[i].get())) {
            continue;
        }
        subs_[i].reset();
        natsSubscription* raw = nullptr;
        natsStatus s =
            natsConnection_Subscribe(&raw, conn, subjects[i].c_str(), s_on_request, this);
        std::shared_ptr<natsSubscription> sub(raw, natsSubscription_Destroy);
        if (s == NATS_OK) {
            {
                std::lock_guard<std::mutex> guard(live_mutex_);
                live_++;
            }
            s = natsSubscription_SetOnCompleteCB(sub.get(), s_on_complete, this);
            if (s != NATS_OK) {
                std::lock_guard<std::mutex> guard(live_mutex_);
                live_--;
            }
        }
        if (s != NATS_OK) {
            log_error("NATS: failed to subscribe to '%s': %s", subjects[i].c_str(),
                      natsStatus_GetText(s));
            failed++;
            continue;
        }
        subs_[i] = std::move(sub);
        renewed++;
    }
    if (renewed > 0) {
        log_info("NATS: answering service discovery as %s instance %s (%d subscription(s))",
                 SERVICE_NAME, id_.c_str(), renewed);
    }
    return failed == 0 ? 0 : -1;
}

int qv_nats_micro::start(natsConnection* conn) {
    std::lock_guard<std::mutex> guard(subs_mutex_);
    if (!running_) {
        running_ = true;
        std::lock_guard<std::mutex> endpoints_guard(endpoints_mutex_);
        started_ = s_now_rfc3339();
    }
    return subscribe_missing(conn);
}

int qv_nats_micro::renew(natsConnection* conn) {
    std::lock_guard<std::mutex> guard(subs_mutex_);
    return running_ ? subscribe_missing(conn) : 0;
}

void qv_nats_micro::stop() {
    std::lock_guard<std::mutex> guard(subs_mutex_);
    running_ = false;
    for (const auto& sub : subs_) {
        if (sub) {
            natsSubscription_Unsubscribe(sub.get());
        }
    }
    {
        std::unique_lock<std::mutex> live(live_mutex_);
        live_cv_.wait_for(live, s_stop_wait, [this] { return live_ <= 0; });
    }
    for (auto& sub : subs_) {
        sub.reset();
    }
}
