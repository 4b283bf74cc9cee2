#include "qvctrl_scan_config_requests.h"

#include <cstdio>
#include <string>

#include "log.h"

qv_message_t qvctrl_handle_get_control_config_hash(quorvale_control_config_t* config,
                                                   json_object* /*request*/) {
    const char* hash = config != nullptr ? config->confighash.c_str() : "";
    const int n =
        snprintf(nullptr, 0, "{ \"ReturnCode\": %d, \"Confighash\": \"%s\"}", SERVICE_ERROR, hash);
    std::string text(static_cast<size_t>(n) + 1, '\0');
    snprintf(text.data(), text.size(), "{ \"ReturnCode\": %d, \"Confighash\": \"%s\"}",
             SERVICE_ERROR, hash);
    text.resize(static_cast<size_t>(n));
    qv_message_t reply;
    reply.json_txt = std::move(text);
    return reply;
}
