#include "qv_json.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>

#include "log.h"

qv::json_ptr qv_json_parse(std::string_view text, const char** error) {
    qv::json_tokener_ptr tok(json_tokener_new());
    if (!tok) {
        if (error != nullptr) {
            *error = "Failed to create JSON tokener";
        }
        return nullptr;
    }
    qv::json_ptr obj(json_tokener_parse_ex(tok.get(), text.data(), static_cast<int>(text.size())));
    enum json_tokener_error jerr = json_tokener_get_error(tok.get());
    bool trailing = false;
    for (size_t i = json_tokener_get_parse_end(tok.get()); obj && i < text.size(); ++i) {
        if (!isspace(static_cast<unsigned char>(text[i]))) {
            trailing = true;
            break;
        }
    }
    if (!obj || jerr != json_tokener_success || trailing) {
        if (jerr == json_tokener_continue) {
            jerr = json_tokener_error_parse_eof;
        }
        if (error != nullptr) {
            *error = obj && jerr == json_tokener_success ? "unexpected trailing characters"
                                                         : json_tokener_error_desc(jerr);
        }
        return nullptr;
    }
    return obj;
}

qv::json_ptr qv_json_parse_object(std::string_view text, const char** error) {
    const char* perr = nullptr;
    qv::json_ptr obj = qv_json_parse(text, &perr);
    // json-c reads "null" as a success without an object.
    if ((obj && !json_object_is_type(obj.get(), json_type_object)) ||
        (!obj && perr != nullptr && strcmp(perr, "success") == 0)) {
        obj.reset();
        perr = "not a JSON object";
    }
    if (!obj && error != nullptr) {
        *error = perr;
    }
    return obj;
}

const char* qv_json_get_required_string(json_object* object, const char* key, std::string* reason) {
    json_object* member = nullptr;
    const bool present = object != nullptr && json_object_object_get_ex(object, key, &member);
    const char* format = nullptr;
    const char* value = nullptr;
    if (present && member == nullptr) {
        format = "Key %s found, but value is empty";
    } else if (!present || !json_object_is_type(member, json_type_string)) {
        format = "Failed to read %s from JSON";
    } else {
        value = json_object_get_string(member);
        if (value == nullptr || value[0] == '\0') {
            value = nullptr;
            format = "Key %s found, but value is empty";
        }
    }
    if (value == nullptr) {
        char text[512];
        snprintf(text, sizeof(text), format, key);
        log_error("%s", text);
        if (reason != nullptr) {
            *reason = text;
        }
    }
    return value;
}

std::string_view qv_json_get_text(json_object* object, const char* key) {
    json_object* member = nullptr;
    if (object == nullptr || !json_object_object_get_ex(object, key, &member) ||
        !json_object_is_type(member, json_type_string)) {
        return {};
    }
    return std::string_view(json_object_get_string(member),
                            static_cast<size_t>(json_object_get_string_len(member)));
}

std::string qv_json_get_optional_string(json_object* object, const char* key) {
    json_object* member = nullptr;
    if (object == nullptr || !json_object_object_get_ex(object, key, &member) ||
        member == nullptr) {
        return "";
    }
    const char* value = json_object_get_string(member);
    return value != nullptr ? value : "";
}

int qv_json_get_command(json_object* request, int absent) {
    json_object* member = nullptr;
    if (request == nullptr || !json_object_object_get_ex(request, "Command", &member)) {
        log_warn("Object %s not found", "Command");
        return absent;
    }
    return json_object_get_int(member);
}

std::string qv_json_to_string(json_object* object) {
    const char* text = json_object_to_json_string_ext(
        object, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
    return text != nullptr ? text : "";
}

std::string qv_json_escape(std::string_view text) {
    qv::json_ptr string(json_object_new_string_len(text.data(), static_cast<int>(text.size())));
    if (!string) {
        return "";
    }
    const char* quoted =
        json_object_to_json_string_ext(string.get(), JSON_C_TO_STRING_NOSLASHESCAPE);
    std::string_view view = quoted != nullptr ? quoted : "\"\"";
    return std::string(view.substr(1, view.size() - 2));
}
