#include "qv_validate.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace {

bool s_is_key_char(unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '_' || c == '=' || c == '/' || c == '.';
}

// Non-empty '.'-separated tokens of characters accepted by `accept`.
template <typename Accept>
bool s_dotted(std::string_view value, size_t max_len, Accept accept) {
    if (value.empty() || value.size() > max_len) {
        return false;
    }
    char previous = '.';
    for (const char ch : value) {
        const auto c = static_cast<unsigned char>(ch);
        if (!accept(c) || (c == '.' && previous == '.')) {
            return false;
        }
        previous = ch;
    }
    return previous != '.';
}

constexpr std::array<std::string_view, 6> s_own_services = {
    "qv-av-log",     "qv-av-events-dispatch", "qv-av-worker-control",
    "qv-av-control", "qv-av-control.ping",    "qv-av-epolog",
};

// File names a scan log may not take: another kind's log, an archive or the trace log.
constexpr std::array<std::string_view, 5> s_fixed_log_names = {
    "epo.log", "block.log", "update.log", "status.log", "error.log",
};

bool s_ends_with(std::string_view text, std::string_view tail) {
    return text.size() >= tail.size() &&
           text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

void s_append_hex(std::string* out, unsigned char c) {
    char hex[8];
    snprintf(hex, sizeof(hex), "\\x%02X", c);
    *out += hex;
}

}  // namespace

bool qv_valid_key(std::string_view value, size_t max_len) {
    return s_dotted(value, max_len, s_is_key_char);
}

bool qv_valid_name(std::string_view value, size_t max_len) {
    return s_dotted(value, max_len, [](unsigned char c) { return c != '/' && s_is_key_char(c); });
}

bool qv_is_own_service_subject(std::string_view subject) {
    for (const std::string_view own : s_own_services) {
        if (subject == own) {
            return true;
        }
    }
    return false;
}

bool qv_valid_handler_subject(std::string_view subject) {
    return qv_valid_key(subject, QV_VALUE_MAX) && subject.compare(0, 6, "_INBOX") != 0 &&
           !qv_is_own_service_subject(subject);
}

bool qv_valid_publish_subject(std::string_view subject, size_t max_len) {
    return s_dotted(subject, max_len,
                    [](unsigned char c) { return c > ' ' && c < 0x7f && c != '*' && c != '>'; });
}

bool qv_valid_pattern_list(std::string_view patterns, size_t max_len) {
    if (patterns.size() > max_len) {
        return false;
    }
    for (const char ch : patterns) {
        const auto c = static_cast<unsigned char>(ch);
        if (!s_is_key_char(c) && c != '*' && c != '?' && c != ';') {
            return false;
        }
    }
    return true;
}

bool qv_valid_log_path(std::string_view path, size_t max_len) {
    if (path.empty() || path.size() > max_len) {
        return false;
    }
    std::string_view file;
    size_t start = 0;
    while (true) {
        const size_t end = path.find('/', start);
        const std::string_view component = path.substr(
            start, end == std::string_view::npos ? std::string_view::npos : end - start);
        // qv_valid_name refuses the empty, "." and ".." components along with everything else.
        if (!qv_valid_name(component, max_len)) {
            return false;
        }
        if (end == std::string_view::npos) {
            file = component;
            break;
        }
        start = end + 1;
    }
    for (const std::string_view fixed : s_fixed_log_names) {
        if (file == fixed) {
            return false;
        }
    }
    return !s_ends_with(file, ".zip") && !s_ends_with(file, ".trc");
}

bool qv_valid_staged_manifest(int64_t chunks, int64_t size, size_t chunk_size, uint64_t max_size) {
    if (chunks < 0 || size < 0 || chunk_size == 0 || static_cast<uint64_t>(size) > max_size) {
        return false;
    }
    const uint64_t needed =
        std::max<uint64_t>(1, (static_cast<uint64_t>(size) + chunk_size - 1) / chunk_size);
    // An empty payload may be announced as no chunk at all; otherwise the chunks must hold the
    // size, and a writer may have sent at most one (empty) chunk more than that.
    if (size == 0 && chunks == 0) {
        return true;
    }
    return static_cast<uint64_t>(chunks) >= needed && static_cast<uint64_t>(chunks) <= needed + 1;
}

std::string qv_escape_for_log(std::string_view value, size_t max_len) {
    std::string out;
    const bool cut = value.size() > max_len;
    if (cut) {
        value = value.substr(0, max_len);
    }
    for (const char ch : value) {
        const auto c = static_cast<unsigned char>(ch);
        switch (c) {
            case '\r':
                out += "\\r";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\t':
                out += "\\t";
                break;
            case '\\':
                out += "\\\\";
                break;
            default:
                if (c < 0x20 || c >= 0x7f) {
                    s_append_hex(&out, c);
                } else {
                    out += ch;
                }
        }
    }
    if (cut) {
        out += "...";
    }
    return out;
}

std::string qv_escape_log_field(std::string_view value) {
    std::string out;
    out.reserve(value.size());
    for (const char ch : value) {
        const auto c = static_cast<unsigned char>(ch);
        if (c == '\r') {
            out += "\\r";
        } else if (c == '\n') {
            out += "\\n";
        } else if (c < 0x20 || c == 0x7f) {
            s_append_hex(&out, c);
        } else {
            out += ch;
        }
    }
    return out;
}
