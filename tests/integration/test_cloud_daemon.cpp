// The daemon under cloud management, end to end: the realms of the organisation, as the API
// gateway lists them, become users of the real broker the daemon itself is connected to, and
// leave it again; one daemon holds the configuration poller's lease.
#include <gtest/gtest.h>

#include <string>

#include <nats/nats.h>

#include "daemon_process.h"
#include "http_test_server.h"
#include "nats_server.h"
#include "qv_handles.h"
#include "qv_nats_kv.h"
#include "qv_test_util.h"

using qvtest::wait_until;

namespace {

// The broker's users live in an account with JetStream; its users array is the included file,
// which the installer wrote with the control's own user.
const std::string kAccounts =
    "accounts {\n  QV {\n    jetstream: enabled\n    include ./qv-av-broker.auth\n  }\n}\n";
const std::string kInstallerFile =
    "users = [\n"
    "    {user: \"control@b1\", password: \"pw\"}\n"
    "]\n";

std::string realms(const std::string& list) {
    return std::string(R"({"success": true, "result": )").append(list).append("}");
}

}  // namespace

TEST(CloudDaemon, RealmsFromTheGatewayBecomeBrokerUsersAndLeaveAgain) {
    qvtest::NatsServer broker{{.extra_conf = kAccounts, .pid_file = true}};
    const std::string auth = broker.file("qv-av-broker.auth");
    qvtest::write_file(auth, kInstallerFile);
    ASSERT_TRUE(broker.start());
    ASSERT_EQ(broker.create_buckets({}, "control@b1", "pw"), 0);
    qvtest::HttpTestServer gateway{{.tls = true}};
    gateway.require_basic_auth("org", "gwpass");
    gateway.respond(200, realms(R"([{"realmId": "r1", "password": "p1"}])"));

    qvtest::DaemonProcess d;
    d.use_nats(broker.url(), "control@b1", "pw");
    d.global_keys["CLOUD_MANAGEMENT"] = "1";
    d.global_keys["BROKER_NAME"] = "b1";
    d.global_keys["CONFIG_POLL_INTERVAL"] = "1";
    d.control_keys["APIGW_URL"] = gateway.url();
    d.control_keys["APIGW_USER"] = "org";
    d.control_keys["APIGW_PASSWORD"] = "gwpass";
    d.control_keys["BROKER_AUTH_FILE"] = auth;
    d.control_keys["BROKER_PID_FILE"] = broker.file("nats.pid");
    d.write_config();
    EXPECT_FALSE(qvtest::can_log_in(broker, "r1@b1", "p1"));
    ASSERT_TRUE(d.start({}, {{"CURL_CA_BUNDLE", qvtest::test_certificates().ca_cert}}));
    ASSERT_TRUE(d.wait_for_log("Entering main loop")) << d.logs();

    // The daemon writes the realm into the broker's users and has the broker reload them.
    EXPECT_TRUE(wait_until([&] { return qvtest::can_log_in(broker, "r1@b1", "p1"); }))
        << qvtest::read_file(auth) << d.logs();

    // The configuration poller's lease names this daemon.
    qvtest::NatsClient client(broker, "control@b1", "pw");
    std::string holder;
    EXPECT_TRUE(wait_until([&] {
        return qv_nats_kv_get(client.get(), QV_KV_CONFIG_BUCKET, "_leader.config-poller",
                              &holder) == 0 &&
               !holder.empty();
    })) << d.logs();

    // The realm goes away on the management side: its user is refused again, while the
    // daemon's own connection and the installer's user stay.
    gateway.respond(200, realms("[]"));
    EXPECT_TRUE(wait_until([&] { return !qvtest::can_log_in(broker, "r1@b1", "p1"); })) << d.logs();
    EXPECT_TRUE(qvtest::can_log_in(broker, "control@b1", "pw"));
    EXPECT_EQ(client.ping(), 0);
    EXPECT_EQ(d.stop(), 0);
}
