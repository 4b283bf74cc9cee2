#include "qvhlp_replies.h"

#include <cstdio>

#include "log.h"

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
    int n = snprintf(nullptr, 0, "{\"ReturnCode\": %d, \"Error\": \"%s\"}", rc, reason);
    std::string out(static_cast<size_t>(n) + 1, '\0');
    snprintf(out.data(), out.size(), "{\"ReturnCode\": %d, \"Error\": \"%s\"}", rc, reason);
    out.resize(static_cast<size_t>(n));
    reply->json_txt = std::move(out);
    return 0;
}
