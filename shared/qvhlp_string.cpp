#include "qvhlp_string.h"

#include <cctype>
#include <cstdarg>
#include <cstdio>

#include "log.h"

namespace {

char s_fold(char c, int case_sensitive) {
    if (case_sensitive == 0 && c >= 'A' && c <= 'Z') {
        return static_cast<char>(c - 'A' + 'a');
    }
    return c;
}

}  // namespace

int qvhlp_WildcardTextMatch(const char* text, const char* pattern, int case_sensitive,
                            char terminator) {
    if (text == nullptr) {
        log_error("Invalid parameter pTameText (NULL)");
        return 0;
    }
    if (pattern == nullptr) {
        log_error("Invalid parameter pWildText (NULL)");
        return 0;
    }
    auto ended = [terminator](char c) { return c == '\0' || c == terminator; };
    // The pattern position just after the last '*' and the text position where that '*' was met:
    // a mismatch later on resumes from there, one text character further each time.
    const char* after_last_wild = nullptr;
    const char* after_last_tame = nullptr;
    while (true) {
        char t = *text;
        char w = *pattern;
        if (ended(t)) {
            if (ended(w)) {
                return 1;
            }
            if (w == '*') {
                ++pattern;
                continue;
            }
            if (after_last_tame != nullptr && !ended(*after_last_tame)) {
                text = after_last_tame++;
                pattern = after_last_wild;
                continue;
            }
            return 0;
        }
        t = s_fold(t, case_sensitive);
        w = s_fold(w, case_sensitive);
        if (t == w || w == '?') {
            ++text;
            ++pattern;
            continue;
        }
        if (w == '*') {
            after_last_wild = ++pattern;
            after_last_tame = text;
            if (ended(*pattern)) {
                return 1;
            }
            continue;
        }
        if (after_last_wild == nullptr) {
            return 0;
        }
        if (pattern != after_last_wild) {
            pattern = after_last_wild;
            if (t == s_fold(*pattern, case_sensitive)) {
                ++pattern;
            }
        }
        ++text;
    }
}

bool qvhlp_format(std::string* out, const char* format, ...) {
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    const int n = vsnprintf(nullptr, 0, format, args);
    va_end(args);
    if (n < 0) {
        va_end(again);
        return false;
    }
    std::string text(static_cast<size_t>(n) + 1, '\0');
    vsnprintf(text.data(), text.size(), format, again);
    va_end(again);
    text.resize(static_cast<size_t>(n));
    *out = std::move(text);
    return true;
}

std::string_view qvhlp_trim(std::string_view text) {
    const auto blank = [](char c) { return isspace(static_cast<unsigned char>(c)) != 0; };
    while (!text.empty() && blank(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && blank(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}
