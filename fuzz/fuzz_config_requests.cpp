// Requests of scan clients and scan workers as "qv-av-control" and "qv-av-worker-control" receive
// them, answered by a daemon whose bucket cannot be reached (every read is a miss, every write
// fails) from a copy of the example installation tree. Every request must get a reply that is one
// JSON object, whatever it holds.
//
// An input is either a whole request body, or (first byte >= 0x80) the JSON text of one member
// spliced into a request of a command the dispatchers serve, so that the fuzzer reaches the
// handlers' member checks without first finding the commands and member names.
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <string>
#include <string_view>

#include "log.h"
#include "qv_json.h"
#include "qv_nats_config.h"
#include "qvctrl_config.h"
#include "qvctrl_worker_request_handlers.h"
#include "qvhlp_string.h"

namespace {

std::unique_ptr<quorvale_control_config_t> s_config;
std::string s_root;

// The one service with a registered worker: a consolidated init naming only it never waits.
constexpr std::string_view s_registered = "qv-av-trellix";

constexpr const char* s_templates[] = {
    R"({"Command": 100, "realmID": @, "SID": "PRD", "RequestID": "id-1"})",
    R"({"Command": 100, "realmID": "r1", "SID": @, "RequestID": "id-1"})",
    R"({"Command": 100, "realmID": "default", "SID": "default", "RequestID": @})",
    R"({"Command": 5, "realmID": @, "RequestID": "id-1"})",
    R"({"Command": 5, "realmID": "r1", "RequestID": @})",
    R"({"Command": 6, "realmID": "r1", "SID": "PRD", "Hostname": "h", "RequestID": "id-1",)"
    R"( "Services": @})",
    R"({"Command": 6, "realmID": @, "SID": "PRD", "Hostname": "h", "RequestID": "id-1",)"
    R"( "Services": ["qv-av-trellix"]})",
    R"({"Command": 6, "realmID": "r1", "SID": "PRD", "Hostname": @, "RequestID": "id-1",)"
    R"( "Services": []})",
    R"({"Command": 6, "realmID": "r1", "SID": "PRD", "Hostname": "h", "RequestID": @,)"
    R"( "Services": []})",
    R"({"Command": 2, "realmID": "r1", "SID": "PRD", "Hostname": "h", "Servicename": @})",
    R"({"Command": 203, "realmID": @, "SID": "PRD"})",
    R"({"Command": 204, "realmID": "r1", "SID": @})",
    R"({"Command": 205, "realmID": @, "SID": "default"})",
    R"({"Command": 11, "Confighash": @})",
    R"({"Command": 200, "worker-name": @, "service-name": "qv-av-trellix", "Secret": "s"})",
    R"({"Command": @, "realmID": "r1", "SID": "PRD", "RequestID": "id-1", "Services": []})",
};

std::string s_body(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    if (size == 0 || data[0] < 0x80) {
        return text;
    }
    std::string body = s_templates[data[0] % std::size(s_templates)];
    return body.replace(body.find('@'), 1, text.substr(1));
}

// True when the request is a consolidated init naming a service without a registered worker: the
// handler then waits 2.2 s for one to register (there is no way to shorten that wait), which
// would turn every such input into a time-out. The name is normalised as the handler does it.
bool s_would_wait(const std::string& body) {
    qv::json_ptr request = qv_json_parse(body);
    json_object* services = nullptr;
    if (!request || !json_object_is_type(request.get(), json_type_object) ||
        !json_object_object_get_ex(request.get(), "Services", &services) ||
        !json_object_is_type(services, json_type_array)) {
        return false;
    }
    for (size_t i = 0; i < json_object_array_length(services); ++i) {
        json_object* element = json_object_array_get_idx(services, i);
        if (element == nullptr || !json_object_is_type(element, json_type_string)) {
            continue;
        }
        std::string name(json_object_get_string(element),
                         static_cast<size_t>(json_object_get_string_len(element)));
        name.resize(std::min<size_t>(name.size(), 1023));
        for (char& c : name) {
            c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
        }
        if (qvhlp_trim(name) != s_registered) {
            return true;
        }
    }
    return false;
}

void s_check_reply(const std::string& reply) {
    qv::json_ptr object = qv_json_parse(reply);
    if (!object || !json_object_is_type(object.get(), json_type_object)) {
        __builtin_trap();
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    log_set_quiet(1);  // refused requests are logged as errors; keep the fuzzer's output readable
    char tmpl[] = "/tmp/qvfuzz-config-XXXXXX";
    s_root = mkdtemp(tmpl);
    atexit([] { std::filesystem::remove_all(s_root); });
    const std::filesystem::path examples =
        std::filesystem::path(__FILE__).parent_path().parent_path() / "examples" / "basedir";
    std::filesystem::copy(examples, s_root, std::filesystem::copy_options::recursive);
    s_config = qvctrl_config_new();
    s_config->main_nats_config = qv_nats_config_new();  // never connected
    s_config->basedir = s_root;
    s_config->confighash = "h\"\\\x01";
    auto worker = std::make_shared<qv_active_worker_t>();
    worker->servicename = s_registered;
    worker->controlservicename = "qv-av-trellix.fuzz_1";
    worker->driver_name = "d\"\r\n";
    s_config->running_services.append(worker);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string body = s_body(data, size);
    if (s_would_wait(body)) {
        return 0;
    }
    for (auto* handler : {qv_av_control_worker_client_request_handler,
                          qv_av_control_worker_service_request_handler}) {
        qv_request_reply_t rr;
        rr.request.json_txt = body;
        qv_const_request_reply_t crr{&rr.request, &rr.reply};
        handler(s_config.get(), &crr);
        s_check_reply(rr.reply.json_txt);
    }
    return 0;
}
