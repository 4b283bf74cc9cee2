#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include "log-helper.h"
#include "log.h"
#include "qv_handles.h"
#include "qv_test_util.h"
#include "qvsemaphore.h"

namespace {

using std::chrono::milliseconds;

using qvtest::read_file;

// The lines of a trace file, each split into its time stamp (to the second) and what follows
// "] "; a line that does not start with a well-formed stamp comes back whole as the rest.
std::vector<std::pair<std::string, std::string>> trace_lines(const std::string& path) {
    std::vector<std::pair<std::string, std::string>> out;
    std::istringstream in(read_file(path));
    for (std::string line; std::getline(in, line);) {
        const size_t close = line.find("] ");
        struct tm tm {};
        const char* ms = line.size() > 21 ? strptime(line.c_str() + 1, "%F %T", &tm) : nullptr;
        const bool stamped = line[0] == '[' && ms != nullptr && *ms == '.' &&
                             (close == 24 || close == 25) &&
                             strspn(ms + 1, "0123456789") == close - 21;
        out.emplace_back(stamped ? std::pair(line.substr(1, 19), line.substr(close + 2))
                                 : std::pair(std::string(), line));
    }
    return out;
}

// What follows the stamp in a file line logged by a test body on this thread.
std::string body(const char* level, const std::string& message) {
    char head[256];
    snprintf(head, sizeof(head), "%-5s PID: %6d TID: %6lu qvtest:TestBody(): ", level, getpid(),
             static_cast<unsigned long>(pthread_self()));
    return head + message;
}

std::string semaphore_name_for(std::string path) {
    std::replace(path.begin(), path.end(), '/', '_');
    return "qv_log_" + path;
}

class TraceLog : public ::testing::Test {
  protected:
    void SetUp() override {
        saved_progname_ = qv__progname;
        qv__progname = "qvtest";
        log_set_quiet(1);  // screen copies only where a test turns them on
    }
    void TearDown() override {
        log_set_level(0);
        QVOpenTraceFile(nullptr, 0, 0);
        log_set_screentrace(0);
        log_set_quiet(0);
        log_set_maxsize(0);
        qv__progname = saved_progname_;
        for (const std::string& name : semaphores_) {
            sem_unlink(name.c_str());
        }
    }
    std::string open_trace(const char* name, int level) {
        const std::string path = dir_ + "/" + name;
        semaphores_.push_back(semaphore_name_for(path));
        EXPECT_EQ(QVOpenTraceFile(path.c_str(), level, 0), 0);
        return path;
    }

    qvtest::TempDir tmp_;
    const std::string dir_ = tmp_.path();
    const char* saved_progname_ = nullptr;
    std::vector<std::string> semaphores_;
};

}  // namespace

TEST_F(TraceLog, LevelDecidesWhichLinesAreWrittenAndWhetherTheyNameTheirSource) {
    const std::string info = open_trace("info.trc", QVLOG_INFO);
    log_info("hello %d", 42);
    log_debug("filtered");
    log_error("trouble");
    auto lines = trace_lines(info);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].second, body("INFO", "hello 42"));
    EXPECT_EQ(lines[1].second, body("ERROR", "trouble"));

    const std::string trace = open_trace("trace.trc", QVLOG_TRACE);
    const int line = __LINE__ + 1;
    log_warn("careful");
    lines = trace_lines(trace);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].second,
              body("WARN", "careful") + " (test_trace_log.cpp:" + std::to_string(line) + ")");
}

TEST_F(TraceLog, FileOfExactlyTheLimitIsZippedAndTheLineStartsANewFile) {
    const std::string path = open_trace("switch.trc", QVLOG_INFO);
    log_set_maxsize(1);
    const std::string full(1000000, 'b');
    std::ofstream(path) << full;
    log_info("fresh");
    const auto lines = trace_lines(path);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].second, body("INFO", "fresh"));

    std::vector<std::string> zips = qvtest::files_below(dir_);
    std::erase(zips, path);
    ASSERT_EQ(zips.size(), 1u);
    EXPECT_TRUE(qvtest::read_zip(zips[0]) == full);
}

TEST_F(TraceLog, WritersOfOnePathShareOneSemaphoreAndGiveUpAfterFiveSeconds) {
    const std::string a = open_trace("a.trc", QVLOG_INFO);
    // As another process tracing to the same path would hold it.
    qv::sem_ptr held(sem_open(semaphore_name_for(a).c_str(), 0));
    ASSERT_NE(held, nullptr);
    ASSERT_EQ(sem_trywait(held.get()), 0);

    const std::string b = open_trace("b.trc", QVLOG_INFO);
    log_info("not blocked");
    EXPECT_EQ(trace_lines(b).size(), 1u);

    open_trace("a.trc", QVLOG_INFO);
    const auto start = std::chrono::steady_clock::now();
    log_info("lost");
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(4900));
    EXPECT_EQ(read_file(a), "");

    sem_post(held.get());
    log_info("kept");
    EXPECT_EQ(trace_lines(a).size(), 1u);
    int value = -1;
    sem_getvalue(held.get(), &value);
    EXPECT_EQ(value, 1);
}

namespace {
void no_op_handler(int) {}
}  // namespace

TEST(Semaphore, TimedWaitOutlastsSignalsAndNormalisesItsDeadline) {
    const std::string name = "qv_test_sem_" + std::to_string(getpid());
    sem_unlink(name.c_str());
    qv::sem_ptr sem(QVsem_open(name.c_str(), O_CREAT | O_EXCL, 0600, 0, 0));
    ASSERT_NE(sem, nullptr);
    // The timeout itself shows in the trace writers' test. The 999 ms part nearly always carries
    // the deadline into the next second (an unnormalised deadline is refused at once), and signals
    // meanwhile must not end the wait.
    struct sigaction action {};
    struct sigaction saved {};
    action.sa_handler = no_op_handler;
    sigemptyset(&action.sa_mask);
    ASSERT_EQ(sigaction(SIGUSR1, &action, &saved), 0);
    std::atomic<int> rc{1};
    std::thread waiter([&] { rc = QVsem_timedwait(sem.get(), 20999); });
    for (int i = 0; i < 10; ++i) {
        std::this_thread::sleep_for(milliseconds(20));
        pthread_kill(waiter.native_handle(), SIGUSR1);
    }
    QVsem_post(sem.get());
    waiter.join();
    EXPECT_EQ(rc.load(), 0);
    sigaction(SIGUSR1, &saved, nullptr);
    sem_unlink(name.c_str());
}
