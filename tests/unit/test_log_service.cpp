// The log service ("qv-av-log") and the EPO log service ("qv-av-epolog") called as the NATS
// handler threads call them, writing into a temporary tree, with the trace log captured.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <random>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <semaphore.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "log-helper.h"
#include "log.h"
#include "qv-av-control-epolog.h"
#include "qv-av-control-logger.h"
#include "qv_handles.h"
#include "qv_json.h"
#include "qv_test_util.h"
#include "qvctrl_config.h"
#include "qvhlp_archive.h"

namespace fs = std::filesystem;
using namespace std::string_literals;
using qvtest::files_below;
using qvtest::quoted;
using qvtest::read_zip;

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

// The reply as a JSON object; fails the test unless it is one with an integer "ReturnCode".
qv::json_ptr parsed(const std::string& reply) {
    qv::json_ptr object = qv_json_parse(reply);
    json_object* rc = nullptr;
    EXPECT_TRUE(object && json_object_is_type(object.get(), json_type_object) &&
                json_object_object_get_ex(object.get(), "ReturnCode", &rc) &&
                json_object_is_type(rc, json_type_int))
        << reply;
    return object;
}

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

// Runs `child` in a forked process (for resource limits that must not touch the test process)
// and returns what it wrote to the given pipe end; fails the test unless it exited with 0.
std::string in_child(const std::function<void(int out)>& child) {
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        child(fds[1]);
        _exit(0);
    }
    close(fds[1]);
    std::string out;
    char buffer[4096];
    for (ssize_t n; (n = read(fds[0], buffer, sizeof(buffer))) > 0;) {
        out.append(buffer, static_cast<size_t>(n));
    }
    close(fds[0]);
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    return out;
}

void write_all(int fd, const std::string& text) {
    for (size_t done = 0; done < text.size();) {
        const ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n <= 0) {
            return;
        }
        done += static_cast<size_t>(n);
    }
}

// Lowers the file size limit of the calling (child) process; writes past it fail with EFBIG.
void limit_file_size(size_t bytes) {
    signal(SIGXFSZ, SIG_IGN);
    const struct rlimit limit { bytes, bytes };
    setrlimit(RLIMIT_FSIZE, &limit);
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
        int rc = 0;
        const std::string reply =
            qvtest::call_handler(qv_av_control_logger_request_handler, config_.get(), request, &rc);
        EXPECT_EQ(rc, reply == kOK ? 0 : -1);
        parsed(reply);
        return reply;
    }
    // The reply of the EPO log service; only a refused request makes the handler return -1.
    std::string epolog(const std::string& request) {
        int rc = 0;
        const std::string reply =
            qvtest::call_handler(qv_av_control_epolog_request_handler, config_.get(), request, &rc);
        EXPECT_EQ(rc, reply == "{\"ReturnCode\": -1}" ? -1 : 0) << reply;
        parsed(reply);
        return reply;
    }
    // Runs `body(t, i)` for i < per_thread on `threads` threads at once; the lines the bodies
    // return, sorted.
    static std::vector<std::string> from_threads(
        int threads, int per_thread, const std::function<std::string(int t, int i)>& body) {
        std::vector<std::vector<std::string>> lines(static_cast<size_t>(threads));
        std::vector<std::thread> running;
        for (int t = 0; t < threads; ++t) {
            running.emplace_back([&, t] {
                for (int i = 0; i < per_thread; ++i) {
                    lines[static_cast<size_t>(t)].push_back(body(t, i));
                }
            });
        }
        std::vector<std::string> all;
        for (int t = 0; t < threads; ++t) {
            running[static_cast<size_t>(t)].join();
            all.insert(all.end(), lines[static_cast<size_t>(t)].begin(),
                       lines[static_cast<size_t>(t)].end());
        }
        std::sort(all.begin(), all.end());
        return all;
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
    std::string entry;
    EXPECT_TRUE(read_zip(zip, &entry) == std::string(1000000, 'b'));
    EXPECT_EQ(entry, path);

    const std::string epo_path = root_ + "/epo/r1/epo.log";
    qvtest::make_dirs(root_ + "/epo/r1");
    qvtest::write_file(epo_path, std::string(2000000, 'e'));
    log(envelope(epo()));
    EXPECT_EQ(files_below(root_ + "/epo"), std::vector<std::string>{epo_path});
    EXPECT_TRUE(qvtest::read_file(epo_path) == std::string(2000000, 'e') + "SEA" + kEpoTail);
}

