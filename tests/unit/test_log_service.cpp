// The log service ("qv-av-log") and the EPO log service ("qv-av-epolog") called as the NATS
// handler threads call them, writing into a temporary tree, with the trace log captured.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "log_capture.h"
#include "qv-av-control-epolog.h"
#include "qv-av-control-logger.h"
#include "qv_json.h"
#include "qv_test_util.h"
#include "qvctrl_config.h"
#include "qvhlp_archive.h"

namespace fs = std::filesystem;
using namespace std::string_literals;
using qvtest::files_below;
using qvtest::quoted;
using qvtest::read_file;
using qvtest::read_zip;

namespace {

constexpr const char* kEventId = "1b4e28ba-2fa1-11d2-883f-0016d3cca427";
const std::string kOK = "{\"ReturnCode\": 0}";
const std::string kCollect = "{\"Command\": 400}";
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

std::string error_reply(const std::string& text) {
    return "{\"ReturnCode\": -1000, \"Error\": \"" + text + "\"}";
}

// The lines of a log text, each without its CR LF.
std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    size_t start = 0;
    for (size_t end; (end = text.find("\r\n", start)) != std::string::npos; start = end + 2) {
        lines.push_back(text.substr(start, end - start));
    }
    EXPECT_EQ(start, text.size()) << "text after the last line";
    return lines;
}

// Whether `child` returns true in a forked process whose file size limit is `file_limit`: writes
// past it fail with EFBIG, which must not touch the test process.
bool in_child(size_t file_limit, const std::function<bool()>& child) {
    const pid_t pid = fork();
    if (pid == 0) {
        signal(SIGXFSZ, SIG_IGN);
        const struct rlimit limit { file_limit, file_limit };
        setrlimit(RLIMIT_FSIZE, &limit);
        _exit(child() ? 0 : 1);
    }
    int status = -1;
    return waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// The request with the member at `path` set to the JSON text `value`, or removed when it is empty.
std::string with_member(const std::string& request, const std::vector<const char*>& path,
                        const std::string& value) {
    qv::json_ptr root = qv_json_parse(request);
    json_object* parent = root.get();
    for (size_t i = 0; i + 1 < path.size(); ++i) {
        parent = json_object_object_get(parent, path[i]);
    }
    json_object_object_del(parent, path.back());
    if (!value.empty()) {
        json_object_object_add(parent, path.back(), qv_json_parse(value + " ").release());
    }
    return qv_json_to_string(root.get());
}

// Runs `body(t, i)` for i < per_thread on `threads` threads at once; the lines the bodies
// return, sorted.
std::vector<std::string> from_threads(int threads, int per_thread,
                                      const std::function<std::string(int t, int i)>& body) {
    std::vector<std::string> all(static_cast<size_t>(threads * per_thread));
    std::vector<std::thread> running;
    for (int t = 0; t < threads; ++t) {
        running.emplace_back([&, t] {
            for (int i = 0; i < per_thread; ++i) {
                all[static_cast<size_t>(t * per_thread + i)] = body(t, i);
            }
        });
    }
    for (std::thread& thread : running) {
        thread.join();
    }
    std::sort(all.begin(), all.end());
    return all;
}

class LogService : public ::testing::Test {
  protected:
    void SetUp() override { qvtest::set_log_dirs(*config_->log, root_); }

    std::string log(const std::string& request) {
        int rc = 0;
        const std::string reply =
            qvtest::call_handler(qv_av_control_logger_request_handler, config_.get(), request, &rc);
        EXPECT_EQ(rc, reply == kOK ? 0 : -1) << reply;
        return reply;
    }
    // Only a refused request makes the EPO handler return -1.
    std::string epolog(const std::string& request) {
        int rc = 0;
        const std::string reply =
            qvtest::call_handler(qv_av_control_epolog_request_handler, config_.get(), request, &rc);
        EXPECT_EQ(rc, reply == "{\"ReturnCode\": -1}" ? -1 : 0) << reply;
        return reply;
    }
    qvtest::LogCapture trace_;
    qvtest::TempDir dir_;
    std::string root_ = dir_ / "logs";
    std::unique_ptr<quorvale_control_config_t> config_ = qvctrl_config_new();
};

}  // namespace

