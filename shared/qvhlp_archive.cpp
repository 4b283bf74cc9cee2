#include "qvhlp_archive.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "qv_handles.h"

namespace {

// Enough for any number of switches within one second.
constexpr int s_max_name_counter = 100000;

std::string s_errno_text(const char* what, int error) {
    return std::string(what) + ": " + strerror(error);
}

std::string s_archive_text(const char* what, struct archive* archive) {
    const char* text = archive != nullptr ? archive_error_string(archive) : nullptr;
    return std::string(what) + ": " + (text != nullptr ? text : "unknown error");
}

// Creates the first free name of `archive_name`, "<stem>_1.zip", "<stem>_2.zip", ... exclusively.
qv::unique_fd s_create_exclusive(const std::string& archive_name, std::string* created,
                                 std::string* error) {
    std::string stem = archive_name;
    std::string suffix;
    if (stem.size() > 4 && stem.compare(stem.size() - 4, 4, ".zip") == 0) {
        suffix = ".zip";
        stem.resize(stem.size() - 4);
    }
    for (int counter = 0; counter <= s_max_name_counter; ++counter) {
        std::string name =
            counter == 0 ? archive_name : stem + "_" + std::to_string(counter) + suffix;
        qv::unique_fd fd(open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
        if (fd) {
            *created = std::move(name);
            return fd;
        }
        if (errno != EEXIST) {
            *error = s_errno_text(name.c_str(), errno);
            return qv::unique_fd();
        }
    }
    *error = archive_name + ": no free archive name";
    return qv::unique_fd();
}

// Reads until the buffer is full or the end of the file; the count, or -1.
ssize_t s_read_full(int fd, char* buffer, size_t size) {
    size_t done = 0;
    while (done < size) {
        const ssize_t n = read(fd, buffer + done, size - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            return -1;
        }
        if (n == 0) {
            break;
        }
        done += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(done);
}

// Writes the one entry of `path` into the open archive file. 0, or -1 with the reason.
int s_write_archive(const char* path, int source, const struct stat& st, int archive_fd,
                    std::string* error) {
    qv::archive_write_ptr archive(archive_write_new());
    if (!archive) {
        *error = "Failed to allocate archive";
        return -1;
    }
    if (archive_write_set_format_zip(archive.get()) != ARCHIVE_OK ||
        archive_write_open_fd(archive.get(), archive_fd) != ARCHIVE_OK) {
        *error = s_archive_text("Failed to open archive", archive.get());
        return -1;
    }
    qv::archive_entry_ptr entry(archive_entry_new());
    if (!entry) {
        *error = "Failed to allocate archive entry";
        return -1;
    }
    archive_entry_set_pathname(entry.get(), path);
    archive_entry_set_size(entry.get(), st.st_size);
    archive_entry_set_filetype(entry.get(), AE_IFREG);
    archive_entry_set_perm(entry.get(), 0644);
    if (archive_write_header(archive.get(), entry.get()) != ARCHIVE_OK) {
        *error = s_archive_text("Failed to write archive entry", archive.get());
        return -1;
    }
    // Exactly the size in the entry's header: a file that is shorter or longer than it was a
    // moment ago would make an archive that does not hold what is about to be removed.
    std::vector<char> buffer(8192);
    const auto size = static_cast<uint64_t>(st.st_size);
    uint64_t copied = 0;
    while (true) {
        const ssize_t n = s_read_full(source, buffer.data(), buffer.size());
        if (n < 0) {
            *error = s_errno_text(path, errno);
            return -1;
        }
        if (n == 0) {
            break;
        }
        if (copied + static_cast<uint64_t>(n) > size) {
            *error = std::string(path) + ": file grew while it was archived";
            return -1;
        }
        if (archive_write_data(archive.get(), buffer.data(), static_cast<size_t>(n)) != n) {
            *error = s_archive_text("Failed to write archive data", archive.get());
            return -1;
        }
        copied += static_cast<uint64_t>(n);
    }
    if (copied != size) {
        *error = std::string(path) + ": file shrank while it was archived";
        return -1;
    }
    if (archive_write_finish_entry(archive.get()) != ARCHIVE_OK ||
        archive_write_close(archive.get()) != ARCHIVE_OK) {
        *error = s_archive_text("Failed to close archive", archive.get());
        return -1;
    }
    return 0;
}

}  // namespace

std::string qvhlp_archive_name(const char* path) {
    char stamp[80];
    time_t now = time(nullptr);
    struct tm local {};
    localtime_r(&now, &local);
    strftime(stamp, sizeof(stamp), "%F__%H-%M-%S", &local);
    char archive_name[4096];
    snprintf(archive_name, sizeof(archive_name), "%s_%s.zip", path, stamp);
    return archive_name;
}

int qvhlp_archive_and_remove(const char* path, const std::string& archive_name,
                             std::string* written, std::string* error) {
    std::string reason;
    std::string created;
    int rc = -1;
    // Non-blocking, so that a pipe in place of the log is refused below instead of waited on.
    qv::unique_fd source(open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat st {};
    if (!source) {
        reason = s_errno_text(path, errno);
    } else if (fstat(source.get(), &st) != 0) {
        reason = s_errno_text(path, errno);
    } else if (!S_ISREG(st.st_mode)) {
        // A device or pipe in place of the log has no end to copy and must not be removed.
        reason = std::string(path) + ": not a regular file";
    } else {
        qv::unique_fd archive_fd = s_create_exclusive(archive_name, &created, &reason);
        if (archive_fd) {
            rc = s_write_archive(path, source.get(), st, archive_fd.get(), &reason);
            // The log is removed next: its lines must be on disk in the archive first.
            if (rc == 0 && fsync(archive_fd.get()) != 0) {
                reason = s_errno_text(created.c_str(), errno);
                rc = -1;
            }
            if (close(archive_fd.release()) != 0 && rc == 0) {
                reason = s_errno_text(created.c_str(), errno);
                rc = -1;
            }
            // A log that cannot be removed stays the current one; its archive would only
            // double its lines at the next switch. (One that is gone already lives on in it.)
            if (rc == 0 && unlink(path) != 0 && errno != ENOENT) {
                reason = s_errno_text(path, errno);
                rc = -1;
            }
            if (rc != 0) {
                unlink(created.c_str());
            }
        }
    }
    if (rc == 0 && written != nullptr) {
        *written = created;
    }
    if (rc != 0 && error != nullptr) {
        *error = reason;
    }
    return rc;
}
