#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include "log_capture.h"
#include "qv_test_util.h"
#include "qvctrl_write_broker_auth.h"

namespace {

using qvtest::read_file;
using qvtest::write_file;

const std::string kBegin =
    "# ── BEGIN qv-av-control cloud-managed realms (do not edit by hand) ──\n";
const std::string kEnd = "# ── END   qv-av-control cloud-managed realms ──\n";

// An installer's file: the users array closes on an indented line with a CR; a later line with
// a blank after its bracket must not be taken for the closing line.
const std::string kHead = "accounts {\n  QV {\n    users = [\n      {user: \"control@b1\"}\n";
const std::string kTail = "\t  ]\r\n  }\n] \n}\n";

// One realm's eight lines, with their indentation.
std::string entry(const std::string& user, const std::string& password) {
    return "        {\n            user: \"" + user + "\"\n            password: \"" + password +
           "\"\n            permissions: {\n                publish:   { allow: [\">\"] }\n"
           "                subscribe: { allow: [\">\"] }\n            }\n        }\n";
}

struct stat file_stat(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
    return st;
}

class BrokerAuthWriter : public ::testing::Test {
  protected:
    int write(const std::vector<qvctrl_realm_t>& realms, bool* changed = nullptr,
              const char* broker = "b1") {
        return qvctrl_write_broker_auth(path.c_str(), broker, realms.data(), realms.size(),
                                        changed);
    }

    qvtest::LogCapture log;
    qvtest::TempDir dir;
    std::string path = dir / "broker.auth";
};

TEST_F(BrokerAuthWriter, BootstrapsThenRewritesOnlyTheRegion) {
    write_file(path, kHead + kTail);
    bool changed = false;
    ASSERT_EQ(write({{"r1", "p1"}, {"r2", "p2"}}, &changed), 0) << log.text();
    EXPECT_TRUE(changed);
    EXPECT_EQ(read_file(path),
              kHead + kBegin + entry("r1@b1", "p1") + entry("r2@b1", "p2") + kEnd + kTail);

    // Hand-made users and comments outside the markers survive every rewrite byte for byte, and
    // the replacement keeps the file's mode and owner.
    const std::string before = "# edited by hand\r\n" + kHead;
    const std::string after = kEnd + "      {user: \"hand@b1\"}\n" + kTail;
    write_file(path, before + kBegin + entry("old@b1", "o") + after);
    ASSERT_EQ(chmod(path.c_str(), 0640), 0);
    const bool root = geteuid() == 0;
    ASSERT_TRUE(!root || chown(path.c_str(), 4321, 4322) == 0);
    const struct stat old = file_stat(path);
    ASSERT_EQ(write({{"r3", "p3"}}, &changed), 0) << log.text();
    EXPECT_TRUE(changed);
    EXPECT_EQ(read_file(path), before + kBegin + entry("r3@b1", "p3") + after);
    const struct stat written = file_stat(path);
    EXPECT_NE(written.st_ino, old.st_ino);
    EXPECT_EQ(written.st_mode & 07777, 0640u);
    EXPECT_EQ(written.st_uid, root ? 4321u : old.st_uid);
    EXPECT_EQ(written.st_gid, root ? 4322u : old.st_gid);
    EXPECT_EQ(qvtest::list_dir(dir.path()), std::vector<std::string>{"broker.auth"});

    // The same realms again: nothing is written, the file keeps its inode and time.
    ASSERT_EQ(write({{"r3", "p3"}}, &changed), 0);
    EXPECT_FALSE(changed);
    const struct stat same = file_stat(path);
    EXPECT_EQ(same.st_ino, written.st_ino);
    EXPECT_EQ(same.st_mtim.tv_sec, written.st_mtim.tv_sec);
    EXPECT_EQ(same.st_mtim.tv_nsec, written.st_mtim.tv_nsec);

    // No realms: the region empties, the markers stay.
    ASSERT_EQ(qvctrl_write_broker_auth(path.c_str(), "b1", nullptr, 0, &changed), 0);
    EXPECT_TRUE(changed);
    EXPECT_EQ(read_file(path), before + kBegin + after);
}

TEST_F(BrokerAuthWriter, RefusesWhatItCannotMergeAndLeavesTheFileAlone) {
    struct Case {
        std::string contents;
        std::string line;
    };
    const std::vector<Case> cases = {
        {kHead + kBegin + entry("r1@b1", "p1") + kTail,
         "write_broker_auth: BEGIN marker found but END marker missing — refusing to overwrite "
         "potentially-corrupted region"},
        {"",
         "write_broker_auth: empty auth file; refusing to bootstrap (installer should have "
         "generated a users = [ ... ] block)"},
        {"users = [\n] \n",
         "write_broker_auth: no \"]\" terminator line found — file is not in the "
         "installer-generated nats-server-format users array shape"},
    };
    for (const Case& c : cases) {
        write_file(path, c.contents);
        const ino_t ino = file_stat(path).st_ino;
        bool changed = true;
        EXPECT_EQ(write({{"r9", "p9"}}, &changed), -1) << c.line;
        EXPECT_FALSE(changed);
        EXPECT_TRUE(log.contains(c.line)) << log.text();
        EXPECT_EQ(read_file(path), c.contents);
        EXPECT_EQ(file_stat(path).st_ino, ino);
    }

    // A broker name that would break every user never reaches the file.
    const std::vector<qvctrl_realm_t> one = {{"r1", "p1"}};
    write_file(path, kHead + kTail);
    EXPECT_EQ(write(one, nullptr, "b\"1"), -1);
    EXPECT_EQ(read_file(path), kHead + kTail);

    // A file that does not exist is created empty (mode 0600) and then refused like any empty one.
    const std::string absent = dir / "absent.auth";
    EXPECT_EQ(qvctrl_write_broker_auth(absent.c_str(), "b1", one.data(), 1, nullptr), -1);
    EXPECT_EQ(read_file(absent), "");
    EXPECT_EQ(file_stat(absent).st_mode & 07777, 0600u);
}

TEST_F(BrokerAuthWriter, RealmsTheBrokerCannotReadAreLeftOut) {
    write_file(path, kHead + kTail);
    // Empty members (1, 2), then what would end a quoted text, a line or the region (3..8).
    const std::vector<qvctrl_realm_t> realms = {
        {"ok1", "p1"},
        {"", "p"},
        {"r2", ""},
        {"r\"3", "p"},
        {"r4", "a\\b"},
        {"r5", "line\nbreak"},
        {"r6", "cr\r"},
        {"r7", std::string("n\0l", 3)},
        {"r8", std::string("x").append(QVCTRL_END_MARKER)},
        {"ok2", "p2 with blanks & $igns # ü"},
    };
    ASSERT_EQ(write(realms), 0) << log.text();
    EXPECT_EQ(read_file(path), kHead + kBegin + entry("ok1@b1", "p1") +
                                   entry("ok2@b1", "p2 with blanks & $igns # ü") + kEnd + kTail);
}

}  // namespace
