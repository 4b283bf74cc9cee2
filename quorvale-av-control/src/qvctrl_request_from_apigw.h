// Configuration fetch from the API gateway: one HTTPS GET of
// <apigw_url>/configurations/control?realmId=<realm>&sidName=<SID> with Basic auth, which delivers
// the realm's tenant (recorded in config->tenants) and its four configurations, each a
// base64-encoded JSON text.
//
// The peer is verified against the system trust store, or against the CA bundle named by
// CURL_CA_BUNDLE (else SSL_CERT_FILE) when one is set, so that an operator with a private CA can
// point the daemon at it. A transfer never holds a handler thread for long: 10 s to connect, 30 s
// in all. libcurl's verbose output goes to the trace log at trace level.
#pragma once

#include "qv_handles.h"
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

// Tests only: replaces the 10 s connect and 30 s total timeouts of every later fetch.
void qvctrl_apigw_set_timeouts_for_tests(long connect_ms, long total_ms);
