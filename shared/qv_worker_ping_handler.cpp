#include "qv_worker_ping_handler.h"

#include "log.h"
#include "qv_handles.h"
#include "qv_json.h"
#include "qvhlp_replies.h"

int qv_worker_ping_request_handler(void* /*context*/, qv_const_request_reply_t* rr) {
    log_trace("Entering");
    int rc = -1;
    qv::json_ptr request;
    if (rr == nullptr || rr->request == nullptr || rr->reply == nullptr ||
        rr->request->json_txt.empty()) {
        log_error("Invalid request");
        if (rr != nullptr && rr->reply != nullptr && rr->reply->json_txt.empty()) {
            log_warn("Creating generic error reply");
            qv_reply_set_return_code(rr->reply, rc);
        }
        log_trace("Exiting, rc=%d", rc);
        return rc;
    }
    qv::json_tokener_ptr tok(json_tokener_new());
    if (!tok) {
        log_error("Failed to create JSON tokener");
    } else {
        const std::string& text = rr->request->json_txt;
        request.reset(
            json_tokener_parse_ex(tok.get(), text.c_str(), static_cast<int>(text.size())));
        if (!request) {
            log_error("Failed to parse JSON. Errorcode: %s. JSON: \n",
                      json_tokener_error_desc(json_tokener_get_error(tok.get())));
        } else {
            const int command = qv_json_get_command(request.get(), -1);
            if (command != PING_SERVICE) {
                log_error("Invalid command code: %d", command);
            } else {
                rc = qv_reply_set_OK(rr->reply);
            }
        }
    }
    if (rr->reply->json_txt.empty()) {
        log_warn("Creating generic error reply");
        qv_reply_set_return_code(rr->reply, rc);
    }
    log_trace("Exiting, rc=%d", rc);
    return rc;
}
