// Reply formatters: the fixed texts of {"ReturnCode": n} and {"ReturnCode": n, "Error": "..."}.
// The error text is inserted verbatim (no JSON escaping); callers pass texts without quotes or
// backslashes.
#pragma once

#include "qv_request_reply_types.h"

int qv_reply_set_OK(qv_message_t* reply);
int qv_reply_set_return_code(qv_message_t* reply, int rc);
int qv_reply_set_ERROR(qv_message_t* reply, int rc, const char* text);
