// Log envelopes as the JSON log service turns them into lines (no file is written): each line is
// one JSON object without a CR or LF in its text, and it ends with the added keys in their order
// and with this daemon's values, whatever the sender put into its log data. An input whose first
// byte is 0x80 or more is the JSON text of the sections, spliced into a complete envelope.
#include <cstdint>
#include <string>
#include <vector>

#include "log.h"
#include "qv-av-control-json-logger.h"
#include "qv_json.h"

namespace {

const char* const s_added[] = {"LogVersion", "LogType", "TimestampEpoch", "Timestamp", "Component",
                               "Hostname",   "EventID", "RealmID",        "Tenant",    "RealmName"};

void s_check_line(const std::optional<std::string>& line, const char* log_type,
                  const qvctrl_log_common_t& common) {
    if (!line) {
        return;
    }
    if (line->find_first_of("\r\n") != std::string::npos) {
        __builtin_trap();
    }
    qv::json_ptr object = qv_json_parse(*line);
    if (!object || !json_object_is_type(object.get(), json_type_object)) {
        __builtin_trap();
    }
    std::vector<std::string> keys;
    json_object_object_foreach(object.get(), key, value) {
        (void)value;
        keys.emplace_back(key);
    }
    std::vector<std::string> expected(std::begin(s_added), std::end(s_added));
    if (std::string_view(log_type) == "ScanLog") {
        expected.emplace_back("ScanLogPath");
    }
    if (keys.size() < expected.size() ||
        !std::equal(expected.begin(), expected.end(), keys.end() - expected.size())) {
        __builtin_trap();
    }
    if (qv_json_get_text(object.get(), "LogType") != log_type ||
        qv_json_get_text(object.get(), "RealmID") != common.realmID ||
        qv_json_get_text(object.get(), "Tenant") != common.tenantID ||
        qv_json_get_text(object.get(), "EventID") != common.eventID) {
        __builtin_trap();
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    log_set_quiet(1);  // incomplete envelopes are logged as errors
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    if (size > 0 && data[0] >= 0x80) {
        text = R"({"LogVersion": 1, "Timestamp_epoch": 0, "Component": "VSA", "EventID": "e",)"
               R"( "realmID": "r1", "ScanLog": {"ScanLogPath": "p", "LogData": )" +
               text.substr(1) + R"(}, "ErrorLog": {"LogData": {"Message": "x"}}})";
    }
    qv::json_ptr message = qv_json_parse_object(text);
    if (!message) {
        return 0;
    }
    qvctrl_log_common_t common;
    common.logVersion = 1;
    qvctrl_json_log_read_common(message.get(), &common);  // an incomplete one is built all the same
    common.realmID = std::string(qv_json_get_text(message.get(), "realmID"));
    common.tenantID = "on-premises";
    common.realmName = "local";
    qvctrl_json_log_lines lines;
    if (qvctrl_create_json_log_lines(message.get(), common, &lines) != 0) {
        return 0;
    }
    s_check_line(lines.scan, "ScanLog", common);
    s_check_line(lines.block, "BlockLog", common);
    s_check_line(lines.update, "UpdateLog", common);
    s_check_line(lines.status, "StatusLog", common);
    s_check_line(lines.error, "ErrorLog", common);
    return 0;
}
