#include "qv-av-control-logger.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <mutex>
#include <system_error>

#include <libgen.h>
#include <sys/stat.h>

#include "log.h"
#include "qvhlp_string.h"
#include "qv_handles.h"
#include "qv_json.h"
#include "qvhlp_archive.h"
#include "qvhlp_path.h"
#include "qvhlp_replies.h"

namespace {

constexpr int s_supported_log_version = 1;

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

// The realm subdirectory for logs that may be written without a realm.
std::string s_realm_subdir(json_object* message, const quorvale_control_config_t* config) {
    if (!config->log->split_logs_by_realm) {
        return "";
    }
    json_object* realm = nullptr;
    if (!json_object_object_get_ex(message, "realmID", &realm) ||
        !json_object_is_type(realm, json_type_string)) {
        return "";
    }
    return json_object_get_string(realm);
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

int s_CreatePathIfNotExists(const std::string& path) {
    if (path.empty()) {
        log_error("Path is NULL or empty");
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
    std::string joined = basedir;
    if (!subdir.empty()) {
        joined += '/';
        joined += subdir;
    }
    joined += '/';
    joined += filename;
    std::optional<std::string> expanded = qvhlp_expand_path(joined);
    if (!expanded) {
        log_error("Failed to allocate %s", "expanded");
        return std::nullopt;
    }
    std::string normalized = qvhlp_unix_path_normalize(*expanded);
    // Realm ids and scan log paths come from any client of the log service: a "../" in them must
    // not let that client write (or create directories) outside the configured base directory.
    std::optional<std::string> base = qvhlp_expand_path(basedir);
    const std::string base_normalized = qvhlp_unix_path_normalize(base ? *base : basedir);
    if (!s_lies_inside(base_normalized, normalized)) {
        log_error("Refusing log file %s: it lies outside of its base directory %s",
                  normalized.c_str(), base_normalized.c_str());
        *refused = true;
        return std::nullopt;
    }
    s_CreatePathIfNotExists(normalized);
    return normalized;
}

// Path building and directory creation of a writer, with the writer's word for the path in the
// error lines. Empty when no line is to be written.
std::string s_writer_path(const std::string& basedir, const std::string& subdir,
                          const std::string& filename, const char* what) {
    bool refused = false;
    std::optional<std::string> path = s_build_filename(basedir, subdir, filename, &refused);
    if (!path) {
        if (!refused) {
            log_error("Failed to allocate %s", what);
        }
        return "";
    }
    if (path->empty()) {
        log_error("Empty string %s", what);
        return "";
    }
    if (s_CreatePathIfNotExists(*path) != 0) {
        log_error("Failed to create directory structure %s", path->c_str());
        return "";
    }
    return *path;
}

// The fields shared by scan and block log lines.
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
    f->sid = qv_json_get_optional_string(logdata, "SID");
    const char* filename = qv_json_get_required_string(logdata, "Filename");
    if (filename == nullptr) {
        return false;
    }
    f->filename = filename;
    f->file_size = s_get_int64(logdata, "File-size");
    const char* mime_type = qv_json_get_required_string(logdata, "MIME-type");
    if (mime_type == nullptr) {
        return false;
    }
    f->mime_type = mime_type;
    const char* result_text = qv_json_get_required_string(logdata, "Result-Text");
    if (result_text == nullptr) {
        return false;
    }
    f->result_text = result_text;
    f->reason_text = qv_json_get_optional_string(logdata, "Reason-Text");
    f->duration = s_get_int64(logdata, "Duration");
    return true;
}

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

int s_handle_log_request(quorvale_control_config_t* config, qv_const_request_reply_t* rr) {
    const char* parse_error = nullptr;
    qv::json_ptr message = qv_json_parse(rr->request->json_txt, &parse_error);
    if (!message) {
        std::string reason;
        if (strcmp(parse_error, "Failed to create JSON tokener") == 0) {
            log_error("Failed to create JSON tokener");
            reason = parse_error;
        } else {
            log_error("Failed to parse JSON. Errorcode: %s. JSON: \n", parse_error);
            reason = std::string("Failed to parse JSON. Errorcode: ") + parse_error;
        }
        log_trace("Rejected log message: %s", rr->request->json_txt.c_str());
        qv_reply_set_ERROR(rr->reply, SERVICE_ERROR, reason.c_str());
        return -1;
    }
    json_object* msg = message.get();

    qvctrl_log_common_t common;
    common.logVersion = s_get_int(msg, "LogVersion");
    if (common.logVersion >= 2) {
        char text[128];
        snprintf(text, sizeof(text), "Log version %d not supported by this logger (version %d)",
                 common.logVersion, s_supported_log_version);
        log_error("%s", text);
        qv_reply_set_ERROR(rr->reply, SERVICE_ERROR, text);
        return -1;
    }
    std::string* const required[] = {&common.timestamp, &common.component, &common.eventID};
    const char* const required_keys[] = {"Timestamp", "Component", "EventID"};
    for (size_t i = 0; i < 3; ++i) {
        std::string reason;
        const char* value = qv_json_get_required_string(msg, required_keys[i], &reason);
        if (value == nullptr) {
            qv_reply_set_ERROR(rr->reply, SERVICE_ERROR, reason.c_str());
            return -1;
        }
        *required[i] = value;
    }
    common.source = qv_json_get_optional_string(msg, "Hostname");
    common.epoch = s_get_int64(msg, "Timestamp_epoch");

    // A section that cannot be written is logged by its writer and does not stop the others.
    const struct log_config& lc = *config->log;
    qvctrl_log_write_scanlog(msg, config, common);
    qvctrl_log_write_epolog(msg, config, common);
    qvctrl_log_write_blocklog(msg, config, common);
    qvctrl_log_write_common(msg, config, common, "UpdateLog", lc.basedir_updatelog, "update.log");
    qvctrl_log_write_common(msg, config, common, "StatusLog", lc.basedir_statuslog, "status.log");
    qvctrl_log_write_common(msg, config, common, "ErrorLog", lc.basedir_errorlog, "error.log");

    qv_reply_set_OK(rr->reply);
    return 0;
}

// Scan and block log lines differ in their file name (given by the request or fixed), the unit
// after the file size and their words in the error lines.
int s_write_scan_or_block(json_object* message, quorvale_control_config_t* config,
                          const qvctrl_log_common_t& common, bool scan) {
    const char* section_key = scan ? "ScanLog" : "BlockLog";
    const std::string& basedir =
        scan ? config->log->basedir_scanlog : config->log->basedir_blocklog;
    if (basedir.empty()) {
        log_trace(scan ? "Ignoring ScanLog request - no scanlog base dir configured"
                       : "Ignoring BlockLog request - no blocklog base dir configured");
        return -1;
    }
    json_object* logdata = s_find_logdata(message, section_key);
    if (logdata == nullptr) {
        return -1;
    }
    s_scan_fields f;
    if (!s_read_scan_fields(logdata, &f)) {
        return -1;
    }
    std::string line;
    const bool formatted =
        scan ? qvhlp_format(&line, "%s;%s;%s;%s;%s;%s;%ld;%s;%s;%s;%ld ms\r\n",
                            common.timestamp.c_str(), common.component.c_str(),
                            common.eventID.c_str(), common.source.c_str(), f.sid.c_str(),
                            f.filename.c_str(), f.file_size, f.mime_type.c_str(),
                            f.result_text.c_str(), f.reason_text.c_str(), f.duration)
             : qvhlp_format(&line, "%s;%s;%s;%s;%s;%s;%ld bytes;%s;%s;%s;%ld ms\r\n",
                            common.timestamp.c_str(), common.component.c_str(),
                            common.eventID.c_str(), common.source.c_str(), f.sid.c_str(),
                            f.filename.c_str(), f.file_size, f.mime_type.c_str(),
                            f.result_text.c_str(), f.reason_text.c_str(), f.duration);
    if (!formatted) {
        log_error(scan ? "Failed to create log line for ScanLog"
                       : "Failed to create log line for BlockLog");
        return -1;
    }
    const std::string subdir = s_realm_subdir(message, config);
    std::string filename = "block.log";
    if (scan) {
        json_object* section = s_get_object(message, "ScanLog");
        json_object* scanlogpath = nullptr;
        if (!json_object_object_get_ex(section, "ScanLogPath", &scanlogpath) ||
            !json_object_is_type(scanlogpath, json_type_string) ||
            json_object_get_string_len(scanlogpath) == 0) {
            log_error("Ignoring ScanLog request - no ScanLogPath found");
            return -1;
        }
        filename = json_object_get_string(scanlogpath);
    }
    const std::string path =
        s_writer_path(basedir, subdir, filename, scan ? "scanlogpath" : "blocklog_path");
    if (path.empty()) {
        return -1;
    }
    if (qvctrl_log_append_to_file(config, path.c_str(), line, 1, 0) != 0) {
        if (scan) {
            log_error("Failed to write log line \"%s\": %s", line.c_str(), path.c_str());
        } else {
            log_error("Failed to write log line \"%s\" to %s", line.c_str(), path.c_str());
        }
        return -1;
    }
    return 0;
}

int s_write_epolog(json_object* message, quorvale_control_config_t* config,
                   const qvctrl_log_common_t& common) {
    const std::string& basedir = config->log->basedir_epolog;
    if (basedir.empty()) {
        log_trace("Ignoring EPOLog request - no epolog base dir configured");
        return -1;
    }
    json_object* logdata = s_find_logdata(message, "EPOLog");
    if (logdata == nullptr) {
        return -1;
    }
    const int timestamp = s_get_int(logdata, "Timestamp");
    const int event_id = s_get_int(logdata, "EventID");
    const char* const required_keys[] = {"Filename", "Threat-Name", "Threat-Category",
                                         "Threat-Type", "Action-taken"};
    const char* required[5] = {};
    for (size_t i = 0; i < 5; ++i) {
        required[i] = qv_json_get_required_string(logdata, required_keys[i]);
        if (required[i] == nullptr) {
            return -1;
        }
    }
    const std::string lib_version = qv_json_get_optional_string(logdata, "Lib-Version");
    const std::string dat_version = qv_json_get_optional_string(logdata, "DAT-Version");
    std::string line;
    if (!qvhlp_format(&line, "%s;%d;%d;%s;%s;%s;%s;%s;%s;%s;%s\r\n",
                      s_epo_product_code(common.component), timestamp, event_id, required[0],
                      required[1], required[2], required[3], required[4], lib_version.c_str(),
                      dat_version.c_str(), common.source.c_str())) {
        log_error("Failed to create log line for EPOLog");
        return -1;
    }
    // The EPO console needs the realm: a line without one is never written.
    const char* realm = qv_json_get_required_string(message, "realmID");
    if (realm == nullptr) {
        return -1;
    }
    const std::string path = s_writer_path(basedir, config->log->split_logs_by_realm ? realm : "",
                                           "epo.log", "epolog_path");
    if (path.empty()) {
        return -1;
    }
    int rc;
    {
        // The EPO log collector reads and empties the file under this lock.
        std::lock_guard<std::mutex> epolog_lock(config->epolog_mutex);
        rc = qvctrl_log_append_to_file(config, path.c_str(), line, 0, 0);
    }
    if (rc != 0) {
        log_error("Failed to write log line \"%s\" to %s", line.c_str(), path.c_str());
        return -1;
    }
    return 0;
}

int s_write_common(json_object* message, quorvale_control_config_t* config,
                   const qvctrl_log_common_t& common, const char* section_key,
                   const std::string& basedir, const char* filename) {
    if (basedir.empty() || filename == nullptr || filename[0] == '\0') {
        log_trace("Ignoring %s request - no base dir or filename configured", section_key);
        return -1;
    }
    json_object* logdata = s_find_logdata(message, section_key);
    if (logdata == nullptr) {
        return -1;
    }
    const char* text = qv_json_get_required_string(logdata, "Message");
    if (text == nullptr) {
        return -1;
    }
    std::string line;
    if (!qvhlp_format(&line, "%s;%s;%s;%s;%s\r\n", common.timestamp.c_str(),
                      common.component.c_str(), common.eventID.c_str(), common.source.c_str(),
                      text)) {
        log_error("Failed to create log line for %s", section_key);
        return -1;
    }
    const std::string path =
        s_writer_path(basedir, s_realm_subdir(message, config), filename, "log_path");
    if (path.empty()) {
        return -1;
    }
    if (qvctrl_log_append_to_file(config, path.c_str(), line, 1, 0) != 0) {
        log_error("Failed to write log line \"%s\" to %s", line.c_str(), path.c_str());
        return -1;
    }
    return 0;
}

}  // namespace

int qv_av_control_logger_request_handler(void* context, qv_const_request_reply_t* rr) {
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
            rc = s_handle_log_request(config, rr);
        } catch (const std::exception& e) {
            log_error("Failed to handle log request: %s", e.what());
            qv_reply_set_ERROR(rr->reply, SERVICE_ERROR, "Failed to handle log request");
        }
    }
    log_trace("Exiting, rc=%d", rc);
    return rc;
}

