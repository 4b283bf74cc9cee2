#include "qvctrl_PIDlockfile.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "log.h"
#include "qv_handles.h"

int qvctrl_StorePID(int* fd_out, const char* path, bool lock) {
    log_trace("Entering");
    if (fd_out == nullptr || path == nullptr) {
        log_error("Invalid parameter");
        log_trace("Exiting, rc=%d", -1);
        return -1;
    }
    *fd_out = -1;

    qv::unique_fd fd(open(path, O_RDWR | O_CREAT, 0600));
    if (!fd) {
        log_error(" Failed to open the PID/lock file: %s", strerror(errno));
        log_trace("Exiting, rc=%d", -1);
        return -1;
    }
    // The umask may have narrowed the creation mode, and an older file may carry another one.
    fchmod(fd.get(), 0600);

    if (lock) {
        if (flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
            if (errno == EWOULDBLOCK) {
                log_warn("PID file already locked. Another CTL is running");
            } else {
                log_error("Failed to acquire lock on PID/lock file: %s", strerror(errno));
            }
            log_trace("Exiting, rc=%d", -1);
            return -1;
        }
        log_debug("%s locked", path);
    } else {
        const std::string pid = std::to_string(getpid());
        const ssize_t written = write(fd.get(), pid.data(), pid.size());
        if (written != static_cast<ssize_t>(pid.size())) {
            log_error("Failed to write the PID to %s: %s", path,
                      written < 0 ? strerror(errno) : "short write");
            log_trace("Exiting, rc=%d", -1);
            return -1;
        }
        log_debug("PID dropped to %s", path);
    }

    *fd_out = fd.release();
    log_trace("Exiting, rc=%d", 0);
    return 0;
}
