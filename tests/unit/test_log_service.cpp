// The log service ("qv-av-log") and the EPO log service ("qv-av-epolog") called as the NATS
// handler threads call them, writing into a temporary tree, with the trace log captured.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <semaphore.h>

#include "log-helper.h"
#include "log.h"
#include "qv-av-control-epolog.h"
#include "qv-av-control-logger.h"
#include "qv_test_util.h"
#include "qvctrl_config.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kEventId = "1b4e28ba-2fa1-11d2-883f-0016d3cca427";
const std::string kOK = "{\"ReturnCode\": 0}";
// What every text line of envelope() starts with.
const std::string kHead =
    std::string("2024-03-01 12:00:07;qv-av-trellix;") + kEventId + ";node1.example;";

// A worker's envelope carrying `sections`; `realm` is JSON text, or empty for none.
std::string envelope(const std::string& sections, const std::string& realm = "\"r1\"",
                     const std::string& component = "qv-av-trellix") {
    return "{\"LogVersion\": 1, \"Timestamp\": \"2024-03-01 12:00:07\", \"Timestamp_epoch\": "
           "1709294407, \"Component\": \"" +
           component + "\", \"Hostname\": \"node1.example\", \"EventID\": \"" + kEventId + "\"" +
           (realm.empty() ? "" : ", \"realmID\": " + realm) + ", " + sections + "}";
}

std::string scan(const std::string& path = "scan.log",
                 const std::string& logdata =
                     "\"SID\": \"PRD\", \"Filename\": \"/in/a.exe\", \"File-size\": 68, "
                     "\"MIME-type\": \"application/x-dosexec\", \"Result-Text\": \"virus "
                     "found\", \"Reason-Text\": \"EICAR\", \"Duration\": 12") {
    return "\"ScanLog\": {\"ScanLogPath\": \"" + path + "\", \"LogData\": {" + logdata + "}}";
}

std::string message(const char* key, const std::string& text) {
    return std::string("\"") + key + "\": {\"LogData\": {\"Message\": \"" + text + "\"}}";
}

std::string epo(const std::string& extra = "") {
    return "\"EPOLog\": {\"LogData\": {\"Timestamp\": 1709294407, \"EventID\": 1278, "
           "\"Filename\": \"/in/a.exe\", \"Threat-Name\": \"EICAR\", \"Threat-Category\": "
           "\"test\", \"Threat-Type\": \"virus\", \"Action-taken\": \"blocked\"" +
           extra + "}}";
}
const std::string kEpoTail =
    ";1709294407;1278;/in/a.exe;EICAR;test;virus;blocked;;;node1.example\r\n";

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

class LogService : public ::testing::Test {
  protected:
    void SetUp() override {
        root_ = dir_ / "logs";
        struct log_config& lc = *config_->log;
        lc.basedir_scanlog = root_ + "/scan";
        lc.basedir_blocklog = root_ + "/block";
        lc.basedir_epolog = root_ + "/epo";
        lc.basedir_updatelog = root_ + "/update";
        lc.basedir_statuslog = root_ + "/status";
        lc.basedir_errorlog = root_ + "/error";
        trace_ = dir_ / "trace.log";
        saved_progname_ = qv__progname;
        qv__progname = "qvtest";
        log_set_quiet(1);
        ASSERT_EQ(QVOpenTraceFile(trace_.c_str(), QVLOG_TRACE, 0), 0);
    }
    void TearDown() override {
        QVOpenTraceFile(nullptr, 0, 0);
        log_set_quiet(0);
        qv__progname = saved_progname_;
        std::string flat = trace_;
        std::replace(flat.begin(), flat.end(), '/', '_');
        sem_unlink(("qv_log_" + flat).c_str());
    }

    std::string log(const std::string& request) {
        qv_message_t req;
        req.json_txt = request;
        qv_message_t reply;
        qv_const_request_reply_t rr{&req, &reply};
        const int rc = qv_av_control_logger_request_handler(config_.get(), &rr);
        EXPECT_EQ(rc, reply.json_txt == "{\"ReturnCode\": 0}" ? 0 : -1);
        return reply.json_txt;
    }
    // The handler's result; the collection never answers, so any reply text fails the test.
    int epolog(const std::string& request) {
        qv_message_t req;
        req.json_txt = request;
        qv_message_t reply;
        qv_const_request_reply_t rr{&req, &reply};
        const int rc = qv_av_control_epolog_request_handler(config_.get(), &rr);
        EXPECT_EQ(reply.json_txt, "");
        return rc;
    }
    bool traced(const std::string& text) const {
        return qvtest::read_file(trace_).find(text) != std::string::npos;
    }

