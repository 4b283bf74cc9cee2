#include "qv_log.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <vector>

#include <fcntl.h>
#include <sodium.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include "log.h"
#include "qv_connection_client.h"
#include "qv_json.h"
#include "qv_uuid.h"
#include "qvhlp_network.h"

namespace {

constexpr const char* s_component = "qv-av-control";
constexpr const char* s_log_service = "qv-av-log";
constexpr const char* s_event_service = "qv-av-events-dispatch";

// Dispatcher settings: the queue it drains and how it sends.
constexpr uint64_t s_queue_max_entries = 10000;
constexpr uint64_t s_queue_max_size = 50000000;
constexpr size_t s_batch_size = 128;
constexpr uint32_t s_send_timeout_ms = 3000;
constexpr int s_send_retries = 3;
constexpr long s_stale_claim_age_secs = 3600;
constexpr int s_idle_sleep_ms = 250;
constexpr int s_lock_busy_sleep_ms = 50;
constexpr int s_backoff_step_ms = 250;
constexpr int s_backoff_max_ms = 2000;

// Adds `value` under `key`; the object takes the value even when the add fails.
int s_add(json_object* obj, const char* key, json_object* value) {
    if (value == nullptr) {
        return -1;
    }
    if (json_object_object_add(obj, key, value) != 0) {
        json_object_put(value);
        return -1;
    }
    return 0;
}

json_object* s_string(const char* text) {
    return json_object_new_string(text != nullptr ? text : "");
}

std::string s_errno_text() {
    char buffer[256];
    return strerror_r(errno, buffer, sizeof(buffer));
}

const char* s_kind_of(char prefix) {
    return prefix == 'E' ? "event" : "log";
}

const char* s_service_of(char prefix) {
    return prefix == 'E' ? s_event_service : s_log_service;
}

int s_add_event_section(json_object* msg, int type, const char* filename, const char* error,
                        const char* blockingReason, const char* eventMessage,
                        qv_secretbox_key_t* key) {
    qv::json_ptr event(json_object_new_object());
    if (!event || s_add(event.get(), "Type", json_object_new_int(type)) != 0) {
        log_error("Failed to allocate %s", "event_json");
        return -1;
    }
    const std::pair<const char*, const char*> fields[] = {
        {"Filename", filename},
        {"Error", error},
        {"Blocking-Reason", blockingReason},
        {"Event-Message", eventMessage},
    };
    for (const auto& [name, value] : fields) {
        if (value != nullptr && s_add(event.get(), name, json_object_new_string(value)) != 0) {
            log_error("Failed to allocate %s", name);
            return -1;
        }
    }
    if (key == nullptr) {
        if (s_add(msg, "Event", event.release()) != 0) {
            log_error("Failed to allocate %s", "Event");
            return -1;
        }
        log_trace("Added PLAIN event section");
        return 0;
    }

    const std::string plain = qv_json_to_string(event.get());
    if (plain.empty()) {
        log_error("Failed to convert event message to string");
        return -1;
    }
    std::vector<unsigned char> cipher;
    if (qv_secretbox_encrypt_buffer(reinterpret_cast<const unsigned char*>(plain.data()),
                                    plain.size(), key, &cipher) != 0) {
        log_error("Failed to encrypt event message");
        return -1;
    }
    // sodium's encoded length already counts the terminating NUL.
    std::string b64(sodium_base64_ENCODED_LEN(cipher.size(), sodium_base64_VARIANT_ORIGINAL), '\0');
    if (sodium_bin2base64(b64.data(), b64.size(), cipher.data(), cipher.size(),
                          sodium_base64_VARIANT_ORIGINAL) == nullptr) {
        log_error("Failed to encode encrypted event message to base64");
        return -1;
    }
    b64.resize(strlen(b64.c_str()));
    if (s_add(msg, "Nonce", json_object_new_string(key->nonce_hex.c_str())) != 0 ||
        s_add(msg, "Event", json_object_new_string(b64.c_str())) != 0) {
        log_error("Failed to allocate %s", "encrypted_event_message_b64");
        return -1;
    }
    return 0;
}

// Sleeps `ms` in short steps, returning early once the dispatcher is told to stop.
void s_sleep_unless_killed(const qv_log_thread_param_t* param, int ms) {
    while (ms > 0 && param->killed.load() == 0) {
        const int step = std::min(ms, 100);
        qv_sleep_ms(step);
        ms -= step;
    }
}

// Sends one claimed entry; a failed send puts it back under its waiting name.
void s_dispatch_entry(qv_log_thread_param_t* param, qv_pqueue_data* entry, int* backoff_ms) {
    qv_nats_config* cfg = param->connection_config;
    if (qv_pqueue_data_read(entry) != 0 || entry->datalen == 0) {
        log_warn("Dropping unreadable/empty entry %s", entry->id.c_str());
        unlink(entry->id.c_str());
        return;
    }
    const char* service = s_service_of(entry->prefix);
    log_trace("De-queueing entry to broker %s:%s", cfg->broker_host.c_str(),
              cfg->broker_port.c_str());
    const char* text = reinterpret_cast<const char*>(entry->data.data());
    if (qv_connection_simple_request(cfg, service, text, s_send_timeout_ms, s_send_retries,
                                     nullptr) == 0) {
        log_trace("Log/Event entry %s SENT to service %s", entry->id.c_str(), service);
        unlink(entry->id.c_str());
        *backoff_ms = 0;
        return;
    }
    log_error("Failed to send log/event entry %s; restoring for retry", entry->id.c_str());
    if (rename(entry->id.c_str(), entry->restore_id.c_str()) != 0) {
        log_error("Failed to restore %s -> %s: %s", entry->id.c_str(), entry->restore_id.c_str(),
                  s_errno_text().c_str());
    }
    *backoff_ms = qv_log_next_backoff_ms(*backoff_ms);
    s_sleep_unless_killed(param, *backoff_ms);
}

}  // namespace

