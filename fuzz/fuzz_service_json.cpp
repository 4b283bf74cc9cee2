// Service request bodies as they arrive over the bus: the ping handler and the JSON reader.
#include <cstdint>
#include <string>

#include "log.h"
#include "qv_json.h"
#include "qv_worker_ping_handler.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    log_set_quiet(1);  // rejected input is logged as an error; keep the fuzzer's output readable
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    qv_request_reply_t rr;
    rr.request.json_txt.assign(reinterpret_cast<const char*>(data), size);
    qv_const_request_reply_t crr{&rr.request, &rr.reply};
    qv_worker_ping_request_handler(nullptr, &crr);
    if (rr.reply.json_txt.empty()) {
        __builtin_trap();  // every request gets a reply
    }
    qv::json_ptr obj = qv_json_parse(rr.request.json_txt);
    if (obj) {
        qv_json_get_required_string(obj.get(), "Event");
    }
    return 0;
}