    qvtest::TempDir dir_;
    std::string root_;
    std::string trace_;
    const char* saved_progname_ = nullptr;
    std::unique_ptr<quorvale_control_config_t> config_ = qvctrl_config_new();
};

}  // namespace

TEST_F(LogService, ScanAndBlockLinesAreExactAndMissingOptionalFieldsAreEmptyOrZero) {
    EXPECT_EQ(log(envelope(scan("daily/scan.log"))), kOK);
    log(envelope(scan("daily/scan.log",
                      "\"Filename\": \"b;c\", \"MIME-type\": \"t\", \"Result-Text\": \"clean\"")));
    EXPECT_EQ(qvtest::read_file(root_ + "/scan/r1/daily/scan.log"),
              kHead + "PRD;/in/a.exe;68;application/x-dosexec;virus found;EICAR;12 ms\r\n" + kHead +
                  ";b;c;0;t;clean;;0 ms\r\n");
    EXPECT_TRUE(traced("Object Duration not found"));
    log(
        envelope("\"BlockLog\": {\"LogData\": {\"Filename\": \"x.docm\", \"File-size\": 4096, "
                 "\"MIME-type\": \"m\", \"Result-Text\": \"blocked\", \"Duration\": 3}}"));
    EXPECT_EQ(qvtest::read_file(root_ + "/block/r1/block.log"),
              kHead + ";x.docm;4096 bytes;m;blocked;;3 ms\r\n");
}

TEST_F(LogService, EpoLogLineStartsWithTheProductCodeOfTheComponent) {
    for (const char* component : {"qv-av-trellix", "qv-av-control", "VSA", "qv-av-mimescan"}) {
        log(envelope(epo(), "\"r1\"", component));
    }
    log(envelope(epo(", \"Lib-Version\": \"6.1\", \"DAT-Version\": \"11\"")));
    // Timestamp and EventID default to 0.
    log(
        envelope("\"EPOLog\": {\"LogData\": {\"Filename\": \"f\", \"Threat-Name\": \"n\", "
                 "\"Threat-Category\": \"c\", \"Threat-Type\": \"t\", \"Action-taken\": \"a\"}}"));
    EXPECT_EQ(qvtest::read_file(root_ + "/epo/r1/epo.log"),
              "SEA" + kEpoTail + "CTL" + kEpoTail + "VSA" + kEpoTail + kEpoTail +
                  "SEA;1709294407;1278;/in/a.exe;EICAR;test;virus;blocked;6.1;11;node1.example\r\n"
                  "SEA;0;0;f;n;c;t;a;;;node1.example\r\n");
}

TEST_F(LogService, UpdateStatusAndErrorLinesCarryTheMessage) {
    EXPECT_EQ(
        log(envelope(message("UpdateLog", "engine updated") + ", " + message("StatusLog", "ready") +
                     ", " + message("ErrorLog", "disk; full") + ", " + scan())),
        kOK);
    EXPECT_EQ(qvtest::read_file(root_ + "/update/r1/update.log"), kHead + "engine updated\r\n");
    EXPECT_EQ(qvtest::read_file(root_ + "/status/r1/status.log"), kHead + "ready\r\n");
    EXPECT_EQ(qvtest::read_file(root_ + "/error/r1/error.log"), kHead + "disk; full\r\n");
    EXPECT_EQ(files_below(root_ + "/scan").size(), 1u);
}

TEST_F(LogService, RealmSubdirectoriesOnlyWhenSplitting) {
    log(envelope(message("ErrorLog", "e")));
    log(envelope(message("ErrorLog", "e"), ""));  // no realm: the base directory itself
    log(envelope(epo(), "\"r2\""));
    config_->log->split_logs_by_realm = false;
    log(envelope(message("ErrorLog", "e"), "\"r3\""));
    log(envelope(epo(), "\"r3\""));
    EXPECT_EQ(
        files_below(root_ + "/error"),
        (std::vector<std::string>{root_ + "/error/error.log", root_ + "/error/r1/error.log"}));
    EXPECT_EQ(qvtest::read_file(root_ + "/error/error.log"), kHead + "e\r\n" + kHead + "e\r\n");
    EXPECT_EQ(files_below(root_ + "/epo"),
              (std::vector<std::string>{root_ + "/epo/epo.log", root_ + "/epo/r2/epo.log"}));
}

