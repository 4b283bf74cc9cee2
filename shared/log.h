// Trace log: the process-wide diagnostic sink. Every unit writes its lines through log_log
// (normally via the log_fatal .. log_trace forms); lines go to the screen and/or to one trace
// file that several processes may share.
#pragma once

#include <cstddef>

enum log_level_t {
    QVLOG_OFF = 0,
    QVLOG_FATAL = 1,
    QVLOG_ERROR = 2,
    QVLOG_WARN = 3,
    QVLOG_INFO = 4,
    QVLOG_DEBUG = 5,
    QVLOG_TRACE = 6,
};

// Lock callback: action 1 acquires, 0 releases; returns 0 or -1.
using log_LockFn = int (*)(void* udata, int action);

// Program path printed in every line; set from argv[0] before anything is logged.
extern const char* qv__progname;

void log_log(int level, const char* function, const char* file, int line, const char* format, ...)
    __attribute__((format(printf, 5, 6)));

void log_set_udata(void* udata);
void* log_get_udata();
void log_set_lock(log_LockFn fn);
void log_set_level(int level);
int log_get_level();
void log_set_quiet(int enable);
int log_get_quiet();
void log_set_filename(const char* filename);
const char* log_get_filename();
void log_set_maxsize(size_t megabytes);
size_t log_get_maxsize();
void log_set_screentrace(int enable);

#define log_fatal(...) log_log(QVLOG_FATAL, __func__, __FILE_NAME__, __LINE__, __VA_ARGS__)
#define log_error(...) log_log(QVLOG_ERROR, __func__, __FILE_NAME__, __LINE__, __VA_ARGS__)
#define log_warn(...) log_log(QVLOG_WARN, __func__, __FILE_NAME__, __LINE__, __VA_ARGS__)
#define log_info(...) log_log(QVLOG_INFO, __func__, __FILE_NAME__, __LINE__, __VA_ARGS__)
#define log_debug(...) log_log(QVLOG_DEBUG, __func__, __FILE_NAME__, __LINE__, __VA_ARGS__)
#define log_trace(...) log_log(QVLOG_TRACE, __func__, __FILE_NAME__, __LINE__, __VA_ARGS__)
