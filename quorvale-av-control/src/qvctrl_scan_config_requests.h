// Configuration requests of workers and scan clients: the VSA scan configuration (100), the active
// content definitions (203), the MIME extension map and translations (204, 205), the tenant of a
// realm (5) and the daemon's configuration hash (11).
//
// Every configuration is looked up in the configuration bucket first. On a miss it is built from
// the files under <basedir>/config on premises (neither cloud_mode nor cloud_management), or
// filled from the API gateway in cloud mode, and written back so that every control instance
// finds it next time. A stored configuration is the wrapper object with one member ("SCAN",
// "Active-content-definition", "MIME-type-to-extensions", "MIME-translations").
#pragma once

#include <string>

#include <json-c/json.h>

#include "qv_handles.h"
#include "qv_request_reply_types.h"
#include "qvctrl_config.h"

// Longest "RequestID" a request may carry (it is echoed in the reply).
inline constexpr size_t QVCTRL_REQUEST_ID_MAX = 255;

qv_message_t qvctrl_handle_get_vsa_config(json_object* request, quorvale_control_config_t* config);
qv_message_t qvctrl_handle_get_tenantID(json_object* request, quorvale_control_config_t* config);
qv_message_t qvctrl_handle_get_activecontent_config(quorvale_control_config_t* config,
                                                    json_object* request);
// 204 and 205, told apart by "Command".
qv_message_t qvctrl_handle_get_mime_config(quorvale_control_config_t* config, json_object* request);
// Command 11: {"ReturnCode": -1000, "Confighash": "<confighash>"}. The code is -1000 although the
// hash is delivered; workers read "Confighash" and do not take the code as a failure.
qv_message_t qvctrl_handle_get_control_config_hash(quorvale_control_config_t* config,
                                                   json_object* request);

// The scan configuration of realm and SID (bucket, then files or the API gateway), or null.
qv::json_ptr qvctrl_compute_scan_config_json(quorvale_control_config_t* config, const char* realm,
                                             const char* SID);
// The tenant and realm name of a realm: "on-premises" and the broker name on premises; in cloud
// mode from the "tenant." bucket entry, else from the API gateway (then written to the bucket).
// 0, or -1.
int qvctrl_compute_tenant_info(quorvale_control_config_t* config, const char* realm,
                               std::string* out_tenantID, std::string* out_realmName);
// Deletes every "scan." entry of the bucket, so that the next request builds it anew. 0.
int qvctrl_release_scan_configurations(quorvale_control_config_t* config);
