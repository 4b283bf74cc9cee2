#include "qv_request_reply_types.h"

void qv_message_free(qv_message_t* message) {
    if (message == nullptr) {
        return;
    }
    message->json_txt.clear();
    message->data.clear();
}
