// The JSON log service called as the NATS handler threads call it, writing into a temporary tree,
// with the trace log captured.
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
#include "qvctrl_tenants.h"

namespace fs = std::filesystem;
using namespace std::string_literals;

namespace {

const std::string kOK = "{\"ReturnCode\": 0}";

std::string refused(const std::string& text) {
    return "{\"ReturnCode\": -1000, \"Error\": \"" + text + "\"}";
}

// An envelope carrying `sections`; `realm` is JSON text, or empty for none.
std::string envelope(const std::string& sections, const std::string& realm = "\"r1\"",
                     const std::string& component = "qv-av-trellix") {
    return "{\"LogVersion\": 1, \"Timestamp\": \"2024-03-01 12:00:07\", \"Timestamp_epoch\": "
           "1709294407, \"Component\": \"" +
           component + "\", \"Hostname\": \"node1\", \"EventID\": \"e-1\"" +
           (realm.empty() ? "" : ", \"realmID\": " + realm) + ", " + sections + "}";
}

std::string section(const char* key, const std::string& logdata) {
    return "\""s + key + "\": {\"LogData\": " + logdata + "}";
}

const std::string kError = section("ErrorLog", "{\"Message\": \"m\"}");

// The keys an envelope() line of realm r1 ends with (before "ScanLogPath"), on premises.
std::string added(const char* type) {
    return "\"LogVersion\":1,\"LogType\":\""s + type +
           "\",\"TimestampEpoch\":1709294407,\"Timestamp\":\"2024-03-01 12:00:07\",\"Component\":"
           "\"qv-av-trellix\",\"Hostname\":\"node1\",\"EventID\":\"e-1\",\"RealmID\":\"r1\","
           "\"Tenant\":\"on-premises\",\"RealmName\":\"broker-7\"";
}

class JsonLogService : public ::testing::Test {
  protected:
    void SetUp() override {
        struct log_config& lc = *config_->log;
        qvtest::set_log_dirs(*config_->log, root_);
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
    // The one error log line `request` writes for realm r1, parsed.
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
        return json_object_is_type(value, json_type_string)
                   ? std::string(qv_json_get_text(object.get(), key))
                   : json_object_get_string(value);
    }

    qvtest::LogCapture trace_;
    qvtest::TempDir dir_;
    std::string root_ = dir_ / "logs";
    std::unique_ptr<quorvale_control_config_t> config_ = qvctrl_config_new();
};

}  // namespace

TEST_F(JsonLogService, EachSectionIsItsLogDataWithTheEnvelopeKeysAppendedInOrder) {
    EXPECT_EQ(log(envelope(section("ScanLog", "{\"Filename\": \"a\"}") + ", " +
                           section("BlockLog", "{\"Filename\": \"/in/x\", \"N\": {\"U\": 4}}") +
                           ", " + section("EPOLog", "{\"Filename\": \"a\"}") + ", " + kError)),
              kOK);
    EXPECT_EQ(qvtest::read_file(root_ + "/scan/r1/scan.log"),
              "{\"Filename\":\"a\"," + added("ScanLog") + ",\"ScanLogPath\":\"\"}\r\n");
    const std::string block =
        "{\"Filename\":\"/in/x\",\"N\":{\"U\":4}," + added("BlockLog") + "}\r\n";
    EXPECT_EQ(qvtest::read_file(root_ + "/block/r1/block.log"), block);
    // A request's scan log path only goes into its line; lines are appended.
    EXPECT_EQ(log(envelope("\"ScanLog\": {\"ScanLogPath\": \"../x.log\", \"LogData\": {}}")), kOK);
    EXPECT_EQ(qvtest::read_file(root_ + "/scan/r1/scan.log"),
              "{\"Filename\":\"a\"," + added("ScanLog") + ",\"ScanLogPath\":\"\"}\r\n{" +
                  added("ScanLog") + ",\"ScanLogPath\":\"../x.log\"}\r\n");
    // No line for EPO sections, sections without log data, or kinds without a base directory.
    config_->log->basedir_statuslog.clear();
    EXPECT_EQ(log(envelope("\"UpdateLog\": {\"Message\": \"m\"}, \"BlockLog\": {\"LogData\": 5}, " +
                           section("StatusLog", "{}"))),
              kOK);
    EXPECT_EQ(qvtest::read_file(root_ + "/block/r1/block.log"), block);
    for (const char* kind : {"epo", "update", "status"}) {
        EXPECT_FALSE(fs::exists(root_ + "/" + kind)) << kind;
    }
}

TEST_F(JsonLogService, TimestampIsMadeFromTheEpochInUtcWhenAbsentOrEmpty) {
    const std::string tail =
        "\"Component\": \"c\", \"EventID\": \"e\", \"realmID\": \"r1\", " + kError + "}";
    EXPECT_EQ(member(error_line("{\"Timestamp\": \"\", \"Timestamp_epoch\": 1709294407, " + tail),
                     "Timestamp"),
              "2024-03-01 12:00:07");
    qv::json_ptr line = error_line("{" + tail);
    EXPECT_EQ(member(line, "TimestampEpoch"), "0");
    EXPECT_EQ(member(line, "Timestamp"), "1970-01-01 00:00:00");
    // An epoch no calendar can show leaves the timestamp empty.
    EXPECT_EQ(member(error_line("{\"Timestamp_epoch\": 9223372036854775807, " + tail), "Timestamp"),
              "");
}

TEST_F(JsonLogService, AFileAtTheLimitIsZippedAndAFailedAppendFailsTheReply) {
    config_->log->max_logfile_size_MB = 1;
    qvtest::make_dirs(root_ + "/error/r1");
    qvtest::write_file(root_ + "/error/r1/error.log", std::string(1000000, 'a'));
    qvtest::write_file(root_ + "/blocker", "");
    config_->log->basedir_statuslog = root_ + "/blocker";  // a file where a directory belongs
    EXPECT_EQ(log(envelope(section("StatusLog", "{}") + ", " + kError)),
              refused("Failed to store log lines"));
    EXPECT_EQ(qvtest::read_file(root_ + "/error/r1/error.log"),
              "{\"Message\":\"m\"," + added("ErrorLog") + "}\r\n");
    int zips = 0;
    for (const auto& entry : fs::directory_iterator(root_ + "/error/r1")) {
        zips += entry.path().extension() == ".zip" && entry.file_size() > 0;
    }
    EXPECT_EQ(zips, 1);
}

TEST_F(JsonLogService, CloudTenantsComeFromTheClusterTheMessageOrTheTenantList) {
    config_->cloud_mode = true;
    config_->apigw_url = "https://localhost:" + std::to_string(qvtest::free_port());  // none
    ASSERT_EQ(qvctrl_add_tenant_mapping(config_->tenants, "t-42", "r1", "Realm One"), 0);
    const auto tenant = [&](const std::string& request) {
        const qv::json_ptr line = error_line(request);
        return member(line, "Tenant") + "/" + member(line, "RealmName");
    };
    EXPECT_EQ(tenant(envelope(kError)), "cluster-1/broker-7");  // a worker's message
    EXPECT_EQ(tenant(envelope(kError, "\"r1\"", "VSA")), "t-42/Realm One");
    EXPECT_EQ(
        tenant(envelope("\"Tenant\": \"t-7\", \"realmName\": \"S\", " + kError, "\"r1\"", "VSA")),
        "t-7/S");

    fs::remove_all(root_);
    EXPECT_EQ(log(envelope(kError, "\"r9\"", "VSA")),
              refused("Failed to get tenant ID for realm ID r9"));
    EXPECT_FALSE(fs::exists(root_));
}
