// Services of scan clients: the announcement that a client is about to use a scan service.
#pragma once

#include <json-c/json.h>

#include "qv_request_reply_types.h"
#include "qvctrl_config.h"

// Command 2: checks "realmID", "SID", "Hostname" and "Servicename" (required, non-empty) and
// answers OK; a missing or empty one gives an ERROR reply -1 naming it. A realm or SID that is not
// one name, or a service name that is no key once normalised (lower case, trimmed, at most 255
// characters), gives an ERROR reply -1 "Invalid realm", "Invalid SID" or "Invalid service name".
qv_message_t qvctrl_handle_client_services_request(json_object* request,
                                                   quorvale_control_config_t* config);
