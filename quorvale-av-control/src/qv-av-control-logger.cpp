#include "qv-av-control-logger.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <mutex>
#include <system_error>

#include <fcntl.h>
#include <libgen.h>
#include <sys/stat.h>
#include <unistd.h>

#include "log.h"
#include "qvhlp_string.h"
#include "qv_handles.h"
#include "qv_json.h"
#include "qv_validate.h"
#include "qvhlp_archive.h"
#include "qvhlp_path.h"
#include "qvhlp_replies.h"

namespace {

constexpr int s_supported_log_version = 1;

// What a section writer did. A skipped section (switched off, absent or incomplete) is only
// logged; a failed one (the line was due but could not be written) fails the request.
enum class s_written { line, skipped, failed };

// The member `key` when it is an object; null otherwise.
json_object* s_get_object(json_object* parent, const char* key) {
    json_object* member = nullptr;
    if (!json_object_object_get_ex(parent, key, &member) ||
        !json_object_is_type(member, json_type_object)) {
        return nullptr;
    }
    return member;
}

// Integer members that default to 0, with a warning, when absent.
json_object* s_get_number_member(json_object* object, const char* key) {
    json_object* member = nullptr;
    if (!json_object_object_get_ex(object, key, &member) || member == nullptr) {
        log_warn("Object %s not found", key);
        return nullptr;
    }
    return member;
}

int64_t s_get_int64(json_object* object, const char* key) {
    json_object* member = s_get_number_member(object, key);
    return member != nullptr ? json_object_get_int64(member) : 0;
}

int s_get_int(json_object* object, const char* key) {
    json_object* member = s_get_number_member(object, key);
    return member != nullptr ? json_object_get_int(member) : 0;
}

// A required string member with every byte it holds (a NUL inside included, which the line then
// shows escaped); false, with the usual log line and its text in *reason, when missing or empty.
bool s_required_text(json_object* object, const char* key, std::string* out,
                     std::string* reason = nullptr) {
    if (qv_json_get_required_string(object, key, reason) == nullptr) {
        return false;
    }
    *out = qv_json_get_text(object, key);
    return true;
}

// An optional member as text: a string with every byte it holds, another value as
// qv_json_get_optional_string gives it.
std::string s_optional_text(json_object* object, const char* key) {
    json_object* member = nullptr;
    if (json_object_object_get_ex(object, key, &member) &&
        json_object_is_type(member, json_type_string)) {
        return std::string(qv_json_get_text(object, key));
    }
    return qv_json_get_optional_string(object, key);
}

// A field of a log line: control characters escaped, so that it never ends the line. Kept: ';'
// stays as it is, as these logs have always been written; their readers know a value may hold one.
std::string s_field(const std::string& value) {
    return qv_escape_log_field(value);
}

// The value of a refused member for the warning: the text itself, or the JSON of another type.
std::string s_shown_value(json_object* member) {
    if (json_object_is_type(member, json_type_string)) {
        return std::string(json_object_get_string(member),
                           static_cast<size_t>(json_object_get_string_len(member)));
    }
    return qv_json_to_string(member);
}

// The top-level "realmID": absent, null or empty is no realm. Anything else must be one path
// component, since it becomes a directory when logs are split by realm. False, with the warning,
// for a refused realm.
bool s_read_realm(json_object* message, std::string* realm) {
    realm->clear();
    json_object* member = nullptr;
    if (!json_object_object_get_ex(message, "realmID", &member) || member == nullptr) {
        return true;
    }
    if (json_object_is_type(member, json_type_string)) {
        const std::string_view text = qv_json_get_text(message, "realmID");
        if (text.empty()) {
            return true;
        }
        if (qv_valid_name(text)) {
            *realm = text;
            return true;
        }
    }
    qv_log_refused("Invalid realm", s_shown_value(member));
    return false;
}

// "ScanLog"."ScanLogPath": a missing or empty one leaves *path empty (the section is then skipped
// as incomplete). Anything else must be a relative path below the scan log directory that names
// no other kind's log. False, with the warning, for a refused path.
bool s_read_scanlog_path(json_object* message, std::string* path) {
    path->clear();
    json_object* section = s_get_object(message, "ScanLog");
    json_object* member = nullptr;
    if (section == nullptr || !json_object_object_get_ex(section, "ScanLogPath", &member) ||
        member == nullptr) {
        return true;
    }
    if (json_object_is_type(member, json_type_string)) {
        const std::string_view text = qv_json_get_text(section, "ScanLogPath");
        if (text.empty()) {
            return true;
        }
        if (qv_valid_log_path(text)) {
            *path = text;
            return true;
        }
    }
    qv_log_refused("Invalid scan log path", s_shown_value(member));
    return false;
}

// The "LogData" object of a section; null, with the reason traced, when either is missing.
json_object* s_find_logdata(json_object* message, const char* section_key) {
    json_object* section = s_get_object(message, section_key);
    if (section == nullptr) {
        log_trace("Ignoring %s request - no %s object found", section_key, section_key);
        return nullptr;
    }
    json_object* logdata = s_get_object(section, "LogData");
    if (logdata == nullptr) {
        log_trace("Ignoring %s request - no LogData object found", section_key);
        return nullptr;
    }
    return logdata;
}

// Both paths normalised: true when `path` names something strictly below `base`.
bool s_lies_inside(const std::string& base, const std::string& path) {
    if (base == "/") {
        return path.size() > 1 && path[0] == '/';
    }
    if (base == ".") {
        return !path.empty() && path[0] != '/' && path != "." && path != ".." &&
               path.compare(0, 3, "../") != 0;
    }
    return path.size() > base.size() + 1 && path.compare(0, base.size(), base) == 0 &&
           path[base.size()] == '/';
}

// 0, or -1 with errno set.
int s_CreatePathIfNotExists(const std::string& path) {
    if (path.empty()) {
        log_error("Path is NULL or empty");
        errno = EINVAL;
        return -1;
    }
    std::string copy = path;
    const std::string dir = dirname(copy.data());
    struct stat st {};
    if (stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
        return 0;
    }
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    if (ec && ec.value() != EEXIST) {
        log_error("Failed to create directory structure %s: %s", dir.c_str(), ec.message().c_str());
        errno = ec.value();
        return -1;
    }
    return 0;
}

// qvctrl_log_build_filename, telling a refused path apart from a failed expansion so that the
// writers do not report a refusal as an allocation failure.
std::optional<std::string> s_build_filename(const std::string& basedir, const std::string& subdir,
                                            const std::string& filename, bool* refused) {
    *refused = false;
    if (basedir.empty()) {
        log_error("No basedir configured for log file");
        return std::nullopt;
    }
    // Only the configured base directory may name environment variables or '~'; the realm and
    // the file name come from a request and are joined as they are.
    std::optional<std::string> base = qvhlp_expand_path(basedir);
    if (!base) {
        log_error("Failed to allocate %s", "expanded");
        return std::nullopt;
    }
    const std::string base_normalized = qvhlp_unix_path_normalize(*base);
    std::string joined = base_normalized;
    if (!subdir.empty()) {
        joined += '/';
        joined += subdir;
    }
    joined += '/';
    joined += filename;
    std::string normalized = qvhlp_unix_path_normalize(joined);
    // The callers have checked the realm and the file name already; this keeps a path that
    // still leads out of the base directory from being written or created.
    if (!s_lies_inside(base_normalized, normalized)) {
        log_error("Refusing log file %s: it lies outside of its base directory %s",
                  qv_escape_for_log(normalized, 4096).c_str(),
                  qv_escape_for_log(base_normalized, 4096).c_str());
        *refused = true;
        return std::nullopt;
    }
    s_CreatePathIfNotExists(normalized);
    return normalized;
}

// Path building and directory creation of a writer, with the writer's word for the path in the
// error lines. Empty, with errno set, when the line cannot be written.
std::string s_writer_path(const std::string& basedir, const std::string& subdir,
                          const std::string& filename, const char* what) {
    bool refused = false;
    std::optional<std::string> path = s_build_filename(basedir, subdir, filename, &refused);
    if (!path) {
        if (!refused) {
            log_error("Failed to allocate %s", what);
        }
        errno = refused ? EPERM : ENOMEM;
        return "";
    }
    if (path->empty()) {
        log_error("Empty string %s", what);
        errno = EINVAL;
        return "";
    }
    if (s_CreatePathIfNotExists(*path) != 0) {
        const int error = errno;
        log_error("Failed to create directory structure %s", path->c_str());
        errno = error;
        return "";
    }
    return *path;
}

// The text of a line for the trace log: without its CR LF, so that the trace line stays one line.
std::string s_shown_line(const std::string& line) {
    std::string shown = line;
    while (!shown.empty() && (shown.back() == '\n' || shown.back() == '\r')) {
        shown.pop_back();
    }
    return shown;
}

// The reply text of a section whose line could not be written, for the system error `error`.
std::string s_failure_text(const char* section_key, int error) {
    std::string text = std::string("Failed to write log line for ") + section_key;
    if (error != 0) {
        text += ": ";
        text += strerror(error);
    }
    return text;
}

// Appends `text` whole or not at all. 0, or -1 with errno set.
int s_append(quorvale_control_config_t* config, const char* path, const std::string& text,
             bool check_switch) {
    std::lock_guard<std::mutex> lock(config->log_write_mutex);
    struct stat st {};
    if (check_switch && stat(path, &st) == 0) {
        qvctrl_log_check_logswitch(config, path);
    }
    qv::unique_fd fd(open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666));
    if (!fd) {
        const int error = errno;
        log_error("Could not open %s for appending: %s", path, strerror(error));
        errno = error;
        return -1;
    }
    struct stat before {};
    if (fstat(fd.get(), &before) != 0) {
        const int error = errno;
        log_error("Error writing to %s: %s", path, strerror(error));
        errno = error;
        return -1;
    }
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = write(fd.get(), text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            // n == 0 makes no progress either: treat it as a full device.
            const int error = n < 0 ? errno : ENOSPC;
            log_error("Error writing to %s: %s", path, strerror(error));
            // The part that reached the file would be the start of a torn line that the next
            // line continues: cut it off again.
            if (done > 0 && S_ISREG(before.st_mode) && ftruncate(fd.get(), before.st_size) != 0) {
                log_error("Failed to cut the torn line off %s: %s", path, strerror(errno));
            }
            errno = error;
            return -1;
        }
        done += static_cast<size_t>(n);
    }
    return 0;
}

