#include "daemon_process.h"

#include <csignal>
#include <cstdlib>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "nats_server.h"

namespace qvtest {

DaemonProcess::DaemonProcess() {
    for (const char* sub :
         {"run", "qv-av-control", "config/vsa", "config/mime", "config/activecontent", "logs"}) {
        make_dirs(basedir() + "/" + sub);
    }
    control_keys = {
        {"TRACELEVEL", "6"},
        {"TRACEFILE", trace_path()},
        {"SHUTDOWN_DELAY", "0"},
        {"EPOLOG-WORKER-THREADS", "1"},
    };
    global_keys = {
        {"INSTALLED", "qv-av-trellix;qv-av-mimescan"},
        {"BROKER_NAME", "local"},
    };
}

DaemonProcess::~DaemonProcess() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

void DaemonProcess::use_nats(const std::string& nats_url, const std::string& user,
                             const std::string& password) {
    global_keys["NATS_URL"] = nats_url;
    global_keys["BROKER_CERT"] = test_certificates().ca_cert;
    control_keys["BROKER_PASSWORD"] = password;
    if (!user.empty()) {
        control_keys["BROKER_USER"] = user;
    }
}

void DaemonProcess::write_config() {
    std::string ini = "[GLOBAL]\n";
    for (const auto& [key, value] : global_keys) {
        ini += key + "=" + value + "\n";
    }
    ini += "\n[qv-av-control]\n";
    for (const auto& [key, value] : control_keys) {
        ini += key + "=" + value + "\n";
    }
    write_file(ini_path(), ini);
}

bool DaemonProcess::start(const std::vector<std::string>& args, const Keys& env) {
    std::vector<std::string> argv = {binary};
    if (args.empty()) {
        argv.insert(argv.end(),
                    {"--console-mode", "--basedir", basedir(), "--config-file", ini_path()});
    } else {
        argv.insert(argv.end(), args.begin(), args.end());
    }
    pid_t pid = fork();
    if (pid == 0) {
        // A console-mode daemon goes with the test process, even when that one dies uncleanly.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        int fd = open(output_path().c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        int null_fd = open("/dev/null", O_RDONLY);
        dup2(null_fd, 0);
        dup2(fd, 1);
        dup2(fd, 2);
        for (const auto& [name, value] : env) {
            setenv(name.c_str(), value.c_str(), 1);
        }
        std::vector<char*> cargs;
        for (std::string& a : argv) {
            cargs.push_back(a.data());
        }
        cargs.push_back(nullptr);
        execv(cargs[0], cargs.data());
        _exit(127);
    }
    if (pid < 0) {
        return false;
    }
    pid_ = pid;
    exit_status_ = -1000;
    return true;
}

bool DaemonProcess::running() {
    if (pid_ <= 0) {
        return false;
    }
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
        exit_status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
        pid_ = -1;
        return false;
    }
    return true;
}

int DaemonProcess::wait_exit(std::chrono::seconds timeout) {
    wait_until([this] { return !running(); }, timeout);
    return pid_ > 0 ? -1000 : exit_status_;
}

int DaemonProcess::stop(std::chrono::seconds timeout) {
    if (pid_ > 0) {
        kill(pid_, SIGTERM);
    }
    return wait_exit(timeout);
}

std::string DaemonProcess::logs() const {
    return read_file(trace_path()) + read_file(output_path());
}

bool DaemonProcess::start_serving() {
    write_config();
    return start() && wait_for_log("Entering main loop");
}

bool DaemonProcess::wait_for_log(const std::string& text, std::chrono::milliseconds timeout) {
    return wait_until([&] { return logs().find(text) != std::string::npos; }, timeout);
}

}  // namespace qvtest
