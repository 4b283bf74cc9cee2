#include "qvctrl_worker_request_handlers.h"

#include <cstring>
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

int s_dispatch_service_side(quorvale_control_config_t* config, qv_const_request_reply_t* rr) {
    qv::json_ptr request = qvctrl_decode_request(rr->request->json_txt);
    if (!request) {
        return -1;
    }
    const int command = qv_json_get_command(request.get(), -1);
    switch (command) {
        case PING_SERVICE:
            log_trace("Got PING_SERVICE message");
            qv_reply_set_OK(rr->reply);
            break;
        case CONTROL_GET_CONTROL_CONFIG_HASH:
            *rr->reply = qvctrl_handle_get_control_config_hash(config, request.get());
            break;
        case SERVICE_WORKER_REGISTER:
            *rr->reply = qvctrl_handle_service_registration(config, request.get());
            break;
        default:
            log_error("Ignoring invalid request: %d", command);
            log_error("Complete request:\n%s",
                      qv_escape_for_log(rr->request->json_txt, s_request_dump_max).c_str());
            break;
    }
    return 0;
}

int s_dispatch_client_side(quorvale_control_config_t* config, qv_const_request_reply_t* rr) {
    log_trace("Dispatching the message/task");
    log_trace("qv-av-control service got message: %s",
              qv_escape_for_log(rr->request->json_txt, s_request_dump_max).c_str());
    qv::json_ptr request = qvctrl_decode_request(rr->request->json_txt);
    if (!request) {
        return -1;
    }
    const int command = qv_json_get_command(request.get(), -1);
    log_debug("CommandCode: %d", command);
    switch (command) {
        case CLIENT_SERVICE_REQUEST:
            *rr->reply = qvctrl_handle_client_services_request(request.get(), config);
            if (rr->reply->json_txt.empty()) {
                log_error("Failed to handle Client Service Request");
            }
            break;
        case PING_SERVICE:
            log_trace("Got PING_SERVICE message");
            qv_reply_set_OK(rr->reply);
            break;
        default:
            log_error("Ignoring invalid request: %d", command);
            break;
    }
    return 0;
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
