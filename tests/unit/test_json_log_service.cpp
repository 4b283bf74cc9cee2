// The JSON log service ("qv-av-log" with JSON_LOG) called as the NATS handler threads call it,
// writing into a temporary tree, with the trace log captured.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "log_capture.h"
#include "qv-av-control-json-logger.h"
#include "qv_json.h"
#include "qv_nats_config.h"
#include "qv_test_util.h"
#include "qvctrl_config.h"
#include "qvctrl_tenants.h"

namespace fs = std::filesystem;
using namespace std::string_literals;

namespace {

const std::string kOK = "{\"ReturnCode\": 0}";

std::string error_reply(const std::string& text) {
    return "{\"ReturnCode\": -1000, \"Error\": \"" + text + "\"}";
}

std::string quoted(const std::string& text) {
    return "\"" + qv_json_escape(text) + "\"";
}

// An envelope carrying `sections`; `realm` is JSON text, or empty for none.
std::string envelope(const std::string& sections, const std::string& realm = "\"r1\"",
                     const std::string& component = "qv-av-trellix",
                     const std::string& timestamp = "\"Timestamp\": \"2024-03-01 12:00:07\", ") {
    return "{\"LogVersion\": 1, " + timestamp +
           "\"Timestamp_epoch\": 1709294407, \"Component\": " + quoted(component) +
           ", \"Hostname\": \"node1\", \"EventID\": \"e-1\"" +
           (realm.empty() ? "" : ", \"realmID\": " + realm) + ", " + sections + "}";
}

std::string section(const char* key, const std::string& logdata) {
    return std::string("\"") + key + "\": {\"LogData\": " + logdata + "}";
}

// What the service appends to the log data of an envelope() line, up to the tenant.
std::string tail(const char* type, const std::string& tenant = "on-premises",
                 const std::string& realm_name = "broker-7", const std::string& realm = "r1") {
    return "\"LogVersion\":1,\"LogType\":\"" + std::string(type) +
           "\",\"TimestampEpoch\":1709294407,\"Timestamp\":\"2024-03-01 "
           "12:00:07\",\"Component\":\"qv-av-trellix\",\"Hostname\":\"node1\",\"EventID\":\"e-1\","
           "\"RealmID\":\"" +
           realm + "\",\"Tenant\":\"" + tenant + "\",\"RealmName\":\"" + realm_name + "\"";
}

std::vector<std::string> files_below(const std::string& dir) {
    std::vector<std::string> out;
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(dir, ec); !ec && it != fs::end(it);
         it.increment(ec)) {
        if (it->is_regular_file()) {
            out.push_back(it->path().string());
        }
    }
    std::sort(out.begin(), out.end());
    return out;
}

class JsonLogService : public ::testing::Test {
  protected:
    void SetUp() override {
        struct log_config& lc = *config_->log;
        lc.basedir_scanlog = root_ + "/scan";
        lc.basedir_blocklog = root_ + "/block";
        lc.basedir_epolog = root_ + "/epo";
        lc.basedir_updatelog = root_ + "/update";
        lc.basedir_statuslog = root_ + "/status";
        lc.basedir_errorlog = root_ + "/error";
        lc.cluster_name = "cluster-1";
        config_->main_nats_config = qv_nats_config_new();
        config_->main_nats_config->broker_name = "broker-7";
    }

    std::string log(const std::string& request) {
        int rc = 0;
        const std::string reply = qvtest::call_handler(qv_av_control_json_logger_request_handler,
                                                       config_.get(), request, &rc);
        EXPECT_EQ(rc, reply == kOK ? 0 : -1) << reply;
        return reply;
    }
    // The error log line of `request` in realm r1 as a parsed object.
    qv::json_ptr error_line(const std::string& request) {
        const std::string path = root_ + "/error/r1/error.log";
        fs::remove(path);
        EXPECT_EQ(log(request), kOK);
        const std::string text = qvtest::read_file(path);
        EXPECT_TRUE(text.size() > 2 && text.find("\r\n") == text.size() - 2) << text;
        return qv_json_parse(text.substr(0, text.size() - 2));
    }
    static std::string member(const qv::json_ptr& object, const char* key) {
        json_object* value = nullptr;
        if (!object || !json_object_object_get_ex(object.get(), key, &value)) {
            return "<absent>";
        }
        if (!json_object_is_type(value, json_type_string)) {
            return json_object_get_string(value);
        }
        return std::string(json_object_get_string(value),
                           static_cast<size_t>(json_object_get_string_len(value)));
    }

