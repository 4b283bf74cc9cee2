#include "qv_pqueue.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <new>

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include "log.h"
#include "qv_uuid.h"

namespace {

using dir_ptr = qv::handle<DIR, closedir>;

constexpr const char* s_claimed_tag = "claimed_";
constexpr const char* s_temp_tag = "temp_";

// The text of errno. Consumers on several threads report failures at once, so this keeps its
// own buffer rather than the shared one of QVstrerror.
std::string s_errno_text() {
    char buffer[256];
    return strerror_r(errno, buffer, sizeof(buffer));
}

std::string s_join(const std::string& dir, const std::string& name) {
    char path[4096];
    snprintf(path, sizeof(path), "%s%c%s", dir.c_str(), '/', name.c_str());
    return path;
}

bool s_is_dir(const char* path) {
    struct stat st {};
    return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

// The flags select an action only when they hold that flag alone, or nothing at all.
bool s_flags_are_only(int file_flags, int flag) {
    return (file_flags | flag) == flag;
}

std::unique_ptr<qv_pqueue> s_new_handle(const char* qname, const std::string& q_dir,
                                        uint64_t max_entries, uint64_t maxsize_on_disk,
                                        qv_pqueue_full_behaviour if_full) {
    auto q = std::make_unique<qv_pqueue>();
    q->queue_dir = q_dir;
    char text[4096];
    snprintf(text, sizeof(text), "%s%cdata", q_dir.c_str(), '/');
    q->queue_data_dir = text;
    snprintf(text, sizeof(text), "%s%ccontrol", q_dir.c_str(), '/');
    q->controlfile = text;
    snprintf(text, sizeof(text), "qv_%s", qname);
    q->semaphore_name = text;
    q->max_elements = max_entries;
    q->max_size = maxsize_on_disk;
    q->if_full = if_full;
    return q;
}

int s_write_controlfile(const qv_pqueue* q) {
    qv::file_ptr f(fopen(q->controlfile.c_str(), "w"));
    if (!f) {
        return -1;
    }
    setvbuf(f.get(), nullptr, _IONBF, 0);
    if (fprintf(f.get(), "%ld\n%ld\n%d\n", static_cast<long>(q->max_elements),
                static_cast<long>(q->max_size), static_cast<int>(q->if_full)) < 0 ||
        fflush(f.get()) != 0) {
        return -1;
    }
    return fclose(f.release()) == 0 ? 0 : -1;
}

int s_read_controlfile(qv_pqueue* q) {
    qv::file_ptr f(fopen(q->controlfile.c_str(), "r"));
    if (!f) {
        log_error("failed to open control file %s: %s", q->controlfile.c_str(),
                  s_errno_text().c_str());
        return -1;
    }
    long values[3] = {};
    for (long& value : values) {
        char line[128];
        errno = 0;
        if (fgets(line, sizeof(line), f.get()) == nullptr) {
            log_error("failed to read control file %s: %s", q->controlfile.c_str(),
                      s_errno_text().c_str());
            return -1;
        }
        value = atol(line);
    }
    q->max_elements = static_cast<uint64_t>(values[0]);
    q->max_size = static_cast<uint64_t>(values[1]);
    q->if_full = static_cast<qv_pqueue_full_behaviour>(values[2]);
    return 0;
}

// Recounts the element directory: waiting, temporary and claimed files alike.
int s_update_queuestat(qv_pqueue* q) {
    dir_ptr dir(opendir(q->queue_data_dir.c_str()));
    if (!dir) {
        log_error("Failed to open %s: %s", q->queue_data_dir.c_str(), s_errno_text().c_str());
        return -1;
    }
    uint64_t elements = 0;
    uint64_t size = 0;
    while (struct dirent* entry = readdir(dir.get())) {
        struct stat st {};
        if (fstatat(dirfd(dir.get()), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISREG(st.st_mode)) {
            elements++;
            size += static_cast<uint64_t>(st.st_size);
        }
    }
    q->current_elements = elements;
    q->current_size = size;
    return 0;
}

void s_decrement_elements(qv_pqueue* q) {
    uint64_t current = q->current_elements.load();
    while (current > 0 && !q->current_elements.compare_exchange_weak(current, current - 1)) {
    }
}

// Reads the whole file at element->id into element->data (one zero byte beyond the contents).
int s_read_element_file(qv_pqueue_data* element) {
    struct stat st {};
    if (stat(element->id.c_str(), &st) != 0) {
        log_error("Failed to get size of %s: %s", element->id.c_str(), s_errno_text().c_str());
        return -1;
    }
    const size_t size = static_cast<size_t>(st.st_size);
    element->data.assign(size + 1, 0);
    qv::unique_fd fd(open(element->id.c_str(), O_RDONLY | O_CLOEXEC));
    size_t done = 0;
    while (fd && done < size) {
        ssize_t n = read(fd.get(), element->data.data() + done, size - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            if (n == 0) {
                errno = EIO;  // shorter than its size a moment ago
            }
            break;
        }
        done += static_cast<size_t>(n);
    }
    if (!fd || done < size) {
        log_error("Failed to read %s into buffer: %s", element->id.c_str(), s_errno_text().c_str());
        element->data.clear();
        element->datalen = 0;
        return -1;
    }
    element->datalen = size;
    return 0;
}

int s_write_file(const std::string& path, const void* data, uint64_t datalen) {
    qv::unique_fd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (!fd) {
        return -1;
    }
    const auto* p = static_cast<const unsigned char*>(data);
    uint64_t done = 0;
    while (done < datalen) {
        ssize_t n = write(fd.get(), p + done, static_cast<size_t>(datalen - done));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return -1;
        }
        done += static_cast<uint64_t>(n);
    }
    return close(fd.release()) == 0 ? 0 : -1;
}

std::string s_time_uuid() {
    uuid_t uuid;
    char text[37];
    qv_uuid_generate_time_safe(uuid);
    qv_uuid_unparse_lower(uuid, text);
    return text;
}

// Creates a directory of mode 0770 whatever the umask; an existing one is accepted as it is.
int s_make_queue_dir(const std::string& path) {
    if (mkdir(path.c_str(), 0770) == 0) {
        return chmod(path.c_str(), 0770);
    }
    return errno == EEXIST ? 0 : -1;
}

}  // namespace

std::string qv_pqueue_claimed_to_waiting_name(const std::string& claimed_name) {
    const size_t tag_len = strlen(s_claimed_tag);
    if (claimed_name.compare(0, tag_len, s_claimed_tag) != 0) {
        return "";
    }
    size_t pos = tag_len;
    while (pos < claimed_name.size() && claimed_name[pos] >= '0' && claimed_name[pos] <= '9') {
        pos++;
    }
    if (pos == tag_len || pos + 1 >= claimed_name.size() || claimed_name[pos] != '_' ||
        (claimed_name[pos + 1] != 'L' && claimed_name[pos + 1] != 'E')) {
        return "";
    }
    return claimed_name.substr(pos + 1);
}

std::unique_ptr<qv_pqueue> qv_pqueue_create_new(const char* qname, const char* q_dir,
                                                uint64_t max_entries, uint64_t maxsize_on_disk,
                                                int file_flags, qv_pqueue_full_behaviour if_full) {
    log_trace("Entering");
    if (!s_flags_are_only(file_flags, O_CREAT)) {
        errno = ENOENT;
        return nullptr;
    }
    if (qname == nullptr || q_dir == nullptr) {
        log_error("Invalid parameters");
        return nullptr;
    }
    // The queue directory goes into its parent; report when that (or a queue directory that is
    // already there) cannot be written, and let the creation below say what failed.
    const std::string parent = std::filesystem::path(q_dir).parent_path().string();
    const char* probe = s_is_dir(q_dir) ? q_dir : (parent.empty() ? "." : parent.c_str());
    if (access(probe, W_OK) != 0) {
        log_error("%s not writable - check permissions", probe);
    }
    std::unique_ptr<qv_pqueue> q;
    try {
        q = s_new_handle(qname, q_dir, max_entries, maxsize_on_disk, if_full);
    } catch (const std::bad_alloc&) {
        log_error("Failed to create new queue metadata");
        return nullptr;
    }
    for (const std::string* dir : {&q->queue_dir, &q->queue_data_dir}) {
        if (s_make_queue_dir(*dir) != 0) {
            log_error("Failed to create %s: %s", dir->c_str(), s_errno_text().c_str());
            return nullptr;
        }
    }
    if (s_write_controlfile(q.get()) != 0) {
        log_error("Failed to save queue control file");
        return nullptr;
    }
    log_trace("Exiting");
    return q;
}

std::unique_ptr<qv_pqueue> qv_pqueue_open(const char* rundir, const char* qname,
                                          uint64_t max_entries, uint64_t maxsize_on_disk,
                                          int file_flags, qv_pqueue_full_behaviour if_full) {
    log_trace("Entering");
    if (rundir == nullptr || qname == nullptr) {
        log_error("Invalid parameters");
        return nullptr;
    }
    char q_dir[4096];
    snprintf(q_dir, sizeof(q_dir), "%s%c%s", rundir, '/', qname);
    if (!(s_is_dir(q_dir) && access(q_dir, W_OK) == 0)) {
        return qv_pqueue_create_new(qname, q_dir, max_entries, maxsize_on_disk, file_flags,
                                    if_full);
    }
    log_debug("Queue %s exists and is accessible", q_dir);
    std::unique_ptr<qv_pqueue> q;
    try {
        q = s_new_handle(qname, q_dir, max_entries, maxsize_on_disk, if_full);
    } catch (const std::bad_alloc&) {
        log_error("Failed to create new queue metadata");
        return nullptr;
    }
    // A queue keeps the limits it was created with, whatever this caller asks for.
    if (s_read_controlfile(q.get()) != 0) {
        log_error("Failed to read controlfile");
    }
    if (s_flags_are_only(file_flags, O_TRUNC)) {
        log_debug("Flag O_TRUNC passed, truncating queue %s", q_dir);
        qv_pqueue_purge(q.get());
    }
    log_debug("pqueue %s opened", q_dir);
    log_trace("Exiting");
    return q;
}

int qv_pqueue_close(std::unique_ptr<qv_pqueue> q) {
    return q ? 0 : -1;
}

int qv_pqueue_lock(qv_pqueue* q) {
    if (q == nullptr) {
        return -1;
    }
    qv::unique_fd fd(open(q->controlfile.c_str(), O_RDWR | O_CLOEXEC));
    if (!fd) {
        log_error("Failed to open %s: %s", q->controlfile.c_str(), s_errno_text().c_str());
        return -1;
    }
    if (flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
        return -1;
    }
    q->mutex.lock();
    q->lock_fd = std::move(fd);
    return 0;
}

int qv_pqueue_unlock(qv_pqueue* q) {
    if (q == nullptr || !q->lock_fd) {
        // Lock takes the descriptor and the mutex together: without the one, the caller does not
        // hold the other either.
        return -1;
    }
    flock(q->lock_fd.get(), LOCK_UN);
    q->lock_fd.reset();
    q->mutex.unlock();
    return 0;
}

int qv_pqueue_push(qv_pqueue* q, char prefix, const void* data, uint64_t datalen) {
    log_trace("Entering");
    if (q == nullptr || data == nullptr || datalen == 0) {
        log_error("Invalid parameters");
        return -1;
    }
    try {
        s_update_queuestat(q);
        const uint64_t elements = q->current_elements.load();
        const uint64_t size = q->current_size.load();
        if (elements + 1 > q->max_elements || size + datalen > q->max_size) {
            log_warn("Queue full: %d Elements (max %d), %d bytes (max %d)",
                     static_cast<int>(elements), static_cast<int>(q->max_elements),
                     static_cast<int>(size), static_cast<int>(q->max_size));
            return -1;
        }
        std::string name;
        std::string final_path;
        do {
            name = std::string(1, prefix) + s_time_uuid() + ".dat";
            final_path = s_join(q->queue_data_dir, name);
        } while (access(final_path.c_str(), F_OK) == 0);
        const std::string temp_path = s_join(q->queue_data_dir, s_temp_tag + name);

        if (s_write_file(temp_path, data, datalen) != 0) {
            log_error("Failed to write buffer to file %s, %s", temp_path.c_str(),
                      s_errno_text().c_str());
            unlink(temp_path.c_str());
            return -1;
        }
        // The rename is what makes the element visible, complete, to every consumer.
        if (rename(temp_path.c_str(), final_path.c_str()) != 0) {
            log_error("Failed to rename %s to %s: %s", temp_path.c_str(), final_path.c_str(),
                      s_errno_text().c_str());
            unlink(temp_path.c_str());
            return -1;
        }
        // The recount above is a full directory walk; the new element is simply added to it
        // rather than walking again (the counters are advisory between recounts anyway).
        q->current_elements += 1;
        q->current_size += datalen;
    } catch (const std::bad_alloc&) {
        log_error("Failed to allocate memory for %s", "queue element");
        return -1;
    }
    log_trace("Exiting");
    return 0;
}

std::unique_ptr<qv_pqueue_data> qv_pqueue_pop(qv_pqueue* q, char prefix) {
    log_trace("Entering");
    if (q == nullptr) {
        log_error("Invalid parameters");
        return nullptr;
    }
    if (prefix != 'E' && prefix != 'L') {
        log_error("Invalid prefix filter");
        return nullptr;
    }
    try {
        std::string oldest;
        {
            dir_ptr dir(opendir(q->queue_data_dir.c_str()));
            if (!dir) {
                log_error("Failed to open %s: %s", q->queue_data_dir.c_str(),
                          s_errno_text().c_str());
                return nullptr;
            }
            time_t oldest_time = time(nullptr) + 1;
            while (struct dirent* entry = readdir(dir.get())) {
                struct stat st {};
                if (entry->d_name[0] != prefix ||
                    fstatat(dirfd(dir.get()), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 ||
                    !S_ISREG(st.st_mode)) {
                    continue;
                }
                if (st.st_mtime < oldest_time) {
                    oldest_time = st.st_mtime;
                    oldest = entry->d_name;
                }
            }
        }
        if (oldest.empty()) {
            return nullptr;
        }
        auto element = std::make_unique<qv_pqueue_data>();
        element->id = s_join(q->queue_data_dir, oldest);
        element->prefix = oldest[0];
        if (s_read_element_file(element.get()) != 0) {
            return nullptr;
        }
        s_decrement_elements(q);
        s_update_queuestat(q);
        log_trace("Exiting");
        return element;
    } catch (const std::bad_alloc&) {
        log_error("Failed to allocate memory for %s", "element");
        return nullptr;
    }
}

int qv_pqueue_claim_batch(qv_pqueue* q, const char* prefix_filter, size_t max_batch,
                          std::vector<std::unique_ptr<qv_pqueue_data>>* out) {
    log_trace("Entering");
    if (out != nullptr) {
        out->clear();
    }
    if (q == nullptr || prefix_filter == nullptr || out == nullptr || max_batch == 0) {
        log_error("Invalid parameters");
        return -1;
    }
    try {
        std::vector<std::string> names;
        {
            dir_ptr dir(opendir(q->queue_data_dir.c_str()));
            if (!dir) {
                log_error("Failed to open %s: %s", q->queue_data_dir.c_str(),
                          s_errno_text().c_str());
                return -1;
            }
            // Temporary and claimed names start with 't' and 'c' and so never match an element
            // prefix.
            while (names.size() < max_batch) {
                struct dirent* entry = readdir(dir.get());
                if (entry == nullptr) {
                    break;
                }
                if (entry->d_name[0] != '\0' &&
                    strchr(prefix_filter, entry->d_name[0]) != nullptr) {
                    names.emplace_back(entry->d_name);
                }
            }
        }
        const std::string pid_tag = s_claimed_tag + std::to_string(getpid()) + "_";
        for (const std::string& name : names) {
            const std::string waiting = s_join(q->queue_data_dir, name);
            const std::string claimed = s_join(q->queue_data_dir, pid_tag + name);
            // Whoever renames first owns the element; the loser simply moves on.
            if (rename(waiting.c_str(), claimed.c_str()) != 0) {
                log_trace("Could not claim %s: %s", waiting.c_str(), s_errno_text().c_str());
                continue;
            }
            try {
                auto element = std::make_unique<qv_pqueue_data>();
                element->id = claimed;
                element->restore_id = waiting;
                element->prefix = name[0];
                out->push_back(std::move(element));
            } catch (const std::bad_alloc&) {
                log_error("Failed to record claim for %s; rolling back", waiting.c_str());
                rename(claimed.c_str(), waiting.c_str());
                break;
            }
            s_decrement_elements(q);
        }
    } catch (const std::bad_alloc&) {
        log_error("Failed to allocate memory for %s", "claim batch");
    }
    log_trace("Exiting");
    return static_cast<int>(out->size());
}

int qv_pqueue_reclaim_stale_claims(qv_pqueue* q, long max_age_secs) {
    log_trace("Entering");
    if (q == nullptr) {
        log_error("Invalid parameters");
        return -1;
    }
    if (qv_pqueue_lock(q) != 0) {
        log_debug("Queue busy; skipping stale-claim reclaim sweep");
        return 0;
    }
    int count = 0;
    int rc = 0;
    try {
        std::vector<std::string> stale;
        dir_ptr dir(opendir(q->queue_data_dir.c_str()));
        if (!dir) {
            log_error("Failed to open %s: %s", q->queue_data_dir.c_str(), s_errno_text().c_str());
            rc = -1;
        } else {
            // Renames keep the modification time, so the age counts from the push.
            const time_t cutoff = time(nullptr) - max_age_secs;
            const size_t tag_len = strlen(s_claimed_tag);
            while (struct dirent* entry = readdir(dir.get())) {
                struct stat st {};
                if (strncmp(entry->d_name, s_claimed_tag, tag_len) == 0 &&
                    fstatat(dirfd(dir.get()), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 &&
                    S_ISREG(st.st_mode) && st.st_mtime <= cutoff) {
                    stale.emplace_back(entry->d_name);
                }
            }
            dir.reset();
        }
        for (const std::string& name : stale) {
            const std::string waiting = qv_pqueue_claimed_to_waiting_name(name);
            if (waiting.empty()) {
                log_warn("Cannot parse claim filename '%s'; leaving in place", name.c_str());
                continue;
            }
            const std::string from = s_join(q->queue_data_dir, name);
            const std::string to = s_join(q->queue_data_dir, waiting);
            if (rename(from.c_str(), to.c_str()) != 0) {
                log_error("Failed to reclaim stale claimed entry '%s': %s", from.c_str(),
                          s_errno_text().c_str());
                continue;
            }
            log_debug("Reclaimed stale claimed entry %s -> %s", from.c_str(), to.c_str());
            count++;
        }
    } catch (const std::bad_alloc&) {
        log_error("Failed to allocate memory for %s", "stale claims");
        rc = -1;
    }
    qv_pqueue_unlock(q);
    if (count > 0) {
        log_info("Re-entered %d stale claimed queue entr%s into the dispatch pool", count,
                 count == 1 ? "y" : "ies");
    }
    log_trace("Exiting");
    return rc != 0 && count == 0 ? rc : count;
}

int qv_pqueue_data_read(qv_pqueue_data* element) {
    if (element == nullptr) {
        log_error("Invalid parameters");
        return -1;
    }
    try {
        return s_read_element_file(element);
    } catch (const std::bad_alloc&) {
        log_error("Failed to allocate memory for %s", element->id.c_str());
        element->data.clear();
        element->datalen = 0;
        return -1;
    }
}

int qv_pqueue_data_free(std::unique_ptr<qv_pqueue_data> element) {
    return element ? 0 : -1;
}

int qv_pqueue_purge(qv_pqueue* q) {
    log_trace("Entering");
    if (q == nullptr || qv_pqueue_lock(q) != 0) {
        return -1;
    }
    // The directory this clears has never been the element directory: the "%d" in the name's
    // format consumes the "d" of "data", so the sibling "0ata" is removed and made afresh.
    // Purging therefore resets the counters and the control file but leaves waiting elements
    // in place, and the next recount finds them again. Existing queues and their producers
    // have always seen purges behave this way, so it is kept.
    char cleared[4096];
    snprintf(cleared, sizeof(cleared), "%s%c%data", q->queue_dir.c_str(), '/', 0);
    std::error_code ec;
    std::filesystem::remove_all(cleared, ec);
    s_make_queue_dir(cleared);
    q->current_elements = 0;
    q->current_size = 0;
    if (s_write_controlfile(q) != 0) {
        log_error("Failed to save queue control file");
        qv_pqueue_unlock(q);
        return -1;
    }
    qv_pqueue_unlock(q);
    log_trace("Exiting");
    return 0;
}
