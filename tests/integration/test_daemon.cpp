#include <gtest/gtest.h>

#include <csignal>
#include <string>

#include "daemon_process.h"
#include "nats_server.h"
#include "qv_nats_client.h"

using qvtest::DaemonProcess;
using qvtest::NatsClient;
using qvtest::NatsServer;
using namespace std::chrono_literals;

namespace {

constexpr const char* kUser = "control@local";
constexpr const char* kPassword = "s3cret";

// The instance lock file named in the log; the instance identifier is derived from the host
// address.
std::string lock_path(const std::string& log) {
    const std::string marker = "Attempting exclusive lock on ";
    const size_t at = log.find(marker);
    if (at == std::string::npos) {
        return "";
    }
    const size_t end = log.find_first_of(" \n", at + marker.size());
    return log.substr(at + marker.size(), end - at - marker.size());
}

bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// A TLS nats-server with the control's user, and a daemon set up for it.
class Daemon : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(server.start());
        d.use_nats(server.url(), kUser, kPassword);
    }
    NatsServer server{{.tls = true, .users = {{kUser, kPassword}}}};
    DaemonProcess d;
};

}  // namespace

TEST_F(Daemon, StartsServesPingAndStopsCleanly) {
    ASSERT_TRUE(d.start_serving()) << d.logs();
    NatsClient client(server, kUser, kPassword);
    EXPECT_TRUE(qvtest::wait_until([&] { return client.ping() == 0; }));
    for (const char* refused : {"{\"Command\": 4}", "{\"Command\": ", "{}"}) {
        EXPECT_EQ(client.request("qv-av-control.ping", refused), "{\"ReturnCode\":-1}");
    }

    EXPECT_EQ(qvtest::read_file(d.basedir() + "/qv-av-control/.running_version"),
              "quorvale Anti-Virus 4.0.5 Build 136\r\nqv-av-control v.2.2\n ");
    const std::string lock = lock_path(d.logs());
    ASSERT_FALSE(lock.empty());
    // Daemon mode (the default) writes the PID into the PID file.
    EXPECT_EQ(qvtest::read_file(lock.substr(0, lock.size() - 5) + ".pid"), std::to_string(d.pid()));
    EXPECT_EQ(d.stop(), 0);
}

TEST_F(Daemon, StartupFailureEndsWithStatus255) {
    DaemonProcess no_file;
    ASSERT_TRUE(no_file.start({"--console-mode", "--basedir", no_file.basedir(), "--config-file",
                               no_file.root() + "/missing.ini"}));
    // Without a readable configuration the default shutdown delay of 15 s comes first.
    EXPECT_EQ(no_file.wait_exit(60s), 255);
    EXPECT_TRUE(has(no_file.logs(), "Invalid Parameter NATS_URL / BROKER_URL")) << no_file.logs();
}

TEST_F(Daemon, NonDaemonModeKeepsAHeartbeatAndASecondInstanceWaitsOnTheLock) {
    // Without daemon mode the instance also keeps a heartbeat file and locks its PID file.
    d.control_keys["DAEMON_MODE"] = "0";
    ASSERT_TRUE(d.start_serving()) << d.logs();
    const std::string lock = lock_path(d.logs());
    const size_t at = lock.find("quorvale-av-control_") + 20;
    const std::string id = lock.substr(at, lock.size() - 5 - at);
    EXPECT_TRUE(has(d.logs(), "Heartbeat file"));
    EXPECT_EQ(qvtest::read_file(d.basedir() + "/run/qv_heartbeat_" + id).size(), 4000u);
    EXPECT_TRUE(has(d.logs(), d.basedir() + "/run/quorvale-av-control_" + id + ".pid locked"));

    // Same base directory, own trace file: blocked before "locked" while the first runs.
    DaemonProcess second;
    second.use_nats(server.url(), kUser, kPassword);
    second.write_config();
    ASSERT_TRUE(second.start(
        {"--console-mode", "--basedir", d.basedir(), "--config-file", second.ini_path()}));
    ASSERT_TRUE(second.wait_for_log("Attempting exclusive lock on " + lock));
    EXPECT_FALSE(second.wait_for_log(lock + " locked", 1500ms));
    EXPECT_TRUE(second.running());

    EXPECT_EQ(d.stop(), 0);
    EXPECT_TRUE(second.wait_for_log(lock + " locked"));
    EXPECT_TRUE(second.wait_for_log("Entering main loop"));
    EXPECT_EQ(second.stop(), 0);
}

TEST_F(Daemon, DaemonisesWithoutConsoleMode) {
    d.write_config();
    ASSERT_TRUE(d.start({"--basedir", d.basedir(), "--config-file", d.ini_path()}));
    // The started process returns at once; the daemon goes on in its child.
    EXPECT_EQ(d.wait_exit(), 0);
    ASSERT_TRUE(d.wait_for_log("Entering main loop"));
    const std::string lock = lock_path(d.logs());
    const int pid = std::stoi(qvtest::read_file(lock.substr(0, lock.size() - 5) + ".pid"));
    ASSERT_GT(pid, 1);
    NatsClient client(server, kUser, kPassword);
    EXPECT_TRUE(qvtest::wait_until([&] { return client.ping() == 0; }));
    ASSERT_EQ(kill(pid, SIGTERM), 0);
    EXPECT_TRUE(d.wait_for_log("Ending control with rc=0"));
    EXPECT_TRUE(qvtest::wait_until([&] { return kill(pid, 0) != 0; }));
}

TEST_F(Daemon, FailedStartPhaseIsRetriedUntilSigterm) {
    // No EPO log handler threads (the default) cannot be started: the phase fails every time.
    d.control_keys.erase("EPOLOG-WORKER-THREADS");
    d.control_keys["SHUTDOWN_DELAY"] = "1";
    d.write_config();
    ASSERT_TRUE(d.start());
    // Counted in the trace file only (the console copy repeats every line).
    auto count = [&](const char* text) {
        return qvtest::count_of(qvtest::read_file(d.trace_path()), text);
    };
    ASSERT_TRUE(qvtest::wait_until(
        [&] {
            return count(
                       "Failed to create epolog service (qv-av-epolog) service handler "
                       "threads") >= 3;
        },
        60s))
        << d.logs();
    EXPECT_FALSE(has(d.logs(), "Entering main loop"));
    // Each retry ends the pools of the failed phase before starting new ones: at most one
    // phase's threads (5 + 5 + 10 + 10 + 1) run at any time.
    EXPECT_LE(count("NATS: handler thread started") - count("NATS: handler thread exiting"), 31u);
    EXPECT_EQ(d.stop(), 255);
}
