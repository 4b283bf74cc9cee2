// The validators of outside input, and the registration and subscription handlers that use them,
// fed with arbitrary bytes: as a whole value, as the names inside a request, and as a request or a
// bucket entry of its own. Traps when a validator contradicts another, when escaped text could
// still start a line, when a reply does not parse, or when a handler accepts a name that its
// validator refuses.
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "log.h"
#include "qv-av-control-event-dispatcher.h"
#include "qv_json.h"
#include "qv_nats_kv.h"
#include "qv_validate.h"
#include "qvctrl_adjust_worker_capacity.h"
#include "qvctrl_config.h"
#include "qvctrl_worker_request_handlers.h"

namespace {

void check(bool condition) {
    if (!condition) {
        __builtin_trap();
    }
}

bool has_line_break(const std::string& text) {
    return text.find('\r') != std::string::npos || text.find('\n') != std::string::npos;
}

void fuzz_validators(std::string_view text, const uint8_t* data, size_t size) {
    const bool key = qv_valid_key(text);
    const bool name = qv_valid_name(text);
    const bool subject = qv_valid_handler_subject(text);
    const bool patterns = qv_valid_pattern_list(text);
    const bool publish = qv_valid_publish_subject(text);
    const bool path = qv_valid_log_path(text);
    qv_is_own_service_subject(text);
    // Each narrower grammar lies inside the wider ones.
    check(!name || key);
    check(!subject || key);
    check(!key || (patterns && publish));
    check(!path || text.find("..") == std::string_view::npos);
    check(!path || text.front() != '/');

    const std::string shown = qv_escape_for_log(text, size);
    check(!has_line_break(shown));
    for (const char c : shown) {
        check(static_cast<unsigned char>(c) >= 0x20 && static_cast<unsigned char>(c) < 0x7f);
    }
    check(!has_line_break(qv_escape_for_log(text)));
    check(!has_line_break(qv_escape_log_field(text)));

    if (size >= 16) {
        int64_t chunks = 0;
        int64_t bytes = 0;
        memcpy(&chunks, data, sizeof(chunks));
        memcpy(&bytes, data + 8, sizeof(bytes));
        const uint64_t max = 256ULL << 20;
        if (qv_valid_staged_manifest(chunks, bytes, QV_KV_CHUNK_SIZE, max)) {
            check(bytes >= 0 && static_cast<uint64_t>(bytes) <= max);
            check(static_cast<uint64_t>(chunks) * QV_KV_CHUNK_SIZE >= static_cast<uint64_t>(bytes));
        }
    }
}

std::string call(qv_service_handler_t handler, quorvale_control_config_t* config,
                 const std::string& body) {
    qv_request_reply_t rr;
    rr.request.json_txt = body;
    qv_const_request_reply_t crr{&rr.request, &rr.reply};
    handler(config, &crr);
    // Every request gets a body, and every body parses.
    check(!rr.reply.json_txt.empty());
    check(qv_json_parse(rr.reply.json_txt) != nullptr);
    return rr.reply.json_txt;
}

void fuzz_handlers(const std::string& text) {
    // Without a broker: accepted registrations fail to be written, subscriptions stay local.
    auto config = qvctrl_config_new();
    const auto service = qv_av_control_worker_service_request_handler;
    const auto events = qv_av_control_event_request_handler;
    call(service, config.get(), text);
    call(events, config.get(), text);
    call(qv_av_control_worker_client_request_handler, config.get(), text);

    qv::json_ptr value(json_object_new_string_len(text.data(), static_cast<int>(text.size())));
    const std::string member = qv_json_to_string(value.get());
    const std::string ok = "{\"ReturnCode\": 0}";
    const std::string registration = R"({"Command": 200, "worker-name": )" + member +
                                     R"(, "service-name": "qv-av-trellix", "Secret": "s"})";
    if (call(service, config.get(), registration) == ok) {
        check(qvctrl_valid_worker_name(text));
    }
    const std::string subscription = R"({"Command": 500, "Service": )" + member +
                                     R"(, "realmID": )" + member + R"(, "SID": "*", )" +
                                     R"("Hostname": "*", "Modules": "*"})";
    call(events, config.get(), subscription);
    for (const qv_eventhandler_t& h : config->event_workers_list) {
        check(qv_valid_handler_subject(h.service) && qv_valid_pattern_list(h.realm));
    }

    // The same bytes as a bucket entry: a projected registration and a projected subscription.
    if (qv::json_ptr document = qv_json_parse(text)) {
        if (qvctrl_apply_worker_registration(config.get(), document.get()) == 0) {
            for (auto walk = config->running_services.iterator_wait(0, 1, 1); walk.hasnext();) {
                check(qvctrl_valid_worker_name(walk.next()->controlservicename));
            }
        }
    }
    config->event_subscription_kv_enabled = true;
    config->event_workers_list.clear();
    const std::string key(text.c_str());
    qvctrl_event_sub_apply_put(config.get(), key.c_str(), text.c_str());
    for (const qv_eventhandler_t& h : config->event_workers_list) {
        check(qv_valid_handler_subject(h.service));
        check(qv_valid_pattern_list(h.realm) && qv_valid_pattern_list(h.SID) &&
              qv_valid_pattern_list(h.hostname) && qv_valid_pattern_list(h.modules));
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    log_set_quiet(1);  // refused input is logged; keep the fuzzer's output readable
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    fuzz_validators(text, data, size);
    fuzz_handlers(text);
    return 0;
}
