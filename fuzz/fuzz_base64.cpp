// The base64 classifier and decoder.
#include <cstdint>
#include <string_view>

#include "log.h"
#include "qv_base64_decode.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    log_set_quiet(1);  // rejected input is logged as an error; keep the fuzzer's output readable
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    is_base64(text);
    const auto decoded = new_base64_decode(text);
    if (decoded.size() > size * 3 / 4 + 3) {
        __builtin_trap();
    }
    return 0;
}
