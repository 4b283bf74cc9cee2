// EPO log service: hands the accumulated EPO log to its collector and empties it.
//
// Command 400 reads the EPO log file (basedir_epolog names the file itself here) and truncates it,
// all under epolog_mutex, which the log service holds around every EPO log append, so no line is
// appended between the read and the truncation. The content read is only traced; the requester
// gets no reply.
#pragma once

#include "qv_request_reply_types.h"
#include "qvctrl_config.h"

// Handler of "qv-av-epolog"; the context is the daemon's quorvale_control_config_t. 0 when the
// request was handled, -1 otherwise.
int qv_av_control_epolog_request_handler(void* context, qv_const_request_reply_t* rr);

// Hooks for a sender that forwards the EPO log by itself; there is none, so both do nothing.
int qvctrl_start_eposend(quorvale_control_config_t* config);
int qvctrl_check_eposend(int status);
