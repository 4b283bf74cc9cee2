// EPO log service: hands the accumulated EPO log to its collector and empties it.
//
// Command 400 reads the EPO log and truncates it, all under epolog_mutex, which the log service
// holds around every EPO log append, so no line is appended between the read and the truncation.
// The lines read go back to the requester in the reply, {"ReturnCode": 0, "Log": "<lines>"}: the
// file is emptied, so a reply without them would lose them. Without an EPO log the reply is
// {"ReturnCode": 301}; a log that cannot be read or emptied gives -1000 with the reason and stays
// as it is. Every request gets a reply: a refused command or an undecodable request
// {"ReturnCode": -1}.
//
// The EPO log is basedir_epolog itself, or, when that names a directory, the "epo.log" in it,
// which the log service fills when logs are not split by realm.
#pragma once

#include "qv_request_reply_types.h"
#include "qvctrl_config.h"

// Handler of "qv-av-epolog"; the context is the daemon's quorvale_control_config_t. 0 when the
// request was handled, -1 otherwise.
int qv_av_control_epolog_request_handler(void* context, qv_const_request_reply_t* rr);

// Hooks for a sender that forwards the EPO log by itself; there is none, so both do nothing.
int qvctrl_start_eposend(quorvale_control_config_t* config);
int qvctrl_check_eposend(int status);
