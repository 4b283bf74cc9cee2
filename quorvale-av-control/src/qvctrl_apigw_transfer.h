// The transfer rules every request to the API gateway follows, in one place: a GET with Basic
// auth; the peer verified against the system trust store, or against the CA bundle named by
// CURL_CA_BUNDLE (else SSL_CERT_FILE) when one is set, so that an operator with a private CA can
// point the daemon at it (libcurl does not read those variables by itself); the CA bundle cached
// for a week; an error status counted as a failed transfer; 10 s to connect and 30 s in all, so
// that no thread hangs on a silent gateway; libcurl's verbose output in the trace log at trace
// level; the configured HTTP proxy, logged with its password masked.
#pragma once

#include <string>

#include <curl/curl.h>

#include "qvctrl_config.h"

// Sets the shared options on `curl` for a GET of `url` with the gateway credentials of `config`;
// `error_buffer` (CURL_ERROR_SIZE bytes) receives the library's error text. The caller adds its
// receive function. CURLE_OK, or the code of the first option the library refused.
CURLcode qvctrl_apigw_set_transfer_options(CURL* curl, const std::string& url,
                                           const quorvale_control_config_t* config,
                                           char* error_buffer);

// Tests only: replaces the 10 s connect and 30 s total timeouts of every later transfer.
void qvctrl_apigw_set_timeouts_for_tests(long connect_ms, long total_ms);
