// Log service: appends the log sections of each request to the scan, EPO, block, update, status and
// error logs.
#pragma once

#include "qv_request_reply_types.h"

int qv_av_control_logger_request_handler(void* context, qv_const_request_reply_t* rr);
int qv_av_control_json_logger_request_handler(void* context, qv_const_request_reply_t* rr);
