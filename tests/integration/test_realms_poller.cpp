#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <thread>

#include <curl/curl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "auth_tool.h"
#include "http_test_server.h"
#include "log_capture.h"
#include "nats_server.h"
#include "qv_test_util.h"
#include "qvctrl_apigw_transfer.h"
#include "qvctrl_realms_poller_thread.h"

namespace {

using qvtest::read_file;
using qvtest::wait_until;
using qvtest::write_file;

// The broker's users live in an account; the installer's users array is the included file.
const std::string kAccounts = "accounts {\n  QV {\n    include ./qv-av-broker.auth\n  }\n}\n";
const std::string kInstallerFile =
    "users = [\n"
    "    {user: \"control@b1\", password: \"pw\"}\n"
    "]\n";

std::string realms_reply(bool success, const std::string& result) {
    return std::string("{\"success\": ") + (success ? "true" : "false") +
           ", \"result\": " + result + "}";
}

class RealmsPoller : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { curl_global_init(CURL_GLOBAL_ALL); }

    void SetUp() override {
        setenv("CURL_CA_BUNDLE", qvtest::test_certificates().ca_cert.c_str(), 1);
        qvctrl_apigw_set_timeouts_for_tests(2000, 3000);
        gateway.require_basic_auth("org", "gwpass");
        config->apigw_url = gateway.url();
        config->apigw_user = "org";
        config->apigw_password = "gwpass";
        config->main_nats_config = qv_nats_config_new();
        config->main_nats_config->broker_name = "b1";
        config->broker_auth_file = auth;
        config->broker_pid_file = broker.file("nats.pid");
        config->config_poll_interval = 1;
        params.config = config.get();
        write_file(auth, kInstallerFile);
        ASSERT_TRUE(broker.start());
    }
    void TearDown() override {
        stop();
        unsetenv("CURL_CA_BUNDLE");
        qvctrl_apigw_set_timeouts_for_tests(10000, 30000);
    }

    void start() {
        poller = std::thread([this] { rc = qvctrl_realms_poller_thread(&params); });
    }
    void stop() {
        params.targetstatus = STOP;
        if (poller.joinable()) {
            poller.join();
        }
    }

    bool can_connect(const std::string& user, const std::string& pw) const {
        return qvtest::can_log_in(broker, user, pw);
    }

    // Outlives the poller thread, which logs until it is stopped.
    qvtest::LogCapture log;
    qvtest::NatsServer broker{{.extra_conf = kAccounts, .pid_file = true}};
    qvtest::HttpTestServer gateway{{.tls = true}};
    std::string auth = broker.file("qv-av-broker.auth");
    std::unique_ptr<quorvale_control_config_t> config = qvctrl_config_new();
    poller_thread_params_t params;
    std::thread poller;
    int rc = -2;
};

TEST_F(RealmsPoller, RealmUsersFollowTheGatewayIntoTheBroker) {
    EXPECT_TRUE(can_connect("control@b1", "pw"));
    EXPECT_FALSE(can_connect("r1@b1", "p1"));

    gateway.respond(200, realms_reply(true, R"([{"realmId": "r1", "password": "p1"},
                                                {"password": "x"}, {"realmId": "r9"}])"));
    start();
    EXPECT_TRUE(wait_until([&] { return can_connect("r1@b1", "p1"); })) << log.text();
    const std::string broker_pid = qvtest::read_file(broker.file("nats.pid"));
    EXPECT_TRUE(log.contains("realms_poller: SIGHUP sent to broker (pid=" + broker_pid +
                             ") — credstore reload triggered"));
    EXPECT_TRUE(log.contains("realms_poller: realm at index 1 has no realmId; skipping"));
    EXPECT_TRUE(log.contains("realms_poller: realm r9 has no password; skipping"));
    ASSERT_FALSE(gateway.requests().empty());
    EXPECT_EQ(gateway.requests()[0].method, "GET");
    EXPECT_EQ(gateway.requests()[0].target, "/v2-realms?self-hosted=true");
    // Kept: the gateway password is in the trace.
    EXPECT_TRUE(log.contains("Requesting realms for my organization from " +
                             gateway.url("/v2-realms?self-hosted=true") +
                             " with user org and password gwpass"));

    // The realm goes away: an empty list empties the region and the broker drops the user.
    gateway.respond(200, realms_reply(true, "[]"));
    EXPECT_TRUE(wait_until([&] { return !can_connect("r1@b1", "p1"); })) << log.text();
    EXPECT_TRUE(can_connect("control@b1", "pw"));
    // Polls that change nothing write nothing and signal nothing: two writes, two reloads.
    EXPECT_TRUE(log.wait_for(
        "realms_poller: cloud-managed realm slice unchanged (0 realms); nothing written"));
    EXPECT_EQ(log.count("realms_poller: auth file changed on disk"), 2);
    EXPECT_EQ(log.count("realms_poller: SIGHUP sent to broker"), 2);

    stop();
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(params.currentstatus.load(), TERMINATED);
}

