#include "log-helper.h"

#include <cstdio>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "log.h"
#include "qv_handles.h"
#include "qvhlp_archive.h"
#include "qvhlp_path.h"
#include "qvsemaphore.h"

namespace {

qv::sem_ptr s_trace_sem;

int s_lock_adapter(void* udata, int action) {
    return QVLogLock(static_cast<sem_t*>(udata), action);
}

int s_switch_logfile(const char* filename) {
    const std::string archive_name = qvhlp_archive_name(filename);
    if (qvhlp_archive_and_remove(filename, archive_name) != 0) {
        log_error("Failed to open new archive %s for writing", archive_name.c_str());
        return -1;
    }
    return 0;
}

int s_GetFileSize(const char* path, size_t* size) {
    struct stat st {};
    if (stat(path, &st) != 0) {
        return -1;
    }
    *size = static_cast<size_t>(st.st_size);
    return 0;
}

}  // namespace

int QVOpenTraceFile(const char* filename, int level, size_t maxsize_mb) {
    if (level == 0 || filename == nullptr || filename[0] == '\0') {
        log_info("No trace configured");
        log_set_udata(nullptr);
        log_set_lock(nullptr);
        log_set_filename(nullptr);
        log_set_level(0);
        return 0;
    }
    char semname[4096];
    const char* flat = qvhlp_FlattenPath(filename);
    snprintf(semname, sizeof(semname), "qv_log_%s", flat != nullptr ? flat : "");
    qv::sem_ptr sem(QVsem_open(semname, O_CREAT, 0666, 0, 1));
    if (!sem) {
        log_error("Failed to open semaphore \"%s\"", semname);
        return -1;
    }
    log_set_udata(sem.get());
    log_set_lock(s_lock_adapter);
    s_trace_sem = std::move(sem);
    log_set_filename(filename);
    log_set_maxsize(maxsize_mb);
    log_set_level(level);
    log_set_screentrace(0);
    return 0;
}

void QVCloseTraceFile() {
    sem_t* sem = static_cast<sem_t*>(log_get_udata());
    if (sem == nullptr) {
        return;
    }
    QVLogLock(sem, 1);
    log_set_quiet(1);
    log_set_lock(nullptr);
    log_set_udata(nullptr);
    QVLogLock(sem, 0);
    if (s_trace_sem.get() == sem) {
        s_trace_sem.reset();
    }
}

int QVLogLock(sem_t* sem, int action) {
    if (sem == nullptr) {
        log_error("Invalid semaphore handle");
        return -1;
    }
    if (action == 0) {
        return QVsem_post(sem);
    }
    if (action == 1) {
        return QVsem_timedwait(sem, 5000);
    }
    log_error("Invalid action parameter value");
    return -1;
}

int QVLogCheckLogSwitch(const char* filename, size_t maxsize_mb) {
    if (filename == nullptr) {
        return 0;
    }
    size_t size = 0;
    if (s_GetFileSize(filename, &size) == 0 && maxsize_mb * 1000000 <= size) {
        s_switch_logfile(filename);
    }
    return -1;
}
