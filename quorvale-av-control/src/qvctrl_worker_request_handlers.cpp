#include "qvctrl_worker_request_handlers.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <exception>
#include <string>

#include "log.h"
#include "qv_json.h"
#include "qv_handles.h"
#include "qv_validate.h"
#include "qvctrl_adjust_worker_capacity.h"
#include "qvctrl_client_services.h"
#include "qvctrl_config.h"
#include "qvctrl_scan_config_requests.h"
#include "qvhlp_replies.h"

qv::json_ptr qvctrl_decode_request(const std::string& text) {
    const char* error = nullptr;
    qv::json_ptr request = qv_json_parse_object(text, &error);
    if (!request) {
        if (error != nullptr && strcmp(error, "Failed to create JSON tokener") == 0) {
            log_error("Failed to create JSON tokener");
        } else {
            // The offending text is deliberately not printed.
            log_error("Failed to parse JSON. Errorcode: %s. JSON: \n",
                      error != nullptr ? error : "unknown");
        }
    }
    return request;
}

namespace {

// How much of a request the trace log shows when it dumps one.
constexpr size_t s_request_dump_max = 4096;

// One command a service accepts: the handler that builds its reply, a line logged before the
// handler runs, and the error logged when the handler left no reply text (the reply is sent all
// the same).
struct s_command_row {
    int command;
    qv_message_t (*handler)(quorvale_control_config_t* config, json_object* request);
    const char* trace_line;
    const char* debug_line;
    const char* error_text;
};

// The service and client sides: their commands, and what each side logs around a dispatch.
struct s_service_table {
    const s_command_row* rows;
    size_t count;
    bool client_side;  // logs the request and its command code; never dumps an invalid request
};

qv_message_t s_ping(quorvale_control_config_t*, json_object*) {
    qv_message_t reply;
    qv_reply_set_OK(&reply);
    return reply;
}

// Scan workers: registration, their configurations, pings.
constexpr s_command_row s_service_rows[] = {
    {PING_SERVICE, s_ping, "Got PING_SERVICE message", nullptr, nullptr},
    {CONTROL_GET_CONTROL_CONFIG_HASH, qvctrl_handle_get_control_config_hash, nullptr, nullptr,
     nullptr},
    {SERVICE_WORKER_REGISTER, qvctrl_handle_service_registration, nullptr, nullptr, nullptr},
    {SERVICE_GET_ACTIVECONTENT_CONFIG, qvctrl_handle_get_activecontent_config, nullptr,
     "Got SERVICE_GET_ACTIVECONTENT_CONFIG message", nullptr},
    {SERVICE_GET_MIME_EXT_MAP, qvctrl_handle_get_mime_config, nullptr, nullptr, nullptr},
    {SERVICE_GET_MIME_TRANSLATIONS, qvctrl_handle_get_mime_config, nullptr, nullptr, nullptr},
};

// Scan clients: initialisation, VSA configuration, tenant lookup.
constexpr s_command_row s_client_rows[] = {
    {CLIENT_SERVICE_REQUEST,
     [](quorvale_control_config_t* c, json_object* r) {
         return qvctrl_handle_client_services_request(r, c);
     },
     nullptr, nullptr, "Failed to handle Client Service Request"},
    {PING_SERVICE, s_ping, "Got PING_SERVICE message", nullptr, nullptr},
    {CLIENT_GET_TENANT_ID,
     [](quorvale_control_config_t* c, json_object* r) { return qvctrl_handle_get_tenantID(r, c); },
     nullptr, nullptr, "Failed to handle get tenant ID request"},
    {CONSOLIDATED_INIT,
     [](quorvale_control_config_t* c, json_object* r) {
         return qvctrl_handle_consolidated_init(r, c);
     },
     nullptr, nullptr, "Failed to handle consolidated init request"},
    {SCAN_GET_CONFIG,
     [](quorvale_control_config_t* c, json_object* r) {
         return qvctrl_handle_get_vsa_config(r, c);
     },
     nullptr, nullptr, "Failed to handle get VSA config request"},
};

constexpr s_service_table s_service_side = {s_service_rows, std::size(s_service_rows), false};
constexpr s_service_table s_client_side = {s_client_rows, std::size(s_client_rows), true};

// Decodes the request, runs the row of its "Command" and stores that row's reply. 0 when it ran
// to a decision (an unknown command included), -1 when the request could not be decoded; an
// unknown command leaves the reply empty.
int s_dispatch(const s_service_table& table, quorvale_control_config_t* config,
               qv_const_request_reply_t* rr) {
    if (table.client_side) {
        log_trace("Dispatching the message/task");
        log_trace("qv-av-control service got message: %s",
                  qv_escape_for_log(rr->request->json_txt, s_request_dump_max).c_str());
    }
    qv::json_ptr request = qvctrl_decode_request(rr->request->json_txt);
    if (!request) {
        return -1;
    }
    const int command = qv_json_get_command(request.get(), -1);
    if (table.client_side) {
        log_debug("CommandCode: %d", command);
    }
    const s_command_row* row =
        std::find_if(table.rows, table.rows + table.count,
                     [command](const s_command_row& r) { return r.command == command; });
    if (row == table.rows + table.count) {
        log_error("Ignoring invalid request: %d", command);
        if (!table.client_side) {
            log_error("Complete request:\n%s",
                      qv_escape_for_log(rr->request->json_txt, s_request_dump_max).c_str());
        }
        return 0;
    }
    if (row->trace_line != nullptr) {
        log_trace("%s", row->trace_line);
    }
    if (row->debug_line != nullptr) {
        log_debug("%s", row->debug_line);
    }
    *rr->reply = row->handler(config, request.get());
    if (row->error_text != nullptr && rr->reply->json_txt.empty()) {
        log_error("%s", row->error_text);
    }
    return 0;
}

int s_dispatch_service_side(quorvale_control_config_t* config, qv_const_request_reply_t* rr) {
    return s_dispatch(s_service_side, config, rr);
}

int s_dispatch_client_side(quorvale_control_config_t* config, qv_const_request_reply_t* rr) {
    return s_dispatch(s_client_side, config, rr);
}

// Runs a dispatcher; a reply it left without a body becomes {"ReturnCode": <status>}, so an
// invalid command is answered 0 and an undecodable request -1.
int s_handle(const char* side,
             int (*dispatch)(quorvale_control_config_t*, qv_const_request_reply_t*), void* context,
             qv_const_request_reply_t* rr) {
    if (rr == nullptr || rr->request == nullptr || rr->reply == nullptr) {
        log_error("Invalid request");
        return -1;
    }
    int rc = -1;
    try {
        rc = dispatch(static_cast<quorvale_control_config_t*>(context), rr);
    } catch (const std::exception& e) {
        log_error("%s request handler failed: %s", side, e.what());
        rc = -1;
    }
    if (rr->reply->json_txt.empty()) {
        log_warn("Creating generic error reply");
        qv_reply_set_return_code(rr->reply, rc);
    }
    return rc;
}

}  // namespace

int qv_av_control_worker_service_request_handler(void* context, qv_const_request_reply_t* rr) {
    return s_handle("service-side", s_dispatch_service_side, context, rr);
}

int qv_av_control_worker_client_request_handler(void* context, qv_const_request_reply_t* rr) {
    return s_handle("client-side", s_dispatch_client_side, context, rr);
}
