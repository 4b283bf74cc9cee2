// Log lines built from arbitrary field texts: whatever bytes the envelope and the sections carry
// (CR, LF, NUL, escape sequences, any length), one request writes exactly one line per section,
// and a realm that is not one plain path component refuses the request with nothing written.
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

#include <fuzzer/FuzzedDataProvider.h>

#include "log.h"
#include "qv-av-control-logger.h"
#include "qv_handles.h"
#include "qv_json.h"
#include "qv_validate.h"
#include "qvctrl_config.h"

namespace fs = std::filesystem;

namespace {

std::unique_ptr<quorvale_control_config_t> s_config;
std::string s_logs;

void s_check(bool condition) {
    if (!condition) {
        __builtin_trap();
    }
}

// A text field: never empty as the required-member check sees it, otherwise anything.
json_object* s_text(FuzzedDataProvider& in) {
    const std::string text = "v" + in.ConsumeRandomLengthString(300);
    return json_object_new_string_len(text.data(), static_cast<int>(text.size()));
}

void s_add_scan_fields(json_object* logdata, FuzzedDataProvider& in) {
    for (const char* key : {"SID", "Filename", "MIME-type", "Result-Text", "Reason-Text"}) {
        json_object_object_add(logdata, key, s_text(in));
    }
    json_object_object_add(logdata, "File-size",
                           json_object_new_int64(in.ConsumeIntegral<int64_t>()));
    json_object_object_add(logdata, "Duration",
                           json_object_new_int64(in.ConsumeIntegral<int64_t>()));
}

json_object* s_section(json_object* message, const char* key) {
    json_object* section = json_object_new_object();
    json_object* logdata = json_object_new_object();
    json_object_object_add(section, "LogData", logdata);
    json_object_object_add(message, key, section);
    return logdata;
}

// One line, ended by CR LF, with no other control character in it.
bool s_one_line(const std::string& text) {
    if (text.size() < 2 || text.compare(text.size() - 2, 2, "\r\n") != 0) {
        return false;
    }
    for (size_t i = 0; i + 2 < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c < 0x20 || c == 0x7f) {
            return false;
        }
    }
    return true;
}

std::string s_read(const fs::path& path) {
    std::string text;
    if (FILE* f = fopen(path.c_str(), "rb")) {
        char buffer[8192];
        size_t n;
        while ((n = fread(buffer, 1, sizeof(buffer), f)) > 0) {
            text.append(buffer, n);
        }
        fclose(f);
    }
    return text;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    log_set_quiet(1);
    char tmpl[] = "/tmp/qvfuzz-line-XXXXXX";
    const std::string root = mkdtemp(tmpl);
    static std::string s_root = root;
    atexit([] { fs::remove_all(s_root); });
    s_logs = root + "/logs";
    s_config = qvctrl_config_new();
    s_config->log->max_logfile_size_MB = 100;
    s_config->log->basedir_scanlog = s_logs + "/scan";
    s_config->log->basedir_blocklog = s_logs + "/block";
    s_config->log->basedir_epolog = s_logs + "/epo";
    s_config->log->basedir_updatelog = s_logs + "/update";
    s_config->log->basedir_statuslog = s_logs + "/status";
    s_config->log->basedir_errorlog = s_logs + "/error";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    const std::string escaped = qv_escape_log_field(in.ConsumeRandomLengthString(300));
    s_check(s_one_line(escaped + "\r\n"));

    qv::json_ptr message(json_object_new_object());
    json_object* m = message.get();
    json_object_object_add(m, "LogVersion", json_object_new_int(1));
    for (const char* key : {"Timestamp", "Component", "EventID", "Hostname"}) {
        json_object_object_add(m, key, s_text(in));
    }
    const std::string realm = in.ConsumeRandomLengthString(40);
    json_object_object_add(
        m, "realmID", json_object_new_string_len(realm.data(), static_cast<int>(realm.size())));
    json_object* scan = s_section(m, "ScanLog");
    s_add_scan_fields(scan, in);
    json_object_object_add(json_object_object_get(m, "ScanLog"), "ScanLogPath",
                           json_object_new_string("daily/scan.log"));
    s_add_scan_fields(s_section(m, "BlockLog"), in);
    json_object* epo = s_section(m, "EPOLog");
    for (const char* key : {"Filename", "Threat-Name", "Threat-Category", "Threat-Type",
                            "Action-taken", "Lib-Version", "DAT-Version"}) {
        json_object_object_add(epo, key, s_text(in));
    }
    for (const char* key : {"UpdateLog", "StatusLog", "ErrorLog"}) {
        json_object_object_add(s_section(m, key), "Message", s_text(in));
    }

    qv_request_reply_t rr;
    rr.request.json_txt = qv_json_to_string(m);
    qv_const_request_reply_t crr{&rr.request, &rr.reply};
    qv_av_control_logger_request_handler(s_config.get(), &crr);

    size_t files = 0;
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(s_logs, ec); !ec && it != fs::end(it);
         it.increment(ec)) {
        if (it->is_regular_file()) {
            ++files;
            s_check(s_one_line(s_read(it->path())));
        }
    }
    if (realm.empty() || qv_valid_name(realm)) {
        s_check(rr.reply.json_txt == "{\"ReturnCode\": 0}");
        s_check(files == (realm.empty() ? 5u : 6u));  // the EPO log needs a realm
    } else {
        s_check(rr.reply.json_txt == "{\"ReturnCode\": -1000, \"Error\": \"Invalid realm\"}");
        s_check(files == 0);
    }
    fs::remove_all(s_logs, ec);
    return 0;
}
