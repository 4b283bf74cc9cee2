// Component configurations as they arrive: a base64 text in a message member that should decode
// to a JSON object. Any text decodes to null or to one JSON object, and a configuration that is
// kept is found again under its realm and SID. An input whose first byte is odd is base64-encoded
// first, so that the JSON behind the encoding is fuzzed as well.
#include <cstdint>
#include <string>

#include "log.h"
#include "qv_json.h"
#include "qvctrl_component_configuration.h"

namespace {

std::string s_base64(std::string_view bytes) {
    static constexpr char alphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (size_t i = 0; i < bytes.size(); i += 3) {
        uint32_t group = static_cast<unsigned char>(bytes[i]) << 16;
        if (i + 1 < bytes.size()) {
            group |= static_cast<unsigned char>(bytes[i + 1]) << 8;
        }
        if (i + 2 < bytes.size()) {
            group |= static_cast<unsigned char>(bytes[i + 2]);
        }
        out += alphabet[(group >> 18) & 63];
        out += alphabet[(group >> 12) & 63];
        out += i + 1 < bytes.size() ? alphabet[(group >> 6) & 63] : '=';
        out += i + 2 < bytes.size() ? alphabet[group & 63] : '=';
    }
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    log_set_quiet(1);  // undecodable configurations are logged as errors
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::string_view rest(reinterpret_cast<const char*>(data) + 1, size - 1);
    const std::string member = (data[0] & 1) != 0 ? s_base64(rest) : std::string(rest);
    qv::json_ptr message(json_object_new_object());
    json_object_object_add(
        message.get(), "Configuration",
        json_object_new_string_len(member.data(), static_cast<int>(member.size())));
    qvctrl_component_configuration_list list;
    qv::json_ptr parsed;
    const int rc = qvctrl_component_configuration_parse_store(&list, "Configuration", message.get(),
                                                              "r1", "PRD", &parsed, true);
    if ((rc == 0) != static_cast<bool>(parsed) ||
        (parsed && !json_object_is_type(parsed.get(), json_type_object))) {
        __builtin_trap();
    }
    if (parsed) {
        qvctrl_component_configuration_ref found =
            qv_ctrl_component_configuration_find(&list, "r1", "PRD");
        if (!found || found->configuration_json.get() != parsed.get()) {
            __builtin_trap();
        }
    }
    return 0;
}
