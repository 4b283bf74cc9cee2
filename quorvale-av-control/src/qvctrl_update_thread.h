// The daemon's own updater: a background thread that, at the configured interval, asks for a new
// version of the daemon's program files, installs it into a new version directory and reports
// FILES_READY; the main loop then completes the activation, pointing "latest" at the new version
// and replacing the running process with the program found through it.
//
// One updater runs per installation: the thread holds an flock on
// <base>/qv-av-control/.update.lock for as long as it runs, and a daemon that cannot take it runs
// no update loop. The thread and the main loop share only `status` and `update_deployed_to`: the
// thread writes the directory name before it publishes FILES_READY, and the main loop reads the
// name only after seeing FILES_READY (or, after a failed activation, sets WAITING again). While
// an installed version waits for activation no further checks run.
//
// The thread gets a working directory of its own (the package steps change it while unpacking
// and pruning); every wait is done in steps of at most a second so that STOP is seen promptly,
// and a transfer in progress is aborted by it.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "qv_update_common.h"
#include "qvctrl_config.h"

struct qv_control_update_thread_params_t {
    std::atomic<qv_thread_status> currentstatus{CREATING};
    std::atomic<qv_thread_status> targetstatus{READY};  // STOP ends the thread
    quorvale_control_config_t* config = nullptr;
    std::atomic<qv_update_status_t> status{WAITING};
    std::string update_deployed_to;  // the new version directory's name, once FILES_READY
};

// The installation's update lock, named by main at start-up; held by the running update thread
// and handed over to the new program by the activation.
extern qv_update_lock_file update_lockfile;

inline constexpr const char* QVCTRL_UPDATE_COMPONENT = "qv-av-control";
inline constexpr const char* QVCTRL_UPDATE_SUBDIR = "bin";
inline constexpr const char* QVCTRL_UPDATE_LOCK_NAME = ".update.lock";

// "qv-av-control_nats-bin-linux-glibc2.28.amd64": the name the update server knows us by.
std::string qvctrl_update_package_name();
// Milliseconds between checks for "update_check_interval" minutes (60000 below 1 minute).
long qvctrl_update_interval_ms(int32_t minutes);

// The thread body: takes the update lock and runs the loop until STOP.
void qvctrl_update_thread(qv_control_update_thread_params_t* params);
// Checks every `interval_ms` (by default the configured interval), the first check one interval
// after the start, until STOP. 0, or -1 when the loop could not run.
int qvctrl_update_loop(qv_control_update_thread_params_t* params, long interval_ms = -1);
// One check: fetch, install and report FILES_READY, or prune when there is nothing new.
void qvctrl_update_check(qv_control_update_thread_params_t* params);

// Points "latest" at `new_version` (a directory name under <basedir>/qv-av-control), releases the
// instance lock, the PID file lock and the update lock, and replaces the process with argv[0]
// run with the same arguments and "--console-mode". Returns only on failure (-1), with the link
// and the locks as they were.
int qvctrl_complete_update_activation(const char* basedir, const char* new_version, char** argv,
                                      int instance_lock_fd = -1, int pid_lock_fd = -1);
