// Services of scan clients: the consolidated init, which gives a starting client in one exchange
// its tenant, its scan configuration and the driver data of a registered worker for each scan
// service it names, and the announcement that a client is about to use a scan service.
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

// Command 6: {"ReplytoRequestID", "tenantID", "realmName", "SCAN", "Services", "ReturnCode": 0},
// or the fixed failure text with -1000; nothing partial. Each requested service waits up to 2 s
// for a worker to register, within a budget of about 11 s per request.
qv_message_t qvctrl_handle_consolidated_init(json_object* request,
                                             quorvale_control_config_t* config);