    qvtest::LogCapture trace_;
    qvtest::TempDir dir_;
    std::string root_ = dir_ / "logs";
    std::unique_ptr<quorvale_control_config_t> config_ = qvctrl_config_new();
};

}  // namespace

TEST_F(JsonLogService, EachSectionBecomesItsLogDataWithTheEnvelopeKeysAppendedInOrder) {
    const std::string request =
        envelope(section("ScanLog", "{\"Filename\": \"a\"}") + ", " +
                 section("BlockLog",
                         "{\"Filename\": \"/in/x.docm\", \"File-size\": 4096, \"Nested\": "
                         "{\"Url\": \"https://h/p\"}}") +
                 ", " + section("UpdateLog", "{\"Message\": \"engine updated\"}") + ", " +
                 section("StatusLog", "{\"Message\": \"ready\"}") + ", " +
                 section("ErrorLog", "{\"Message\": \"disk full\"}") + ", " +
                 section("EPOLog", "{\"Filename\": \"a\", \"Threat-Name\": \"EICAR\"}"));
    EXPECT_EQ(log(request), kOK);
    EXPECT_EQ(qvtest::read_file(root_ + "/scan/r1/scan.log"),
              "{\"Filename\":\"a\"," + tail("ScanLog") + ",\"ScanLogPath\":\"\"}\r\n");
    // '/' is written as it is, nested objects stay.
    EXPECT_EQ(
        qvtest::read_file(root_ + "/block/r1/block.log"),
        "{\"Filename\":\"/in/x.docm\",\"File-size\":4096,\"Nested\":{\"Url\":\"https://h/p\"}," +
            tail("BlockLog") + "}\r\n");
    EXPECT_EQ(qvtest::read_file(root_ + "/update/r1/update.log"),
              "{\"Message\":\"engine updated\"," + tail("UpdateLog") + "}\r\n");
    EXPECT_EQ(qvtest::read_file(root_ + "/status/r1/status.log"),
              "{\"Message\":\"ready\"," + tail("StatusLog") + "}\r\n");
    // A second request appends; the scan log path of the request only goes into the line.
    EXPECT_EQ(
        log(envelope("\"ScanLog\": {\"ScanLogPath\": \"../../x/evil.log\", \"LogData\": {}}, " +
                     section("ErrorLog", "{\"Message\": \"again\"}"))),
        kOK);
    EXPECT_EQ(qvtest::read_file(root_ + "/error/r1/error.log"),
              "{\"Message\":\"disk full\"," + tail("ErrorLog") + "}\r\n{\"Message\":\"again\"," +
                  tail("ErrorLog") + "}\r\n");
    EXPECT_EQ(qvtest::read_file(root_ + "/scan/r1/scan.log"),
              "{\"Filename\":\"a\"," + tail("ScanLog") + ",\"ScanLogPath\":\"\"}\r\n{" +
                  tail("ScanLog") + ",\"ScanLogPath\":\"../../x/evil.log\"}\r\n");
    // EPO sections, sections without log data and kinds without a base directory: no line.
    config_->log->basedir_statuslog.clear();
    EXPECT_EQ(log(envelope("\"UpdateLog\": {\"Message\": \"m\"}, \"BlockLog\": {\"LogData\": 5}, " +
                           section("StatusLog", "{\"Message\": \"ready\"}"))),
              kOK);
    EXPECT_EQ(files_below(root_), (std::vector<std::string>{
                                      root_ + "/block/r1/block.log", root_ + "/error/r1/error.log",
                                      root_ + "/scan/r1/scan.log", root_ + "/status/r1/status.log",
                                      root_ + "/update/r1/update.log"}));
    EXPECT_TRUE(trace_.contains("No LogData object found"));
}

