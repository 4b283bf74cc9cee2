// Required request members for handlers whose error reply repeats the reason of a refusal.
#pragma once

#include <cstdio>
#include <string>

#include "log.h"
#include "qv_json.h"

// A required non-empty string member, read (and its refusal logged) by qv_json_get_required_string.
// A member that is present but null counts as empty. On refusal, *reason (when given) receives the
// logged text: "Failed to read <key> from JSON" or "Key <key> found, but value is empty".
inline const char* qvctrl_json_get_required_string(json_object* object, const char* key,
                                                   std::string* reason) {
    json_object* member = nullptr;
    const bool present = object != nullptr && json_object_object_get_ex(object, key, &member);
    const char* value = nullptr;
    if (present && member == nullptr) {
        log_error("Key %s found, but value is empty", key);
    } else {
        value = qv_json_get_required_string(object, key);
    }
    if (value == nullptr && reason != nullptr) {
        const bool empty =
            present && (member == nullptr || json_object_is_type(member, json_type_string));
        char text[1024];
        snprintf(text, sizeof(text),
                 empty ? "Key %s found, but value is empty" : "Failed to read %s from JSON", key);
        *reason = text;
    }
    return value;
}
