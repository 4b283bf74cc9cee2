#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>

#include <unistd.h>

#include "daemon_process.h"
#include "http_test_server.h"
#include "nats_server.h"
#include "qv_update_common.h"
#include "update_packages.h"

using qvtest::DaemonProcess;
using qvtest::HttpTestServer;
using qvtest::NatsClient;
using qvtest::NatsServer;

namespace {

constexpr const char* kUser = "control@local";
constexpr const char* kPassword = "s3cret";

// The daemon installed as version 1700000000 of its component directory and started through
// "latest", as an installation runs it.
void install_daemon(DaemonProcess& d) {
    const std::string component = d.basedir() + "/qv-av-control";
    qvtest::make_dirs(component + "/1700000000/bin");
    std::filesystem::copy_file(QV_DAEMON_BINARY, component + "/1700000000/bin/qv-av-control");
    qvtest::write_file(component + "/1700000000/.version.qv", "20240101001");
    ASSERT_EQ(update_latest_link(component.c_str(), "1700000000"), 0);
    d.binary = component + "/latest/bin/qv-av-control";
}

std::string link_target(const std::string& path) {
    char target[4096] = {};
    return readlink(path.c_str(), target, sizeof(target) - 1) > 0 ? target : "";
}

}  // namespace

TEST(UpdateDaemon, FailedInstallKeepsServingThenActivationRestartsAsNewVersion) {
    NatsServer nats({.tls = true, .users = {{kUser, kPassword}}});
    ASSERT_TRUE(nats.start());
    HttpTestServer server;
    server.respond(304, "");
    const std::string package_name = "qv-av-control_nats-bin-linux-glibc2.28.amd64";
    // The first check (one interval, a minute, after the start) gets a package that fails.
    qvtest::serve_package(server, package_name + "_nats__20240201001.zip",
                          qvtest::make_zip({{"install.sh", "#!/bin/sh\nexit 1\n", 0755, ""}}));
    DaemonProcess d;
    d.use_nats(nats.url(), kUser, kPassword);
    install_daemon(d);
    d.control_keys["UPDATE_SERVER"] = server.url();
    d.control_keys["UPDATE_CHECK_INTERVAL"] = "1";
    ASSERT_TRUE(d.start_serving()) << d.logs();
    const std::string component = d.basedir() + "/qv-av-control";
    NatsClient client(nats, kUser, kPassword);

    ASSERT_TRUE(d.wait_for_log("Error applying 'bin' update.", std::chrono::seconds(150)))
        << d.logs();
    EXPECT_EQ(client.ping(), 0);
    EXPECT_EQ(link_target(component + "/latest"), "1700000000");
    EXPECT_EQ(qvtest::list_dir(component), (std::vector<std::string>{"1700000000", "latest"}));

    // The second check gets a real package of this build: the daemon replaces itself with it.
    qvtest::TempDir out;
    const std::string package = qvtest::run_make_update_package(
        "--bin-dir " + std::string(QV_BIN_DIR) + " --version 20240301001 --out " + out.path());
    ASSERT_FALSE(package.empty());
    qvtest::serve_package(server, std::filesystem::path(package).filename(),
                          qvtest::read_file(package));
    ASSERT_TRUE(qvtest::wait_until(
        [&] {
            return qvtest::count_of(qvtest::read_file(d.trace_path()),
                                    "  Starting qv-av-control") == 2;
        },
        std::chrono::seconds(150)))
        << d.logs();
    ASSERT_TRUE(d.wait_for_log("calling execv: " + d.binary));
    EXPECT_TRUE(qvtest::wait_until([&] { return client.ping() == 0; }));
    const std::string fresh = link_target(component + "/latest");
    EXPECT_NE(fresh, "1700000000");
    EXPECT_EQ(qvtest::read_file(component + "/" + fresh + "/.version.qv"), "20240301001");
    // The same process now runs the program of the new version, in console mode.
    EXPECT_EQ(link_target("/proc/" + std::to_string(d.pid()) + "/exe"),
              component + "/" + fresh + "/bin/qv-av-control");
    EXPECT_TRUE(qvtest::read_file("/proc/" + std::to_string(d.pid()) + "/cmdline")
                    .ends_with(std::string("--console-mode\0", 15)));
    EXPECT_EQ(d.stop(), 0);
}

TEST(UpdateDaemon, SecondUpdaterOfAnInstallationRunsNoLoop) {
    NatsServer nats({.tls = true, .users = {{kUser, kPassword}}});
    ASSERT_TRUE(nats.start());
    DaemonProcess d;
    d.use_nats(nats.url(), kUser, kPassword);
    // An updater of another daemon of this installation holds the lock.
    qv_update_lock_file other;
    lock_file_set_path(&other, d.basedir() + "/qv-av-control", ".update.lock");
    ASSERT_EQ(lock_check_create(&other), 1);
    ASSERT_TRUE(d.start_serving()) << d.logs();
    EXPECT_TRUE(d.wait_for_log("Another update thread is already running for control"));
    NatsClient client(nats, kUser, kPassword);
    EXPECT_TRUE(qvtest::wait_until([&] { return client.ping() == 0; }));
    EXPECT_EQ(qvtest::count_of(d.logs(), "Update check interval"), 0u);
    EXPECT_EQ(d.stop(), 0);
    lock_release(&other);
}