qv_log_thread_param_t::~qv_log_thread_param_t() {
    killed.store(1);
    if (th_id.thread.joinable()) {
        QV_JoinThread(&th_id);
    }
}

void qv_sleep_ms(int ms) {
    if (ms <= 0) {
        return;
    }
    struct timespec req {
        ms / 1000, static_cast<long>(ms % 1000) * 1000000L
    };
    struct timespec rem {};
    while (nanosleep(&req, &rem) != 0 && errno == EINTR) {
        req = rem;
    }
}

std::string qv_log_generate_eventID() {
    uuid_t uuid;
    char text[37];
    qv_uuid_generate_time_safe(uuid);
    qv_uuid_unparse_lower(uuid, text);
    try {
        return text;
    } catch (const std::bad_alloc&) {
        log_error("Failed to allocate memory for %s", "eventID");
        return "";
    }
}

qv::json_ptr qv_log_create_message_with_eventID(const char* eventID) {
    log_trace("Entering");
    if (eventID == nullptr) {
        log_error("Invalid parameters");
        return nullptr;
    }
    const time_t now = time(nullptr);
    struct tm utc {};
    char timestamp[64];
    if (gmtime_r(&now, &utc) == nullptr ||
        strftime(timestamp, sizeof(timestamp), "%F %H:%M:%S", &utc) == 0) {
        log_error("Failed to format timestamp");
        return nullptr;
    }
    qv::json_ptr msg(json_object_new_object());
    if (!msg || s_add(msg.get(), "LogVersion", json_object_new_int(1)) != 0 ||
        s_add(msg.get(), "Timestamp", json_object_new_string(timestamp)) != 0 ||
        s_add(msg.get(), "Timestamp_epoch", json_object_new_int64(static_cast<int64_t>(now))) !=
            0 ||
        s_add(msg.get(), "Component", json_object_new_string(s_component)) != 0 ||
        s_add(msg.get(), "Hostname", s_string(qvhlp_GetMyFQDN())) != 0 ||
        s_add(msg.get(), "EventID", json_object_new_string(eventID)) != 0) {
        log_error("Failed to allocate %s", "message");
        return nullptr;
    }
    log_trace("Exiting");
    return msg;
}

qv::json_ptr qv_log_create_message() {
    uuid_t uuid;
    char eventID[37];
    qv_uuid_generate_time_safe(uuid);
    qv_uuid_unparse_lower(uuid, eventID);
    return qv_log_create_message_with_eventID(eventID);
}

