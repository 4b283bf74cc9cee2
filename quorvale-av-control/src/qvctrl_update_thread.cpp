#include "qvctrl_update_thread.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <thread>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "log-helper.h"
#include "log.h"
#include "qv_log.h"

qv_update_lock_file update_lockfile;

namespace {

using steady = std::chrono::steady_clock;

// Idle step of the loop while no check is due.
constexpr auto kIdleStep = std::chrono::seconds(5);
// Pause before a loop that ended unexpectedly is run again.
constexpr auto kRestartPause = std::chrono::seconds(10);
// The display name in the update reports.
constexpr const char* kReportName = "Quorvle Control";
// Arguments taken over into the new program, "--console-mode" not counted.
constexpr size_t kMaxArguments = 120;

bool s_stop_requested(const qv_control_update_thread_params_t* params) {
    return params->targetstatus.load() == STOP ||
           (params->config != nullptr && params->config->endthreads.load() != 0);
}

// Sleeps for `duration` in short steps, so that a stop is seen well within the second that
// shutdown waits for this thread; false when a stop was requested.
bool s_sleep(const qv_control_update_thread_params_t* params, steady::duration duration) {
    const auto until = steady::now() + duration;
    while (!s_stop_requested(params)) {
        const auto now = steady::now();
        if (now >= until) {
            return true;
        }
        std::this_thread::sleep_for(
            std::min<steady::duration>(until - now, std::chrono::milliseconds(200)));
    }
    return false;
}

std::string s_component_dir(const quorvale_control_config_t* config) {
    char path[4096];
    snprintf(path, sizeof(path), "%s/%s", config->basedir.c_str(), QVCTRL_UPDATE_COMPONENT);
    return path;
}

// The update log entries of an attempt. This daemon runs no log dispatcher: they are built and
// dropped.
void s_report(bool success, const char* version) {
    char text[256];
    if (success) {
        if (version == nullptr || version[0] == '\0') {
            log_error("Invalid parameter 'version'");
            return;
        }
        snprintf(text, sizeof(text), "%s BIN updated to version %s,", kReportName, version);
    } else {
        snprintf(text, sizeof(text), "%s BIN update deployment failed", kReportName);
    }
    qv::json_ptr msg = qv_log_create_message();
    if (!msg) {
        return;
    }
    for (const char* section : {"ErrorLog", "UpdateLog"}) {
        if (success && strcmp(section, "ErrorLog") == 0) {
            continue;
        }
        qv::json_ptr data(json_object_new_object());
        if (!data) {
            return;
        }
        json_object_object_add(data.get(), "Message", json_object_new_string(text));
        qv_log_add_log_section(msg.get(), section, nullptr, std::move(data));
    }
    log_trace("%s", json_object_to_json_string_ext(msg.get(), JSON_C_TO_STRING_PLAIN));
}

// Marks every descriptor above standard error close-on-exec: the new program starts with none
// of ours (sockets, lock files), while a failed exec leaves them all usable.
void s_descriptors_close_on_exec() {
    if (close_range(3, ~0U, CLOSE_RANGE_CLOEXEC) == 0) {
        return;
    }
    std::unique_ptr<DIR, int (*)(DIR*)> fds(opendir("/proc/self/fd"), closedir);
    if (!fds) {
        return;
    }
    const int own = dirfd(fds.get());
    while (const dirent* entry = readdir(fds.get())) {
        const int fd = atoi(entry->d_name);
        if (fd > 2 && fd != own) {
            fcntl(fd, F_SETFD, fcntl(fd, F_GETFD) | FD_CLOEXEC);
        }
    }
}

}  // namespace

std::string qvctrl_update_package_name() {
    char name[256];
    snprintf(name, sizeof(name), "%s_nats-bin-%s-glibc%s.%s", QVCTRL_UPDATE_COMPONENT, "linux",
             "2.28", "amd64");
    return name;
}

long qvctrl_update_interval_ms(int32_t minutes) {
    return minutes >= 1 ? static_cast<long>(minutes) * 60000L : 60000L;
}

