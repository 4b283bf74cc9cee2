// Event service: subscriptions of event handlers and the dispatch of events to every matching
// handler.
#pragma once

#include "qv_request_reply_types.h"

int qv_av_control_event_request_handler(void* context, qv_const_request_reply_t* rr);
