#include <gtest/gtest.h>

#include <csignal>
#include <string>

#include "daemon_process.h"
#include "nats_server.h"
#include "qv_nats_client.h"

using qvtest::DaemonProcess;
using qvtest::NatsClient;
using qvtest::NatsServer;

namespace {

constexpr const char* kUser = "control@local";
constexpr const char* kPassword = "s3cret";

NatsServer::Options secured(bool tls = false) {
    return {.tls = tls, .users = {{kUser, kPassword}}};
}

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

}  // namespace

TEST(Daemon, StartsServesPingAndStopsCleanly) {
    NatsServer server(secured(true));
    ASSERT_TRUE(server.start());
    DaemonProcess d;
    d.use_nats(server.url(), kUser, kPassword);
    ASSERT_TRUE(d.start_serving()) << d.logs();

    NatsClient client(server, kUser, kPassword);
    EXPECT_TRUE(qvtest::wait_until([&] { return client.ping() == 0; }));
    for (const char* refused : {"{\"Command\": 4}", "{\"Command\": ", "{}"}) {
        EXPECT_EQ(client.request("qv-av-control.ping", refused), "{\"ReturnCode\":-1}");
    }
    // A staged payload that cannot be fetched fails the request closed, handler not called.
    EXPECT_EQ(
        client.request("qv-av-control.ping", "{\"Command\": 3, \"_kv_key\": \"scan-missing\"}"),
        "{\"ReturnCode\":-1000,\"Error\":\"Scan data unavailable: staged payload could not "
        "be retrieved from the KV store\"}");

    EXPECT_EQ(qvtest::read_file(d.basedir() + "/qv-av-control/.running_version"),
              "quorvale Anti-Virus 4.0.5 Build 136\r\nqv-av-control v.2.2\n ");
    const std::string logs = d.logs();
    EXPECT_NE(logs.find("  Starting qv-av-control"), std::string::npos);
    EXPECT_NE(logs.find("NATS: connected to " + server.url() +
                        " (user=control@local, "
                        "jetstream=yes)"),
              std::string::npos);
    const std::string lock = lock_path(logs);
    ASSERT_FALSE(lock.empty());
    EXPECT_NE(logs.find(lock + " locked"), std::string::npos);
    // Daemon mode (the default) writes the PID into the PID file and creates no heartbeat.
    std::string pid_file = lock.substr(0, lock.size() - 5) + ".pid";
    EXPECT_EQ(qvtest::read_file(pid_file), std::to_string(d.pid()));
    EXPECT_EQ(logs.find("heartbeat file"), std::string::npos);

    EXPECT_EQ(d.stop(), 0);
    const std::string after = d.logs();
    EXPECT_NE(after.find("Signal received. Exiting gracefully..."), std::string::npos);
    EXPECT_NE(after.find("Ending control with rc=0"), std::string::npos);
}

TEST(Daemon, ValidationFailuresEndWithStatus255) {
    NatsServer server(secured());
    ASSERT_TRUE(server.start());
    {
        DaemonProcess d;
        d.use_nats(server.url(), kUser, kPassword);
        d.control_keys.erase("BROKER_PASSWORD");
        d.write_config();
        ASSERT_TRUE(d.start());
        EXPECT_EQ(d.wait_exit(), 255);
        // The reader stops at the missing password, before the user is derived: the first
        // check that fails is the user's.
        EXPECT_NE(d.logs().find("Invalid Parameter BROKER_USER"), std::string::npos);
        EXPECT_TRUE(qvtest::file_exists(d.basedir() + "/qv-av-control/.running_version"));
    }
    {
        DaemonProcess d;
        d.use_nats(server.url(), kUser, kPassword);
        d.write_config();
        ASSERT_TRUE(d.start({"--console-mode", "--config-file", d.ini_path()}));
        EXPECT_EQ(d.wait_exit(), 255);
        EXPECT_NE(d.logs().find("Invalid Parameter 'basedir'"), std::string::npos);
    }
}

