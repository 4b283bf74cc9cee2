// libcurl's verbose output into the trace log at trace level instead of standard error: its own
// texts and the headers both ways, one log line per line, escaped and cut short. Bodies and TLS
// records stay out, and the credentials of an Authorization or Proxy-Authorization header never
// reach the log (only the header's name and scheme are shown).
#pragma once

#include <curl/curl.h>

// A CURLOPT_DEBUGFUNCTION; set it with CURLOPT_VERBOSE.
int qvhlp_curl_trace(CURL* handle, curl_infotype type, char* data, size_t size, void* user);
