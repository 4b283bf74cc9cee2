// String helpers of the helper library.
#pragma once

#include <string>
#include <string_view>

// Wildcard match of `text` against `pattern`: '*' matches any run of characters (also none), '?'
// exactly one character, anything else itself. Text and pattern end at their NUL or at
// `terminator`. A single forward scan with one back-tracking point (the last '*' seen); a '*' in
// the text is first taken literally by a '*' in the pattern. With `case_sensitive` 0, A-Z fold to
// a-z (ASCII only). 1 on a match, 0 otherwise (also for a null argument).
int qvhlp_WildcardTextMatch(const char* text, const char* pattern, int case_sensitive,
                            char terminator);

// printf into a std::string of exactly the needed length. False (and *out untouched) when the
// format cannot be rendered.
bool qvhlp_format(std::string* out, const char* format, ...) __attribute__((format(printf, 2, 3)));

// `text` without the white space (blank, tab, CR, LF, vertical tab, form feed) at both ends.
std::string_view qvhlp_trim(std::string_view text);
