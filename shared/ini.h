// INI configuration files: a loaded file is its own text, split in place into zero-terminated
// tokens (section headers, then alternately key and value), and lookups walk those tokens.
//
// Syntax: "[name]" opens a section; "key = value" defines a key (blanks inside the key are kept,
// trailing blanks of key and value dropped); ';' at the start of a token comments out the rest of
// the line; a value in double quotes understands \n, \r, \t and backslash-escapes any other
// character. Lines without '=' and keys with an empty value do not exist. Keys before the first
// header belong to the section with the empty name. Names compare without regard to ASCII case;
// the first matching key wins.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

struct ini_t {
    // The file text plus one terminating zero byte, split into tokens by loading.
    std::vector<char> data;
    // Index of the terminating zero byte.
    size_t end = 0;
};

// Files above this size are refused (errno EFBIG): the whole text is held in memory.
inline constexpr long INI_MAX_FILE_SIZE = 16L * 1024 * 1024;

// The loaded file, or null with errno set when it cannot be opened or read completely. Logs
// nothing; the caller reports the reason.
std::unique_ptr<ini_t> ini_load(const char* path);

// The value text of the first key of that name in the section, or null. A null section matches
// every section. The text lives as long as the ini_t.
const char* ini_get(const ini_t* ini, const char* section, const char* key);

// Looks the key up and, when found, converts the value with sscanf(value, scanfmt, dst), or
// with a null scanfmt stores the value text itself through dst (a const char**). Returns 1 when
// the key was found, 0 otherwise; whether the conversion succeeded is not reported.
int ini_sget(const ini_t* ini, const char* section, const char* key, const char* scanfmt,
             void* dst);
