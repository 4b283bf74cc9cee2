// The mapping of a claimed element's file name back to its waiting name, which decides what a
// stale-claim sweep renames.
#include <cstdint>
#include <string>

#include "log.h"
#include "qv_pqueue.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    log_set_quiet(1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string name(reinterpret_cast<const char*>(data), size);
    const std::string waiting = qv_pqueue_claimed_to_waiting_name(name);
    if (waiting.empty()) {
        return 0;
    }
    // A waiting name is always the tail of the claimed name after "claimed_<digits>_", and
    // starts with an element prefix.
    const size_t tail = name.size() - waiting.size();
    if ((waiting[0] != 'L' && waiting[0] != 'E') || tail < 10 ||
        name.compare(tail, std::string::npos, waiting) != 0 ||
        name.compare(0, 8, "claimed_") != 0 || name[tail - 1] != '_' ||
        name.find_first_not_of("0123456789", 8) != tail - 1) {
        __builtin_trap();
    }
    return 0;
}
