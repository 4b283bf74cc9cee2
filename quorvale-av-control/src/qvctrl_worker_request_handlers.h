// The control services of workers ("qv-av-worker-control", service side: ping, configuration hash,
// registration) and of scan clients ("qv-av-control", client side: service announcement, ping).
// Each dispatcher decodes the request, picks the handler by "Command" and stores its reply; an
// unknown command is logged and answered {"ReturnCode": 0}, text that is not JSON
// {"ReturnCode": -1}.
#pragma once

#include <string>

#include "qv_handles.h"
#include "qv_request_reply_types.h"

// A request of any control service (and a gateway answer or a delivered configuration, which must
// be objects as well): null (logged) unless the whole text is one JSON object. Trailing text, an
// embedded NUL included, and any other JSON value are undecodable.
qv::json_ptr qvctrl_decode_request(const std::string& text);

// Context: the daemon's configuration record. 0 when the request was decoded (an unknown command
// included), -1 when it was not.
int qv_av_control_worker_service_request_handler(void* context, qv_const_request_reply_t* rr);
int qv_av_control_worker_client_request_handler(void* context, qv_const_request_reply_t* rr);
