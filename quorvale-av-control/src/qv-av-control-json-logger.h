// JSON log service: the log requests of "qv-av-log" written as one JSON object per line, for log
// shippers, when the daemon is configured to log as JSON.
//
// Each scan, block, update, status and error section becomes its own "LogData" object with the
// envelope fields, the realm and its tenant added at its end ("LogVersion", "LogType",
// "TimestampEpoch", "Timestamp", "Component", "Hostname", "EventID", "RealmID", "Tenant",
// "RealmName", and "ScanLogPath" for scan lines), serialised plain with '/' unescaped and ended
// by CR LF. EPO sections are not written here. Files are scan.log, block.log, update.log,
// status.log and error.log under their base directories (a realm subdirectory when logs are split
// by realm); appending and size switching are the text log service's.
//
// On premises the tenant is "on-premises" and the realm name the broker's name. In cloud mode
// worker messages belong to the cluster (tenant = cluster name, realm name = broker name), a
// message that names its tenant and realm name keeps them, and a realm is looked up among the
// known tenants, asking the API gateway once when it is not known yet.
//
// Everything in a request comes from any client of the service: the realm must be one path
// component or the request is refused before anything is written, and every value is a JSON
// string in the line, so a CR or LF in a field never starts another line.
#pragma once

#include <optional>
#include <string>

#include <json-c/json.h>

#include "qv-av-control-logger.h"
#include "qv_request_reply_types.h"
#include "qvctrl_config.h"

// The lines of one request, one per section present (without CR LF).
struct qvctrl_json_log_lines {
    std::optional<std::string> scan;
    std::optional<std::string> block;
    std::optional<std::string> update;
    std::optional<std::string> status;
    std::optional<std::string> error;
};

// Handler of "qv-av-log" in JSON mode; the context is the daemon's quorvale_control_config_t.
// Replies {"ReturnCode": 0} once every line was written, or -1000 with the reason. 0 or -1.
int qv_av_control_json_logger_request_handler(void* context, qv_const_request_reply_t* rr);

// The envelope fields of a line but "LogVersion", realm and tenant: "Timestamp_epoch" (absent: 0
// with a warning), "Timestamp" (absent or empty: the epoch in UTC as "%F %H:%M:%S"), "Component"
// and "EventID" (required), "Hostname" (optional). False, with the reason, when one is missing.
bool qvctrl_json_log_read_common(json_object* message, qvctrl_log_common_t* common,
                                 std::string* reason = nullptr);

// One line for each section of the message that has a "LogData" object. 0 or -1.
int qvctrl_create_json_log_lines(json_object* message, const qvctrl_log_common_t& common,
                                 qvctrl_json_log_lines* lines);

// The line of the section `section_key`; *line stays empty when the message has no such section
// or it has no "LogData" object. 0 or -1.
int qvctrl_json_log_create_logline(json_object* message, const qvctrl_log_common_t& common,
                                   const char* section_key, std::optional<std::string>* line);

// Appends each line to its file (the realm's subdirectory when logs are split by realm; a kind
// without base directory is not written). The number of lines that could not be written.
int qvctrl_write_json_log(quorvale_control_config_t* config, const std::string& realm,
                          const qvctrl_json_log_lines& lines);
