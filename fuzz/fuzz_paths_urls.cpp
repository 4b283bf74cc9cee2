// URL splitting, path expansion and normalisation.
#include <cstdint>
#include <string>

#include "log.h"
#include "qvhlp_path.h"
#include "qvhlp_url.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    log_set_quiet(1);  // rejected input is logged as an error; keep the fuzzer's output readable
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    qvhlp_split_url(text.c_str());
    qvhlp_expand_path(text);
    const std::string normal = qvhlp_unix_path_normalize(text);
    // Normalising is idempotent and never leaves a ".." inside an absolute path.
    if (qvhlp_unix_path_normalize(normal) != normal) {
        __builtin_trap();
    }
    if (!normal.empty() && normal[0] == '/' && normal.find("/../") != std::string::npos) {
        __builtin_trap();
    }
    return 0;
}
