#include "log-helper.h"

#include <cstdio>
#include <ctime>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "log.h"
#include "qv_handles.h"
#include "qvhlp_path.h"
#include "qvsemaphore.h"

namespace {

qv::sem_ptr s_trace_sem;

int s_lock_adapter(void* udata, int action) {
    return QVLogLock(static_cast<sem_t*>(udata), action);
}

int s_switch_logfile(const char* filename) {
    char stamp[80];
    time_t now = time(nullptr);
    struct tm local {};
    localtime_r(&now, &local);
    strftime(stamp, sizeof(stamp), "%F__%H-%M-%S", &local);
    char archive_name[4096];
    snprintf(archive_name, sizeof(archive_name), "%s_%s.zip", filename, stamp);

    qv::archive_write_ptr archive(archive_write_new());
    if (!archive || archive_write_set_format_zip(archive.get()) != ARCHIVE_OK ||
        archive_write_open_filename(archive.get(), archive_name) != ARCHIVE_OK) {
        log_error("Failed to open new archive %s for writing", archive_name);
        return -1;
    }
    struct stat st {};
    stat(filename, &st);
    qv::archive_entry_ptr entry(archive_entry_new());
    archive_entry_set_pathname(entry.get(), filename);
    archive_entry_set_size(entry.get(), st.st_size);
    archive_entry_set_filetype(entry.get(), AE_IFREG);
    archive_entry_set_perm(entry.get(), 0644);
    archive_write_header(archive.get(), entry.get());
    qv::unique_fd fd(open(filename, O_RDONLY));
    if (fd) {
        std::vector<char> buffer(8192);
        ssize_t n;
        while ((n = read(fd.get(), buffer.data(), buffer.size())) > 0) {
            archive_write_data(archive.get(), buffer.data(), static_cast<size_t>(n));
        }
    }
    entry.reset();
    archive_write_close(archive.get());
    archive.reset();
    unlink(filename);
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
