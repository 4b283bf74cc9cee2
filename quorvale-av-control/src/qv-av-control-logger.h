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

#include "qv_handles.h"
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

// The request handling both log services share (this one and the JSON log service).

// Runs `body` for a request on the configuration `context`: refuses null arguments, turns an
// exception into the -1000 reply, traces entry and exit. The body's result, or -1.
int qvctrl_log_run_handler(void* context, qv_const_request_reply_t* rr,
                           int (*body)(quorvale_control_config_t*, qv_const_request_reply_t*));
// Ends a request with the -1000 reply; `text` may carry request data or system texts. -1.
int qvctrl_log_refuse(qv_const_request_reply_t* rr, const std::string& text);
// The request as a JSON object; null, with the failure logged and replied, for anything else.
qv::json_ptr qvctrl_log_parse_request(qv_const_request_reply_t* rr);
// "LogVersion" (absent: 0, with a warning). False, with the reply text in *refusal, for a
// version newer than this daemon writes.
bool qvctrl_log_read_version(json_object* message, int* version, std::string* refusal);
// The top-level "realmID": absent, null or empty is no realm (*realm empty). Anything else must
// be one path component, since it names a directory when logs are split by realm. False, with
// the warning, for a refused realm.
bool qvctrl_log_read_realm(json_object* message, std::string* realm);
// The member `key` when it is an object; null otherwise.
json_object* qvctrl_log_get_object(json_object* parent, const char* key);
// An integer member; 0, with the warning "Object %s not found", when absent.
int64_t qvctrl_log_get_int64(json_object* object, const char* key);
// A required string member with every byte it holds; false, with the usual log line and its
// text in *reason, when missing, empty or not a string.
bool qvctrl_log_required_text(json_object* object, const char* key, std::string* out,
                              std::string* reason = nullptr);
// An optional member as text: a string with every byte it holds, another value as
// qv_json_get_optional_string gives it.
std::string qvctrl_log_optional_text(json_object* object, const char* key);