// Appends a writer's line; on failure logs it (the scan log in its own wording) and fills
// *failure with the reply text.
s_written s_append_line(quorvale_control_config_t* config, const std::string& path,
                        const std::string& line, bool check_switch, const char* section_key,
                        std::string* failure) {
    if (s_append(config, path.c_str(), line, check_switch) != 0) {
        const int error = errno;
        if (strcmp(section_key, "ScanLog") == 0) {
            log_error("Failed to write log line \"%s\": %s", s_shown_line(line).c_str(),
                      path.c_str());
        } else {
            log_error("Failed to write log line \"%s\" to %s", s_shown_line(line).c_str(),
                      path.c_str());
        }
        *failure = s_failure_text(section_key, error);
        return s_written::failed;
    }
    return s_written::line;
}

// The fields shared by scan and block log lines, escaped.
struct s_scan_fields {
    std::string sid;
    std::string filename;
    int64_t file_size = 0;
    std::string mime_type;
    std::string result_text;
    std::string reason_text;
    int64_t duration = 0;
};

bool s_read_scan_fields(json_object* logdata, s_scan_fields* f) {
    f->sid = s_field(s_optional_text(logdata, "SID"));
    std::string text;
    if (!s_required_text(logdata, "Filename", &text)) {
        return false;
    }
    f->filename = s_field(text);
    f->file_size = s_get_int64(logdata, "File-size");
    if (!s_required_text(logdata, "MIME-type", &text)) {
        return false;
    }
    f->mime_type = s_field(text);
    if (!s_required_text(logdata, "Result-Text", &text)) {
        return false;
    }
    f->result_text = s_field(text);
    f->reason_text = s_field(s_optional_text(logdata, "Reason-Text"));
    f->duration = s_get_int64(logdata, "Duration");
    return true;
}

