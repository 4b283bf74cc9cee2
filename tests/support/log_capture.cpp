#include "log_capture.h"

#include <semaphore.h>

#include "log-helper.h"
#include "log.h"
#include "qvhlp_path.h"

namespace qvtest {

LogCapture::LogCapture() : path_(dir_ / "capture.trc"), saved_level_(log_get_level()) {
    QVOpenTraceFile(path_.c_str(), QVLOG_TRACE, 0);
    log_set_quiet(1);
}

LogCapture::~LogCapture() {
    QVOpenTraceFile(nullptr, 0, 0);
    sem_unlink(("qv_log_" + std::string(qvhlp_FlattenPath(path_.c_str()))).c_str());
    log_set_screentrace(0);
    log_set_quiet(0);
    log_set_level(saved_level_);
}

std::string LogCapture::text() const {
    return file_exists(path_) ? read_file(path_) : "";
}

bool LogCapture::contains(const std::string& needle) const {
    return text().find(needle) != std::string::npos;
}

int LogCapture::count(const std::string& needle) const {
    return static_cast<int>(count_of(text(), needle));
}

void LogCapture::clear() const {
    write_file(path_, "");
}

bool LogCapture::wait_for(const std::string& needle) const {
    return wait_until([&] { return contains(needle); });
}

}  // namespace qvtest
