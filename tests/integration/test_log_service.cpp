// The daemon's log services over NATS: log envelopes from real requesters land as lines in the log
// tree of the daemon's installation; the EPO log is collected on request.
#include <gtest/gtest.h>

#include <string>

#include "daemon_process.h"
#include "nats_server.h"
#include "qv_nats_client.h"

using qvtest::DaemonProcess;
using qvtest::NatsServer;

namespace {

struct Client {
    std::unique_ptr<qv_nats_config> config = qv_nats_config_new();
    explicit Client(const NatsServer& server) {
        config->server_url = server.url();
        config->cert_path = qvtest::test_certificates().ca_cert;
        EXPECT_EQ(qv_nats_init(config.get()), 0);
    }
    ~Client() { qv_nats_deinit(config.get()); }
    // The reply as plain text, or the transport's error text.
    std::string request(const char* service, const std::string& body, uint32_t timeout_ms = 5000) {
        std::string err;
        qv::json_ptr reply =
            qv_nats_send_recv_json(config.get(), service, body.c_str(), timeout_ms, 0, &err);
        return reply ? json_object_to_json_string_ext(reply.get(), JSON_C_TO_STRING_PLAIN) : err;
    }
};

std::string envelope(const std::string& realm, const std::string& sections) {
    return "{\"LogVersion\": 1, \"Timestamp\": \"2024-03-01 12:00:07\", \"Component\": "
           "\"qv-av-control\", \"Hostname\": \"node7\", \"EventID\": \"e-1\", \"realmID\": \"" +
           realm + "\", " + sections + "}";
}

}  // namespace

TEST(LogService, DaemonWritesTheLinesOfRealRequestsAndRefusesBadOnes) {
    NatsServer server;
    ASSERT_TRUE(server.start());
    DaemonProcess d;
    d.use_nats(server.url());
    const std::string logs = d.basedir() + "/logs";
    d.control_keys["SCAN_LOG_BASEDIR"] = logs + "/scan";
    d.control_keys["EPO_LOG_BASEDIR"] = logs + "/epo";
    d.control_keys["ERROR_LOG_BASEDIR"] = logs + "/error";
    d.write_config();
    ASSERT_TRUE(d.start());
    ASSERT_TRUE(d.wait_for_log("Entering main loop")) << d.logs();
    Client client(server);

    const std::string sections =
        "\"ScanLog\": {\"ScanLogPath\": \"nightly/scan.log\", \"LogData\": {\"SID\": \"PRD\", "
        "\"Filename\": \"/in/eicar.com\", \"File-size\": 68, \"MIME-type\": \"text/plain\", "
        "\"Result-Text\": \"virus found\", \"Duration\": 4}}, \"EPOLog\": {\"LogData\": "
        "{\"Timestamp\": 1709294407, \"EventID\": 7, \"Filename\": \"/in/eicar.com\", "
        "\"Threat-Name\": \"EICAR\", \"Threat-Category\": \"test\", \"Threat-Type\": \"virus\", "
        "\"Action-taken\": \"blocked\"}}, \"ErrorLog\": {\"LogData\": {\"Message\": \"oops\"}}";
    EXPECT_EQ(client.request("qv-av-log", envelope("r1", sections)), "{\"ReturnCode\":0}");
    const std::string head = "2024-03-01 12:00:07;qv-av-control;e-1;node7;";
    EXPECT_EQ(qvtest::read_file(logs + "/scan/r1/nightly/scan.log"),
              head + "PRD;/in/eicar.com;68;text/plain;virus found;;4 ms\r\n");
    EXPECT_EQ(qvtest::read_file(logs + "/epo/r1/epo.log"),
              "CTL;1709294407;7;/in/eicar.com;EICAR;test;virus;blocked;;;node7\r\n");
    EXPECT_EQ(qvtest::read_file(logs + "/error/r1/error.log"), head + "oops\r\n");

    EXPECT_EQ(client.request("qv-av-log", "{\"LogVersion\": 2}"),
              "{\"ReturnCode\":-1000,\"Error\":\"Log version 2 not supported by this logger "
              "(version 1)\"}");
    EXPECT_EQ(client.request("qv-av-log", "<log/>"),
              "{\"ReturnCode\":-1000,\"Error\":\"Failed to parse JSON. Errorcode: unexpected "
              "character\"}");
    // A client naming a realm or scan log path that climbs out of the log tree writes nothing.
    EXPECT_EQ(client.request("qv-av-log", envelope("../../qv-av-control",
                                                   "\"ErrorLog\": {\"LogData\": {\"Message\": "
                                                   "\"m\"}}")),
              "{\"ReturnCode\":0}");
    EXPECT_TRUE(d.wait_for_log("Refusing log file " + d.basedir() + "/qv-av-control/error.log"));
    EXPECT_FALSE(qvtest::file_exists(d.basedir() + "/qv-av-control/error.log"));
    EXPECT_EQ(d.stop(), 0);
}

TEST(LogService, EpoLogIsCollectedOnRequestAndExternalServicesAreNotStarted) {
    NatsServer server;
    ASSERT_TRUE(server.start());
    DaemonProcess d;
    d.use_nats(server.url());
    const std::string epo = d.basedir() + "/logs/epo.log";
    d.control_keys["EPO_LOG_BASEDIR"] = epo;
    d.control_keys["EXTERNAL_LOGGER"] = "1";
    d.write_config();
    qvtest::write_file(epo, "SEA;1;2;f;n;c;t;a;;;h\r\nCTL;3;4;f;n;c;t;a;;;h\r\n");
    ASSERT_TRUE(d.start());
    ASSERT_TRUE(d.wait_for_log("Entering main loop")) << d.logs();
    Client client(server);

    // The collection answers nothing: the requester only sees its own time-out.
    EXPECT_EQ(client.request("qv-av-epolog", "{\"Command\": 400}", 300),
              "NATS: request to qv-av-epolog timed out");
    EXPECT_TRUE(qvtest::wait_until([&] { return qvtest::read_file(epo).empty(); }));
    EXPECT_TRUE(d.wait_for_log("Logs to be sent: SEA;1;2;f;n;c;t;a;;;h\r\nCTL;3;4;"));

    // With an external logger nobody here serves "qv-av-log".
    EXPECT_EQ(
        client.request("qv-av-log", "{}", 1000).rfind("NATS: request to qv-av-log failed: ", 0),
        0u);
    EXPECT_EQ(d.logs().find("qv-av-logger worker threads"), std::string::npos);
    EXPECT_EQ(d.stop(), 0);
}