TEST_F(JsonLogService, TimestampIsMadeFromTheEpochInUtcWhenAbsentOrEmpty) {
    setenv("TZ", "America/New_York", 1);
    tzset();
    std::string request =
        envelope(section("ErrorLog", "{\"Message\": \"m\"}"), "\"r1\"", "qv-av-trellix", "");
    request.replace(request.find("1709294407"), 10, "0");
    qv::json_ptr line = error_line(request);
    EXPECT_EQ(member(line, "Timestamp"), "1970-01-01 00:00:00");
    EXPECT_EQ(member(line, "TimestampEpoch"), "0");

    line = error_line(envelope(section("ErrorLog", "{\"Message\": \"m\"}"), "\"r1\"",
                               "qv-av-trellix", "\"Timestamp\": \"\", "));
    EXPECT_EQ(member(line, "Timestamp"), "2024-03-01 12:00:07");
    unsetenv("TZ");
    tzset();

    // Neither: the epoch 0 with a warning; an epoch no calendar can show leaves it empty.
    line = error_line("{\"realmID\": \"r1\", \"Component\": \"c\", \"EventID\": \"e\", " +
                      section("ErrorLog", "{\"Message\": \"m\"}") + "}");
    EXPECT_EQ(member(line, "Timestamp"), "1970-01-01 00:00:00");
    EXPECT_TRUE(trace_.contains("Object Timestamp_epoch not found"));
    EXPECT_TRUE(trace_.contains("Object LogVersion not found"));
    line = error_line(
        "{\"realmID\": \"r1\", \"Timestamp_epoch\": 9223372036854775807, \"Component\": \"c\", "
        "\"EventID\": \"e\", " +
        section("ErrorLog", "{\"Message\": \"m\"}") + "}");
    EXPECT_EQ(member(line, "Timestamp"), "");
}

TEST_F(JsonLogService, HostileValuesStayInsideTheirStringsAndCannotReplaceTheAddedKeys) {
    const std::string forged = "x\"}\r\n{\"Tenant\":\"evil\"}\r\n\0\x01/"s;
    std::string request = envelope(
        section("ErrorLog", "{\"Message\": " + quoted(forged) +
                                ", \"Tenant\": \"evil\", \"LogType\": \"ScanLog\", \"Z\": 1}"));
    request.replace(request.find("\"node1\""), 7, quoted(forged));
    qv::json_ptr line = error_line(request);
    ASSERT_TRUE(line);
    EXPECT_EQ(member(line, "Message"), forged);
    EXPECT_EQ(member(line, "Hostname"), forged);
    EXPECT_EQ(member(line, "Tenant"), "on-premises");
    EXPECT_EQ(member(line, "LogType"), "ErrorLog");
    // The sender's own keys keep their places; the added ones close the object in their order.
    std::vector<std::string> keys;
    json_object_object_foreach(line.get(), key, value) {
        (void)value;
        keys.emplace_back(key);
    }
    EXPECT_EQ(keys, (std::vector<std::string>{
                        "Message", "Z", "LogVersion", "LogType", "TimestampEpoch", "Timestamp",
                        "Component", "Hostname", "EventID", "RealmID", "Tenant", "RealmName"}));
}

TEST_F(JsonLogService, RealmSubdirectoryOnlyWhenSplittingByRealm) {
    const std::string error = section("ErrorLog", "{\"Message\": \"m\"}");
    EXPECT_EQ(log(envelope(error, "\"r2\"")), kOK);
    EXPECT_EQ(log(envelope(error, "")), kOK);
    EXPECT_EQ(log(envelope(error, "\"\"")), kOK);
    config_->log->split_logs_by_realm = false;
    EXPECT_EQ(log(envelope(error, "\"r3\"")), kOK);
    EXPECT_EQ(files_below(root_), (std::vector<std::string>{root_ + "/error/error.log",
                                                            root_ + "/error/r2/error.log"}));
    const std::string text = qvtest::read_file(root_ + "/error/error.log");
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 3);
    EXPECT_NE(text.find("\"RealmID\":\"r3\""), std::string::npos);
}

TEST_F(JsonLogService, RefusedRequestsWriteNothing) {
    const std::string error = section("ErrorLog", "{\"Message\": \"m\"}");
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"[1]", error_reply("Failed to parse JSON. Errorcode: not a JSON object")},
        {"{\"LogVersion\": 1",
         error_reply("Failed to parse JSON. Errorcode: unexpected end of data")},
        {"{\"LogVersion\": 2, \"Component\": \"c\", \"EventID\": \"e\", " + error + "}",
         error_reply("Log version 2 not supported by this logger (version 1)")},
        {"{\"Component\": \"c\", " + error + "}", error_reply("Failed to create log lines")},
        {"{\"Component\": \"\", \"EventID\": \"e\", " + error + "}",
         error_reply("Failed to create log lines")},
    };
    for (const auto& [request, reply] : cases) {
        EXPECT_EQ(log(request), reply) << request;
    }
    for (const std::string& realm :
         {"\"..\""s, "\"a/b\""s, "\"r 1\""s, "\"r\\r\\n\""s, "\"r\\u0000x\""s, "5"s, "{}"s,
          quoted(std::string(300, 'r'))}) {
        EXPECT_EQ(log(envelope(error, realm)), error_reply("Invalid realm")) << realm;
    }
    EXPECT_TRUE(trace_.contains("Invalid realm: 'a/b'"));
    EXPECT_EQ(files_below(root_), std::vector<std::string>{});
}

