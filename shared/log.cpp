#include "log.h"

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <cstring>

#include <pthread.h>
#include <unistd.h>

#include "log-helper.h"

const char* qv__progname = "qv-av-control";

namespace {

// The logger state is written during start-up and shutdown only, while no worker thread logs;
// lines read it without a lock. It is trivially destructible so that a detached thread that logs
// while the process exits never meets a destroyed object.
struct logger_state {
    void* udata = nullptr;
    log_LockFn lock = nullptr;
    int level = QVLOG_OFF;
    int quiet = 0;
    size_t maxsize_mb = 0;
    char filename[4096] = {};
    bool trace_to_screen = false;
};

logger_state L;

const char* const level_names[] = {"OFF", "FATAL", "ERROR", "WARN", "INFO", "DEBUG", "TRACE"};
const char* const level_colors[] = {"\033[94m", "\033[36m", "\033[31m", "\033[33m",
                                    "\033[32m", "\033[35m", "\033[34m"};

int lock() {
    if (L.lock == nullptr) {
        return 0;
    }
    return L.lock(L.udata, 1);
}

int unlock() {
    if (L.lock == nullptr) {
        return -1;
    }
    return L.lock(L.udata, 0);
}

void s_format_stamp(char (&stamp)[42]) {
    stamp[0] = '\0';
    struct timespec ts {};
    clock_gettime(CLOCK_REALTIME, &ts);
    long ms = std::lround(static_cast<double>(ts.tv_nsec) / 1e6);
    struct tm tm_utc {};
    if (gmtime_r(&ts.tv_sec, &tm_utc) == nullptr) {
        return;
    }
    char seconds[20];
    strftime(seconds, sizeof(seconds), "%Y-%m-%d %H:%M:%S", &tm_utc);
    snprintf(stamp, sizeof(stamp), "%s.%03ld", seconds, ms);
}

const char* s_level_name(int level) {
    return (level >= 0 && level <= QVLOG_TRACE) ? level_names[level] : "";
}

const char* s_level_color(int level) {
    return (level >= 0 && level <= QVLOG_TRACE) ? level_colors[level] : "";
}

}  // namespace

void log_log(int level, const char* function, const char* file, int line, const char* format, ...) {
    // Without a trace file, errors still reach standard error (unless the screen is quiet)
    // whatever the level: a process that cannot start must be able to say why.
    const bool no_file = L.filename[0] == '\0';
    const bool error_fallback =
        no_file && L.quiet == 0 && level >= QVLOG_FATAL && level <= QVLOG_ERROR;
    if (level > L.level && !error_fallback) {
        return;
    }
    if (no_file && !L.trace_to_screen && !error_fallback) {
        return;
    }
    char stamp[42];
    s_format_stamp(stamp);
    const int pid = getpid();
    const unsigned long tid = static_cast<unsigned long>(pthread_self());

    if (L.quiet == 0 || L.trace_to_screen) {
        va_list args;
        va_start(args, format);
        fprintf(stderr, "[%s] %s%-5s PID: %6d TID: %6lu %s:%s(): ", stamp, s_level_color(level),
                s_level_name(level), pid, tid, qv__progname, function);
        vfprintf(stderr, format, args);
        fprintf(stderr, " \033[90m(%s:%d)\033[0m \n", file, line);
        fflush(stderr);
        va_end(args);
    }

    if (L.filename[0] != '\0') {
        if (lock() == -1) {
            static const char lost[] =
                "quorvale Anti-Virus: Debug-trace semaphore timeout. Trace line was possibly "
                "lost!\r\n";
            // The notice is a fixed 84-byte record: the text with its terminating NUL.
            fwrite(lost, 1, sizeof(lost), stderr);
            return;
        }
        if (L.maxsize_mb != 0) {
            QVLogCheckLogSwitch(L.filename, L.maxsize_mb);
        }
        FILE* fp = fopen(L.filename, "a");
        if (fp != nullptr) {
            va_list args;
            va_start(args, format);
            fprintf(fp, "[%s] %-5s PID: %6d TID: %6lu %s:%s(): ", stamp, s_level_name(level), pid,
                    tid, qv__progname, function);
            vfprintf(fp, format, args);
            va_end(args);
            if (L.level == QVLOG_TRACE) {
                fprintf(fp, " (%s:%d)", file, line);
            }
            fputc('\n', fp);
            fflush(fp);
            fclose(fp);
        }
        unlock();
    }
}

void log_set_udata(void* udata) {
    L.udata = udata;
}
void* log_get_udata() {
    return L.udata;
}
void log_set_lock(log_LockFn fn) {
    L.lock = fn;
}
void log_set_level(int level) {
    L.level = level;
}
int log_get_level() {
    return L.level;
}
void log_set_quiet(int enable) {
    L.quiet = enable != 0;
}
void log_set_filename(const char* filename) {
    snprintf(L.filename, sizeof(L.filename), "%s", filename != nullptr ? filename : "");
}
const char* log_get_filename() {
    return L.filename[0] == '\0' ? nullptr : L.filename;
}
void log_set_maxsize(size_t megabytes) {
    L.maxsize_mb = megabytes;
}
size_t log_get_maxsize() {
    return L.maxsize_mb;
}
void log_set_screentrace(int enable) {
    L.trace_to_screen = enable != 0;
}
