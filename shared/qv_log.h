// Log events: the JSON documents by which components report log records and events to the central
// logging services, and the dispatcher that delivers them reliably. Producers enqueue documents
// into a persistent file queue; one background thread claims them in batches and sends each to
// its service ('L' entries to "qv-av-log", 'E' entries to "qv-av-events-dispatch"), putting
// back whatever could not be sent. Delivery is at least once.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "qv_handles.h"
#include "qv_nats_config.h"
#include "qv_pqueue.h"
#include "qv_secretbox_encryption.h"
#include "qvthread.h"

// The dispatcher: owns the queue and the dequeue thread. Stop it by setting `killed` and joining
// `th_id`; releasing the handle does both.
struct qv_log_thread_param_t {
    qv_nats_config* connection_config = nullptr;  // where entries are sent; not owned
    std::unique_ptr<qv_pqueue> pq;
    std::atomic<int> killed{0};
    qv_thread_t th_id;

    qv_log_thread_param_t() = default;
    qv_log_thread_param_t(const qv_log_thread_param_t&) = delete;
    qv_log_thread_param_t& operator=(const qv_log_thread_param_t&) = delete;
    ~qv_log_thread_param_t();
};

// A fresh time-based UUID in lower-case text (36 characters); empty on failure.
std::string qv_log_generate_eventID();

// The envelope every log message starts with: LogVersion, Timestamp (UTC), Timestamp_epoch,
// Component, Hostname, EventID. Null when eventID is null or the envelope cannot be made.
qv::json_ptr qv_log_create_message_with_eventID(const char* eventID);
// The envelope with a fresh time-based event id.
qv::json_ptr qv_log_create_message();

// Adds {"LogData": data} under `key`, and a top-level "realmID" when realmID is non-empty.
// 0 or -1 (null msg or data).
int qv_log_add_log_section(json_object* msg, const char* key, const char* realmID,
                           qv::json_ptr data);
// Adds "ScanLog": {"ScanLogPath": ..., "LogData": data} and always a top-level "realmID".
// -1 only for a null msg.
int qv_log_add_scanlog_section(json_object* msg, const char* scanLogPath, const char* realmID,
                               qv::json_ptr data);

// Builds an event message (Command 501, realmID and SID when given, the event section plain, or
// encrypted with `key` when one is given) and enqueues it as an 'E' entry. 0 or -1.
int qv_log_send_event(qv_pqueue* pq, int type, const char* realmID, const char* SID,
                      const char* filename, const char* error, const char* blockingReason,
                      const char* eventMessage, qv_secretbox_key_t* key);
// Stores the message's compact JSON text in the queue under `prefix` ('L' log, 'E' event). The
// caller keeps its message. 0 or -1.
int qv_log_enqueue(qv_pqueue* pq, char prefix, json_object* msg);

// The flat EPO record: LogType "EPOLog", Timestamp (now), EventID and the threat fields.
qv::json_ptr qv_log_create_epolog_json(int eventID, const char* filename, const char* threatName,
                                       const char* threatCategory, const char* threatType,
                                       const char* actionTaken, const char* libVersion,
                                       const char* datVersion);
// prefix (or "EventID:" when empty) followed by the message's "EventID" (or "not set").
std::string qv_log_create_delimited_eventID_string(const char* prefix, json_object* msg);

// Opens the queue "qv-av-control.pq" under rundir and starts the dequeue thread on it. Null when
// the thread cannot be started.
std::unique_ptr<qv_log_thread_param_t> qv_log_create_log_dispatcher(const char* rundir,
                                                                    qv_nats_config* cfg);
// The dequeue thread's body.
void qv_log_dequeue_thread(qv_log_thread_param_t* param);
// The pause after a failed send, given the pause before it: 250 ms more each time, up to 2000.
int qv_log_next_backoff_ms(int backoff_ms);

void qv_sleep_ms(int ms);