TEST_F(JsonLogService, AFileAtTheLimitIsZippedBeforeTheNextLine) {
    config_->log->max_logfile_size_MB = 1;
    const std::string dir = root_ + "/scan/r1";
    qvtest::make_dirs(dir);
    qvtest::write_file(dir + "/scan.log", std::string(1000000, 'a'));
    EXPECT_EQ(log(envelope(section("ScanLog", "{\"Filename\": \"a\"}"))), kOK);
    const std::vector<std::string> files = files_below(dir);
    ASSERT_EQ(files.size(), 2u);
    EXPECT_EQ(qvtest::read_file(dir + "/scan.log"),
              "{\"Filename\":\"a\"," + tail("ScanLog") + ",\"ScanLogPath\":\"\"}\r\n");
    const std::string& zip = files[0] == dir + "/scan.log" ? files[1] : files[0];
    EXPECT_EQ(zip.substr(zip.size() - 4), ".zip");
    EXPECT_GT(fs::file_size(zip), 0u);
}

TEST_F(JsonLogService, ALineThatCannotBeWrittenFailsTheReplyButNotTheOtherLines) {
    qvtest::make_dirs(root_);
    qvtest::write_file(root_ + "/blocker", "");
    config_->log->basedir_statuslog = root_ + "/blocker";  // a file where a directory belongs
    EXPECT_EQ(log(envelope(section("StatusLog", "{\"Message\": \"m\"}") + ", " +
                           section("ErrorLog", "{\"Message\": \"m\"}"))),
              error_reply("Failed to store log lines"));
    EXPECT_TRUE(qvtest::file_exists(root_ + "/error/r1/error.log"));
    EXPECT_TRUE(trace_.contains("Failed to write log line to file: "));
}

TEST_F(JsonLogService, CloudTenantsComeFromTheClusterTheMessageOrTheTenantList) {
    config_->cloud_mode = true;
    // The gateway is not reachable: only known realms resolve.
    config_->apigw_url = "https://localhost:" + std::to_string(qvtest::free_port());
    ASSERT_EQ(qvctrl_add_tenant_mapping(config_->tenants, "t-42", "r1", "Realm One"), 0);
    const std::string error = section("ErrorLog", "{\"Message\": \"m\"}");

    qv::json_ptr line = error_line(envelope(error));  // a worker's message
    EXPECT_EQ(member(line, "Tenant"), "cluster-1");
    EXPECT_EQ(member(line, "RealmName"), "broker-7");

    line = error_line(envelope(error, "\"r1\"", "VSA"));
    EXPECT_EQ(member(line, "Tenant"), "t-42");
    EXPECT_EQ(member(line, "RealmName"), "Realm One");

    line = error_line(
        envelope("\"Tenant\": \"t-7\", \"realmName\": \"Seven\", " + error, "\"r1\"", "VSA"));
    EXPECT_EQ(member(line, "Tenant"), "t-7");
    EXPECT_EQ(member(line, "RealmName"), "Seven");

    fs::remove(root_ + "/error/error.log");
    EXPECT_EQ(log(envelope(error, "", "VSA")), kOK);
    EXPECT_NE(qvtest::read_file(root_ + "/error/error.log")
                  .find("\"RealmID\":\"\",\"Tenant\":\"local\",\"RealmName\":\"local\""),
              std::string::npos);

    fs::remove_all(root_);
    EXPECT_EQ(log(envelope(error, "\"r9\"", "VSA")),
              error_reply("Failed to get tenant ID for realm ID r9"));
    EXPECT_TRUE(trace_.contains("No tenant ID cached for realm ID r9. Querying the API-GW"));
    EXPECT_EQ(files_below(root_), std::vector<std::string>{});
}
