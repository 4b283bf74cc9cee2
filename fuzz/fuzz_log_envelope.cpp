// Log envelopes as "qv-av-log" receives them, written into a scratch tree: every request gets a
// reply that parses as a JSON object, and whatever realm id or scan log path arrives, no file or
// directory appears beside the log tree. The same text sent to "qv-av-epolog" is answered too.
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "log.h"
#include "qv-av-control-epolog.h"
#include "qv-av-control-logger.h"
#include "qv_json.h"
#include "qvctrl_config.h"

namespace {

std::unique_ptr<quorvale_control_config_t> s_config;
std::string s_root;

// The reply must be a JSON object with an integer "ReturnCode".
void s_check_reply(const std::string& reply) {
    qv::json_ptr object = qv_json_parse(reply);
    json_object* rc = nullptr;
    if (!object || !json_object_is_type(object.get(), json_type_object) ||
        !json_object_object_get_ex(object.get(), "ReturnCode", &rc) ||
        !json_object_is_type(rc, json_type_int)) {
        __builtin_trap();
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    log_set_quiet(1);  // rejected input is logged as an error; keep the fuzzer's output readable
    char tmpl[] = "/tmp/qvfuzz-log-XXXXXX";
    s_root = mkdtemp(tmpl);
    atexit([] { std::filesystem::remove_all(s_root); });
    // The log tree sits two levels down, so that escapes by one or two ".." stay observable.
    const std::string logs = s_root + "/a/logs";
    std::filesystem::create_directories(logs);
    s_config = qvctrl_config_new();
    s_config->log->basedir_scanlog = logs + "/scan";
    s_config->log->basedir_epolog = logs + "/epo";
    s_config->log->basedir_errorlog = logs + "/error";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    qv_request_reply_t rr;
    rr.request.json_txt.assign(reinterpret_cast<const char*>(data), size);
    qv_const_request_reply_t crr{&rr.request, &rr.reply};
    qv_av_control_logger_request_handler(s_config.get(), &crr);
    s_check_reply(rr.reply.json_txt);
    rr.reply.json_txt.clear();
    qv_av_control_epolog_request_handler(s_config.get(), &crr);
    s_check_reply(rr.reply.json_txt);
    for (const auto& entry : std::filesystem::directory_iterator(s_root)) {
        if (entry.path().filename() != "a") {
            __builtin_trap();
        }
    }
    for (const auto& entry : std::filesystem::directory_iterator(s_root + "/a")) {
        if (entry.path().filename() != "logs") {
            __builtin_trap();
        }
    }
    return 0;
}