TEST_F(LogService, LinesOfConcurrentRequestsNeverInterleave) {
    const std::vector<std::string> expected = from_threads(8, 150, [this](int t, int i) {
        // Lines of several kilobytes, so that a torn or mixed write would show.
        const std::string text = std::to_string(t) + "-" + std::to_string(i) + "-" +
                                 std::string(3000 + 97 * t, static_cast<char>('a' + t));
        log(envelope(message("ErrorLog", text)));
        return kHead + text;
    });
    std::vector<std::string> lines = lines_of(qvtest::read_file(root_ + "/error/r1/error.log"));
    std::sort(lines.begin(), lines.end());
    EXPECT_TRUE(lines == expected) << lines.size() << " lines";
}

TEST_F(LogService, BadEnvelopesAreRefusedWithoutWritingAnything) {
    const std::string good = envelope(message("ErrorLog", "e") + ", " + scan());
    const std::pair<std::string, std::string> cases[] = {
        {"{\"LogVersion\": 1, \"Timestamp\": ",
         "Failed to parse JSON. Errorcode: unexpected end of data"},
        {"", "Failed to parse JSON. Errorcode: unexpected end of data"},
        {"<log/>", "Failed to parse JSON. Errorcode: unexpected character"},
        {good + " x", "Failed to parse JSON. Errorcode: unexpected trailing characters"},
        // A request is always an object.
        {"[" + good + "]", "Failed to parse JSON. Errorcode: not a JSON object"},
        {"\"x\"", "Failed to parse JSON. Errorcode: not a JSON object"},
        {"3 ", "Failed to parse JSON. Errorcode: not a JSON object"},
        {"null ", "Failed to parse JSON. Errorcode: not a JSON object"},
        {with_member(good, {"LogVersion"}, "2"),
         "Log version 2 not supported by this logger (version 1)"},
        {with_member(good, {"Timestamp"}, ""), "Failed to read Timestamp from JSON"},
        {with_member(good, {"Timestamp"}, "20240301"), "Failed to read Timestamp from JSON"},
        {with_member(good, {"Component"}, "\"\""), "Key Component found, but value is empty"},
        {with_member(good, {"EventID"}, "null"), "Key EventID found, but value is empty"},
        {with_member(good, {"EventID"}, "[\"e\"]"), "Failed to read EventID from JSON"},
    };
    for (const auto& [request, error] : cases) {
        EXPECT_EQ(log(request), error_reply(error)) << request;
        EXPECT_TRUE(traced(error)) << error;
    }
    EXPECT_FALSE(fs::exists(root_));
}