int qv_log_add_log_section(json_object* msg, const char* key, const char* realmID,
                           qv::json_ptr data) {
    if (msg == nullptr || key == nullptr || !data) {
        log_error("Invalid parameters");
        return -1;
    }
    qv::json_ptr section(json_object_new_object());
    if (!section || s_add(section.get(), "LogData", data.release()) != 0) {
        log_error("Failed to allocate %s", "logsection_json");
        return -1;
    }
    if (s_add(msg, key, section.release()) != 0) {
        log_error("Failed to allocate %s", key);
        return -1;
    }
    if (realmID != nullptr && realmID[0] != '\0' &&
        s_add(msg, "realmID", json_object_new_string(realmID)) != 0) {
        log_error("Failed to allocate %s", "realmID");
        return -1;
    }
    return 0;
}

int qv_log_add_scanlog_section(json_object* msg, const char* scanLogPath, const char* realmID,
                               qv::json_ptr data) {
    if (msg == nullptr) {
        log_error("Invalid parameters");
        return -1;
    }
    qv::json_ptr section(json_object_new_object());
    if (section) {
        // A missing path travels as null; the log service then refuses the section.
        json_object* path = scanLogPath != nullptr ? json_object_new_string(scanLogPath) : nullptr;
        json_object_object_add(section.get(), "ScanLogPath", path);
        json_object_object_add(section.get(), "LogData", data.release());
    }
    json_object_object_add(msg, "ScanLog", section.release());
    json_object_object_add(msg, "realmID", s_string(realmID));
    return 0;
}

int qv_log_enqueue(qv_pqueue* pq, char prefix, json_object* msg) {
    if (msg == nullptr || pq == nullptr) {
        log_error("Invalid parameters");
        return -1;
    }
    try {
        const std::string text = qv_json_to_string(msg);
        log_trace("Enqueuing %s", text.c_str());
        if (qv_pqueue_push(pq, prefix, text.data(), text.size()) != 0) {
            log_error("Failed to persist %s message in queue: %s", s_kind_of(prefix), text.c_str());
            return -1;
        }
    } catch (const std::bad_alloc&) {
        log_error("Failed to allocate memory for %s", "message text");
        return -1;
    }
    return 0;
}

int qv_log_send_event(qv_pqueue* pq, int type, const char* realmID, const char* SID,
                      const char* filename, const char* error, const char* blockingReason,
                      const char* eventMessage, qv_secretbox_key_t* key) {
    log_trace("Entering");
    qv::json_ptr msg = qv_log_create_message();
    if (!msg) {
        log_error("Failed to allocate %s", "qvlog");
        return -1;
    }
    if (s_add(msg.get(), "Command", json_object_new_int(501)) != 0 ||
        (realmID != nullptr && s_add(msg.get(), "realmID", json_object_new_string(realmID)) != 0) ||
        (SID != nullptr && s_add(msg.get(), "SID", json_object_new_string(SID)) != 0)) {
        log_error("Failed to allocate %s", "qvlog");
        return -1;
    }
    if (s_add_event_section(msg.get(), type, filename, error, blockingReason, eventMessage, key) !=
        0) {
        return -1;
    }
    const int rc = qv_log_enqueue(pq, 'E', msg.get());
    log_trace("Exiting, rc=%d", rc);
    return rc;
}

qv::json_ptr qv_log_create_epolog_json(int eventID, const char* filename, const char* threatName,
                                       const char* threatCategory, const char* threatType,
                                       const char* actionTaken, const char* libVersion,
                                       const char* datVersion) {
    qv::json_ptr record(json_object_new_object());
    if (!record || s_add(record.get(), "LogType", json_object_new_string("EPOLog")) != 0 ||
        s_add(record.get(), "Timestamp",
              json_object_new_int64(static_cast<int64_t>(time(nullptr)))) != 0 ||
        s_add(record.get(), "EventID", json_object_new_int(eventID)) != 0) {
        log_error("Failed to allocate %s", "epolog_json");
        return nullptr;
    }
    const std::pair<const char*, const char*> fields[] = {
        {"Filename", filename},
        {"Threat-Name", threatName},
        {"Threat-Category", threatCategory},
        {"Threat-Type", threatType},
        {"Action-taken", actionTaken},
        {"Lib-Version", libVersion},
        {"DAT-Version", datVersion},
    };
    for (const auto& [name, value] : fields) {
        if (s_add(record.get(), name, s_string(value)) != 0) {
            log_error("Failed to allocate %s", name);
            return nullptr;
        }
    }
    return record;
}