// The envelope fields every line starts with, escaped.
struct s_head_fields {
    std::string timestamp;
    std::string component;
    std::string event_id;
    std::string source;
    explicit s_head_fields(const qvctrl_log_common_t& common)
        : timestamp(s_field(common.timestamp)),
          component(s_field(common.component)),
          event_id(s_field(common.eventID)),
          source(s_field(common.source)) {}
};

// The EPO console's product code of the sending component; empty for other components.
const char* s_epo_product_code(const std::string& component) {
    if (component == "qv-av-trellix") {
        return "SEA";
    }
    if (component == "qv-av-control") {
        return "CTL";
    }
    if (component == "VSA") {
        return "VSA";
    }
    return "";
}

// The realm subdirectory for logs that may be written without a realm; false when the request's
// realm is refused.
bool s_realm_subdir(json_object* message, const quorvale_control_config_t* config,
                    std::string* subdir) {
    std::string realm;
    if (!s_read_realm(message, &realm)) {
        return false;
    }
    *subdir = config->log->split_logs_by_realm ? realm : "";
    return true;
}

// Scan and block log lines differ in their file name (given by the request or fixed), the unit
// after the file size and their words in the error lines.
s_written s_write_scan_or_block(json_object* message, quorvale_control_config_t* config,
                                const qvctrl_log_common_t& common, bool scan,
                                std::string* failure) {
    const char* section_key = scan ? "ScanLog" : "BlockLog";
    const std::string& basedir =
        scan ? config->log->basedir_scanlog : config->log->basedir_blocklog;
    if (basedir.empty()) {
        log_trace(scan ? "Ignoring ScanLog request - no scanlog base dir configured"
                       : "Ignoring BlockLog request - no blocklog base dir configured");
        return s_written::skipped;
    }
    json_object* logdata = s_find_logdata(message, section_key);
    if (logdata == nullptr) {
        return s_written::skipped;
    }
    s_scan_fields f;
    if (!s_read_scan_fields(logdata, &f)) {
        return s_written::skipped;
    }
    const s_head_fields head(common);
    std::string line;
    const bool formatted =
        scan ? qvhlp_format(&line, "%s;%s;%s;%s;%s;%s;%ld;%s;%s;%s;%ld ms\r\n",
                            head.timestamp.c_str(), head.component.c_str(), head.event_id.c_str(),
                            head.source.c_str(), f.sid.c_str(), f.filename.c_str(), f.file_size,
                            f.mime_type.c_str(), f.result_text.c_str(), f.reason_text.c_str(),
                            f.duration)
             : qvhlp_format(&line, "%s;%s;%s;%s;%s;%s;%ld bytes;%s;%s;%s;%ld ms\r\n",
                            head.timestamp.c_str(), head.component.c_str(), head.event_id.c_str(),
                            head.source.c_str(), f.sid.c_str(), f.filename.c_str(), f.file_size,
                            f.mime_type.c_str(), f.result_text.c_str(), f.reason_text.c_str(),
                            f.duration);
    if (!formatted) {
        log_error(scan ? "Failed to create log line for ScanLog"
                       : "Failed to create log line for BlockLog");
        *failure = s_failure_text(section_key, 0);
        return s_written::failed;
    }
    std::string subdir;
    if (!s_realm_subdir(message, config, &subdir)) {
        *failure = "Invalid realm";
        return s_written::failed;
    }
    std::string filename = "block.log";
    if (scan) {
        if (!s_read_scanlog_path(message, &filename)) {
            *failure = "Invalid scan log path";
            return s_written::failed;
        }
        if (filename.empty()) {
            log_error("Ignoring ScanLog request - no ScanLogPath found");
            return s_written::skipped;
        }
    }
    const std::string path =
        s_writer_path(basedir, subdir, filename, scan ? "scanlogpath" : "blocklog_path");
    if (path.empty()) {
        *failure = s_failure_text(section_key, errno);
        return s_written::failed;
    }
    return s_append_line(config, path, line, true, section_key, failure);
}

