// The control services of workers (service side) and of scan clients (client side).
#pragma once

#include "qv_request_reply_types.h"

int qv_av_control_worker_service_request_handler(void* context, qv_const_request_reply_t* rr);
int qv_av_control_worker_client_request_handler(void* context, qv_const_request_reply_t* rr);
