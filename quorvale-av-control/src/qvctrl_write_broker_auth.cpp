#include "qvctrl_write_broker_auth.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <mutex>
#include <new>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "log.h"
#include "qv_handles.h"

namespace {

// Largest file the writer reads; anything bigger is not an installer's user list.
constexpr off_t kMaxFileSize = 67108864;
// The temporary file's path buffer, terminator included.
constexpr size_t kPathMax = 4096;
// How long a writer keeps opening the file again because another writer replaced it while this
// one was waiting for the lock. Each replacement is another writer's finished write, and writers
// of this file write once a poll, so replacements going on for this long mean that someone is
// rewriting it in a tight loop. A bound by time, not by count: a slow machine must not make a
// writer give up while a busy peer merely finishes a series of writes.
constexpr auto kMaxReopenTime = std::chrono::seconds(30);

// Record locks belong to the process: two threads of one daemon would both be granted the lock
// and merge into the same contents. They take turns here first.
std::mutex s_process_writers;

// Leaves errno set on failure (EFBIG for a file that is too large).
int slurp_file(int fd, std::string* text) {
    struct stat st {};
    if (fstat(fd, &st) != 0) {
        return -1;
    }
    if (st.st_size < 0 || st.st_size > kMaxFileSize) {
        errno = EFBIG;
        return -1;
    }
    text->assign(static_cast<size_t>(st.st_size), '\0');
    size_t done = 0;
    while (done < text->size()) {
        const ssize_t n =
            pread(fd, text->data() + done, text->size() - done, static_cast<off_t>(done));
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return -1;
        }
        if (n == 0) {
            break;  // the file shrank under a writer that ignores the lock
        }
        done += static_cast<size_t>(n);
    }
    text->resize(done);
    return 0;
}

// True when the descriptor still refers to the file at `path`. A writer that held the lock before
// us may have renamed a new file over the path; merging into the old one would throw away what
// that writer (or an installer using the same lock) put there.
bool s_still_at_path(int fd, const char* path) {
    struct stat held {};
    struct stat current {};
    if (fstat(fd, &held) != 0 || stat(path, &current) != 0) {
        return false;
    }
    return held.st_dev == current.st_dev && held.st_ino == current.st_ino;
}

// Opens the file (creating it, mode 0600) and takes the whole-file write lock on the file that is
// at the path once the lock is granted. An invalid descriptor after a logged failure.
qv::unique_fd s_open_locked(const char* path) {
    const auto deadline = std::chrono::steady_clock::now() + kMaxReopenTime;
    while (std::chrono::steady_clock::now() < deadline) {
        qv::unique_fd fd(open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600));
        if (!fd) {
            log_error("write_broker_auth: open %s: %m", path);
            return {};
        }
        struct flock whole {};
        whole.l_type = F_WRLCK;
        whole.l_whence = SEEK_SET;
        whole.l_start = 0;
        whole.l_len = 0;
        int rc = 0;
        do {
            rc = fcntl(fd.get(), F_SETLKW, &whole);
        } while (rc != 0 && errno == EINTR);
        if (rc != 0) {
            log_error("write_broker_auth: fcntl F_SETLKW on %s: %m", path);
            return {};
        }
        if (s_still_at_path(fd.get(), path)) {
            return fd;
        }
        log_debug("write_broker_auth: %s was replaced while waiting for the lock; opening it again",
                  path);
    }
    log_error("write_broker_auth: %s keeps being replaced by other writers; will retry later",
              path);
    return {};
}

