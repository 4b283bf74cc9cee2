#include <gtest/gtest.h>

#include <csignal>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

#include "auth_tool.h"
#include "log_capture.h"
#include "qv_test_util.h"
#include "qvctrl_write_broker_auth.h"

namespace {

using qvtest::read_file;
using qvtest::write_file;

const std::string kHead = "# by hand\nauthorization {\n  users = [\n    {user: \"control@b1\"}\n";
const std::string kTail = "  ]\n}\n# trailer\n";

// True when `text` is the file as the installer left it or with one complete block that a
// writer of one of `tags` wrote in some round.
bool complete_version(const std::string& text, const std::vector<std::string>& tags) {
    if (text == kHead + kTail) {
        return true;
    }
    for (const std::string& tag : tags) {
        // The first user names the round: user: "<tag>-<round>-0@b1".
        const size_t at = text.find("user: \"" + tag + "-");
        if (at != std::string::npos) {
            const auto realms = qvtest_auth_realms(tag, atol(text.c_str() + at + 8 + tag.size()));
            if (text ==
                kHead + qvctrl_broker_auth_block("b1", realms.data(), realms.size()) + kTail) {
                return true;
            }
        }
    }
    return false;
}

class BrokerAuthDurability : public ::testing::Test {
  protected:
    void SetUp() override { write_file(path, kHead + kTail); }

    qvtest::TempDir dir;
    std::string path = dir / "qv-av-broker.auth";
};

TEST_F(BrokerAuthDurability, WriterKilledAtAnyMomentLeavesACompleteFile) {
    std::mt19937 random(std::random_device{}());
    for (int kill_round = 0; kill_round < 40; ++kill_round) {
        const std::string before = read_file(path);
        const pid_t writer = qvtest_spawn_auth_tool({"write", path, "b1", "k", "0"});
        ASSERT_GT(writer, 0);
        // Once the file changed it is somewhere in its loop; the kill comes a random moment later.
        ASSERT_TRUE(qvtest::wait_until([&] { return read_file(path) != before; }));
        std::this_thread::sleep_for(
            std::chrono::microseconds(std::uniform_int_distribution<int>(0, 20000)(random)));
        kill(writer, SIGKILL);
        waitpid(writer, nullptr, 0);
        const std::string text = read_file(path);
        ASSERT_TRUE(complete_version(text, {"k"})) << "after kill " << kill_round << ":\n" << text;
    }
}

TEST_F(BrokerAuthDurability, ConcurrentWritersNeverCorruptTheFile) {
    const pid_t a = qvtest_spawn_auth_tool({"write", path, "b1", "a", "150"});
    const pid_t b = qvtest_spawn_auth_tool({"write", path, "b1", "b", "150"});
    ASSERT_GT(a, 0);
    ASSERT_GT(b, 0);
    // A reader (as the broker would be) sees only complete files all along.
    int status_a = -1, status_b = -1;
    bool a_done = false, b_done = false, all_complete = true;
    std::string bad;
    while (!a_done || !b_done) {
        a_done = a_done || waitpid(a, &status_a, WNOHANG) == a;
        b_done = b_done || waitpid(b, &status_b, WNOHANG) == b;
        const std::string text = read_file(path);
        if (!complete_version(text, {"a", "b"})) {
            all_complete = false;
            bad = text;
        }
    }
    EXPECT_EQ(status_a, 0);
    EXPECT_EQ(status_b, 0);
    EXPECT_TRUE(all_complete) << bad;
    const std::string final_text = read_file(path);
    EXPECT_NE(final_text, kHead + kTail);
    EXPECT_TRUE(complete_version(final_text, {"a", "b"})) << final_text;
}

TEST_F(BrokerAuthDurability, WriterWaitingForTheLockMergesIntoTheFileThatReplacedIt) {
    qvtest::LogCapture log;
    const std::string ready = dir / "locked";
    const pid_t holder = qvtest_spawn_auth_tool({"hold", path, ready});
    ASSERT_GT(holder, 0);
    ASSERT_TRUE(qvtest::wait_until([&] { return qvtest::file_exists(ready); }));

    int rc = 1;
    std::thread writer([&] {
        const auto realms = qvtest_auth_realms("w", 0);
        rc = qvctrl_write_broker_auth(path.c_str(), "b1", realms.data(), realms.size(), nullptr);
    });
    // The writer is queued behind the holder's lock (the kernel lists it as a blocked waiter)...
    const std::string waiter = "-> POSIX  ADVISORY  WRITE " + std::to_string(getpid()) + " ";
    EXPECT_TRUE(qvtest::wait_until(
        [&] { return read_file("/proc/locks").find(waiter) != std::string::npos; }));
    // ...when another writer replaces the file with an edited one and lets go.
    const std::string edited = "# added by the installer\n" + kHead;
    write_file(dir / "replacement", edited + kTail);
    ASSERT_EQ(rename((dir / "replacement").c_str(), path.c_str()), 0);
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
    writer.join();

    ASSERT_EQ(rc, 0) << log.text();
    const auto realms = qvtest_auth_realms("w", 0);
    EXPECT_EQ(read_file(path),
              edited + qvctrl_broker_auth_block("b1", realms.data(), realms.size()) + kTail);
    EXPECT_TRUE(log.contains("was replaced while waiting for the lock"));
}

}  // namespace
