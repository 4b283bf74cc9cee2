// The daemon's log services over NATS: log envelopes from real requesters land as lines in the log
// tree of the daemon's installation; the EPO log is collected on request. Hostile requests get
// their failure reply, write nothing, and leave the daemon answering.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "daemon_process.h"
#include "nats_server.h"
#include "qv_json.h"
#include "qv_nats_client.h"

using qvtest::DaemonProcess;
using qvtest::files_below;
using qvtest::NatsServer;
using namespace std::string_literals;

namespace {

using qvtest::quoted;

const std::string kOK = "{\"ReturnCode\":0}";

std::string failure(const std::string& text) {
    return "{\"ReturnCode\":-1000,\"Error\":\"" + text + "\"}";
}

std::string envelope(const std::string& realm, const std::string& sections) {
    return "{\"LogVersion\": 1, \"Timestamp\": \"2024-03-01 12:00:07\", \"Component\": "
           "\"qv-av-control\", \"Hostname\": \"node7\", \"EventID\": \"e-1\", \"realmID\": " +
           realm + ", " + sections + "}";
}

std::string error_section(const std::string& text) {
    return "\"ErrorLog\": {\"LogData\": {\"Message\": " + quoted(text) + "}}";
}

std::string epo_section(const std::string& filename_json) {
    return "\"EPOLog\": {\"LogData\": {\"Timestamp\": 1709294407, \"EventID\": 7, \"Filename\": " +
           filename_json +
           ", \"Threat-Name\": \"EICAR\", \"Threat-Category\": \"test\", \"Threat-Type\": "
           "\"virus\", \"Action-taken\": \"blocked\"}}";
}

std::string scan_section(const std::string& path_json) {
    return "\"ScanLog\": {\"ScanLogPath\": " + path_json +
           ", \"LogData\": {\"Filename\": \"f\", \"MIME-type\": \"m\", \"Result-Text\": \"r\"}}";
}

// A daemon with its logs below <basedir>/logs/<kind>, and a client of its own.
class LogService : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(server.start());
        client = std::make_unique<qvtest::NatsClient>(server);
        d.use_nats(server.url());
        d.control_keys["SCAN_LOG_BASEDIR"] = logs + "/scan";
        d.control_keys["EPO_LOG_BASEDIR"] = logs + "/epo";
        d.control_keys["ERROR_LOG_BASEDIR"] = logs + "/error";
    }
    NatsServer server;
    DaemonProcess d;
    const std::string logs = d.basedir() + "/logs";
    std::unique_ptr<qvtest::NatsClient> client;
};

}  // namespace

