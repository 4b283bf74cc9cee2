#include "qvsemaphore.h"

#include <cerrno>
#include <ctime>

#include <fcntl.h>

#include "log.h"

sem_t* QVsem_open(const char* name, int oflag, mode_t mode, int /*ignored*/, unsigned int value) {
    log_trace("Entering");
    sem_t* sem = sem_open(name, oflag, mode, value);
    if (sem == SEM_FAILED) {
        sem = nullptr;
    }
    log_trace("Exiting, rc=%p", static_cast<void*>(sem));
    return sem;
}

int QVsem_timedwait(sem_t* semaphore, int milliseconds) {
    int rc;
    if (milliseconds < 1) {
        do {
            rc = sem_trywait(semaphore);
        } while (rc == -1 && errno == EINTR);
        return rc;
    }
    struct timespec deadline {};
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += milliseconds / 1000;
    deadline.tv_nsec += static_cast<long>(milliseconds % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_sec += deadline.tv_nsec / 1000000000L;
        deadline.tv_nsec %= 1000000000L;
    }
    do {
        rc = sem_timedwait(semaphore, &deadline);
    } while (rc == -1 && errno == EINTR);
    return rc;
}

int QVsem_post(sem_t* semaphore) {
    return sem_post(semaphore);
}

int QVsem_unlink(const char* name) {
    log_debug("Entering");
    int rc = sem_unlink(name);
    log_debug("rc=%d", rc);
    log_debug("Exiting");
    return rc;
}
