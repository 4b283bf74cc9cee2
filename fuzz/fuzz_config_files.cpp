// Configuration files of the installation tree (scan parameters, active content, MIME maps): any
// text becomes an array of [key, value] string pairs, merged into an earlier array or not.
#include <cstdint>
#include <cstdio>
#include <string>

#include <json-c/json.h>
#include <unistd.h>

#include "log.h"
#include "qvctrl_load_config_to_json.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    log_set_quiet(1);
    return 0;
}

namespace {

// Every element is a pair of strings.
void s_check(json_object* array) {
    if (array == nullptr || !json_object_is_type(array, json_type_array)) {
        __builtin_trap();
    }
    for (size_t i = 0; i < json_object_array_length(array); ++i) {
        json_object* pair = json_object_array_get_idx(array, i);
        if (!json_object_is_type(pair, json_type_array) || json_object_array_length(pair) != 2 ||
            !json_object_is_type(json_object_array_get_idx(pair, 0), json_type_string) ||
            !json_object_is_type(json_object_array_get_idx(pair, 1), json_type_string)) {
            __builtin_trap();
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string path = "/tmp/qv-fuzz-config-" + std::to_string(getpid());
    FILE* f = fopen(path.c_str(), "wb");
    if (f == nullptr) {
        return 0;
    }
    fwrite(data, 1, size, f);
    fclose(f);
    // The scan and active-content way (merged twice, values cut at the line end) and the MIME way.
    qv::json_ptr merged = load_config_to_json(nullptr, path.c_str(), "=", 1, 1);
    merged = load_config_to_json(std::move(merged), path.c_str(), "=", 1, 1);
    s_check(merged.get());
    qv::json_ptr mime = load_config_to_json(nullptr, path.c_str(), "->", 0, 0);
    s_check(mime.get());
    return 0;
}