TEST_F(LogService, DaemonWritesRealRequestsEscapedAndRefusesHostileOnes) {
    ASSERT_TRUE(d.start_serving()) << d.logs();
    const std::string huge(100000, 'x');

    // One refused envelope of each kind: the daemon's service gives the handler's replies.
    std::vector<std::pair<std::string, std::string>> cases = {
        {"<log/>", failure("Failed to parse JSON. Errorcode: unexpected character")},
        {"[1]", failure("Failed to parse JSON. Errorcode: not a JSON object")},
        {"{\"Timestamp\": \"\", \"Component\": \"c\", \"EventID\": \"e\"}",
         failure("Key Timestamp found, but value is empty")},
        {envelope("\"r1\"", scan_section("[\"scan.log\"]")), failure("Invalid scan log path")},
    };
    for (const std::string& name :
         {"r\r\nPUB $JS.API.STREAM.DELETE.KV_qv-av-config 0"s, "r\0x"s, "${HOME}"s, ".."s, huge}) {
        cases.emplace_back(envelope(quoted(name), error_section("e")), failure("Invalid realm"));
        cases.emplace_back(envelope("\"r1\"", scan_section(quoted(name))),
                           failure("Invalid scan log path"));
    }
    cases.emplace_back(envelope("\"r1\"", scan_section("\"../error/r1/error.log\"")),
                       failure("Invalid scan log path"));
    for (const auto& [request, reply] : cases) {
        EXPECT_EQ(client->request("qv-av-log", request), reply) << request.substr(0, 60);
    }
    EXPECT_TRUE(d.wait_for_log("Invalid realm: '${HOME}'"));
    EXPECT_EQ(files_below(logs), std::vector<std::string>{});

    // Control characters in a field are written escaped: one line per section.
    const std::string sections =
        "\"ScanLog\": {\"ScanLogPath\": \"nightly/scan.log\", \"LogData\": {\"SID\": \"PRD\", "
        "\"Filename\": \"/in/eicar.com\", \"File-size\": 68, \"MIME-type\": \"text/plain\", "
        "\"Result-Text\": \"virus found\", \"Duration\": 4}}, " +
        epo_section("\"/in/eicar.com\"") + ", " + error_section("oops\r\nforged");
    EXPECT_EQ(client->request("qv-av-log", envelope("\"r1\"", sections)), kOK);
    const std::string head = "2024-03-01 12:00:07;qv-av-control;e-1;node7;";
    EXPECT_EQ(qvtest::read_file(logs + "/scan/r1/nightly/scan.log"),
              head + "PRD;/in/eicar.com;68;text/plain;virus found;;4 ms\r\n");
    EXPECT_EQ(qvtest::read_file(logs + "/epo/r1/epo.log"),
              "CTL;1709294407;7;/in/eicar.com;EICAR;test;virus;blocked;;;node7\r\n");
    // Hostile text in envelope fields, and a huge one, likewise.
    std::string hostile_fields = envelope("\"r1\"", error_section("e"));
    hostile_fields.replace(hostile_fields.find("\"node7\""), 7, quoted("n\r\n\0 *>$"s));
    hostile_fields.replace(hostile_fields.find("\"e-1\""), 5, quoted(huge));
    EXPECT_EQ(client->request("qv-av-log", hostile_fields), kOK);
    EXPECT_TRUE(qvtest::read_file(logs + "/error/r1/error.log") ==
                head + "oops\\r\\nforged\r\n2024-03-01 12:00:07;qv-av-control;" + huge +
                    ";n\\r\\n\\x00 *>$;e\r\n");
    EXPECT_EQ(files_below(logs),
              (std::vector<std::string>{logs + "/epo/r1/epo.log", logs + "/error/r1/error.log",
                                        logs + "/scan/r1/nightly/scan.log"}));
    EXPECT_EQ(client->ping(), 0);
    EXPECT_EQ(d.stop(), 0);
}

TEST_F(LogService, EpoLogIsCollectedOnRequestAndEveryRequestIsAnswered) {
    d.control_keys["SPLIT_LOGS_BY_REALM"] = "0";
    ASSERT_TRUE(d.start_serving()) << d.logs();

    EXPECT_EQ(client->request("qv-av-epolog", "{\"Command\": 400}"), "{\"ReturnCode\":301}");
    // The log service fills <dir>/epo.log; the collection hands its lines over and empties it.
    const std::string epo = epo_section(quoted("\"q\".com"));
    EXPECT_EQ(client->request("qv-av-log", envelope("\"r1\"", epo)), kOK);
    EXPECT_EQ(client->request("qv-av-log", envelope("\"r2\"", epo)), kOK);
    const std::string line =
        "CTL;1709294407;7;\\\"q\\\".com;EICAR;test;virus;blocked;;;node7\\r\\n";
    EXPECT_EQ(client->request("qv-av-epolog", "{\"Command\": 400}"),
              "{\"ReturnCode\":0,\"Log\":\"" + line + line + "\"}");
    EXPECT_EQ(qvtest::read_file(logs + "/epo/epo.log"), "");
    EXPECT_EQ(client->request("qv-av-epolog", "{\"Command\": 400}"),
              "{\"ReturnCode\":0,\"Log\":\"\"}");

    const std::string refused = "{\"ReturnCode\":-1}";
    for (const std::string& request :
         {"{\"Command\": 401}"s, "[400]"s,
          "{\"Command\": 401, \"Pad\": \"" + std::string(100000, 'p') + "\"}"}) {
        EXPECT_EQ(client->request("qv-av-epolog", request), refused) << request.substr(0, 40);
    }
    EXPECT_TRUE(d.wait_for_log("Ignoring invalid request: 401"));
    EXPECT_EQ(client->ping(), 0);
    EXPECT_EQ(d.stop(), 0);
}

TEST_F(LogService, ExternalServicesAreNotStarted) {
    d.control_keys["EXTERNAL_LOGGER"] = "1";
    ASSERT_TRUE(d.start_serving()) << d.logs();
    // With an external logger nobody here serves "qv-av-log".
    EXPECT_EQ(client->request("qv-av-log", "{}", std::chrono::seconds(1))
                  .rfind("NATS: request to qv-av-log failed: ", 0),
              0u);
    EXPECT_EQ(d.logs().find("qv-av-logger worker threads"), std::string::npos);
    EXPECT_EQ(d.stop(), 0);
}