s_written s_write_epolog(json_object* message, quorvale_control_config_t* config,
                         const qvctrl_log_common_t& common, std::string* failure) {
    const std::string& basedir = config->log->basedir_epolog;
    if (basedir.empty()) {
        log_trace("Ignoring EPOLog request - no epolog base dir configured");
        return s_written::skipped;
    }
    json_object* logdata = s_find_logdata(message, "EPOLog");
    if (logdata == nullptr) {
        return s_written::skipped;
    }
    const int timestamp = s_get_int(logdata, "Timestamp");
    const int event_id = s_get_int(logdata, "EventID");
    const char* const required_keys[] = {"Filename", "Threat-Name", "Threat-Category",
                                         "Threat-Type", "Action-taken"};
    std::string required[5];
    for (size_t i = 0; i < 5; ++i) {
        if (!s_required_text(logdata, required_keys[i], &required[i])) {
            return s_written::skipped;
        }
        required[i] = s_field(required[i]);
    }
    const std::string lib_version = s_field(s_optional_text(logdata, "Lib-Version"));
    const std::string dat_version = s_field(s_optional_text(logdata, "DAT-Version"));
    std::string line;
    if (!qvhlp_format(&line, "%s;%d;%d;%s;%s;%s;%s;%s;%s;%s;%s\r\n",
                      s_epo_product_code(common.component), timestamp, event_id,
                      required[0].c_str(), required[1].c_str(), required[2].c_str(),
                      required[3].c_str(), required[4].c_str(), lib_version.c_str(),
                      dat_version.c_str(), s_field(common.source).c_str())) {
        log_error("Failed to create log line for EPOLog");
        *failure = s_failure_text("EPOLog", 0);
        return s_written::failed;
    }
    // The EPO console needs the realm: a line without one is never written.
    if (qv_json_get_required_string(message, "realmID") == nullptr) {
        return s_written::skipped;
    }
    std::string realm;
    if (!s_read_realm(message, &realm)) {
        *failure = "Invalid realm";
        return s_written::failed;
    }
    const std::string path = s_writer_path(basedir, config->log->split_logs_by_realm ? realm : "",
                                           "epo.log", "epolog_path");
    if (path.empty()) {
        *failure = s_failure_text("EPOLog", errno);
        return s_written::failed;
    }
    // The EPO log collector reads and empties the file under this lock. The EPO log is never
    // switched by size: the collector empties it.
    std::lock_guard<std::mutex> epolog_lock(config->epolog_mutex);
    return s_append_line(config, path, line, false, "EPOLog", failure);
}

