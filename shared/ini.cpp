#include "ini.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include <sys/stat.h>

#include "qv_handles.h"

namespace {

bool s_is_trailing_blank(char c) {
    return c == ' ' || c == '\t' || c == '\r';
}

char s_ascii_lower(char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

bool s_equal_nocase(const char* a, const char* b) {
    while (*a != '\0' && s_ascii_lower(*a) == s_ascii_lower(*b)) {
        ++a;
        ++b;
    }
    return s_ascii_lower(*a) == s_ascii_lower(*b);
}

void s_erase(char* from, char* to) {
    memset(from, 0, static_cast<size_t>(to - from));
}

// Copies a quoted value over itself, starting at the opening quote, and returns the position
// after the last byte copied. Escapes only ever shrink the text, so the write position never
// overtakes the read position.
char* s_unquote(char* quote) {
    char* out = quote;
    char* in = quote + 1;
    while (*in != '\0' && *in != '"' && *in != '\r' && *in != '\n') {
        if (*in == '\\') {
            ++in;
            if (*in == '\0' || *in == '\r' || *in == '\n') {
                break;
            }
            switch (*in) {
                case 'n':
                    *out = '\n';
                    break;
                case 'r':
                    *out = '\r';
                    break;
                case 't':
                    *out = '\t';
                    break;
                default:
                    *out = *in;
                    break;
            }
        } else {
            *out = *in;
        }
        ++out;
        ++in;
    }
    return out;
}

// Splits one "key = value" line starting at `p` into a key token and a value token, or erases
// the line when it defines nothing. Returns the line end (a line feed or a zero byte).
char* s_split_key_line(char* p) {
    char* const line_end = p + strcspn(p, "\n");
    char* const equals = p + strcspn(p, "=\n");
    if (*equals != '=') {
        s_erase(p, line_end);
        return line_end;
    }
    char* key_end = equals;
    while (key_end > p && s_is_trailing_blank(key_end[-1])) {
        --key_end;
    }
    // An empty key would leave its value where the walk expects a key, shifting every later
    // key/value pair; such a line defines nothing.
    if (key_end == p) {
        s_erase(p, line_end);
        return line_end;
    }
    s_erase(key_end, equals + 1);

    char* value = equals + 1;
    while (s_is_trailing_blank(*value)) {
        *value++ = '\0';
    }
    if (*value == '\n' || *value == '\0') {
        s_erase(p, line_end);
        return line_end;
    }
    if (*value == '"') {
        char* const value_end = s_unquote(value);
        if (value_end == value) {
            s_erase(p, line_end);
        } else {
            s_erase(value_end, line_end);
        }
        return line_end;
    }
    char* value_end = line_end;
    while (value_end > value && s_is_trailing_blank(value_end[-1])) {
        *--value_end = '\0';
    }
    return line_end;
}

// One left-to-right pass that turns separators, comments and line ends into zero bytes.
void s_split(ini_t& ini) {
    char* p = ini.data.data();
    char* const end = p + ini.end;
    while (p < end) {
        switch (*p) {
            case '\r':
            case '\n':
            case '\t':
            case ' ':
                *p = '\0';
                [[fallthrough]];
            case '\0':
                ++p;
                break;
            case '[': {
                // The '[' stays as the token's first byte: it marks the token as a section.
                char* const close = p + strcspn(p, "]\n");
                *close = '\0';
                p = close;
                break;
            }
            case ';': {
                char* const line_end = p + strcspn(p, "\n");
                s_erase(p, line_end);
                p = line_end;
                break;
            }
            default:
                p = s_split_key_line(p);
                break;
        }
    }
}

// The start of the token after the one at `pos`, or ini.end.
size_t s_next(const ini_t& ini, size_t pos) {
    pos += strlen(&ini.data[pos]);
    while (pos < ini.end && ini.data[pos] == '\0') {
        ++pos;
    }
    return pos;
}

}  // namespace

std::unique_ptr<ini_t> ini_load(const char* path) {
    if (path == nullptr) {
        errno = EINVAL;
        return nullptr;
    }
    try {
        qv::file_ptr file(fopen(path, "rb"));
        if (!file) {
            return nullptr;
        }
        struct stat st {};
        if (fstat(fileno(file.get()), &st) == 0 && S_ISDIR(st.st_mode)) {
            errno = EISDIR;
            return nullptr;
        }
        if (fseek(file.get(), 0, SEEK_END) != 0) {
            return nullptr;
        }
        const long size = ftell(file.get());
        if (size < 0) {
            return nullptr;
        }
        if (size > INI_MAX_FILE_SIZE) {
            errno = EFBIG;
            return nullptr;
        }
        rewind(file.get());

        auto ini = std::make_unique<ini_t>();
        ini->end = static_cast<size_t>(size);
        ini->data.assign(ini->end + 1, '\0');
        errno = 0;
        if (fread(ini->data.data(), 1, ini->end, file.get()) != ini->end) {
            // A directory, an I/O error or a file that shrank since its size was taken.
            if (errno == 0) {
                errno = EIO;
            }
            return nullptr;
        }
        s_split(*ini);
        return ini;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return nullptr;
    }
}

const char* ini_get(const ini_t* ini, const char* section, const char* key) {
    if (ini == nullptr || key == nullptr || ini->end == 0) {
        return nullptr;
    }
    const char* current_section = "";
    size_t pos = 0;
    if (ini->data[0] == '\0') {
        pos = s_next(*ini, 0);
    }
    while (pos < ini->end) {
        const char* token = &ini->data[pos];
        if (*token == '[') {
            current_section = token + 1;
        } else {
            // A key token is always followed by its value token; the value is skipped with it so
            // that a value beginning with '[' never reads as a section.
            const size_t value = s_next(*ini, pos);
            if ((section == nullptr || s_equal_nocase(section, current_section)) &&
                s_equal_nocase(token, key)) {
                return value < ini->end ? &ini->data[value] : nullptr;
            }
            pos = value;
        }
        pos = s_next(*ini, pos);
    }
    return nullptr;
}

int ini_sget(const ini_t* ini, const char* section, const char* key, const char* scanfmt,
             void* dst) {
    const char* value = ini_get(ini, section, key);
    if (value == nullptr) {
        return 0;
    }
    if (scanfmt != nullptr) {
        sscanf(value, scanfmt, dst);
    } else {
        *static_cast<const char**>(dst) = value;
    }
    return 1;
}
