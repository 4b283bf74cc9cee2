// EPO log service: hands the accumulated EPO log to its collector and empties it.
#pragma once

#include "qv_request_reply_types.h"

int qv_av_control_epolog_request_handler(void* context, qv_const_request_reply_t* rr);
