// The log dispatcher against real NATS services that record what they receive.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <semaphore.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "daemon_process.h"
#include "log_capture.h"
#include "nats_server.h"
#include "qv_json.h"
#include "qv_log.h"
#include "qv_nats_client.h"
#include "qv_pqueue.h"
#include "qvhlp_network.h"
#include "qvhlp_path.h"
#include "qvhlp_replies.h"

extern char** environ;

namespace {

using qvtest::list_dir;
using qvtest::Recorder;

// Queues `count` status log entries "<text> <n>" as a producer would; the messages queued.
std::vector<qv::json_ptr> enqueue_status(qv_pqueue* pq, const std::string& text, int first,
                                         int count) {
    std::vector<qv::json_ptr> messages;
    for (int i = first; i < first + count; ++i) {
        qv::json_ptr msg = qv_log_create_message();
        qv::json_ptr data(json_object_new_object());
        json_object_object_add(data.get(), "Message",
                               json_object_new_string((text + " " + std::to_string(i)).c_str()));
        EXPECT_EQ(qv_log_add_log_section(msg.get(), "StatusLog", "r1", std::move(data)), 0);
        EXPECT_EQ(qv_log_enqueue(pq, 'L', msg.get()), 0);
        messages.push_back(std::move(msg));
    }
    return messages;
}

pid_t spawn(std::vector<std::string> args) {
    std::vector<char*> argv;
    for (auto& a : args) {
        argv.push_back(a.data());
    }
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) {
        return -1;
    }
    return pid;
}

struct LogDispatcherService : ::testing::Test {
    // Outlives the service threads, which log until TearDown has stopped them.
    qvtest::LogCapture log;
    qvtest::NatsServer server;
    Recorder logs;
    Recorder events;
    std::atomic<int> stop{0};
    std::unique_ptr<qvtest::NatsClient> service;  // the recording services' connection
    qvtest::TempDir run;
    std::unique_ptr<qv_pqueue> pq;
    std::vector<std::string> traces;

    void SetUp() override {
        ASSERT_TRUE(server.start());
        service = std::make_unique<qvtest::NatsClient>(server);
        ASSERT_EQ(qv_nats_start_service_handler_threads(service->get(), "qv-av-log",
                                                        Recorder::handle, &logs, &stop, 2),
                  0);
        ASSERT_EQ(qv_nats_start_service_handler_threads(service->get(), "qv-av-events-dispatch",
                                                        Recorder::handle, &events, &stop, 1),
                  0);
        pq = qv_pqueue_open(run.path().c_str(), "qv-av-control.pq", 10000, 50000000, O_CREAT,
                            RINGBUFFER);
        ASSERT_TRUE(pq);
    }
    void TearDown() override {
        stop = 1;
        service.reset();
        for (const std::string& trace : traces) {
            sem_unlink(("qv_log_" + std::string(qvhlp_FlattenPath(trace.c_str()))).c_str());
        }
    }

    // Pushes `count` log entries as a producer would; returns their texts.
    std::set<std::string> push_logs(int first, int count) {
        std::set<std::string> texts;
        for (const qv::json_ptr& msg : enqueue_status(pq.get(), "entry", first, count)) {
            texts.insert(qv_json_to_string(msg.get()));
        }
        return texts;
    }

    std::set<std::string> on_disk() {
        std::set<std::string> texts;
        for (const std::string& name : list_dir(pq->queue_data_dir)) {
            texts.insert(qvtest::read_file(pq->queue_data_dir + "/" + name));
        }
        return texts;
    }

    size_t claimed_files(const std::string& prefix) {
        size_t n = 0;
        for (const std::string& name : list_dir(pq->queue_data_dir)) {
            n += name.rfind(prefix, 0) == 0 ? 1 : 0;
        }
        return n;
    }

    pid_t start_dispatcher_process(const std::string& trace) {
        traces.push_back(trace);
        return spawn({std::string(QV_BIN_DIR) + "/qv_test_queue_tool", "dispatch", run.path(),
                      server.url(), qvtest::test_certificates().ca_cert, trace});
    }
};

}  // namespace

TEST_F(LogDispatcherService, DeliversEachKindRetriesRejectionsAndWaitsOutABrokerRestart) {
    std::set<std::string> pushed = push_logs(0, 20);
    ASSERT_EQ(qv_log_send_event(pq.get(), 7, "r1", "SID", "/f", nullptr, nullptr, nullptr, nullptr),
              0);
    std::set<std::string> event = on_disk();
    for (const std::string& text : pushed) {
        event.erase(text);
    }
    logs.reject = 2;
    qvtest::NatsClient client(server);
    auto dispatcher = qv_log_create_log_dispatcher(run.path().c_str(), client.get());
    ASSERT_TRUE(dispatcher);
    ASSERT_TRUE(qvtest::wait_until([&] { return logs.distinct() == pushed; }));
    EXPECT_TRUE(qvtest::wait_until([&] { return events.distinct() == event; }));
    // The two rejected entries went back to the queue and were sent again later.
    const std::string trace = log.text();
    const std::string failed = "Failed to send log/event entry";
    EXPECT_NE(trace.find(failed, trace.find(failed) + 1), std::string::npos);

    // Entries queued while the broker is away wait (claimed, sent, put back) until it returns.
    server.stop();
    const std::set<std::string> during = push_logs(20, 15);
    pushed.insert(during.begin(), during.end());
    EXPECT_TRUE(qvtest::wait_until([&] { return claimed_files("claimed_") > 0; }));
    ASSERT_TRUE(server.start());
    EXPECT_TRUE(qvtest::wait_until([&] { return logs.distinct() == pushed && on_disk().empty(); },
                                   std::chrono::seconds(60)))
        << logs.distinct().size() << " of " << pushed.size() << " delivered";
    EXPECT_TRUE(log.contains("NATS: connection lost"));
}

