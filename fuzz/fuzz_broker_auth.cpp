// The broker authorisation file merge: any file text (shaped now and then around the markers or a
// closing "]" line) and any realms. A merge never forges or loses a marker, leaves the text
// outside the region as it was, puts exactly the block's realms into the region, and a second
// merge of the same realms finds nothing to change. The file writer on a temporary file ends with
// the same text as the merge.
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>

#include "log.h"
#include "qvctrl_write_broker_auth.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    log_set_quiet(1);
    return 0;
}

namespace {

void s_require(bool condition) {
    if (!condition) {
        __builtin_trap();
    }
}

// The region of `text`: from the line after the first begin marker to the end marker after it.
bool s_region(std::string_view text, size_t* start, size_t* end) {
    const size_t begin = text.find(QVCTRL_BEGIN_MARKER);
    const size_t nl = begin == std::string_view::npos ? begin : text.find('\n', begin);
    if (nl == std::string_view::npos) {
        return false;
    }
    *start = nl + 1;
    *end = text.find(QVCTRL_END_MARKER, *start);
    return *end != std::string_view::npos;
}

bool s_write_file(const std::string& path, const std::string& text) {
    FILE* f = fopen(path.c_str(), "wb");
    if (f == nullptr) {
        return false;
    }
    const bool ok = fwrite(text.data(), 1, text.size(), f) == text.size();
    return fclose(f) == 0 && ok;
}

std::string s_read_file(const std::string& path) {
    std::string text;
    if (FILE* f = fopen(path.c_str(), "rb")) {
        char buffer[4096];
        size_t n = 0;
        while ((n = fread(buffer, 1, sizeof(buffer), f)) > 0) {
            text.append(buffer, n);
        }
        fclose(f);
    }
    return text;
}

std::string s_outside(std::string_view text, size_t start, size_t end) {
    return std::string(text.substr(0, start)) + std::string(text.substr(end));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    const std::string broker = in.ConsumeRandomLengthString(16);
    std::vector<qvctrl_realm_t> realms(in.ConsumeIntegralInRange<size_t>(0, 4));
    for (qvctrl_realm_t& realm : realms) {
        realm.realm_id = in.ConsumeRandomLengthString(24);
        realm.password = in.ConsumeRandomLengthString(24);
    }
    const int shape = in.ConsumeIntegralInRange(0, 3);
    const std::string pre = in.ConsumeRandomLengthString(256);
    const std::string mid = in.ConsumeRandomLengthString(256);
    const std::string post = in.ConsumeRemainingBytesAsString();
    const std::string begin_line = std::string(QVCTRL_BEGIN_MARKER) + " x\n";
    const std::string end_line = std::string(QVCTRL_END_MARKER) + " ──\n";
    std::string file;
    switch (shape) {
        case 0:
            file = pre + mid + post;
            break;
        case 1:
            file = pre + "]\n" + post;
            break;
        case 2:
            file = pre + begin_line + mid + end_line + post;
            break;
        default:
            file = pre + begin_line + mid + post;
            break;
    }
    if (broker.empty() || !qvctrl_broker_auth_value_ok(broker)) {
        return 0;
    }

    const std::string block = qvctrl_broker_auth_block(broker, realms.data(), realms.size());
    size_t block_start = 0, block_end = 0;
    s_require(s_region(block, &block_start, &block_end));
    s_require(block.size() - block_end == end_line.size());
    const std::string fresh = block.substr(block_start, block_end - block_start);

    std::string merged;
    const qvctrl_auth_merge result = qvctrl_broker_auth_merge(file, block, realms.size(), &merged);
    size_t start = 0, end = 0;
    const bool had_region = s_region(file, &start, &end);
    switch (result) {
        case qvctrl_auth_merge::unchanged:
            s_require(had_region && file.substr(start, end - start) == fresh);
            break;
        case qvctrl_auth_merge::replaced: {
            s_require(had_region);
            const std::string outside = s_outside(file, start, end);
            s_require(s_region(merged, &start, &end));
            s_require(merged.substr(start, end - start) == fresh);
            s_require(s_outside(merged, start, end) == outside);
            break;
        }
        case qvctrl_auth_merge::bootstrapped: {
            s_require(file.find(QVCTRL_BEGIN_MARKER) == std::string::npos);
            const size_t at = merged.find(block);
            s_require(at != std::string::npos && (at == 0 || merged[at - 1] == '\n'));
            s_require(merged.substr(0, at) + merged.substr(at + block.size()) == file);
            break;
        }
        case qvctrl_auth_merge::refused:
            break;
    }
    if (result == qvctrl_auth_merge::replaced || result == qvctrl_auth_merge::bootstrapped) {
        std::string again;
        s_require(qvctrl_broker_auth_merge(merged, block, realms.size(), &again) ==
                  qvctrl_auth_merge::unchanged);
    }

    // The writer on a real file ends where the merge did.
    static const std::string path = "/dev/shm/qv-fuzz-auth-" + std::to_string(getpid());
    s_require(s_write_file(path, file));
    bool changed = false;
    const int rc = qvctrl_write_broker_auth(path.c_str(), broker.c_str(), realms.data(),
                                            realms.size(), &changed);
    s_require((rc == 0) == (result != qvctrl_auth_merge::refused));
    s_require(changed ==
              (result == qvctrl_auth_merge::replaced || result == qvctrl_auth_merge::bootstrapped));
    s_require(s_read_file(path) == (changed ? merged : file));
    return 0;
}
