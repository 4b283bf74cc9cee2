// HTTP gateway client: one request to a service, sent as an HTTPS POST to an API gateway that
// forwards it to the service named in the "X-Target-Service" header. The request JSON travels as
// the multipart part "request", an optional binary payload as the part "payload"; the gateway
// answers with the service's reply JSON. One transfer handle per call, nothing kept between
// calls; the process-wide curl_global_init is the caller's business (done once at start-up).
#pragma once

#include <cstddef>
#include <string>

#include "qv_handles.h"

// Options of one gateway request. Empty texts mean "not set".
struct qv_gateway_opts_t {
    std::string proxy_host;             // HTTP proxy host; empty: no proxy
    std::string proxy_port;             // joined to the host as host:port when non-empty
    std::string proxy_user;             // proxy credentials are used only when user and
    std::string proxy_password;         // password are both set
    bool verify_peer = true;            // verify the gateway's certificate
    bool verify_host = true;            // verify that the certificate matches the host name
    std::string ca_path;                // CA bundle file; empty: the system store
    std::string servlet_path = "/vsi";  // appended to a gateway URL that has no path
};

// Resets every field: no proxy, no CA bundle, both verifications on, servlet path "/vsi".
void qv_gateway_opts_defaults(qv_gateway_opts_t* opts);

// POSTs `request_json` to the gateway for `target_service` and parses the reply. Basic
// authentication is used when `user` and `password` are both non-empty. `opts` may be null
// (defaults); `timeout_ms` bounds the whole transfer. Returns 0 with the parsed reply in
// *reply_json_out whatever its "ReturnCode", or -1 with *reply_json_out null and the reason in
// *errmsg (when given).
int qv_gateway_send_recv_json(const char* gateway_url, const char* user, const char* password,
                              const char* target_service, const char* request_json,
                              const qv_gateway_opts_t* opts, long timeout_ms,
                              qv::json_ptr* reply_json_out, std::string* errmsg);

// As qv_gateway_send_recv_json, with `body_len` bytes of `body` sent as the "payload" part; with
// no bytes only the "request" part is sent.
int qv_gateway_send_recv_scan(const char* gateway_url, const char* user, const char* password,
                              const char* target_service, const char* request_json,
                              const unsigned char* body, size_t body_len,
                              const qv_gateway_opts_t* opts, long timeout_ms,
                              qv::json_ptr* reply_json_out, std::string* errmsg);
