// Configuration requests of workers and scan clients.
#pragma once

#include <json-c/json.h>

#include "qv_request_reply_types.h"
#include "qvctrl_config.h"

// Command 11: {"ReturnCode": -1000, "Confighash": "<confighash>"}. The code is -1000 although the
// hash is delivered; workers read "Confighash" and do not take the code as a failure.
qv_message_t qvctrl_handle_get_control_config_hash(quorvale_control_config_t* config,
                                                   json_object* request);
