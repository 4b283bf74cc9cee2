#include "qvhlp_replies.h"

#include <cstdio>

#include "log.h"
#include "qvhlp_string.h"

int qv_reply_set_OK(qv_message_t* reply) {
    return qv_reply_set_return_code(reply, 0);
}

int qv_reply_set_return_code(qv_message_t* reply, int rc) {
    if (reply == nullptr) {
        log_error("Failed to allocate %s", "*json_txt");
        return -1;
    }
    char text[64];
    snprintf(text, sizeof(text), "{\"ReturnCode\": %d}", rc);
    reply->json_txt = text;
    return 0;
}

int qv_reply_set_ERROR(qv_message_t* reply, int rc, const char* text) {
    if (reply == nullptr) {
        log_error("Failed to allocate %s", "*json_txt");
        return -1;
    }
    const char* reason = text != nullptr ? text : "(null)";
    if (!qvhlp_format(&reply->json_txt, "{\"ReturnCode\": %d, \"Error\": \"%s\"}", rc, reason)) {
        log_error("Failed to allocate %s", "*json_txt");
        return -1;
    }
    return 0;
}