TEST_F(LogDispatcherService, ProcessKilledMidBatchLosesNothing) {
    logs.delay_ms = 20;  // keeps a batch in flight long enough to kill it
    const std::set<std::string> pushed = push_logs(0, 200);
    const pid_t first = start_dispatcher_process(run / "dispatch-1.trc");
    ASSERT_GT(first, 0);
    ASSERT_TRUE(qvtest::wait_until([&] { return logs.distinct().size() >= 30; }));
    ASSERT_EQ(kill(first, SIGKILL), 0);
    int status = 0;
    ASSERT_EQ(waitpid(first, &status, 0), first);

    // Everything is either delivered or still on disk, much of it under the dead run's claims.
    EXPECT_GT(claimed_files("claimed_" + std::to_string(first) + "_L"), 0u);
    std::set<std::string> accounted = logs.distinct();
    const std::set<std::string> left = on_disk();
    accounted.insert(left.begin(), left.end());
    EXPECT_EQ(accounted, pushed);

    // Claims count as stale an hour after their push; let that hour pass for the files.
    for (const std::string& name : list_dir(pq->queue_data_dir)) {
        ASSERT_TRUE(qvtest::set_age(pq->queue_data_dir + "/" + name, 7200));
    }
    logs.delay_ms = 0;
    const std::string trace = run / "dispatch-2.trc";
    const pid_t second = start_dispatcher_process(trace);
    ASSERT_GT(second, 0);
    EXPECT_TRUE(qvtest::wait_until([&] { return logs.distinct() == pushed && on_disk().empty(); }));
    EXPECT_NE(qvtest::read_file(trace).find(" stale claimed queue entries into the dispatch pool"),
              std::string::npos);
    ASSERT_EQ(kill(second, SIGTERM), 0);
    ASSERT_EQ(waitpid(second, &status, 0), second);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

// End to end: entries a program queues become lines in the logs of the daemon's own log service.
TEST(LogDispatcherDaemon, QueuedEntriesBecomeLinesInTheDaemonsLogs) {
    qvtest::NatsServer server;
    ASSERT_TRUE(server.start());
    qvtest::DaemonProcess daemon;
    daemon.use_nats(server.url());
    const std::string logs = daemon.basedir() + "/logs";
    daemon.control_keys["STATUS_LOG_BASEDIR"] = logs + "/status";
    daemon.control_keys["SCAN_LOG_BASEDIR"] = logs + "/scan";
    ASSERT_TRUE(daemon.start_serving()) << daemon.logs();

    qvtest::TempDir run;
    auto pq = qv_pqueue_open(run.path().c_str(), "qv-av-control.pq", 10000, 50000000, O_CREAT,
                             RINGBUFFER);
    std::set<std::string> expected;
    int i = 0;
    for (const qv::json_ptr& msg : enqueue_status(pq.get(), "ready", 0, 12)) {
        const auto member = [&](const char* name) {
            return std::string(json_object_get_string(json_object_object_get(msg.get(), name)));
        };
        expected.insert(member("Timestamp") + ";qv-av-control;" + member("EventID") + ";" +
                        qvhlp_GetMyFQDN() + ";ready " + std::to_string(i++) + "\r\n");
    }
    qv::json_ptr scan = qv_log_create_message_with_eventID("scan-1");
    ASSERT_EQ(
        qv_log_add_scanlog_section(scan.get(), "daily.log", "r2",
                                   qv_json_parse(R"({"Filename": "/in/a.pdf", "MIME-type":)"
                                                 R"( "application/pdf", "Result-Text": "clean"})")),
        0);
    ASSERT_EQ(qv_log_enqueue(pq.get(), 'L', scan.get()), 0);

    qvtest::NatsClient client(server);
    auto dispatcher = qv_log_create_log_dispatcher(run.path().c_str(), client.get());
    const std::string status_log = logs + "/status/r1/status.log";
    const auto status_lines = [&] {
        std::set<std::string> lines;
        const std::string text =
            qvtest::file_exists(status_log) ? qvtest::read_file(status_log) : "";
        for (size_t at = 0, nl; (nl = text.find('\n', at)) != std::string::npos; at = nl + 1) {
            lines.insert(text.substr(at, nl + 1 - at));
        }
        return lines;
    };
    EXPECT_TRUE(qvtest::wait_until([&] { return status_lines() == expected; }));
    EXPECT_TRUE(qvtest::wait_until([&] {
        return qvtest::file_exists(logs + "/scan/r2/daily.log") &&
               qvtest::read_file(logs + "/scan/r2/daily.log").find(";scan-1;") != std::string::npos;
    }));
    EXPECT_TRUE(qvtest::wait_until([&] { return list_dir(pq->queue_data_dir).empty(); }));
    dispatcher.reset();
    EXPECT_EQ(daemon.stop(), 0);
}