s_written s_write_common(json_object* message, quorvale_control_config_t* config,
                         const qvctrl_log_common_t& common, const char* section_key,
                         const std::string& basedir, const char* filename, std::string* failure) {
    if (basedir.empty() || filename == nullptr || filename[0] == '\0') {
        log_trace("Ignoring %s request - no base dir or filename configured", section_key);
        return s_written::skipped;
    }
    json_object* logdata = s_find_logdata(message, section_key);
    if (logdata == nullptr) {
        return s_written::skipped;
    }
    std::string text;
    if (!s_required_text(logdata, "Message", &text)) {
        return s_written::skipped;
    }
    const s_head_fields head(common);
    std::string line;
    if (!qvhlp_format(&line, "%s;%s;%s;%s;%s\r\n", head.timestamp.c_str(), head.component.c_str(),
                      head.event_id.c_str(), head.source.c_str(), s_field(text).c_str())) {
        log_error("Failed to create log line for %s", section_key);
        *failure = s_failure_text(section_key, 0);
        return s_written::failed;
    }
    std::string subdir;
    if (!s_realm_subdir(message, config, &subdir)) {
        *failure = "Invalid realm";
        return s_written::failed;
    }
    const std::string path = s_writer_path(basedir, subdir, filename, "log_path");
    if (path.empty()) {
        *failure = s_failure_text(section_key, errno);
        return s_written::failed;
    }
    return s_append_line(config, path, line, true, section_key, failure);
}

int s_result(s_written written) {
    return written == s_written::line ? 0 : -1;
}

// Ends a request with the -1000 reply; the text may carry request data or system texts.
int s_refuse(qv_const_request_reply_t* rr, const std::string& text) {
    qv_reply_set_ERROR(rr->reply, SERVICE_ERROR, qv_json_escape(text).c_str());
    return -1;
}

qv::json_ptr s_parse_request(qv_const_request_reply_t* rr) {
    const char* parse_error = nullptr;
    qv::json_ptr message = qv_json_parse_object(rr->request->json_txt, &parse_error);
    if (!message) {
        std::string reason;
        if (strcmp(parse_error, "Failed to create JSON tokener") == 0) {
            log_error("Failed to create JSON tokener");
            reason = parse_error;
        } else {
            log_error("Failed to parse JSON. Errorcode: %s. JSON: \n", parse_error);
            reason = std::string("Failed to parse JSON. Errorcode: ") + parse_error;
        }
        log_trace("Rejected log message: %s", qv_escape_for_log(rr->request->json_txt).c_str());
        s_refuse(rr, reason);
    }
    return message;
}

