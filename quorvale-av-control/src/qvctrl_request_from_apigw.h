// Configuration fetch from the API gateway: one HTTPS GET of
// <apigw_url>/configurations/control?realmId=<realm>&sidName=<SID> with Basic auth, which delivers
// the realm's tenant (recorded in config->tenants) and its four configurations, each a
// base64-encoded JSON text.
//
// The transfer follows the gateway rules of qvctrl_apigw_transfer (trust store or operator CA
// bundle, 10 s / 30 s timeouts, verbose output in the trace log).
#pragma once

#include "qv_handles.h"
#include "qvctrl_apigw_transfer.h"
#include "qvctrl_config.h"

// The reply buffer, in bytes, with room for a terminator: a body of this size or more is refused.
inline constexpr size_t QVCTRL_APIGW_MAX_REPLY = 262144;

// 0 on success, non-zero on failure (logged). Each output that is not null receives its parsed
// configuration; outputs filled before a later failure keep what they received.
int qvctrl_get_configurations_from_apigw(quorvale_control_config_t* config, const char* realmID,
                                         const char* SID, qv::json_ptr* scanparameters_out,
                                         qv::json_ptr* mimeext_out,
                                         qv::json_ptr* mimetranslations_out,
                                         qv::json_ptr* activecontent_out);