void qvctrl_update_check(qv_control_update_thread_params_t* params) {
    quorvale_control_config_t* config = params->config;
    const qv_update_config_t& settings = *config->update_config;
    const std::string component_dir = s_component_dir(config);
    const std::string latest = component_dir + "/latest";
    const std::string package_name = qvctrl_update_package_name();
    const char* proxy =
        config->network_config ? config->network_config->http_proxy.c_str() : nullptr;

    qv_upd_pkg_info_t pkg;
    pkg_info_init(&pkg);
    std::string version = get_curr_ver(latest.c_str(), QVCTRL_UPDATE_SUBDIR);
    int got_update = 0;
    if (settings.update_binary) {
        got_update = get_updated_component(package_name.c_str(), QVCTRL_UPDATE_SUBDIR,
                                           version.c_str(), component_dir.c_str(), &pkg, &settings,
                                           proxy, [params] { return s_stop_requested(params); });
    }
    if (got_update == 0) {
        log_debug("Nothing to update.");
        clean_old_versions(component_dir.c_str(), latest.c_str(), settings.update_max_backups);
        return;
    }

    params->status = UPDATING;
    char name[16];
    snprintf(name, sizeof(name), "%ld", static_cast<long>(time(nullptr)));
    const std::string new_dir = component_dir + "/" + name;
    if (mkdir(new_dir.c_str(), 0750) != 0) {
        log_error("Failed to create new version directory %s, %s", new_dir.c_str(),
                  strerror(errno));
        s_report(false, nullptr);
        // A downloaded package goes; one placed by hand stays for the next attempt.
        if (pkg.version.empty()) {
            unlink(pkg.pkg_file.c_str());
        }
        params->status = WAITING;
        return;
    }
    // Scratch space inside the installation: two installations on one host never share it.
    const std::string work_dir = config->workdir.empty() ? component_dir : config->workdir;
    if (update_ver_dir_content(config->basedir.c_str(), work_dir.c_str(), latest.c_str(),
                               new_dir.c_str(), QVCTRL_UPDATE_SUBDIR, 1, &pkg,
                               QVCTRL_UPDATE_COMPONENT) != 0) {
        log_error("Error applying 'bin' update.");
        s_report(false, nullptr);
        remove_dir(component_dir.c_str(), name);
        params->status = WAITING;
        return;
    }
    // The version just installed, from its own directory ("latest" still names the running one).
    version = get_curr_ver(new_dir.c_str(), QVCTRL_UPDATE_SUBDIR);
    s_report(true, version.c_str());
    // Pruned before the main loop may re-point "latest", so that the two never cross.
    clean_old_versions(component_dir.c_str(), latest.c_str(), settings.update_max_backups, name);
    pkg_info_free(&pkg);
    params->update_deployed_to = name;
    params->status = FILES_READY;
}

int qvctrl_update_loop(qv_control_update_thread_params_t* params, long interval_ms) {
    if (params == nullptr || params->config == nullptr || !params->config->update_config) {
        log_error("Invalid parameters");
        return -1;
    }
    const qv_update_config_t& settings = *params->config->update_config;
    const int32_t minutes = settings.update_check_interval;
    if (interval_ms < 0) {
        interval_ms = qvctrl_update_interval_ms(minutes);
    }
    log_info("Update check interval: %d min, %ld ms", minutes, interval_ms);
    if (settings.update_server.empty()) {
        log_info("No UPDATE_SERVER configured: only a manual package in %s can update %s",
                 s_component_dir(params->config).c_str(), QVCTRL_UPDATE_COMPONENT);
    }
    const auto interval = std::chrono::milliseconds(interval_ms);
    auto last_check = steady::now();
    params->currentstatus = READY;
    while (!s_stop_requested(params)) {
        const auto now = steady::now();
        if (params->status.load() == WAITING && now - last_check >= interval) {
            last_check = now;
            params->currentstatus = BUSY;
            qvctrl_update_check(params);
            params->currentstatus = READY;
            continue;
        }
        // Not past the next check: a short interval is kept to, a long one slept in steps.
        auto pause = std::min<steady::duration>(kIdleStep, last_check + interval - now);
        if (params->status.load() != WAITING) {
            pause = kIdleStep;
        }
        s_sleep(params, pause);
    }
    log_warn("Leaving update thread. status: %d | targetstatus: %d",
             static_cast<int>(params->status.load()),
             static_cast<int>(params->targetstatus.load()));
    return 0;
}

