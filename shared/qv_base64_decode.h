// Base64 of the standard alphabet (RFC 4648): a quick test whether a text may be base64, and a
// lenient decoder that skips everything outside the alphabet (line breaks, padding).
#pragma once

#include <string_view>
#include <vector>

// 1 when every byte up to the first '=' is an alphabet character, a tab, a line feed or a
// carriage return (an empty text included); 0 at the first other byte.
int is_base64(std::string_view text);

// The bytes encoded in `input`. Bytes outside the alphabet are skipped, padding is optional, and
// a trailing group of fewer than four characters yields the whole bytes it holds.
std::vector<unsigned char> new_base64_decode(std::string_view input);
