#include "qvctrl_scan_config_requests.h"

#include <cstdio>
#include <string>

#include "log.h"
#include "qvhlp_string.h"

qv_message_t qvctrl_handle_get_control_config_hash(quorvale_control_config_t* config,
                                                   json_object* /*request*/) {
    const char* hash = config != nullptr ? config->confighash.c_str() : "";
    qv_message_t reply;
    qvhlp_format(&reply.json_txt, "{ \"ReturnCode\": %d, \"Confighash\": \"%s\"}", SERVICE_ERROR,
                 hash);
    return reply;
}
