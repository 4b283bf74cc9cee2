#include <gtest/gtest.h>

#include <csignal>
#include <string>

#include "daemon_process.h"
#include "nats_server.h"
#include "qv_nats_client.h"

using qvtest::DaemonProcess;
using qvtest::NatsServer;

namespace {

constexpr const char* kUser = "control@local";
constexpr const char* kPassword = "s3cret";

NatsServer::Options secured(bool tls = false) {
    NatsServer::Options o;
    o.tls = tls;
    o.users = {{kUser, kPassword}};
    return o;
}

std::unique_ptr<qv_nats_config> client_for(const NatsServer& server) {
    auto config = qv_nats_config_new();
    config->server_url = server.url();
    config->user = kUser;
    config->password = kPassword;
    config->cert_path = qvtest::test_certificates().ca_cert;
    return config;
}

// A connected client that is released at the end of the test.
struct Client {
    std::unique_ptr<qv_nats_config> config;
    explicit Client(const NatsServer& server) : config(client_for(server)) {
        EXPECT_EQ(qv_nats_init(config.get()), 0);
    }
    ~Client() { qv_nats_deinit(config.get()); }
    int ping(uint32_t timeout_ms = 1000) {
        return qv_nats_simple_request(config.get(), "qv-av-control.ping", "{\"Command\": 3}",
                                      timeout_ms, 0, nullptr);
    }
    std::string raw(const std::string& body) {
        std::string err;
        qv::json_ptr reply =
            qv_nats_send_recv_json(config.get(), "qv-av-control.ping", body.c_str(), 2000, 0, &err);
        return reply ? json_object_to_json_string_ext(reply.get(), JSON_C_TO_STRING_PLAIN) : err;
    }
};

std::string lock_path(const DaemonProcess& d, const std::string& log) {
    // The instance identifier is derived from the host address; read it back from the log.
    const std::string marker = "Attempting exclusive lock on ";
    size_t at = log.find(marker);
    if (at == std::string::npos) {
        return "";
    }
    size_t end = log.find_first_of(" \n", at + marker.size());
    (void)d;
    return log.substr(at + marker.size(), end - at - marker.size());
}

}  // namespace

TEST(Daemon, StartsServesPingAndStopsCleanly) {
    NatsServer server(secured(true));
    ASSERT_TRUE(server.start());
    DaemonProcess d;
    d.use_nats(server.url(), kUser, kPassword);
    d.write_config();
    ASSERT_TRUE(d.start());
    ASSERT_TRUE(d.wait_for_log("Entering main loop")) << d.logs();

    Client client(server);
    EXPECT_TRUE(qvtest::wait_until([&] { return client.ping() == 0; }));
    EXPECT_EQ(client.raw("{\"Command\": 4}"), "{\"ReturnCode\":-1}");
    EXPECT_EQ(client.raw("{\"Command\": "), "{\"ReturnCode\":-1}");
    EXPECT_EQ(client.raw("{}"), "{\"ReturnCode\":-1}");
    // A staged payload that cannot be fetched fails the request closed, handler not called.
    EXPECT_EQ(client.raw("{\"Command\": 3, \"_kv_key\": \"scan-missing\"}"),
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
    const std::string lock = lock_path(d, logs);
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
    first.write_config();
    ASSERT_TRUE(first.start());
    ASSERT_TRUE(first.wait_for_log("Entering main loop"));

    // Same base directory, own trace file.
    DaemonProcess second;
    second.use_nats(server.url(), kUser, kPassword);
    second.write_config();
    ASSERT_TRUE(second.start(
        {"--console-mode", "--basedir", first.basedir(), "--config-file", second.ini_path()}));
    ASSERT_TRUE(second.wait_for_log("Attempting exclusive lock on"));
    const std::string lock = lock_path(second, second.logs());
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
    d.write_config();
    ASSERT_TRUE(d.start());
    ASSERT_TRUE(d.wait_for_log("Entering main loop")) << d.logs();
    const std::string logs = d.logs();
    EXPECT_NE(logs.find("Heartbeat file"), std::string::npos);
    const std::string lock = lock_path(d, logs);
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
    const std::string lock = lock_path(d, d.logs());
    const std::string pid_text = qvtest::read_file(lock.substr(0, lock.size() - 5) + ".pid");
    const int pid = std::stoi(pid_text);
    ASSERT_GT(pid, 1);
    Client client(server);
    EXPECT_TRUE(qvtest::wait_until([&] { return client.ping() == 0; }));
    ASSERT_EQ(kill(pid, SIGTERM), 0);
    EXPECT_TRUE(d.wait_for_log("Ending control with rc=0"));
    EXPECT_TRUE(qvtest::wait_until([&] { return kill(pid, 0) != 0; }));
}

TEST(Daemon, KeepsServingAcrossANatsRestart) {
    NatsServer server(secured());
    ASSERT_TRUE(server.start());
    DaemonProcess d;
    d.use_nats(server.url(), kUser, kPassword);
    d.write_config();
    ASSERT_TRUE(d.start());
    ASSERT_TRUE(d.wait_for_log("Entering main loop"));
    {
        Client client(server);
        EXPECT_TRUE(qvtest::wait_until([&] { return client.ping() == 0; }));
    }
    server.stop();
    ASSERT_TRUE(d.wait_for_log("connection lost"));
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(d.wait_for_log("NATS: reconnected to"));
    Client client(server);
    EXPECT_TRUE(qvtest::wait_until([&] { return client.ping() == 0; }));
    EXPECT_EQ(d.stop(), 0);
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
    const std::string failure =
        "Failed to create epolog service (qv-av-epolog) service handler "
        "threads";
    // Counted in the trace file only (the console copy repeats every line).
    auto count = [&] {
        const std::string logs = qvtest::read_file(d.trace_path());
        size_t n = 0;
        for (size_t at = logs.find(failure); at != std::string::npos;
             at = logs.find(failure, at + 1)) {
            ++n;
        }
        return n;
    };
    ASSERT_TRUE(qvtest::wait_until([&] { return count() >= 3; }, std::chrono::seconds(60)))
        << d.logs();
    EXPECT_EQ(d.logs().find("Entering main loop"), std::string::npos);
    // Each retry ends the pools of the failed phase before starting new ones: at most one
    // phase's threads (5 + 5 + 10 + 10 + 1) run at any time.
    const std::string logs = qvtest::read_file(d.trace_path());
    size_t started = 0, exited = 0;
    for (size_t at = logs.find("NATS: handler thread started"); at != std::string::npos;
         at = logs.find("NATS: handler thread started", at + 1)) {
        ++started;
    }
    for (size_t at = logs.find("NATS: handler thread exiting"); at != std::string::npos;
         at = logs.find("NATS: handler thread exiting", at + 1)) {
        ++exited;
    }
    EXPECT_LE(started - exited, 31u);
    EXPECT_EQ(d.stop(), 255);
}
