// JSON helpers over json-c used by every service handler.
#pragma once

#include <string>
#include <string_view>

#include "qv_handles.h"

// Parses a whole text; null on failure, with the tokener's error text in *error when given.
qv::json_ptr qv_json_parse(std::string_view text, const char** error = nullptr);
// As qv_json_parse, for a request: anything but an object ("null" included) is refused with the
// error text "not a JSON object".
qv::json_ptr qv_json_parse_object(std::string_view text, const char** error = nullptr);
// A required string member: a missing (or non-string) member logs "Failed to read %s from
// JSON", an empty or null one "Key %s found, but value is empty"; both give null, and the logged
// text goes to *reason when given (for error replies that repeat it).
const char* qv_json_get_required_string(json_object* object, const char* key,
                                        std::string* reason = nullptr);
// The whole text of a string member, embedded NUL bytes included: what a validator must see.
// Empty when the member is missing or not a string.
std::string_view qv_json_get_text(json_object* object, const char* key);
// An optional member as text: absent or null is the empty text, a number its decimal text.
std::string qv_json_get_optional_string(json_object* object, const char* key);
// The request's integer "Command"; `absent` (with the warning "Object Command not found") when
// the member is missing.
int qv_json_get_command(json_object* request, int absent);
// The text as the inside of a JSON string (quotes, backslashes and control characters escaped,
// without the surrounding quotes): for error texts that carry request data or system texts.
std::string qv_json_escape(std::string_view text);
// Plain, unindented text of the object, with '/' left unescaped.
std::string qv_json_to_string(json_object* object);
