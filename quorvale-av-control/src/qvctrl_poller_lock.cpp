#include "qvctrl_poller_lock.h"

#include <cerrno>
#include <cstring>
#include <new>

#include <fcntl.h>
#include <unistd.h>

#include "log.h"

std::unique_ptr<qvctrl_poller_lock> qvctrl_poller_lock_open(const char* path) {
    if (path == nullptr || path[0] == '\0') {
        log_error("poller_lock: lock_file_path is required");
        return nullptr;
    }
    qv::unique_fd fd(open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    if (!fd) {
        log_error("poller_lock: open %s: %s", path, strerror(errno));
        return nullptr;
    }
    try {
        auto lock = std::make_unique<qvctrl_poller_lock>();
        lock->path = path;
        lock->fd = std::move(fd);
        return lock;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

int qvctrl_poller_lock_try_acquire(qvctrl_poller_lock* lock) {
    if (lock == nullptr || !lock->fd) {
        return 0;
    }
    if (lock->held) {
        return 1;
    }
    struct flock request {};
    request.l_type = F_WRLCK;
    request.l_whence = SEEK_SET;
    request.l_start = 0;
    request.l_len = 0;  // the whole file, however long it grows
    if (fcntl(lock->fd.get(), F_SETLK, &request) == 0) {
        lock->held = true;
        log_info("poller_lock: acquired leader lock on %s", lock->path.c_str());
        return 1;
    }
    if (errno == EAGAIN || errno == EACCES) {
        log_trace("poller_lock: %s held by another control", lock->path.c_str());
        return 0;
    }
    log_warn("poller_lock: fcntl F_SETLK on %s: %s", lock->path.c_str(), strerror(errno));
    return 0;
}

int qvctrl_poller_lock_held(const qvctrl_poller_lock* lock) {
    return lock != nullptr && lock->held ? 1 : 0;
}

void qvctrl_poller_lock_close(std::unique_ptr<qvctrl_poller_lock> lock) {
    if (!lock) {
        return;
    }
    lock->fd.reset();
    lock->held = false;
}
