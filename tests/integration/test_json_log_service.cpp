// The daemon configured to log as JSON: log envelopes sent over NATS land as JSON lines in the
// log tree of its installation, and a refused request leaves the tree untouched.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "daemon_process.h"
#include "nats_peer.h"
#include "nats_server.h"

using qvtest::DaemonProcess;
using qvtest::NatsServer;

TEST(JsonLogService, DaemonWritesJsonLinesForRequestsOverNats) {
    NatsServer server;
    ASSERT_TRUE(server.start());
    DaemonProcess d;
    d.use_nats(server.url());
    const std::string logs = d.basedir() + "/logs";
    d.control_keys["JSON_LOG"] = "1";
    d.control_keys["SCAN_LOG_BASEDIR"] = logs + "/scan";
    d.control_keys["ERROR_LOG_BASEDIR"] = logs + "/error";
    d.write_config();
    ASSERT_TRUE(d.start());
    ASSERT_TRUE(d.wait_for_log("Entering main loop")) << d.logs();

    const std::string head =
        "{\"LogVersion\": 1, \"Timestamp_epoch\": 0, \"Component\": \"qv-av-trellix\", "
        "\"Hostname\": \"node7\", \"EventID\": \"e-1\", ";
    qvtest::NatsPeer peer(server.url());
    ASSERT_TRUE(peer.connected());
    const std::vector<std::string> replies = peer.request_all(
        {{"qv-av-log", head + "\"realmID\": \"r1\", \"ScanLog\": {\"LogData\": {\"Filename\": "
                              "\"a\"}}, \"ErrorLog\": {\"LogData\": {\"Message\": \"x\\r\\ny\"}}}"},
         {"qv-av-log", head + "\"realmID\": \"../r1\", \"ErrorLog\": {\"LogData\": {}}}"}},
        std::chrono::seconds(10));
    EXPECT_EQ(replies,
              (std::vector<std::string>{"{\"ReturnCode\": 0}",
                                        "{\"ReturnCode\": -1000, \"Error\": \"Invalid realm\"}"}));

    const std::string added =
        "\"LogVersion\":1,\"LogType\":\"ErrorLog\",\"TimestampEpoch\":0,\"Timestamp\":\"1970-01-01 "
        "00:00:00\",\"Component\":\"qv-av-trellix\",\"Hostname\":\"node7\",\"EventID\":\"e-1\","
        "\"RealmID\":\"r1\",\"Tenant\":\"on-premises\",\"RealmName\":\"local\"";
    EXPECT_EQ(qvtest::read_file(logs + "/error/r1/error.log"),
              "{\"Message\":\"x\\r\\ny\"," + added + "}\r\n");
    EXPECT_NE(qvtest::read_file(logs + "/scan/r1/scan.log").find("\"ScanLogPath\":\"\"}\r\n"),
              std::string::npos);
    EXPECT_EQ(d.stop(), 0);
}