bool s_read_version(json_object* message, int* version, std::string* refusal) {
    *version = s_get_int(message, "LogVersion");
    if (*version >= 2) {
        char text[128];
        snprintf(text, sizeof(text), "Log version %d not supported by this logger (version %d)",
                 *version, s_supported_log_version);
        log_error("%s", text);
        *refusal = text;
        return false;
    }
    return true;
}

int s_handle_log_request(quorvale_control_config_t* config, qv_const_request_reply_t* rr) {
    qv::json_ptr message = s_parse_request(rr);
    if (!message) {
        return -1;
    }
    json_object* msg = message.get();

    qvctrl_log_common_t common;
    std::string refusal;
    if (!s_read_version(msg, &common.logVersion, &refusal)) {
        return s_refuse(rr, refusal);
    }
    std::string* const required[] = {&common.timestamp, &common.component, &common.eventID};
    const char* const required_keys[] = {"Timestamp", "Component", "EventID"};
    for (size_t i = 0; i < 3; ++i) {
        std::string reason;
        if (!s_required_text(msg, required_keys[i], required[i], &reason)) {
            return s_refuse(rr, reason);
        }
    }
    common.source = s_optional_text(msg, "Hostname");
    common.epoch = s_get_int64(msg, "Timestamp_epoch");

    // The realm and the scan log path name files: a bad one refuses the whole request before
    // any section is written.
    std::string scanlog_path;
    if (!s_read_realm(msg, &common.realmID)) {
        return s_refuse(rr, "Invalid realm");
    }
    if (!s_read_scanlog_path(msg, &scanlog_path)) {
        return s_refuse(rr, "Invalid scan log path");
    }

    // A section that cannot be written is logged by its writer and does not stop the others;
    // the reply then names the first one that failed.
    const struct log_config& lc = *config->log;
    std::string failure;
    std::string first_failure;
    const auto note = [&](s_written written) {
        if (written == s_written::failed && first_failure.empty()) {
            first_failure = failure;
        }
    };
    note(s_write_scan_or_block(msg, config, common, true, &failure));
    note(s_write_epolog(msg, config, common, &failure));
    note(s_write_scan_or_block(msg, config, common, false, &failure));
    note(s_write_common(msg, config, common, "UpdateLog", lc.basedir_updatelog, "update.log",
                        &failure));
    note(s_write_common(msg, config, common, "StatusLog", lc.basedir_statuslog, "status.log",
                        &failure));
    note(s_write_common(msg, config, common, "ErrorLog", lc.basedir_errorlog, "error.log",
                        &failure));
    if (!first_failure.empty()) {
        return s_refuse(rr, first_failure);
    }
    qv_reply_set_OK(rr->reply);
    return 0;
}

}  // namespace

int qv_av_control_logger_request_handler(void* context, qv_const_request_reply_t* rr) {
    return qvctrl_log_run_handler(context, rr, s_handle_log_request);
}

int qvctrl_log_run_handler(void* context, qv_const_request_reply_t* rr,
                           int (*body)(quorvale_control_config_t*, qv_const_request_reply_t*)) {
    log_trace("Entering");
    if (rr == nullptr || rr->request == nullptr || rr->reply == nullptr) {
        log_error("Invalid parameters");
        log_trace("Exiting, rc=%d", -1);
        return -1;
    }
    auto* config = static_cast<quorvale_control_config_t*>(context);
    int rc = -1;
    if (config == nullptr || !config->log) {
        log_error("Invalid parameters");
        qv_reply_set_ERROR(rr->reply, SERVICE_ERROR, "Invalid parameters");
    } else {
        try {
            rc = body(config, rr);
        } catch (const std::exception& e) {
            log_error("Failed to handle log request: %s", e.what());
            rr->reply->json_txt.clear();
            qv_reply_set_ERROR(rr->reply, SERVICE_ERROR, "Failed to handle log request");
            rc = -1;
        }
    }
    log_trace("Exiting, rc=%d", rc);
    return rc;
}

