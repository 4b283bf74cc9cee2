#include "qvctrl_load_config_to_json.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "log.h"
#include "qvhlp_string.h"

namespace {

// Lines are read in pieces of at most this many bytes (terminator included); each piece counts
// as a line of its own.
constexpr int s_line_buffer = 8192;

json_object* s_new_string(std::string_view text) {
    return json_object_new_string_len(text.data(), static_cast<int>(text.size()));
}

// Sets the value of every pair whose key is `key`. *updated tells whether there was one; false
// when memory ran out.
bool s_update_pairs(json_object* array, std::string_view key, std::string_view value,
                    bool* updated) {
    *updated = false;
    const size_t n = json_object_array_length(array);
    for (size_t i = 0; i < n; ++i) {
        json_object* pair = json_object_array_get_idx(array, i);
        json_object* existing = json_object_array_get_idx(pair, 0);
        if (existing == nullptr ||
            std::string_view(json_object_get_string(existing),
                             static_cast<size_t>(json_object_get_string_len(existing))) != key) {
            continue;
        }
        const std::string shown_key(key);
        const std::string shown_value(value);
        log_debug("Entry %s exists - updating the value to %s", shown_key.c_str(),
                  shown_value.c_str());
        json_object* fresh = s_new_string(value);
        if (fresh == nullptr || json_object_array_put_idx(pair, 1, fresh) != 0) {
            json_object_put(fresh);
            return false;
        }
        *updated = true;
    }
    return true;
}

// Appends [key, value]; false when memory ran out.
bool s_append_pair(json_object* array, std::string_view key, std::string_view value) {
    qv::json_ptr pair(json_object_new_array());
    qv::json_ptr k(s_new_string(key));
    qv::json_ptr v(s_new_string(value));
    if (!pair || !k || !v || json_object_array_add(pair.get(), k.get()) != 0) {
        return false;
    }
    k.release();  // held by the pair from here on
    if (json_object_array_add(pair.get(), v.get()) != 0) {
        return false;
    }
    v.release();
    if (json_object_array_add(array, pair.get()) != 0) {
        return false;
    }
    pair.release();
    return true;
}

}  // namespace

qv::json_ptr load_config_to_json(qv::json_ptr array, const char* path, const char* separator,
                                 int cut_at_line_end, int update_existing) {
    if (!array) {
        array.reset(json_object_new_array());
        if (!array) {
            log_error("Failed to allocate %s", "JSON object");
            return nullptr;
        }
    }
    if (path == nullptr) {
        log_error("Invalid filename");
        return array;
    }
    log_debug("Loading from: %s", path);
    qv::file_ptr file(fopen(path, "r"));
    if (!file) {
        log_error("Failed to load %s: %s", path, strerror(errno));
        return array;
    }
    const std::string_view sep = separator != nullptr ? separator : "";
    char buffer[s_line_buffer];
    while (fgets(buffer, sizeof(buffer), file.get()) != nullptr) {
        const std::string_view line(buffer);
        const size_t at = sep.empty() ? std::string_view::npos : line.find(sep);
        if (line.empty() || line[0] == '#' || at == std::string_view::npos) {
            continue;
        }
        const std::string_view key = qvhlp_trim(line.substr(0, at));
        std::string_view value = qvhlp_trim(line.substr(at + sep.size()));
        if (cut_at_line_end != 0) {
            value = value.substr(0, value.find_first_of("\r\n"));
        }
        bool updated = false;
        if ((update_existing != 0 && !s_update_pairs(array.get(), key, value, &updated)) ||
            (!updated && !s_append_pair(array.get(), key, value))) {
            // A partly built array would hand out an incomplete configuration.
            log_error("Failed to allocate %s", "JSON object");
            return nullptr;
        }
    }
    return array;
}
