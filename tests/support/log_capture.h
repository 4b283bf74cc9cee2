// Sends the trace log of the test process to a file for the life of the object, so that a test
// can look for the lines a unit wrote. The previous level is restored afterwards.
#pragma once

#include <string>

#include "qv_test_util.h"

namespace qvtest {

class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::string text() const;
    bool contains(const std::string& needle) const;
    // How often `needle` occurs in the trace.
    int count(const std::string& needle) const;
    // Polls until `needle` shows up in the trace.
    bool wait_for(const std::string& needle) const;
    // Forgets what was captured so far.
    void clear() const;

  private:
    TempDir dir_;
    std::string path_;
    int saved_level_;
};

}  // namespace qvtest