// Writes `data` to a temporary file beside `path` and renames it over `path`, keeping the mode and
// owner of the file open at `fd`.
int atomic_replace(const char* path, int fd, std::string_view data) {
    char tmp[kPathMax];
    const int n = snprintf(tmp, sizeof(tmp), "%s.tmp.%d", path, static_cast<int>(getpid()));
    if (n < 0 || static_cast<size_t>(n) >= sizeof(tmp)) {
        log_error("write_broker_auth: temp path too long for %s", path);
        return -1;
    }
    struct stat old {};
    const bool have_old = fstat(fd, &old) == 0;

    qv::unique_fd out(open(tmp, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (!out) {
        log_error("write_broker_auth: open %s for write: %m", tmp);
        return -1;
    }
    size_t done = 0;
    while (done < data.size()) {
        const ssize_t w = write(out.get(), data.data() + done, data.size() - done);
        if (w < 0) {
            if (errno == EINTR) {
                continue;
            }
            log_error("write_broker_auth: write %s: %m", tmp);
            out.reset();
            unlink(tmp);
            return -1;
        }
        done += static_cast<size_t>(w);
    }
    // Mode and owner are set before the flush, so that they reach the disk with the data.
    if (have_old) {
        if (fchmod(out.get(), old.st_mode & 07777) != 0) {
            log_warn("write_broker_auth: chmod %s: %m", tmp);
        }
        // Only root may give a file away; a daemon running as the file's owner keeps it anyway.
        if (fchown(out.get(), old.st_uid, old.st_gid) != 0 && errno != EPERM) {
            log_warn("write_broker_auth: chown %s: %m", tmp);
        }
    }
    if (fsync(out.get()) != 0) {
        log_error("write_broker_auth: fsync %s: %m", tmp);
        out.reset();
        unlink(tmp);
        return -1;
    }
    out.reset();
    if (rename(tmp, path) != 0) {
        log_error("write_broker_auth: rename %s -> %s: %m", tmp, path);
        unlink(tmp);
        return -1;
    }
    return 0;
}

// Where the line that closes the users array starts: the last line that is "]" once its trailing
// CRs and LFs and its leading blanks and tabs are gone. npos when there is none.
size_t s_closing_bracket_line(std::string_view text) {
    size_t line_end = text.size();
    for (;;) {
        const size_t nl = line_end == 0 ? std::string_view::npos : text.rfind('\n', line_end - 1);
        const size_t line_start = nl == std::string_view::npos ? 0 : nl + 1;
        std::string_view line = text.substr(line_start, line_end - line_start);
        while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) {
            line.remove_suffix(1);
        }
        while (!line.empty() && (line.front() == ' ' || line.front() == '\t')) {
            line.remove_prefix(1);
        }
        if (line == "]") {
            return line_start;
        }
        if (nl == std::string_view::npos) {
            return std::string_view::npos;
        }
        line_end = nl;
    }
}

qvctrl_auth_merge bootstrap_markers(std::string_view file, std::string_view block,
                                    std::string* merged) {
    if (file.empty()) {
        log_error(
            "write_broker_auth: empty auth file; refusing to bootstrap (installer should have "
            "generated a users = [ ... ] block)");
        return qvctrl_auth_merge::refused;
    }
    const size_t at = s_closing_bracket_line(file);
    if (at == std::string_view::npos) {
        log_error(
            "write_broker_auth: no \"]\" terminator line found — file is not in the "
            "installer-generated nats-server-format users array shape");
        return qvctrl_auth_merge::refused;
    }
    try {
        merged->clear();
        merged->reserve(file.size() + block.size());
        merged->append(file.substr(0, at)).append(block).append(file.substr(at));
    } catch (const std::bad_alloc&) {
        log_error("write_broker_auth: malloc merged: out of memory");
        return qvctrl_auth_merge::refused;
    }
    // Kept: the line names the file by its default name, whatever path was written; operators'
    // log searches look for this exact line.
    log_info("write_broker_auth: bootstrapped marker pair into existing %s", "qv-av-broker.auth");
    return qvctrl_auth_merge::bootstrapped;
}

}  // namespace

bool qvctrl_broker_auth_value_ok(std::string_view value) {
    for (const unsigned char c : value) {
        if (c == '"' || c == '\\' || c < 0x20 || c == 0x7f) {
            return false;
        }
    }
    // A marker inside a value would end or start the region in the middle of a user entry.
    return value.find(QVCTRL_BEGIN_MARKER) == std::string_view::npos &&
           value.find(QVCTRL_END_MARKER) == std::string_view::npos;
}

std::string qvctrl_broker_auth_block(std::string_view broker_name, const qvctrl_realm_t* realms,
                                     size_t n_realms) {
    std::string block;
    block.reserve(320 * n_realms + 1024);
    block.append(QVCTRL_BEGIN_MARKER).append(" (do not edit by hand) ──\n");
    for (size_t i = 0; i < n_realms; ++i) {
        const qvctrl_realm_t& realm = realms[i];
        if (realm.realm_id.empty() || realm.password.empty()) {
            log_warn("write_broker_auth: skipping malformed realm at index %zu", i);
            continue;
        }
        if (!qvctrl_broker_auth_value_ok(realm.realm_id) ||
            !qvctrl_broker_auth_value_ok(realm.password)) {
            log_warn(
                "write_broker_auth: skipping realm at index %zu: its id or password cannot be "
                "written into the broker configuration as it is",
                i);
            continue;
        }
        block.append("        {\n");
        block.append("            user: \"")
            .append(realm.realm_id)
            .append("@")
            .append(broker_name)
            .append("\"\n");
        block.append("            password: \"").append(realm.password).append("\"\n");
        block.append("            permissions: {\n");
        block.append("                publish:   { allow: [\">\"] }\n");
        block.append("                subscribe: { allow: [\">\"] }\n");
        block.append("            }\n");
        block.append("        }\n");
    }
    block.append(QVCTRL_END_MARKER).append(" ──\n");
    return block;
}

