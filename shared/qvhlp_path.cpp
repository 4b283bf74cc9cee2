#include "qvhlp_path.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "log.h"
#include "qv_handles.h"

const char* qvhlp_FlattenPath(const char* path) {
    thread_local char flat[4096];
    if (path == nullptr || path[0] == '\0') {
        return nullptr;
    }
    snprintf(flat, sizeof(flat), "%s", path);
    for (char* p = flat; *p != '\0'; ++p) {
        if (*p == '/') {
            *p = '_';
        }
    }
    return flat;
}

std::optional<std::string> qvhlp_expand_path(std::string_view path) {
    std::string out;
    size_t i = 0;
    if (!path.empty() && path[0] == '~' && (path.size() == 1 || path[1] == '/')) {
        const char* home = getenv("HOME");
        out += home != nullptr ? home : "";
        i = 1;
    }
    while (i < path.size()) {
        char c = path[i];
        if (c != '$' || i + 1 >= path.size()) {
            out += c;
            ++i;
            continue;
        }
        std::string name;
        if (path[i + 1] == '{') {
            size_t close = path.find('}', i + 2);
            if (close == std::string_view::npos) {
                return std::nullopt;
            }
            name = std::string(path.substr(i + 2, close - i - 2));
            i = close + 1;
        } else {
            size_t j = i + 1;
            while (j < path.size() &&
                   (isalnum(static_cast<unsigned char>(path[j])) || path[j] == '_')) {
                ++j;
            }
            if (j == i + 1) {
                out += c;
                ++i;
                continue;
            }
            name = std::string(path.substr(i + 1, j - i - 1));
            i = j;
        }
        const char* value = getenv(name.c_str());
        out += value != nullptr ? value : "";
    }
    return out;
}

std::string qvhlp_unix_path_normalize(std::string_view path) {
    const bool absolute = !path.empty() && path[0] == '/';
    std::vector<std::string_view> parts;
    size_t pos = 0;
    while (pos <= path.size()) {
        size_t next = path.find('/', pos);
        if (next == std::string_view::npos) {
            next = path.size();
        }
        std::string_view seg = path.substr(pos, next - pos);
        if (seg.empty() || seg == ".") {
            // nothing
        } else if (seg == "..") {
            if (!parts.empty() && parts.back() != "..") {
                parts.pop_back();
            } else if (!absolute) {
                parts.push_back(seg);
            }
        } else {
            parts.push_back(seg);
        }
        pos = next + 1;
    }
    std::string out;
    for (std::string_view part : parts) {
        if (!out.empty() || absolute) {
            out.push_back('/');
        }
        out.append(part.data(), part.size());
    }
    if (out.empty()) {
        out.push_back(absolute ? '/' : '.');
    }
    return out;
}

time_t qvhlp_get_dir_mtime(const char* path) {
    struct stat st {};
    if (path == nullptr || stat(path, &st) != 0) {
        return 0;
    }
    return st.st_mtime;
}

int qvhlp_dump_buffer_to_file(const char* path, const void* buffer, size_t length) {
    qv::unique_fd fd(open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644));
    if (!fd) {
        log_error("Failed to open %s: %s", path, strerror(errno));
        return -1;
    }
    const char* p = static_cast<const char*>(buffer);
    while (length > 0) {
        ssize_t n = write(fd.get(), p, length);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            log_error("Failed to write %s: %s", path, strerror(errno));
            return -1;
        }
        p += n;
        length -= static_cast<size_t>(n);
    }
    return 0;
}