TEST_F(LogService, HostileRealmsAndScanLogPathsRefuseTheWholeRequest) {
    const std::string good = envelope(message("ErrorLog", "e") + ", " + scan() + ", " + epo());
    // Nothing of a request is expanded, and none of these is one path component.
    std::vector<std::string> names = {"r\r\nPUB x 0",
                                      "r\0x"s,
                                      "r 1",
                                      "*",
                                      ">",
                                      "$HOME",
                                      "${HOME}",
                                      "~",
                                      "~root",
                                      "..",
                                      ".",
                                      "r1/../..",
                                      std::string(100000, 'r')};
    for (const std::string& realm : names) {
        EXPECT_EQ(log(with_member(good, {"realmID"}, quoted(realm))), error_reply("Invalid realm"))
            << realm.substr(0, 20);
    }
    for (const char* wrong_type : {"5", "true", "{}", "[\"r1\"]", "\"a/b\""}) {
        EXPECT_EQ(log(with_member(good, {"realmID"}, wrong_type)), error_reply("Invalid realm"));
    }
    // A scan log path may name subdirectories, but never leaves the scan log directory and never
    // names another kind's log, an archive or a trace file.
    names.insert(names.end(), {"/var/log/a.log", "../common.log", "daily//scan.log", "daily/",
                               "epo.log", "daily/error.log", "scan.log_2024.zip", "control.trc"});
    for (const std::string& path : names) {
        EXPECT_EQ(log(with_member(good, {"ScanLog", "ScanLogPath"}, quoted(path))),
                  error_reply("Invalid scan log path"))
            << path.substr(0, 20);
    }
    EXPECT_EQ(log(with_member(good, {"ScanLog", "ScanLogPath"}, "7")),
              error_reply("Invalid scan log path"));
    EXPECT_FALSE(fs::exists(root_));
    EXPECT_TRUE(traced("Invalid realm: '${HOME}'"));
    EXPECT_TRUE(traced("Invalid realm: 'r\\r\\nPUB x 0'"));
    EXPECT_TRUE(traced("Invalid realm: '" + std::string(64, 'r') + "...'"));
    EXPECT_TRUE(traced("Invalid scan log path: 'epo.log'"));

    // Only the configured base directory is expanded; subdirectories keep working.
    setenv("QVTEST_LOG_ROOT", root_.c_str(), 1);
    config_->log->basedir_scanlog = "${QVTEST_LOG_ROOT}/scan";
    EXPECT_EQ(log(envelope(scan("daily/2024-03/scan.log"))), kOK);
    unsetenv("QVTEST_LOG_ROOT");
    EXPECT_EQ(files_below(root_),
              std::vector<std::string>{root_ + "/scan/r1/daily/2024-03/scan.log"});
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
    log(envelope(scan("scan.log", "\"Filename\": 7, \"MIME-type\": \"m\", \"Result-Text\": \"r\"") +
                 error));
    EXPECT_TRUE(traced("Failed to read Filename from JSON"));
    log(envelope("\"BlockLog\": {\"Data\": {}}, \"StatusLog\": \"up\"" + error));
    EXPECT_TRUE(traced("Ignoring BlockLog request - no LogData object found"));
    EXPECT_TRUE(traced("Ignoring StatusLog request - no StatusLog object found"));

    for (const char* kind : {"/scan", "/epo", "/block", "/status"}) {
        EXPECT_FALSE(fs::exists(root_ + kind)) << kind;
    }
    const std::string errors = qvtest::read_file(root_ + "/error/error.log") +
                               qvtest::read_file(root_ + "/error/r1/error.log");
    EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 6);
}