TEST_F(LogService, EachSectionWritesItsExactLineAndMissingOptionalFieldsAreEmptyOrZero) {
    EXPECT_EQ(
        log(envelope(scan("daily/scan.log") + ", " + message("UpdateLog", "engine updated") + ", " +
                     message("StatusLog", "ready") + ", " + message("ErrorLog", "disk; full"))),
        kOK);
    log(envelope(scan("daily/scan.log",
                      "\"Filename\": \"b;c\", \"MIME-type\": \"t\", \"Result-Text\": \"clean\"")));
    EXPECT_EQ(read_file(root_ + "/scan/r1/daily/scan.log"),
              kHead + "PRD;/in/a.exe;68;application/x-dosexec;virus found;EICAR;12 ms\r\n" + kHead +
                  ";b;c;0;t;clean;;0 ms\r\n");
    EXPECT_EQ(read_file(root_ + "/update/r1/update.log"), kHead + "engine updated\r\n");
    EXPECT_EQ(read_file(root_ + "/status/r1/status.log"), kHead + "ready\r\n");
    EXPECT_EQ(read_file(root_ + "/error/r1/error.log"), kHead + "disk; full\r\n");
    log(
        envelope("\"BlockLog\": {\"LogData\": {\"Filename\": \"x\\r\\n.docm\", \"File-size\": "
                 "4096, \"MIME-type\": \"m\", \"Result-Text\": \"blocked\", \"Duration\": 3}}"));
    // Control characters in a field are escaped, so that no field can end its line.
    EXPECT_EQ(read_file(root_ + "/block/r1/block.log"),
              kHead + ";x\\r\\n.docm;4096 bytes;m;blocked;;3 ms\r\n");

    // An EPO line starts with the product code of the component.
    for (const char* component : {"qv-av-trellix", "qv-av-control", "VSA", "qv-av-mimescan"}) {
        log(envelope(epo(), "\"r1\"", component));
    }
    log(envelope(epo(", \"Lib-Version\": \"6.1\", \"DAT-Version\": \"11\"")));
    // Timestamp and EventID default to 0; a forged line stays inside its field.
    log(envelope(
        "\"EPOLog\": {\"LogData\": {\"Filename\": \"f\\r\\nSEA;0\", \"Threat-Name\": \"n\", "
        "\"Threat-Category\": \"c\", \"Threat-Type\": \"t\", \"Action-taken\": \"a\"}}"));
    EXPECT_EQ(read_file(root_ + "/epo/r1/epo.log"),
              "SEA" + kEpoTail + "CTL" + kEpoTail + "VSA" + kEpoTail + kEpoTail +
                  "SEA;1709294407;1278;/in/a.exe;EICAR;test;virus;blocked;6.1;11;node1.example\r\n"
                  "SEA;0;0;f\\r\\nSEA;0;n;c;t;a;;;node1.example\r\n");
}

TEST_F(LogService, LogsAreZippedAtExactlyTheLimitButTheEpoLogNever) {
    config_->log->max_logfile_size_MB = 1;
    const std::string path = root_ + "/error/r1/error.log";
    qvtest::make_dirs(root_ + "/error/r1");
    qvtest::write_file(path, std::string(999999, 'a'));
    log(envelope(message("ErrorLog", "m")));
    EXPECT_TRUE(read_file(path) == std::string(999999, 'a') + kHead + "m\r\n");

    qvtest::write_file(path, std::string(1000000, 'b'));
    log(envelope(message("ErrorLog", "m")));
    EXPECT_EQ(read_file(path), kHead + "m\r\n");
    const auto files = files_below(root_ + "/error/r1");
    ASSERT_EQ(files.size(), 2u);
    const std::string& zip = files[0] == path ? files[1] : files[0];
    std::string entry;
    EXPECT_TRUE(read_zip(zip, &entry) == std::string(1000000, 'b'));
    EXPECT_EQ(entry, path);

    const std::string epo_path = root_ + "/epo/r1/epo.log";
    qvtest::make_dirs(root_ + "/epo/r1");
    qvtest::write_file(epo_path, std::string(2000000, 'e'));
    log(envelope(epo()));
    EXPECT_EQ(files_below(root_ + "/epo"), std::vector<std::string>{epo_path});
    EXPECT_TRUE(read_file(epo_path) == std::string(2000000, 'e') + "SEA" + kEpoTail);
}