TEST_F(RealmsPoller, FailedRepliesAndBadPidFilesNeverSignal) {
    // Without a usable leader lock this control polls on its own.
    qvtest::make_dirs(auth + ".lock");
    const std::string pid_file = broker.file("bad.pid");
    write_file(pid_file, "1\n");
    config->broker_pid_file = pid_file;
    struct stat before {};
    ASSERT_EQ(stat(auth.c_str(), &before), 0);

    gateway.respond(200, realms_reply(false, R"([{"realmId": "r1", "password": "p1"}])"));
    start();
    ASSERT_TRUE(wait_until([&] { return gateway.request_count() >= 2; }));
    EXPECT_TRUE(
        log.contains("realms_poller: leader lock unavailable — every control will poll "
                     "independently (write path remains corruption-safe)"));
    EXPECT_TRUE(log.contains("Request failed"));
    struct stat after {};
    ASSERT_EQ(stat(auth.c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);
    EXPECT_EQ(read_file(auth), kInstallerFile);
    EXPECT_FALSE(log.contains("auth file changed on disk"));

    // A PID file naming init or the process group is never signalled.
    gateway.respond(200, realms_reply(true, R"([{"realmId": "r1", "password": "p1"}])"));
    EXPECT_TRUE(log.wait_for("realms_poller: malformed pid in " + pid_file + " (got 1)"));
    write_file(pid_file, "0\n");
    gateway.respond(200, realms_reply(true, R"([{"realmId": "r2", "password": "p2"}])"));
    EXPECT_TRUE(log.wait_for("realms_poller: malformed pid in " + pid_file + " (got 0)"));
    EXPECT_FALSE(log.contains("SIGHUP sent"));
    EXPECT_FALSE(can_connect("r2@b1", "p2"));
}

TEST_F(RealmsPoller, NonLeaderSignalsAChangeMadeByAnotherControl) {
    // Another control leads: it holds the leader lock (in a process of its own, as record locks
    // belong to processes).
    const std::string ready = broker.file("leader.ready");
    const pid_t leader = qvtest_spawn_auth_tool({"hold", auth + ".lock", ready});
    ASSERT_TRUE(wait_until([&] { return qvtest::file_exists(ready); }));

    start();
    ASSERT_TRUE(log.wait_for("poller_lock: " + auth + ".lock held by another control"));
    // The leader's write (one realm, "x-0-0" with password "pw-0-0") reaches this broker through
    // this control's signal.
    const pid_t writer = qvtest_spawn_auth_tool({"write", auth, "b1", "x", "1"});
    int status = -1;
    ASSERT_EQ(waitpid(writer, &status, 0), writer);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(wait_until([&] { return can_connect("x-0-0@b1", "pw-0-0"); })) << log.text();
    EXPECT_TRUE(log.contains("realms_poller: auth file changed on disk"));
    EXPECT_EQ(gateway.request_count(), 0u);

    kill(leader, SIGKILL);
    waitpid(leader, &status, 0);
}

}  // namespace