TEST_F(LogService, LogsAreZippedAtExactlyTheLimitButTheEpoLogNever) {
    config_->log->max_logfile_size_MB = 1;
    const std::string path = root_ + "/error/r1/error.log";
    qvtest::make_dirs(root_ + "/error/r1");
    qvtest::write_file(path, std::string(999999, 'a'));
    log(envelope(message("ErrorLog", "m")));
    EXPECT_TRUE(qvtest::read_file(path) == std::string(999999, 'a') + kHead + "m\r\n");

    qvtest::write_file(path, std::string(1000000, 'b'));
    log(envelope(message("ErrorLog", "m")));
    EXPECT_EQ(qvtest::read_file(path), kHead + "m\r\n");
    const auto files = files_below(root_ + "/error/r1");
    ASSERT_EQ(files.size(), 2u);
    const std::string& zip = files[0] == path ? files[1] : files[0];
    struct tm local {};  // <log path>_<local time>.zip, written as the trace log's archives are
    const char* end = strptime(zip.c_str() + path.size(), "_%Y-%m-%d__%H-%M-%S", &local);
    EXPECT_TRUE(end != nullptr && std::string(end) == ".zip") << zip;
    EXPECT_GT(fs::file_size(zip), 0u);

    const std::string epo_path = root_ + "/epo/r1/epo.log";
    qvtest::make_dirs(root_ + "/epo/r1");
    qvtest::write_file(epo_path, std::string(2000000, 'e'));
    log(envelope(epo()));
    EXPECT_EQ(files_below(root_ + "/epo"), std::vector<std::string>{epo_path});
    EXPECT_TRUE(qvtest::read_file(epo_path) == std::string(2000000, 'e') + "SEA" + kEpoTail);
}

TEST_F(LogService, LinesOfConcurrentRequestsNeverInterleave) {
    constexpr int kThreads = 8;
    constexpr int kPerThread = 150;
    std::vector<std::string> expected;
    for (int t = 0; t < kThreads; ++t) {
        for (int i = 0; i < kPerThread; ++i) {
            // Lines of several kilobytes, so that a torn or mixed write would show.
            expected.push_back(std::to_string(t) + "-" + std::to_string(i) + "-" +
                               std::string(3000 + 97 * t, static_cast<char>('a' + t)));
        }
    }
    std::vector<std::thread> producers;
    for (int t = 0; t < kThreads; ++t) {
        producers.emplace_back([this, t, &expected] {
            for (int i = 0; i < kPerThread; ++i) {
                log(envelope(
                    message("ErrorLog", expected[static_cast<size_t>(t * kPerThread + i)])));
            }
        });
    }
    for (auto& p : producers) {
        p.join();
    }
    std::vector<std::string> lines;
    std::istringstream in(qvtest::read_file(root_ + "/error/r1/error.log"));
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    for (std::string& e : expected) {
        e = kHead + e + "\r";
    }
    std::sort(lines.begin(), lines.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_TRUE(lines == expected) << lines.size() << " lines";
}

TEST_F(LogService, BadEnvelopesAreRefusedWithoutWritingAnything) {
    const std::string sections = message("ErrorLog", "e") + ", " + scan();
    std::string no_timestamp = envelope(sections);
    no_timestamp.replace(no_timestamp.find("\"Timestamp\""), 11, "\"Time\"");
    std::string v2 = envelope(sections);
    v2.replace(v2.find("\"LogVersion\": 1"), 15, "\"LogVersion\": 2");
    const std::pair<std::string, std::string> cases[] = {
        {"{\"LogVersion\": 1, \"Timestamp\": ",
         "Failed to parse JSON. Errorcode: unexpected end of data"},
        {v2, "Log version 2 not supported by this logger (version 1)"},
        {no_timestamp, "Failed to read Timestamp from JSON"},
        {envelope(sections, "\"r1\"", ""), "Key Component found, but value is empty"},
    };
    for (const auto& [request, error] : cases) {
        EXPECT_EQ(log(request), "{\"ReturnCode\": -1000, \"Error\": \"" + error + "\"}");
        EXPECT_TRUE(traced(error)) << error;
    }
    EXPECT_FALSE(fs::exists(root_));
}

TEST_F(LogService, IncompleteSectionsAreSkippedAndTheOthersStillWritten) {
    const std::string error = ", " + message("ErrorLog", "still written");
    EXPECT_EQ(log(envelope("\"ScanLog\": {\"LogData\": {\"Filename\": \"f\", \"MIME-type\": "
                           "\"m\", \"Result-Text\": \"r\"}}" +
                           error)),
              kOK);
    EXPECT_TRUE(traced("Ignoring ScanLog request - no ScanLogPath found"));
    log(envelope(scan("scan.log", "\"Filename\": \"f\", \"MIME-type\": \"m\"") + error));
    EXPECT_TRUE(traced("Failed to read Result-Text from JSON"));
    log(envelope(epo() + error, ""));
    EXPECT_TRUE(traced("Failed to read realmID from JSON"));
    log(envelope(epo() + error, "\"\""));
    EXPECT_TRUE(traced("Key realmID found, but value is empty"));
    log(envelope("\"BlockLog\": {\"Data\": {}}, \"StatusLog\": \"up\"" + error));
    EXPECT_TRUE(traced("Ignoring BlockLog request - no LogData object found"));
    EXPECT_TRUE(traced("Ignoring StatusLog request - no StatusLog object found"));

    for (const char* kind : {"/scan", "/epo", "/block", "/status"}) {
        EXPECT_FALSE(fs::exists(root_ + kind)) << kind;
    }
    const std::string errors = qvtest::read_file(root_ + "/error/error.log") +
                               qvtest::read_file(root_ + "/error/r1/error.log");
    EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 5);
}

