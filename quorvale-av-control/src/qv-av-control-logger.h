// Log service: appends the log sections of each request to the scan, EPO, block, update, status and
// error logs.
//
// Each log kind has its own base directory (an empty one switches the kind off), optionally split
// into one subdirectory per realm. Every append happens under the configuration's
// log_write_mutex (EPO log appends take epolog_mutex first), so lines of concurrent requests never
// interleave; every log but the EPO log is switched into a zip archive once it reaches
// max_logfile_size_MB.
//
// Requests come from any client of the service, so nothing they carry is trusted: every text
// field of a line is escaped (a CR or LF in a field never starts a forged line), the realm id
// must be one path component and the scan log path a relative path that names no other kind's
// log; a request with a bad realm or scan log path is refused as a whole before anything is
// written. Only the configured base directory is expanded, never text from a request. A line is
// appended whole with one write to an O_APPEND descriptor or, when that fails, cut off again;
// a line that could not be written makes the reply a failure.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <json-c/json.h>

#include "qv_request_reply_types.h"
#include "qvctrl_config.h"

// The envelope fields every log message carries.
struct qvctrl_log_common_t {
    int logVersion = 0;
    std::string timestamp;
    int64_t epoch = 0;
    std::string component;
    std::string source;  // the sender's host name
    std::string eventID;
    std::string realmID;
    std::string tenantID;
    std::string realmName;
};

// Handler of "qv-av-log"; the context is the daemon's quorvale_control_config_t. Replies
// {"ReturnCode": 0} once the envelope is valid and every line the request asked for was written
// (a missing or incomplete section is only logged), or -1000 with the reason. 0 or -1.
int qv_av_control_logger_request_handler(void* context, qv_const_request_reply_t* rr);
int qv_av_control_json_logger_request_handler(void* context, qv_const_request_reply_t* rr);

// Section writers: 0 when a line was written, -1 otherwise (a missing section included).
int qvctrl_log_write_scanlog(json_object* message, quorvale_control_config_t* config,
                             const qvctrl_log_common_t& common);
int qvctrl_log_write_epolog(json_object* message, quorvale_control_config_t* config,
                            const qvctrl_log_common_t& common);
int qvctrl_log_write_blocklog(json_object* message, quorvale_control_config_t* config,
                              const qvctrl_log_common_t& common);
// Update, status and error logs: one "Message" line under `section_key`.
int qvctrl_log_write_common(json_object* message, quorvale_control_config_t* config,
                            const qvctrl_log_common_t& common, const char* section_key,
                            const std::string& basedir, const char* filename);

// "<basedir>/[<subdir>/]<filename>" normalised, with its directory created. Only the base
// directory is expanded (environment references, '~'): subdir and filename come from requests and
// are taken literally. Null when the base directory is empty, its expansion fails, or the result
// would not lie strictly inside the base directory.
std::optional<std::string> qvctrl_log_build_filename(const std::string& basedir,
                                                     const std::string& subdir,
                                                     const std::string& filename);
// Appends the line under log_write_mutex, after the size switch check when `check_switch` is set
// and the file exists; "\r\n" is added when `add_crlf` is set. The line is written whole or not
// at all: a failed or short write cuts the file back to its former size. -1 when the file cannot
// be opened or the line not written.
int qvctrl_log_append_to_file(quorvale_control_config_t* config, const char* path,
                              const std::string& line, int check_switch, int add_crlf);
// Archives the file when it has reached max_logfile_size_MB * 1000000 bytes. Called with
// log_write_mutex held. 0 or -1.
int qvctrl_log_check_logswitch(quorvale_control_config_t* config, const char* path);
int qvctrl_log_switch_logfile(const char* path);