TEST(Daemon, MissingConfigurationFileFailsAfterTheDefaultDelay) {
    DaemonProcess d;
    ASSERT_TRUE(d.start(
        {"--console-mode", "--basedir", d.basedir(), "--config-file", d.root() + "/missing.ini"}));
    // Nothing was read, so the default shutdown delay of 15 s applies before the exit.
    EXPECT_EQ(d.wait_exit(std::chrono::seconds(60)), 255);
    EXPECT_NE(d.logs().find("Invalid Parameter NATS_URL / BROKER_URL"), std::string::npos);
    EXPECT_TRUE(qvtest::file_exists(d.basedir() + "/qv-av-control/.running_version"));
}

TEST(Daemon, CommandLineErrorsPrintUsage) {
    DaemonProcess d;
    ASSERT_TRUE(d.start({"--bogus"}));
    EXPECT_EQ(d.wait_exit(), 255);
    const std::string out = d.logs();
    EXPECT_NE(out.find("Unknown option \"- ?\""), std::string::npos) << out;
    EXPECT_NE(out.find("Failed to parse command line parameters\r\n"), std::string::npos);
    EXPECT_NE(out.find("Usage: quorvale-control -c <config hash> -d <base directory>"),
              std::string::npos);
}

TEST(Daemon, SecondInstanceWaitsOnTheInstanceLock) {
    NatsServer server(secured());
    ASSERT_TRUE(server.start());
    DaemonProcess first;
    first.use_nats(server.url(), kUser, kPassword);
    ASSERT_TRUE(first.start_serving()) << first.logs();

    // Same base directory, own trace file.
    DaemonProcess second;
    second.use_nats(server.url(), kUser, kPassword);
    second.write_config();
    ASSERT_TRUE(second.start(
        {"--console-mode", "--basedir", first.basedir(), "--config-file", second.ini_path()}));
    ASSERT_TRUE(second.wait_for_log("Attempting exclusive lock on"));
    const std::string lock = lock_path(second.logs());
    // While the first runs, the second stays blocked before "locked".
    EXPECT_FALSE(second.wait_for_log(lock + " locked", std::chrono::milliseconds(1500)));
    EXPECT_TRUE(second.running());

    EXPECT_EQ(first.stop(), 0);
    EXPECT_TRUE(second.wait_for_log(lock + " locked"));
    EXPECT_TRUE(second.wait_for_log("Entering main loop"));
    EXPECT_EQ(second.stop(), 0);
}

TEST(Daemon, NonDaemonModeCreatesTheHeartbeatAndLocksThePidFile) {
    NatsServer server(secured());
    ASSERT_TRUE(server.start());
    DaemonProcess d;
    d.use_nats(server.url(), kUser, kPassword);
    d.control_keys["DAEMON_MODE"] = "0";
    ASSERT_TRUE(d.start_serving()) << d.logs();
    const std::string logs = d.logs();
    EXPECT_NE(logs.find("Heartbeat file"), std::string::npos);
    const std::string lock = lock_path(logs);
    const std::string stem = lock.substr(0, lock.find("quorvale-av-control_"));
    const std::string id = lock.substr(stem.size() + 20, lock.size() - stem.size() - 20 - 5);
    const std::string heartbeat = d.basedir() + "/run/qv_heartbeat_" + id;
    EXPECT_EQ(qvtest::read_file(heartbeat).size(), 4000u);
    EXPECT_NE(logs.find(d.basedir() + "/run/quorvale-av-control_" + id + ".pid locked"),
              std::string::npos);
    EXPECT_EQ(d.stop(), 0);
}

TEST(Daemon, DaemonisesWithoutConsoleMode) {
    NatsServer server(secured());
    ASSERT_TRUE(server.start());
    DaemonProcess d;
    d.use_nats(server.url(), kUser, kPassword);
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

TEST(Daemon, FailedStartPhaseIsRetriedUntilSigterm) {
    NatsServer server(secured());
    ASSERT_TRUE(server.start());
    DaemonProcess d;
    d.use_nats(server.url(), kUser, kPassword);
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
                       "Failed to create epolog service (qv-av-epolog) service handler threads") >=
                   3;
        },
        std::chrono::seconds(60)))
        << d.logs();
    EXPECT_EQ(d.logs().find("Entering main loop"), std::string::npos);
    // Each retry ends the pools of the failed phase before starting new ones: at most one
    // phase's threads (5 + 5 + 10 + 10 + 1) run at any time.
    EXPECT_LE(count("NATS: handler thread started") - count("NATS: handler thread exiting"), 31u);
    EXPECT_EQ(d.stop(), 255);
}