TEST_F(LogService, ControlCharactersInAnyFieldAreEscapedSoEverySectionWritesOneLine) {
    // Every text field of every section holds a forged line, a NUL, an escape sequence and DEL.
    const std::string hostile = "x\r\nSEA;0;0;forged\0\x1b[1m\x7f\t"s;
    const std::string e = "x\\r\\nSEA;0;0;forged\\x00\\x1B[1m\\x7F\\x09";
    const std::string q = quoted(hostile);
    const std::string scan_data =
        "\"SID\": " + q + ", \"Filename\": " + q + ", \"File-size\": 1, \"MIME-type\": " + q +
        ", \"Result-Text\": " + q + ", \"Reason-Text\": " + q + ", \"Duration\": 2";
    const std::string request =
        "{\"LogVersion\": 1, \"Timestamp\": " + q + ", \"Component\": " + q +
        ", \"EventID\": " + q + ", \"Hostname\": " + q + ", \"realmID\": \"r1\", " +
        scan("scan.log", scan_data) + ", \"BlockLog\": {\"LogData\": {" + scan_data +
        "}}, \"EPOLog\": {\"LogData\": {\"Timestamp\": 5, \"EventID\": 6, \"Filename\": " + q +
        ", \"Threat-Name\": " + q + ", \"Threat-Category\": " + q + ", \"Threat-Type\": " + q +
        ", \"Action-taken\": " + q + ", \"Lib-Version\": " + q + ", \"DAT-Version\": " + q +
        "}}, " + message("UpdateLog", qv_json_escape(hostile)) + ", " +
        message("StatusLog", qv_json_escape(hostile)) + ", " +
        message("ErrorLog", qv_json_escape(hostile)) + "}";
    EXPECT_EQ(log(request), kOK);

    const std::string head = e + ";" + e + ";" + e + ";" + e + ";";
    EXPECT_EQ(qvtest::read_file(root_ + "/scan/r1/scan.log"),
              head + e + ";" + e + ";1;" + e + ";" + e + ";" + e + ";2 ms\r\n");
    EXPECT_EQ(qvtest::read_file(root_ + "/block/r1/block.log"),
              head + e + ";" + e + ";1 bytes;" + e + ";" + e + ";" + e + ";2 ms\r\n");
    // An unknown component has no product code.
    EXPECT_EQ(
        qvtest::read_file(root_ + "/epo/r1/epo.log"),
        ";5;6;" + e + ";" + e + ";" + e + ";" + e + ";" + e + ";" + e + ";" + e + ";" + e + "\r\n");
    for (const char* kind : {"update", "status", "error"}) {
        EXPECT_EQ(qvtest::read_file(root_ + "/" + kind + "/r1/" + kind + ".log"), head + e + "\r\n")
            << kind;
    }
}

TEST_F(LogService, AFailedWriteFailsTheReplyWhileTheOtherSectionsAreStillWritten) {
    // A full device: the write fails with ENOSPC. It is never taken for a log to archive either.
    config_->log->max_logfile_size_MB = 0;
    qvtest::make_dirs(root_ + "/error/r1");
    ASSERT_EQ(symlink("/dev/full", (root_ + "/error/r1/error.log").c_str()), 0);
    EXPECT_EQ(log(envelope(message("ErrorLog", "lost") + ", " + message("StatusLog", "ready"))),
              error_reply("Failed to write log line for ErrorLog: No space left on device"));
    EXPECT_TRUE(traced("Error writing to " + root_ + "/error/r1/error.log: No space left"));
    EXPECT_TRUE(traced("Failed to write log line \"" + kHead + "lost\" to " + root_));
    EXPECT_EQ(qvtest::read_file(root_ + "/status/r1/status.log"), kHead + "ready\r\n");
    EXPECT_EQ(files_below(root_ + "/error"), std::vector<std::string>{});

    // A log directory that cannot be made: the open fails.
    config_->log->max_logfile_size_MB = 1;
    qvtest::write_file(root_ + "/update", "not a directory");
    const std::string reply =
        log(envelope(message("UpdateLog", "lost") + ", " + message("StatusLog", "ready")));
    EXPECT_EQ(reply.rfind("{\"ReturnCode\": -1000, \"Error\": \"Failed to write log line for "
                          "UpdateLog: ",
                          0),
              0u)
        << reply;
    EXPECT_EQ(qvtest::read_file(root_ + "/status/r1/status.log"),
              kHead + "ready\r\n" + kHead + "ready\r\n");
}

TEST_F(LogService, ALineCutShortByTheFileSizeLimitIsCutOffAgain) {
    const std::string path = root_ + "/error/r1/error.log";
    qvtest::make_dirs(root_ + "/error/r1");
    const std::string before = kHead + "old\r\n";
    qvtest::write_file(path, before);
    // The first part of the 5000-byte line fits below the limit, the rest fails with EFBIG;
    // the status line fits.
    const std::string reply = in_child([&](int out) {
        limit_file_size(before.size() + 1000);
        write_all(out, log(envelope(message("ErrorLog", std::string(5000, 'x')) + ", " +
                                    message("StatusLog", "ready"))));
    });
    EXPECT_EQ(reply, error_reply("Failed to write log line for ErrorLog: File too large"));
    EXPECT_EQ(qvtest::read_file(path), before);
    EXPECT_EQ(qvtest::read_file(root_ + "/status/r1/status.log"), kHead + "ready\r\n");
}

