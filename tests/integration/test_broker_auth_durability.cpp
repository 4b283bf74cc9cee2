#include <gtest/gtest.h>

#include <csignal>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "broker_auth_realms.h"
#include "log_capture.h"
#include "qv_test_util.h"
#include "qvctrl_write_broker_auth.h"

extern char** environ;

namespace {

using qvtest::read_file;
using qvtest::write_file;

const std::string kTool = std::string(QV_BIN_DIR) + "/qv_test_auth_tool";
const std::string kHead =
    "# hand-made header\nauthorization {\n  users = [\n    {user: \"control@b1\", password: "
    "\"pw\"}\n";
const std::string kTail = "  ]\n}\n# trailer\n";

pid_t spawn(std::vector<std::string> args) {
    args.insert(args.begin(), kTool);
    std::vector<char*> argv;
    for (std::string& a : args) {
        argv.push_back(a.data());
    }
    argv.push_back(nullptr);
    pid_t pid = -1;
    return posix_spawn(&pid, kTool.c_str(), nullptr, nullptr, argv.data(), environ) == 0 ? pid : -1;
}

int reap(pid_t pid) {
    int status = 0;
    return waitpid(pid, &status, 0) == pid ? status : -1;
}

ino_t inode(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

// True when `text` is the file as the installer left it (head, tail) or with one complete block
// that a writer of one of `tags` wrote in some round.
bool complete_version(const std::string& text, const std::vector<std::string>& tags) {
    if (text == kHead + kTail) {
        return true;
    }
    if (text.size() < kHead.size() + kTail.size() || text.compare(0, kHead.size(), kHead) != 0 ||
        text.compare(text.size() - kTail.size(), kTail.size(), kTail) != 0) {
        return false;
    }
    const std::string block = text.substr(kHead.size(), text.size() - kHead.size() - kTail.size());
    // The first user names the writer and the round: user: "<tag>-<round>-0@b1".
    const size_t user = block.find("user: \"");
    if (user == std::string::npos) {
        return false;
    }
    const size_t dash = block.find('-', user);
    const std::string tag = block.substr(user + 7, dash - user - 7);
    const long round = atol(block.c_str() + dash + 1);
    for (const std::string& t : tags) {
        const auto realms = qvtest_auth_realms(t, round);
        if (t == tag && block == qvctrl_broker_auth_block("b1", realms.data(), realms.size())) {
            return true;
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
        const ino_t before = inode(path);
        const pid_t writer = spawn({"write", path, "b1", "k", "0"});
        ASSERT_GT(writer, 0);
        // Once it has replaced the file at least once it is somewhere in its loop; the kill
        // comes a random moment later.
        ASSERT_TRUE(qvtest::wait_until([&] { return inode(path) != before; }));
        std::this_thread::sleep_for(
            std::chrono::microseconds(std::uniform_int_distribution<int>(0, 20000)(random)));
        kill(writer, SIGKILL);
        reap(writer);
        const std::string text = read_file(path);
        ASSERT_TRUE(complete_version(text, {"k"})) << "after kill " << kill_round << ":\n" << text;
    }
}

TEST_F(BrokerAuthDurability, ConcurrentWritersNeverCorruptTheFile) {
    const pid_t a = spawn({"write", path, "b1", "a", "150"});
    const pid_t b = spawn({"write", path, "b1", "b", "150"});
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
    const pid_t holder = spawn({"hold", path, ready});
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
    reap(holder);
    writer.join();

    ASSERT_EQ(rc, 0) << log.text();
    const auto realms = qvtest_auth_realms("w", 0);
    EXPECT_EQ(read_file(path),
              edited + qvctrl_broker_auth_block("b1", realms.data(), realms.size()) + kTail);
    EXPECT_TRUE(log.contains("was replaced while waiting for the lock"));
}

}  // namespace
