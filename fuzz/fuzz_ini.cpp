// Configuration text: the INI splitter and lookups, and the typed getters over it.
#include <cstdint>
#include <cstdio>
#include <string>

#include <unistd.h>

#include "log.h"
#include "ini.h"
#include "qv_config.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    log_set_quiet(1);  // rejected input is logged as an error; keep the fuzzer's output readable
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string path = "/tmp/qv-fuzz-ini-" + std::to_string(getpid());
    FILE* f = fopen(path.c_str(), "wb");
    if (f == nullptr) {
        return 0;
    }
    fwrite(data, 1, size, f);
    fclose(f);
    std::unique_ptr<ini_t> ini = ini_load(path.c_str());
    if (ini) {
        for (const char* section : {"GLOBAL", "qv-av-control", static_cast<const char*>(nullptr)}) {
            for (const char* key : {"NATS_URL", "TRACELEVEL", "INSTALLED", "a", ""}) {
                ini_get(ini.get(), section, key);
                std::string s;
                GetStringFromConfigFile(ini.get(), section, key, &s);
                int i = 0;
                GetIntFromConfigFile(ini.get(), section, key, &i);
            }
        }
    }
    return 0;
}
