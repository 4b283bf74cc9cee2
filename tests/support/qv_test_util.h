// Small helpers for tests: temporary directories, files, polling for a condition, free ports.
#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "qv_request_reply_types.h"

namespace qvtest {

// A directory under /tmp removed with its contents when the object goes.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

// Polls `condition` every 20 ms until it holds or `timeout` passes; returns its last value.
bool wait_until(const std::function<bool()>& condition,
                std::chrono::milliseconds timeout = std::chrono::seconds(20));

std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& contents);
bool file_exists(const std::string& path);
void make_dirs(const std::string& path);
void remove_tree(const std::string& path);
// Calls a service handler in this process with `body` as the request; the reply text (empty when
// the handler set none), with the handler's status in *rc when given.
std::string call_handler(qv_service_handler_t handler, void* context, const std::string& body,
                         int* rc = nullptr);
// A TCP port on 127.0.0.1 that was free a moment ago.
int free_port();
// True when a TCP connection to 127.0.0.1:port succeeds.
bool port_open(int port);

}  // namespace qvtest