TEST_F(LogService, ManySwitchesWithinOneSecondLoseNoLine) {
    // A limit of 0 archives the log at every append to it: thousands of archives within a few
    // seconds, many of them within the same second.
    config_->log->max_logfile_size_MB = 0;
    std::atomic<int> failed{0};
    const std::vector<std::string> expected = from_threads(4, 500, [&](int t, int i) {
        const std::string text = std::to_string(t) + "-" + std::to_string(i);
        failed += log(envelope(message("ErrorLog", text))) != kOK ? 1 : 0;
        return kHead + text;
    });
    EXPECT_EQ(failed.load(), 0);
    const std::string path = root_ + "/error/r1/error.log";
    std::vector<std::string> lines;
    size_t counted = 0;
    for (const std::string& file : files_below(root_ + "/error/r1")) {
        if (file != path && file.size() > path.size() + 26 && file[path.size() + 21] == '_') {
            ++counted;  // "<path>_<stamp>_<n>.zip": a name taken within the same second
        }
        for (const std::string& line :
             lines_of(file == path ? qvtest::read_file(file) : read_zip(file))) {
            lines.push_back(line);
        }
    }
    std::sort(lines.begin(), lines.end());
    EXPECT_EQ(lines.size(), expected.size());
    EXPECT_TRUE(lines == expected);
    EXPECT_GT(counted, 0u);
}

TEST(LogArchive, AnArchiveNeverReplacesAFileAndAFailedOneLeavesTheLogAsItWas) {
    qvtest::TempDir dir;
    const std::string log = dir / "x.log";
    const std::string name = log + "_2024-03-01__13-05-59.zip";
    qvtest::write_file(name, "taken");
    std::string written;
    std::string error;
    for (const char* n : {"_1", "_2"}) {
        qvtest::write_file(log, std::string("line") + n + "\r\n");
        ASSERT_EQ(qvhlp_archive_and_remove(log.c_str(), name, &written, &error), 0) << error;
        EXPECT_EQ(written, log + "_2024-03-01__13-05-59" + n + ".zip");
        std::string entry;
        EXPECT_EQ(read_zip(written, &entry), std::string("line") + n + "\r\n");
        EXPECT_EQ(entry, log);
        EXPECT_FALSE(qvtest::file_exists(log));
    }
    EXPECT_EQ(qvtest::read_file(name), "taken");

    // No archive can be made: the log stays.
    qvtest::write_file(log, "kept\r\n");
    EXPECT_EQ(qvhlp_archive_and_remove(log.c_str(), dir / "missing/x.zip", &written, &error), -1);
    EXPECT_NE(error.find("No such file or directory"), std::string::npos) << error;
    EXPECT_EQ(qvtest::read_file(log), "kept\r\n");

    // The archive fails half-way (the file size limit): it is removed again, the log stays.
    std::mt19937 bytes(7);  // incompressible, so that the archive passes the limit
    std::string random(300000, '\0');
    for (char& c : random) {
        c = static_cast<char>(bytes());
    }
    qvtest::write_file(log, random);
    const std::string child = in_child([&](int out) {
        limit_file_size(100000);
        const int rc = qvhlp_archive_and_remove(log.c_str(), dir / "big.zip", &written, &error);
        write_all(out, std::to_string(rc) + " " + error);
    });
    EXPECT_EQ(child.rfind("-1 ", 0), 0u) << child;
    EXPECT_FALSE(qvtest::file_exists(dir / "big.zip"));
    EXPECT_TRUE(qvtest::read_file(log) == random);

    // A pipe in place of the log is refused at once, not waited on.
    ASSERT_EQ(mkfifo((dir / "pipe.log").c_str(), 0600), 0);
    EXPECT_EQ(
        qvhlp_archive_and_remove((dir / "pipe.log").c_str(), dir / "pipe.zip", &written, &error),
        -1);
    EXPECT_FALSE(qvtest::file_exists(dir / "pipe.zip"));
}

