// Messages and request/reply records shared by every transport (NATS, AMQP, HTTP gateway), the
// service handler signature, the request command codes and the scan result codes.
#pragma once

#include <string>
#include <vector>

// A message: the JSON document plus an optional binary payload. An empty json_txt means the
// message has no body.
struct qv_message_t {
    std::string json_txt;
    std::vector<unsigned char> data;
    // Key under which the payload was already staged in the key-value store; when non-empty the
    // transport sends this key instead of staging `data` itself.
    std::string staged_data_key;

    size_t data_len() const { return data.size(); }
};

// The request side is read-only to the service handler.
using qv_const_message_t = const qv_message_t;

struct qv_request_reply_t {
    qv_message_t request;
    qv_message_t reply;
};

// What a service handler receives: it reads `request` and fills `reply`.
struct qv_const_request_reply_t {
    qv_const_message_t* request = nullptr;
    qv_message_t* reply = nullptr;
};

// Service handler: opaque context registered by the starter of the service threads; returns 0 on
// success, negative on failure.
using qv_service_handler_t = int (*)(void* context, qv_const_request_reply_t* rr);

// Drops the message's JSON text and payload; the staged key is left as it is.
void qv_message_free(qv_message_t* message);

enum qv_command_code {
    SERVICE_GET_INFO = 1,
    CLIENT_SERVICE_REQUEST = 2,
    PING_SERVICE = 3,
    SERVICE_REPORT_READY = 4,
    CLIENT_GET_TENANT_ID = 5,
    CONSOLIDATED_INIT = 6,
    CONTROL_SERVICE_SHUTDOWN = 9,
    CONTROL_SERVICE_CLEAR_CONFIG_CACHE = 10,
    CONTROL_GET_CONTROL_CONFIG_HASH = 11,
    CONTROL_SERVICE_CLEAR_ALL_CONFIG_CACHE = 12,
    SCAN_GET_CONFIG = 100,
    SCAN_ONLY = 101,
    SCAN_CLEAN = 102,
    SERVICE_WORKER_REGISTER = 200,
    SERVICE_WORKER_HWM_EXCEEDED = 201,
    SERVICE_WORKER_LWM_EXCEEDED = 202,
    SERVICE_GET_ACTIVECONTENT_CONFIG = 203,
    SERVICE_GET_MIME_EXT_MAP = 204,
    SERVICE_GET_MIME_TRANSLATIONS = 205,
    EPOLOG_GET_LOG = 400,
    EVENTHANDLER_REGISTRATION = 500,
    EVENTHANDLER_HANDLE_EVENT = 501,
    QUARANTINE_STORE_FILE = 600,
};

enum qv_scan_result_code {
    NOT_SET = 1000,
    SCAN_RECURSIVE_OK = 1,
    SCAN_OK = 0,
    SCAN_NOT_COMPLETED = -100,
    SCAN_FILE_CLEANED = -101,
    SCAN_RESULT_BLOCK = -199,
    SCAN_POLICY_VIOLATION = -200,
    SCAN_ACTIVE_CONTENT_FOUND = -202,
    SCAN_VIRUS_FOUND = -210,
    SERVICE_NO_DATA = 301,
    SERVICE_ERROR = -1000,
};