void qvctrl_update_thread(qv_control_update_thread_params_t* params) {
    if (params == nullptr) {
        return;
    }
    params->currentstatus = STARTING;
    // Unpacking and pruning change the working directory: of this thread only.
    if (unshare(CLONE_FS) != 0) {
        log_warn("Failed to give the update thread its own working directory: %s", strerror(errno));
    }
    while (true) {
        if (lock_check_create(&update_lockfile) != 1) {
            // Nothing to release: a lock held elsewhere in this process stays with its holder.
            log_info("Another update thread is already running for control");
            break;
        }
        try {
            qvctrl_update_loop(params);
        } catch (const std::exception& e) {
            log_error("Update loop ended by exception: %s", e.what());
        }
        lock_release(&update_lockfile);
        if (s_stop_requested(params)) {
            break;
        }
        log_error("Update thread stopped! Restarting...");
        if (!s_sleep(params, kRestartPause)) {
            break;
        }
    }
    params->currentstatus = TERMINATED;
}

int qvctrl_complete_update_activation(const char* basedir, const char* new_version, char** argv,
                                      int instance_lock_fd, int pid_lock_fd) {
    log_debug("Completing the activation of the update");
    if (basedir == nullptr || new_version == nullptr || new_version[0] == '\0' || argv == nullptr ||
        argv[0] == nullptr) {
        log_error("Invalid parameters");
        return -1;
    }
    std::vector<std::string> arguments;
    try {
        for (size_t i = 0; argv[i] != nullptr && i < kMaxArguments; ++i) {
            arguments.emplace_back(argv[i]);
        }
        arguments.emplace_back("--console-mode");
    } catch (const std::exception&) {
        log_error("failed to command-line parameter");
        return -1;
    }
    std::vector<char*> exec_args;
    for (std::string& argument : arguments) {
        exec_args.push_back(argument.data());
    }
    exec_args.push_back(nullptr);

    char component_dir[4096];
    snprintf(component_dir, sizeof(component_dir), "%s/%s", basedir, QVCTRL_UPDATE_COMPONENT);
    // The version running now, to point back to when the new one cannot be started.
    char previous[4096];
    const ssize_t previous_length =
        readlink((std::string(component_dir) + "/latest").c_str(), previous, sizeof(previous) - 1);
    previous[previous_length > 0 ? previous_length : 0] = '\0';
    const auto undo_link = [&] {
        if (previous[0] != '\0') {
            update_latest_link(component_dir, previous);
        }
    };

    if (update_latest_link(component_dir, new_version) != 0) {
        return -1;
    }
    if (instance_lock_fd >= 0 && flock(instance_lock_fd, LOCK_UN) != 0) {
        log_error("Failed to release lock, %s", strerror(errno));
        undo_link();
        return -1;
    }
    if (pid_lock_fd >= 0 && flock(pid_lock_fd, LOCK_UN) != 0) {
        log_error("Failed to release lock, %s", strerror(errno));
        flock(instance_lock_fd, LOCK_EX | LOCK_NB);
        undo_link();
        return -1;
    }
    lock_release(&update_lockfile);

    log_trace("calling execv: %s", argv[0]);
    // The trace log's lock is shared with other processes: it is let go here, so that a thread
    // writing a line at the moment of the exec cannot leave it taken for the new program.
    const std::string trace_file = log_get_filename() != nullptr ? log_get_filename() : "";
    const int trace_level = log_get_level();
    const size_t trace_max = log_get_maxsize();
    const int quiet = log_get_quiet();
    QVCloseTraceFile();
    s_descriptors_close_on_exec();
    execv(argv[0], exec_args.data());
    const int error = errno;

    if (!trace_file.empty()) {
        QVOpenTraceFile(trace_file.c_str(), trace_level, trace_max);
    }
    log_set_quiet(quiet);
    log_error("Failed to launch %s", argv[0]);
    log_debug("execv: %s", strerror(error));
    // Back to how things were: this process goes on serving and updating.
    if (instance_lock_fd >= 0 && flock(instance_lock_fd, LOCK_EX | LOCK_NB) != 0) {
        log_warn("Failed to take the instance lock again: %s", strerror(errno));
    }
    if (pid_lock_fd >= 0 && flock(pid_lock_fd, LOCK_EX | LOCK_NB) != 0) {
        log_warn("Failed to take the PID file lock again: %s", strerror(errno));
    }
    if (lock_check_create(&update_lockfile) != 1) {
        log_warn("Failed to take the update lock again");
    }
    undo_link();
    return -1;
}