TEST_F(LogService, EpoCollectionReturnsTheLinesItRemoves) {
    // The collector takes the configured EPO location as the log file itself.
    const std::string path = root_ + "/collected.log";
    config_->log->basedir_epolog = path;
    EXPECT_EQ(epolog("{\"Command\": 400}"), "{\"ReturnCode\": 301}");
    EXPECT_FALSE(fs::exists(path));

    qvtest::make_dirs(root_);
    const std::string lines = "SEA;1;2;f\"q\\;n;c;t;a;;;h\r\nCTL;3;4;\xc3\xa9;n;c;t;a;;;h\r\n";
    qvtest::write_file(path, lines);
    qv::json_ptr reply = parsed(epolog("{\"Command\": 400}"));
    EXPECT_EQ(json_object_get_int(json_object_object_get(reply.get(), "ReturnCode")), 0);
    EXPECT_EQ(json_object_get_string(json_object_object_get(reply.get(), "Log")), lines);
    EXPECT_EQ(fs::file_size(path), 0u);
    EXPECT_TRUE(traced(path + " is " + std::to_string(lines.size()) + " bytes"));
    EXPECT_TRUE(traced("Logs to be sent: SEA;1;2;f\"q\\;n;c;t;a;;;h\r\n"));
    EXPECT_EQ(epolog("{\"Command\": 400}"), "{\"ReturnCode\":0,\"Log\":\"\"}");

    // A directory there: the log service's "epo.log" in it.
    config_->log->basedir_epolog = root_;
    EXPECT_EQ(epolog("{\"Command\": 400}"), "{\"ReturnCode\": 301}");
    qvtest::make_dirs(root_ + "/epo.log");  // a log that cannot be read stays as it is
    EXPECT_EQ(epolog("{\"Command\": 400}"),
              error_reply("Failed to read " + root_ + "/epo.log into buffer: Is a directory"));
    fs::remove(root_ + "/epo.log");
    qvtest::write_file(root_ + "/epo.log", "VSA;1;2;f;n;c;t;a;;;h\r\n");
    EXPECT_EQ(epolog("{\"Command\": 400}"),
              "{\"ReturnCode\":0,\"Log\":\"VSA;1;2;f;n;c;t;a;;;h\\r\\n\"}");
}

TEST_F(LogService, EpoCollectionAnswersEveryRequest) {
    const std::string refused = "{\"ReturnCode\": -1}";
    for (const std::string& request :
         {"{\"Command\": 401}"s, "{\"Cmd\": 400}"s, "{\"Command\": \"x\"}"s, "{\"Command\": 4"s,
          ""s, "[400]"s, "\"400\""s, "400 "s, "null "s,
          "{\"Command\": 401, \"Pad\": \"" + std::string(100000, 'p') + "\"}"}) {
        EXPECT_EQ(epolog(request), refused) << request.substr(0, 40);
    }
    EXPECT_TRUE(traced("Ignoring invalid request: 401"));
    EXPECT_TRUE(traced("Object Command not found"));
    EXPECT_TRUE(traced("Creating generic error reply"));
}

TEST_F(LogService, NoEpoLineIsLostOrDoubledBetweenWriterAndCollector) {
    // The writer fills <dir>/epo.log when logs are not split by realm; the collector reads it
    // through the directory.
    config_->log->split_logs_by_realm = false;
    std::atomic<bool> writing{true};
    std::vector<std::string> collected;
    const auto collect = [&] {
        qv::json_ptr reply = parsed(epolog("{\"Command\": 400}"));
        json_object* log_text = nullptr;
        if (json_object_object_get_ex(reply.get(), "Log", &log_text)) {
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
    EXPECT_EQ(collected.size(), expected.size());
    EXPECT_TRUE(collected == expected);
}
