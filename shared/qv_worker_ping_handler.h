// Handler of the ping service: {"Command": 3} is answered with {"ReturnCode": 0}.
#pragma once

#include "qv_request_reply_types.h"

int qv_worker_ping_request_handler(void* context, qv_const_request_reply_t* rr);
