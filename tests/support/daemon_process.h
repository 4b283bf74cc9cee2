// The real daemon binary run as a child process in a temporary installation tree, with a
// configuration file written by the test.
#pragma once

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "qv_test_util.h"

namespace qvtest {

class DaemonProcess {
  public:
    using Keys = std::map<std::string, std::string>;

    // A tree with run/, qv-av-control/ and config/{vsa,mime,activecontent} under basedir().
    DaemonProcess();
    ~DaemonProcess();
    DaemonProcess(const DaemonProcess&) = delete;
    DaemonProcess& operator=(const DaemonProcess&) = delete;

    // Settings for a daemon on `nats_url` with tracing into trace_path() at TRACE level and no
    // shutdown delay; tests adjust the maps before write_config().
    Keys control_keys;  // section [qv-av-control]
    Keys global_keys;   // section [GLOBAL]
    // The program start() runs: the daemon of this build unless a driver names another one.
    std::string binary = QV_DAEMON_BINARY;
    void use_nats(const std::string& nats_url, const std::string& user = "",
                  const std::string& password = "secret");
    void write_config();

    // Starts the binary with --console-mode --basedir <basedir> --config-file <ini>, or with
    // exactly `args` when given. Standard error and output go to output_path().
    bool start(const std::vector<std::string>& args = {}, const Keys& env = {});
    // Writes the configuration, starts the binary and waits until it enters its main loop.
    bool start_serving();
    // SIGTERM, then waits for the exit; returns the exit status, or -1000 when it did not end.
    int stop(std::chrono::seconds timeout = std::chrono::seconds(30));
    // Waits for the process to end by itself; the exit status, or -1000 on time-out.
    int wait_exit(std::chrono::seconds timeout = std::chrono::seconds(30));
    bool running();
    int pid() const { return pid_; }

    // Waits until `text` appears in the trace file or the process output.
    bool wait_for_log(const std::string& text,
                      std::chrono::milliseconds timeout = std::chrono::seconds(30));
    std::string logs() const;

    const std::string& root() const { return dir_.path(); }
    std::string basedir() const { return dir_ / "base"; }
    std::string ini_path() const { return dir_ / "qv-av-control.ini"; }
    std::string trace_path() const { return dir_ / "trace.log"; }
    std::string output_path() const { return dir_ / "output.log"; }

  private:
    TempDir dir_;
    int pid_ = -1;
    int exit_status_ = -1000;
};

}  // namespace qvtest
