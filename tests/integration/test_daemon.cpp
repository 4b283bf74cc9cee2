#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

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
    const std::string logs = d.logs();
    EXPECT_TRUE(has(logs, "  Starting qv-av-control"));
    EXPECT_TRUE(
        has(logs, "NATS: connected to " + server.url() + " (user=control@local, jetstream=yes)"));
    const std::string lock = lock_path(logs);
    ASSERT_FALSE(lock.empty());
    EXPECT_TRUE(has(logs, lock + " locked"));
    // Daemon mode (the default) writes the PID into the PID file and creates no heartbeat.
    EXPECT_EQ(qvtest::read_file(lock.substr(0, lock.size() - 5) + ".pid"), std::to_string(d.pid()));
    EXPECT_FALSE(has(logs, "heartbeat file"));

    EXPECT_EQ(d.stop(), 0);
    EXPECT_TRUE(has(d.logs(), "Signal received. Exiting gracefully..."));
    EXPECT_TRUE(has(d.logs(), "Ending control with rc=0"));
}

TEST_F(Daemon, StartupFailuresEndWithStatus255) {
    auto fails = [](DaemonProcess& p, const std::vector<std::string>& args,
                    const std::vector<std::string>& texts) {
        ASSERT_TRUE(p.start(args));
        // Without a readable configuration the default shutdown delay of 15 s comes first.
        EXPECT_EQ(p.wait_exit(60s), 255);
        for (const std::string& text : texts) {
            EXPECT_TRUE(has(p.logs(), text)) << p.logs();
        }
    };
    // The reader stops at the missing password, before the user is derived: the first check
    // that fails is the user's.
    d.control_keys.erase("BROKER_PASSWORD");
    d.write_config();
    fails(d, {}, {"Invalid Parameter BROKER_USER"});
    EXPECT_TRUE(qvtest::file_exists(d.basedir() + "/qv-av-control/.running_version"));

    DaemonProcess no_basedir;
    no_basedir.use_nats(server.url(), kUser, kPassword);
    no_basedir.write_config();
    fails(no_basedir, {"--console-mode", "--config-file", no_basedir.ini_path()},
          {"Invalid Parameter 'basedir'"});

    DaemonProcess no_file;
    fails(no_file,
          {"--console-mode", "--basedir", no_file.basedir(), "--config-file",
           no_file.root() + "/missing.ini"},
          {"Invalid Parameter NATS_URL / BROKER_URL"});
    EXPECT_TRUE(qvtest::file_exists(no_file.basedir() + "/qv-av-control/.running_version"));

    DaemonProcess bogus;
    fails(bogus, {"--bogus"},
          {"Unknown option \"- ?\"", "Failed to parse command line parameters\r\n",
           "Usage: quorvale-control -c <config hash> -d <base directory>"});
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