TEST_F(LogService, ConcurrentLinesNeverInterleaveAndNoneIsLostWhenTheLogSwitches) {
    const std::string path = root_ + "/error/r1/error.log";
    // A limit of 1 MB switches the log a few times on the way; one of 0 archives it at every
    // append: hundreds of archives within the same second.
    for (int limit : {1, 0}) {
        config_->log->max_logfile_size_MB = limit;
        fs::remove_all(root_);
        const std::vector<std::string> expected = from_threads(6, 200, [&](int t, int i) {
            // Lines of several kilobytes, so that a torn or mixed write would show.
            const std::string text = std::to_string(t) + "-" + std::to_string(i) + "-" +
                                     std::string(3000 + 97 * t, static_cast<char>('a' + t));
            EXPECT_EQ(log(envelope(message("ErrorLog", text))), kOK);
            return kHead + text;
        });
        std::vector<std::string> lines;
        size_t same_second = 0;
        for (const std::string& file : files_below(root_ + "/error/r1")) {
            // "<path>_<stamp>_<n>.zip": a name taken within the same second
            same_second += file.size() > path.size() + 26 && file[path.size() + 21] == '_';
            for (const std::string& line :
                 lines_of(file == path ? read_file(file) : read_zip(file))) {
                lines.push_back(line);
            }
        }
        std::sort(lines.begin(), lines.end());
        EXPECT_TRUE(lines == expected) << limit;
        EXPECT_TRUE(limit != 0 || same_second > 0);
    }
}

TEST_F(LogService, BadEnvelopesAreRefusedWithoutWritingAnything) {
    const std::string good = envelope(message("ErrorLog", "e") + ", " + scan());
    const std::string parse = "Failed to parse JSON. Errorcode: ";
    const std::pair<std::string, std::string> cases[] = {
        {"{\"LogVersion\": 1, \"Timestamp\": ", parse + "unexpected end of data"},
        {good + " x", parse + "unexpected trailing characters"},
        {"[" + good + "]", parse + "not a JSON object"},
        {with_member(good, {"LogVersion"}, "2"),
         "Log version 2 not supported by this logger (version 1)"},
        {with_member(good, {"Timestamp"}, ""), "Failed to read Timestamp from JSON"},
        {with_member(good, {"Component"}, "\"\""), "Key Component found, but value is empty"},
        {with_member(good, {"EventID"}, "[\"e\"]"), "Failed to read EventID from JSON"},
    };
    for (const auto& [request, error] : cases) {
        EXPECT_EQ(log(request), error_reply(error)) << request;
    }
    EXPECT_FALSE(fs::exists(root_));
}

TEST_F(LogService, IncompleteSectionsAreSkippedAndTheOthersStillWritten) {
    const std::string error = ", " + message("ErrorLog", "still written");
    // No scan log path, no Result-Text, an EPO line without or with an empty realm, a section
    // without log data and one that is no object.
    for (const std::string& request :
         {envelope("\"ScanLog\": {\"LogData\": {\"Filename\": \"f\", \"MIME-type\": \"m\", "
                   "\"Result-Text\": \"r\"}}" +
                   error),
          envelope(scan("scan.log", "\"Filename\": \"f\", \"MIME-type\": \"m\"") + error),
          envelope(epo() + error, ""), envelope(epo() + error, "\"\""),
          envelope("\"BlockLog\": {\"Data\": {}}, \"StatusLog\": \"up\"" + error)}) {
        EXPECT_EQ(log(request), kOK) << request;
    }
    for (const char* kind : {"/scan", "/epo", "/block", "/status"}) {
        EXPECT_FALSE(fs::exists(root_ + kind)) << kind;
    }
    const std::string errors =
        read_file(root_ + "/error/error.log") + read_file(root_ + "/error/r1/error.log");
    EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 5);
}

