#include "qv-av-control-logger.h"

#include "log.h"
#include "qvhlp_replies.h"

int qv_av_control_logger_request_handler(void* /*context*/, qv_const_request_reply_t* rr) {
    if (rr != nullptr && rr->reply != nullptr && rr->reply->json_txt.empty()) {
        log_warn("Creating generic error reply");
        qv_reply_set_return_code(rr->reply, -1);
    }
    return -1;
}

int qv_av_control_json_logger_request_handler(void* /*context*/, qv_const_request_reply_t* rr) {
    if (rr != nullptr && rr->reply != nullptr && rr->reply->json_txt.empty()) {
        log_warn("Creating generic error reply");
        qv_reply_set_return_code(rr->reply, -1);
    }
    return -1;
}