int qvctrl_log_refuse(qv_const_request_reply_t* rr, const std::string& text) {
    return s_refuse(rr, text);
}

qv::json_ptr qvctrl_log_parse_request(qv_const_request_reply_t* rr) {
    return s_parse_request(rr);
}

bool qvctrl_log_read_version(json_object* message, int* version, std::string* refusal) {
    return s_read_version(message, version, refusal);
}

bool qvctrl_log_read_realm(json_object* message, std::string* realm) {
    return s_read_realm(message, realm);
}

json_object* qvctrl_log_get_object(json_object* parent, const char* key) {
    return s_get_object(parent, key);
}

int64_t qvctrl_log_get_int64(json_object* object, const char* key) {
    return s_get_int64(object, key);
}

bool qvctrl_log_required_text(json_object* object, const char* key, std::string* out,
                              std::string* reason) {
    return s_required_text(object, key, out, reason);
}

std::string qvctrl_log_optional_text(json_object* object, const char* key) {
    return s_optional_text(object, key);
}

int qvctrl_log_write_scanlog(json_object* message, quorvale_control_config_t* config,
                             const qvctrl_log_common_t& common) {
    log_trace("Entering");
    std::string failure;
    const int rc = s_result(s_write_scan_or_block(message, config, common, true, &failure));
    log_trace("Exiting, rc=%d", rc);
    return rc;
}

int qvctrl_log_write_blocklog(json_object* message, quorvale_control_config_t* config,
                              const qvctrl_log_common_t& common) {
    log_trace("Entering");
    std::string failure;
    const int rc = s_result(s_write_scan_or_block(message, config, common, false, &failure));
    log_trace("Exiting, rc=%d", rc);
    return rc;
}

int qvctrl_log_write_epolog(json_object* message, quorvale_control_config_t* config,
                            const qvctrl_log_common_t& common) {
    log_trace("Entering");
    std::string failure;
    const int rc = s_result(s_write_epolog(message, config, common, &failure));
    log_trace("Exiting, rc=%d", rc);
    return rc;
}

int qvctrl_log_write_common(json_object* message, quorvale_control_config_t* config,
                            const qvctrl_log_common_t& common, const char* section_key,
                            const std::string& basedir, const char* filename) {
    log_trace("Entering");
    std::string failure;
    const int rc =
        s_result(s_write_common(message, config, common, section_key, basedir, filename, &failure));
    log_trace("Exiting, rc=%d", rc);
    return rc;
}

std::optional<std::string> qvctrl_log_build_filename(const std::string& basedir,
                                                     const std::string& subdir,
                                                     const std::string& filename) {
    bool refused = false;
    return s_build_filename(basedir, subdir, filename, &refused);
}

int qvctrl_log_append_to_file(quorvale_control_config_t* config, const char* path,
                              const std::string& line, int check_switch, int add_crlf) {
    log_trace("Entering");
    if (path == nullptr || path[0] == '\0') {
        log_error("No filename provided");
        return -1;
    }
    const int rc = s_append(config, path, add_crlf != 0 ? line + "\r\n" : line, check_switch != 0);
    log_trace("Exiting, rc=%d", rc);
    return rc;
}

int qvctrl_log_check_logswitch(quorvale_control_config_t* config, const char* path) {
    struct stat st {};
    if (stat(path, &st) != 0) {
        log_error("Could not get file size for %s, %s", path, strerror(errno));
        return -1;
    }
    if (!S_ISREG(st.st_mode)) {
        return 0;  // a device or pipe in place of a log is written to, never archived
    }
    const uint64_t limit = static_cast<uint64_t>(config->log->max_logfile_size_MB) * 1000000;
    if (limit <= static_cast<uint64_t>(st.st_size)) {
        return qvctrl_log_switch_logfile(path);
    }
    return 0;
}

int qvctrl_log_switch_logfile(const char* path) {
    log_trace("Entering");
    const std::string archive_name = qvhlp_archive_name(path);
    std::string error;
    if (qvhlp_archive_and_remove(path, archive_name, nullptr, &error) != 0) {
        log_error("Failed to open new archive %s for writing", archive_name.c_str());
        log_error("Log file %s stays as it is: %s", path, error.c_str());
        return -1;
    }
    log_trace("Exiting, rc=%d", 0);
    return 0;
}