TEST_F(LogService, AFailedWriteFailsTheReplyWhileTheOtherSectionsAreStillWritten) {
    // The first part of the 5000-byte line fits below the file size limit, the rest fails with
    // EFBIG: the part written is cut off again, so that the log never holds half a line.
    const std::string path = root_ + "/error/r1/error.log";
    const std::string before = kHead + "old\r\n";
    qvtest::make_dirs(root_ + "/error/r1");
    qvtest::write_file(path, before);
    EXPECT_TRUE(in_child(before.size() + 1000, [&] {
        return log(envelope(message("ErrorLog", std::string(5000, 'x')) + ", " +
                            message("StatusLog", "ready"))) ==
               error_reply("Failed to write log line for ErrorLog: File too large");
    }));
    EXPECT_EQ(read_file(path), before);
    EXPECT_EQ(read_file(root_ + "/status/r1/status.log"), kHead + "ready\r\n");
}

TEST(LogArchive, AnArchiveNeverReplacesAnExistingFile) {
    qvtest::TempDir dir;
    const std::string log = dir / "x.log";
    const std::string name = log + "_2024-03-01__13-05-59.zip";
    qvtest::write_file(name, "taken");
    qvtest::write_file(log, "line\r\n");
    std::string written;
    std::string error;
    ASSERT_EQ(qvhlp_archive_and_remove(log.c_str(), name, &written, &error), 0) << error;
    EXPECT_EQ(written, log + "_2024-03-01__13-05-59_1.zip");
    EXPECT_EQ(read_zip(written), "line\r\n");
    EXPECT_EQ(read_file(name), "taken");
    EXPECT_FALSE(qvtest::file_exists(log));
}

TEST_F(LogService, EpoCollectionReturnsTheLinesItRemovesAndAnswersEveryRequest) {
    // The collector takes a configured EPO location that is no directory as the log file itself.
    const std::string path = root_ + "/collected.log";
    config_->log->basedir_epolog = path;
    EXPECT_EQ(epolog(kCollect), "{\"ReturnCode\": 301}");

    qvtest::make_dirs(root_);
    const std::string lines = "SEA;1;2;f\"q\\;n;c;t;a;;;h\r\nCTL;3;4;\xc3\xa9;n;c;t;a;;;h\r\n";
    qvtest::write_file(path, lines);
    qv::json_ptr reply = qv_json_parse(epolog(kCollect));
    ASSERT_TRUE(reply);
    EXPECT_EQ(json_object_get_string(json_object_object_get(reply.get(), "Log")), lines);
    EXPECT_EQ(fs::file_size(path), 0u);
    EXPECT_EQ(epolog(kCollect), "{\"ReturnCode\":0,\"Log\":\"\"}");

    for (const std::string& request :
         {"{\"Command\": 401}"s, "{\"Cmd\": 400}"s, "{\"Command\": \"x\"}"s, "{\"Command\": 4"s}) {
        EXPECT_EQ(epolog(request), "{\"ReturnCode\": -1}") << request;
    }
}

TEST_F(LogService, NoEpoLineIsLostOrDoubledBetweenWriterAndCollector) {
    // The writer fills <dir>/epo.log when logs are not split by realm; the collector reads it
    // through the directory.
    config_->log->split_logs_by_realm = false;
    std::atomic<bool> writing{true};
    std::vector<std::string> collected;
    const auto collect = [&] {
        qv::json_ptr reply = qv_json_parse(epolog(kCollect));
        json_object* log_text = nullptr;
        if (reply && json_object_object_get_ex(reply.get(), "Log", &log_text)) {
            for (const std::string& line : lines_of(json_object_get_string(log_text))) {
                collected.push_back(line);
            }
        }
    };
    std::thread collector([&] {
        while (writing) {
            collect();
        }
    });
    const std::vector<std::string> expected = from_threads(3, 300, [this](int t, int i) {
        const std::string name = "f" + std::to_string(t) + "-" + std::to_string(i);
        log(with_member(envelope(epo()), {"EPOLog", "LogData", "Filename"}, quoted(name)));
        return "SEA;1709294407;1278;" + name + ";EICAR;test;virus;blocked;;;node1.example";
    });
    writing = false;
    collector.join();
    collect();
    std::sort(collected.begin(), collected.end());
    EXPECT_TRUE(collected == expected);
}