std::string qv_log_create_delimited_eventID_string(const char* prefix, json_object* msg) {
    const char* head = prefix != nullptr && prefix[0] != '\0' ? prefix : "EventID:";
    const char* id = nullptr;
    json_object* member = nullptr;
    if (msg != nullptr && json_object_object_get_ex(msg, "EventID", &member)) {
        id = json_object_get_string(member);
    }
    if (id == nullptr || id[0] == '\0') {
        id = "not set";
    }
    try {
        return std::string(head) + id;
    } catch (const std::bad_alloc&) {
        log_error("Failed to allocate memory for %s", "eventID string");
        return "";
    }
}

int qv_log_next_backoff_ms(int backoff_ms) {
    return backoff_ms < s_backoff_max_ms ? backoff_ms + s_backoff_step_ms : backoff_ms;
}

std::unique_ptr<qv_log_thread_param_t> qv_log_create_log_dispatcher(const char* rundir,
                                                                    qv_nats_config* cfg) {
    log_trace("Entering");
    if (rundir == nullptr) {
        log_error("Invalid parameters");
        return nullptr;
    }
    std::unique_ptr<qv_log_thread_param_t> param;
    try {
        param = std::make_unique<qv_log_thread_param_t>();
    } catch (const std::bad_alloc&) {
        log_error("Failed to allocate memory for %s", "log dispatcher");
        return nullptr;
    }
    char resolved[4096];
    if (realpath(rundir, resolved) == nullptr) {
        snprintf(resolved, sizeof(resolved), "%s", rundir);
    }
    char name[256];
    snprintf(name, sizeof(name), "%s.pq", s_component);
    param->pq =
        qv_pqueue_open(resolved, name, s_queue_max_entries, s_queue_max_size, O_CREAT, RINGBUFFER);
    if (!param->pq) {
        // The thread still starts and ends at once; the caller gets a handle either way.
        log_error("Failed to allocate persistent queue");
    }
    log_debug("Persistent log queue name: %s in directory %s", name, resolved);
    param->connection_config = cfg;
    param->killed.store(0);
    qv_log_thread_param_t* p = param.get();
    if (QV_CreateThread(&param->th_id, [p]() { qv_log_dequeue_thread(p); }) != 0) {
        log_error("Failed to start log dequeue thread");
        return nullptr;
    }
    log_info("log dequeue thread created");
    log_trace("Exiting");
    return param;
}

void qv_log_dequeue_thread(qv_log_thread_param_t* param) {
    log_trace("Entering");
    if (param == nullptr || !param->pq || param->connection_config == nullptr) {
        log_error("Invalid parameters");
        log_debug("Log dequeue thread ending");
        return;
    }
    qv_pqueue* pq = param->pq.get();
    // Entries claimed by a run that died are still on disk under that run's claimed names.
    qv_pqueue_reclaim_stale_claims(pq, s_stale_claim_age_secs);

    int backoff_ms = 0;
    while (param->killed.load() == 0) {
        std::vector<std::unique_ptr<qv_pqueue_data>> batch;
        size_t next = 0;
        try {
            if (qv_pqueue_lock(pq) != 0) {
                qv_sleep_ms(s_lock_busy_sleep_ms);
                continue;
            }
            const int claimed = qv_pqueue_claim_batch(pq, "LE", s_batch_size, &batch);
            qv_pqueue_unlock(pq);
            if (claimed <= 0) {
                s_sleep_unless_killed(param, s_idle_sleep_ms);
                continue;
            }
            for (; next < batch.size() && param->killed.load() == 0; ++next) {
                s_dispatch_entry(param, batch[next].get(), &backoff_ms);
            }
        } catch (const std::exception& e) {
            log_error("Log dequeue thread: %s", e.what());
        }
        // Whatever this batch did not get to goes back for the next run (or the next batch).
        for (; next < batch.size(); ++next) {
            const qv_pqueue_data* entry = batch[next].get();
            if (access(entry->id.c_str(), F_OK) == 0 &&
                rename(entry->id.c_str(), entry->restore_id.c_str()) != 0) {
                log_trace("Shutdown restore failed for %s: %s", entry->id.c_str(),
                          s_errno_text().c_str());
            }
        }
    }
    log_debug("Log dequeue thread ending");
}
