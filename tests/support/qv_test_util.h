// Small helpers for tests: temporary directories, files, polling for a condition, free ports.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "qv_request_reply_types.h"

struct log_config;

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
// The names in `dir` that do not start with '.', sorted.
std::vector<std::string> list_dir(const std::string& dir);
// The paths of the regular files anywhere below `dir`, sorted.
std::vector<std::string> files_below(const std::string& dir);
// Dates the access and modification times of `path` back by `seconds_ago`; false on failure.
bool set_age(const std::string& path, long seconds_ago);
// How often `needle` occurs in `text`.
size_t count_of(const std::string& text, const std::string& needle);
// True for a time-based (version 1) UUID written in lower case: 8-4-4-4-12 hexadecimal digits.
bool is_time_uuid(const std::string& text);
// The content of the one entry of a zip archive, and its name in *entry_name; fails the test
// unless the archive holds exactly one entry.
std::string read_zip(const std::string& zip, std::string* entry_name = nullptr);
// A JSON string literal holding exactly `text`, NUL bytes included.
std::string quoted(const std::string& text);
// Calls a service handler in this process with `body` as the request; the reply text (empty when
// the handler set none), with the handler's status in *rc when given.
std::string call_handler(qv_service_handler_t handler, void* context, const std::string& body,
                         int* rc = nullptr);
// Runs `work` on a thread of its own and meanwhile calls `ping` (0 for an answer) every 200 ms
// until it ends; how many pings were answered and how many failed.
struct PingTally {
    int answered = 0;
    int failed = 0;
};
PingTally ping_while(const std::function<void()>& work, const std::function<int()>& ping);

// A service handler of the test's own (context: the Recorder). It keeps every request text and
// answers {"ReturnCode": <reply_code>} after `delay_ms`; the next `reject` requests get a failure
// reply instead and are not kept.
class Recorder {
  public:
    std::atomic<int> reply_code{0};
    std::atomic<int> reject{0};
    std::atomic<int> delay_ms{0};

    static int handle(void* context, qv_const_request_reply_t* rr);
    std::vector<std::string> received() const;
    std::set<std::string> distinct() const;
    size_t count() const;

  private:
    mutable std::mutex mutex_;
    std::vector<std::string> requests_;
};

// The text in standard base64 with padding, as the API gateway and the backend send configurations.
std::string base64(const std::string& plain);

// A program of this build (bin/<tool>) run to its end with `args`, standard input empty.
struct ToolResult {
    int status = -1;  // the exit status, -1 when it did not exit
    std::string out;
    std::string err;
};
ToolResult run_tool(const std::string& tool, const std::vector<std::string>& args);

// Points every log kind of `lc` at a directory of its own below `root` ("<root>/scan", ...).
void set_log_dirs(log_config& lc, const std::string& root);

// A TCP port on 127.0.0.1 that was free a moment ago.
int free_port();

}  // namespace qvtest
