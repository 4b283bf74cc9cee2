#include "log.h"

#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <atomic>
#include <cstring>
#include <mutex>

#include <pthread.h>
#include <unistd.h>

#include "log-helper.h"

const char* qv__progname = "qv-av-control";

namespace {

// The logger state. The level and the screen switches are plain atomics. The file part (name,
// lock, size limit) is one record published by pointer: a line reads it once, so it never mixes
// the lock of one configuration with the file of another. Records come from a small ring and are
// never freed; the state is trivially destructible, so a detached thread that logs while the
// process exits never meets a destroyed object.
struct file_sink {
    char filename[4096];
    log_LockFn lock;
    void* udata;
    size_t maxsize_mb;
};

constexpr size_t s_sink_slots = 16;
file_sink s_sinks[s_sink_slots];
std::atomic<size_t> s_next_sink{1};
std::mutex s_sink_writer;  // setters only; lines never take it

struct logger_state {
    std::atomic<const file_sink*> sink{&s_sinks[0]};
    std::atomic<int> level{QVLOG_OFF};
    std::atomic<int> quiet{0};
    std::atomic<bool> trace_to_screen{false};
};

logger_state L;

// Publishes a copy of the current sink changed by `change`.
template <typename Change>
void s_update_sink(Change change) {
    std::lock_guard<std::mutex> guard(s_sink_writer);
    file_sink* next = &s_sinks[s_next_sink.fetch_add(1) % s_sink_slots];
    *next = *L.sink.load();
    change(*next);
    L.sink.store(next);
}

const char* const level_names[] = {"OFF", "FATAL", "ERROR", "WARN", "INFO", "DEBUG", "TRACE"};
const char* const level_colors[] = {"\033[94m", "\033[36m", "\033[31m", "\033[33m",
                                    "\033[32m", "\033[35m", "\033[34m"};

int lock(const file_sink& sink) {
    if (sink.lock == nullptr) {
        return 0;
    }
    return sink.lock(sink.udata, 1);
}

int unlock(const file_sink& sink) {
    if (sink.lock == nullptr) {
        return -1;
    }
    return sink.lock(sink.udata, 0);
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
    // A "%m" in the format names the caller's errno, and a caller may still test errno after
    // logging: neither may see what the stamp, the lock or the file calls below leave in it.
    const int caller_errno = errno;
    struct errno_restore {
        int value;
        ~errno_restore() { errno = value; }
    } restore{caller_errno};
    // Without a trace file, errors still reach standard error (unless the screen is quiet)
    // whatever the level: a process that cannot start must be able to say why.
    const file_sink& sink = *L.sink.load();
    const int configured = L.level.load();
    const bool no_file = sink.filename[0] == '\0';
    const bool error_fallback =
        no_file && L.quiet.load() == 0 && level >= QVLOG_FATAL && level <= QVLOG_ERROR;
    if (level > configured && !error_fallback) {
        return;
    }
    if (no_file && !L.trace_to_screen && !error_fallback) {
        return;
    }
    char stamp[42];
    s_format_stamp(stamp);
    const int pid = getpid();
    const unsigned long tid = static_cast<unsigned long>(pthread_self());

    if (L.quiet.load() == 0 || L.trace_to_screen) {
        va_list args;
        va_start(args, format);
        fprintf(stderr, "[%s] %s%-5s PID: %6d TID: %6lu %s:%s(): ", stamp, s_level_color(level),
                s_level_name(level), pid, tid, qv__progname, function);
        errno = caller_errno;
        vfprintf(stderr, format, args);
        fprintf(stderr, " \033[90m(%s:%d)\033[0m \n", file, line);
        fflush(stderr);
        va_end(args);
    }

    if (!no_file) {
        if (lock(sink) == -1) {
            static const char lost[] =
                "quorvale Anti-Virus: Debug-trace semaphore timeout. Trace line was possibly "
                "lost!\r\n";
            // The notice is a fixed 84-byte record: the text with its terminating NUL.
            fwrite(lost, 1, sizeof(lost), stderr);
            return;
        }
        if (sink.maxsize_mb != 0) {
            QVLogCheckLogSwitch(sink.filename, sink.maxsize_mb);
        }
        FILE* fp = fopen(sink.filename, "a");
        if (fp != nullptr) {
            va_list args;
            va_start(args, format);
            fprintf(fp, "[%s] %-5s PID: %6d TID: %6lu %s:%s(): ", stamp, s_level_name(level), pid,
                    tid, qv__progname, function);
            errno = caller_errno;
            vfprintf(fp, format, args);
            va_end(args);
            if (configured == QVLOG_TRACE) {
                fprintf(fp, " (%s:%d)", file, line);
            }
            fputc('\n', fp);
            fflush(fp);
            fclose(fp);
        }
        unlock(sink);
    }
}

void log_set_udata(void* udata) {
    s_update_sink([udata](file_sink& s) { s.udata = udata; });
}
void* log_get_udata() {
    return L.sink.load()->udata;
}
void log_set_lock(log_LockFn fn) {
    s_update_sink([fn](file_sink& s) { s.lock = fn; });
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
int log_get_quiet() {
    return L.quiet.load();
}
void log_set_filename(const char* filename) {
    s_update_sink([filename](file_sink& s) {
        snprintf(s.filename, sizeof(s.filename), "%s", filename != nullptr ? filename : "");
    });
}
const char* log_get_filename() {
    const file_sink* sink = L.sink.load();
    return sink->filename[0] == '\0' ? nullptr : sink->filename;
}
void log_set_maxsize(size_t megabytes) {
    s_update_sink([megabytes](file_sink& s) { s.maxsize_mb = megabytes; });
}
size_t log_get_maxsize() {
    return L.sink.load()->maxsize_mb;
}
void log_set_screentrace(int enable) {
    L.trace_to_screen = enable != 0;
}