TEST_F(LogService, PathsLeadingOutOfTheBaseDirectoryAreRefused) {
    for (const char* path : {"../../outside.log", "..", "a/../../../x.log"}) {
        EXPECT_EQ(log(envelope(scan(path))), kOK);
    }
    for (const char* realm : {"\"..\"", "\"../../run\"", "\"r1/../..\""}) {
        EXPECT_EQ(log(envelope(message("ErrorLog", "e") + ", " + epo(), realm)), kOK);
    }
    EXPECT_EQ(files_below(dir_.path()), std::vector<std::string>{trace_});
    EXPECT_FALSE(fs::exists(root_));
    EXPECT_FALSE(fs::exists(dir_ / "run"));
    EXPECT_TRUE(traced("Refusing log file " + root_ +
                       "/outside.log: it lies outside of its base directory " + root_ + "/scan"));
    EXPECT_TRUE(traced("Refusing log file " + dir_.path() + "/run/epo.log"));
    EXPECT_FALSE(traced("Failed to allocate"));

    // Whatever stays inside is fine: absolute scan log paths land below the realm directory, a
    // path may leave its realm directory, and the base directory itself is expanded.
    setenv("QVTEST_LOG_ROOT", root_.c_str(), 1);
    config_->log->basedir_scanlog = "${QVTEST_LOG_ROOT}/scan";
    log(envelope(scan("/var/log/a.log")));
    log(envelope(scan("../common.log")));
    unsetenv("QVTEST_LOG_ROOT");
    EXPECT_EQ(
        files_below(root_ + "/scan"),
        (std::vector<std::string>{root_ + "/scan/common.log", root_ + "/scan/r1/var/log/a.log"}));
}

TEST_F(LogService, EpoCollectionEmptiesTheLogUnderItsLockAndRefusesOtherCommands) {
    // The collector takes the configured EPO location as the log file itself.
    const std::string path = root_ + "/epo.log";
    config_->log->basedir_epolog = path;
    EXPECT_EQ(epolog("{\"Command\": 400}"), 0);
    EXPECT_FALSE(fs::exists(path));
    EXPECT_TRUE(traced("Failed to handle Client Service Request"));

    qvtest::make_dirs(root_);
    qvtest::write_file(path, "SEA;1;2;f;n;c;t;a;;;h\r\n");
    std::atomic<bool> done{false};
    std::thread collector;
    {
        std::lock_guard<std::mutex> appending(config_->epolog_mutex);
        collector = std::thread([&] {
            epolog("{\"Command\": 400}");
            done = true;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        EXPECT_FALSE(done.load());
        EXPECT_EQ(fs::file_size(path), 23u);
    }
    collector.join();
    EXPECT_EQ(fs::file_size(path), 0u);
    EXPECT_TRUE(traced(path + " is 23 bytes"));
    EXPECT_TRUE(traced("Logs to be sent: SEA;1;2;f;n;c;t;a;;;h\r\n"));

    config_->log->basedir_epolog = root_;  // a directory cannot be read as the log
    EXPECT_EQ(epolog("{\"Command\": 400}"), 0);
    EXPECT_TRUE(traced("Failed to read " + root_ + " into buffer: Is a directory"));
    EXPECT_EQ(epolog("{\"Command\": 401}"), -1);
    EXPECT_TRUE(traced("Ignoring invalid request: 401"));
    EXPECT_EQ(epolog("{\"Cmd\": 400}"), -1);
    EXPECT_TRUE(traced("Object Command not found"));
    EXPECT_EQ(epolog("{\"Command\": 4"), -1);
}