int qv_av_control_json_logger_request_handler(void* /*context*/, qv_const_request_reply_t* rr) {
    if (rr != nullptr && rr->reply != nullptr && rr->reply->json_txt.empty()) {
        log_warn("Creating generic error reply");
        qv_reply_set_return_code(rr->reply, -1);
    }
    return -1;
}

int qvctrl_log_write_scanlog(json_object* message, quorvale_control_config_t* config,
                             const qvctrl_log_common_t& common) {
    log_trace("Entering");
    const int rc = s_write_scan_or_block(message, config, common, true);
    log_trace("Exiting, rc=%d", rc);
    return rc;
}

int qvctrl_log_write_blocklog(json_object* message, quorvale_control_config_t* config,
                              const qvctrl_log_common_t& common) {
    log_trace("Entering");
    const int rc = s_write_scan_or_block(message, config, common, false);
    log_trace("Exiting, rc=%d", rc);
    return rc;
}

int qvctrl_log_write_epolog(json_object* message, quorvale_control_config_t* config,
                            const qvctrl_log_common_t& common) {
    log_trace("Entering");
    const int rc = s_write_epolog(message, config, common);
    log_trace("Exiting, rc=%d", rc);
    return rc;
}

int qvctrl_log_write_common(json_object* message, quorvale_control_config_t* config,
                            const qvctrl_log_common_t& common, const char* section_key,
                            const std::string& basedir, const char* filename) {
    log_trace("Entering");
    const int rc = s_write_common(message, config, common, section_key, basedir, filename);
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
    // One write per line: an unbuffered stream hands the whole text to the kernel at once.
    const std::string text = add_crlf != 0 ? line + "\r\n" : line;
    std::lock_guard<std::mutex> lock(config->log_write_mutex);
    struct stat st {};
    if (check_switch != 0 && stat(path, &st) == 0) {
        qvctrl_log_check_logswitch(config, path);
    }
    qv::file_ptr file(fopen(path, "a"));
    if (!file) {
        log_error("Could not open %s for appending: %s", path, strerror(errno));
        return -1;
    }
    setvbuf(file.get(), nullptr, _IONBF, 0);
    if (fwrite(text.data(), 1, text.size(), file.get()) != text.size() || fflush(file.get()) != 0) {
        log_error("Error writing to %s: %s", path, strerror(errno));
    }
    log_trace("Exiting, rc=%d", 0);
    return 0;
}

int qvctrl_log_check_logswitch(quorvale_control_config_t* config, const char* path) {
    struct stat st {};
    if (stat(path, &st) != 0) {
        log_error("Could not get file size for %s, %s", path, strerror(errno));
        return -1;
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
    if (qvhlp_archive_and_remove(path, archive_name) != 0) {
        log_error("Failed to open new archive %s for writing", archive_name.c_str());
        return -1;
    }
    log_trace("Exiting, rc=%d", 0);
    return 0;
}