qvctrl_auth_merge qvctrl_broker_auth_merge(std::string_view file, std::string_view block,
                                           size_t n_realms, std::string* merged) {
    // find_marker_slice: the region runs from the line after the begin marker to the end marker.
    const size_t begin = file.find(QVCTRL_BEGIN_MARKER);
    if (begin == std::string_view::npos) {
        return bootstrap_markers(file, block, merged);
    }
    const size_t begin_line_end = file.find('\n', begin);
    const size_t start =
        begin_line_end == std::string_view::npos ? file.size() : begin_line_end + 1;
    const size_t end = file.find(QVCTRL_END_MARKER, start);
    if (end == std::string_view::npos) {
        log_error(
            "write_broker_auth: BEGIN marker found but END marker missing — refusing to overwrite "
            "potentially-corrupted region");
        return qvctrl_auth_merge::refused;
    }

    const size_t first_nl = block.find('\n');
    if (first_nl == std::string_view::npos) {
        log_error("write_broker_auth: malformed generated block (no newline)");
        return qvctrl_auth_merge::refused;
    }
    const size_t block_end = block.find(QVCTRL_END_MARKER, first_nl + 1);
    if (block_end == std::string_view::npos) {
        log_error("write_broker_auth: generated block missing END marker (bug)");
        return qvctrl_auth_merge::refused;
    }
    const std::string_view fresh = block.substr(first_nl + 1, block_end - first_nl - 1);
    if (file.substr(start, end - start) == fresh) {
        log_debug("write_broker_auth: cloud-managed slice unchanged (%zu realms); skipping rewrite",
                  n_realms);
        return qvctrl_auth_merge::unchanged;
    }
    try {
        merged->clear();
        merged->reserve(start + fresh.size() + (file.size() - end));
        merged->append(file.substr(0, start)).append(fresh).append(file.substr(end));
    } catch (const std::bad_alloc&) {
        log_error("write_broker_auth: malloc merged: out of memory");
        return qvctrl_auth_merge::refused;
    }
    return qvctrl_auth_merge::replaced;
}

namespace {

int s_write(const char* path, const char* broker_name, const qvctrl_realm_t* realms,
            size_t n_realms, bool* changed) {
    if (path == nullptr || path[0] == '\0') {
        log_error("write_broker_auth: auth_file_path is required");
        return -1;
    }
    if (broker_name == nullptr || broker_name[0] == '\0') {
        log_error("write_broker_auth: broker_name is required");
        return -1;
    }
    if (realms == nullptr && n_realms != 0) {
        log_error("write_broker_auth: realms NULL but n_realms=%zu", n_realms);
        return -1;
    }
    // The broker name is part of every realm's user: if it cannot be written, no realm can.
    if (!qvctrl_broker_auth_value_ok(broker_name)) {
        log_error(
            "write_broker_auth: broker_name cannot be written into the broker configuration as "
            "it is");
        return -1;
    }

    const std::lock_guard<std::mutex> turn(s_process_writers);
    // Closing the descriptor at the end releases the lock.
    qv::unique_fd fd = s_open_locked(path);
    if (!fd) {
        return -1;
    }
    std::string file;
    if (slurp_file(fd.get(), &file) != 0) {
        log_error("write_broker_auth: read %s: %m", path);
        return -1;
    }
    std::string block;
    try {
        block = qvctrl_broker_auth_block(broker_name, realms, n_realms);
    } catch (const std::bad_alloc&) {
        log_error("write_broker_auth: build_block: out of memory");
        return -1;
    }
    std::string merged;
    switch (qvctrl_broker_auth_merge(file, block, n_realms, &merged)) {
        case qvctrl_auth_merge::unchanged:
            return 0;
        case qvctrl_auth_merge::refused:
            return -1;
        case qvctrl_auth_merge::replaced:
            if (atomic_replace(path, fd.get(), merged) != 0) {
                return -1;
            }
            log_info("write_broker_auth: wrote %zu cloud-managed realm(s) to %s", n_realms, path);
            break;
        case qvctrl_auth_merge::bootstrapped:
            if (atomic_replace(path, fd.get(), merged) != 0) {
                return -1;
            }
            break;
    }
    if (changed != nullptr) {
        *changed = true;
    }
    return 0;
}

}  // namespace

int qvctrl_write_broker_auth(const char* auth_file_path, const char* broker_name,
                             const qvctrl_realm_t* realms, size_t n_realms, bool* changed) {
    log_trace("Entering");
    if (changed != nullptr) {
        *changed = false;
    }
    int rc = -1;
    try {
        rc = s_write(auth_file_path, broker_name, realms, n_realms, changed);
    } catch (const std::exception& e) {
        log_error("write_broker_auth: %s", e.what());
        rc = -1;
    }
    log_trace("Exiting");
    return rc;
}
