// Helpers of the daemon's HTTP transfers. libcurl's verbose output goes into the trace log at
// trace level instead of standard error: its own texts and the headers both ways, one log line
// per line, escaped and cut short. Bodies and TLS records stay out, and the credentials of an
// Authorization or Proxy-Authorization header never reach the log (only the header's name and
// scheme are shown); nor does a proxy password. A private CA is named by the usual environment
// variables; otherwise the system trust store verifies servers.
#pragma once

#include <string>

#include <curl/curl.h>

// A CURLOPT_DEBUGFUNCTION; set it with CURLOPT_VERBOSE.
int qvhlp_curl_trace(CURL* handle, curl_infotype type, char* data, size_t size, void* user);

// The proxy URL as a log line may show it: a password in its user part is masked.
std::string qvhlp_curl_proxy_for_log(const std::string& proxy);

// The CA bundle an operator named for a private CA (CURL_CA_BUNDLE, else SSL_CERT_FILE), or null
// for the system trust store.
const char* qvhlp_curl_ca_bundle();
