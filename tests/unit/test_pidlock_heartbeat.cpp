#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "qv_handles.h"
#include "qv_shm-heartbeat.h"
#include "qv_test_util.h"
#include "qvctrl_PIDlockfile.h"
#include "qvsemaphore.h"

namespace {

using qvtest::read_file;
using qvtest::TempDir;
using qvtest::write_file;

mode_t file_mode(const std::string& path) {
    struct stat st {};
    stat(path.c_str(), &st);
    return st.st_mode & 07777;
}

// A second console instance: exit status 0 when it got the lock, 1 when it was refused.
int store_pid_locked_in_child(const std::string& path) {
    const pid_t child = fork();
    if (child == 0) {
        int fd = 99;
        const int rc = qvctrl_StorePID(&fd, path.c_str(), true);
        _exit(rc == 0 && fd >= 0 ? 0 : rc == -1 && fd == -1 ? 1 : 2);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

TEST(PidFile, DaemonWritesThePidWithoutALockAndConsoleLocksWithoutWriting) {
    TempDir dir;
    const std::string path = dir / "control.pid";
    write_file(path, std::string(20, '9'));
    chmod(path.c_str(), 0644);
    int fd = -1;
    ASSERT_EQ(qvctrl_StorePID(&fd, path.c_str(), false), 0);
    const std::string pid = std::to_string(getpid());
    EXPECT_EQ(read_file(path), pid + std::string(20 - pid.size(), '9'));
    EXPECT_EQ(file_mode(path), 0600u);
    EXPECT_EQ(store_pid_locked_in_child(path), 0);
    close(fd);

    write_file(path, "old");
    ASSERT_EQ(qvctrl_StorePID(&fd, path.c_str(), true), 0);
    EXPECT_EQ(read_file(path), "old");
    EXPECT_EQ(store_pid_locked_in_child(path), 1);
    close(fd);
    EXPECT_EQ(store_pid_locked_in_child(path), 0);
}

TEST(CountHeartbeats, CountsUpToTheFirstIdleEntryResetsAndSurvivesAStuckSemaphore) {
    TempDir dir;
    const std::string path = dir / "qv_heartbeat_count";
    ASSERT_EQ(qvctrl_InitializeHeartbeatFile(path.c_str(), 9), 0);
    EXPECT_EQ(read_file(path), std::string(36, '\0'));
    EXPECT_EQ(file_mode(path), 0777u);
    std::unique_ptr<mappedRegionS> region;
    ASSERT_EQ(memmap(path.c_str(), 0, &region, O_RDWR), 0);
    auto* table = static_cast<int32_t*>(memGetAddr(region.get()));
    const auto on_disk = [&] {
        std::vector<int32_t> words(9);
        memcpy(words.data(), read_file(path).data(), 36);
        return words;
    };
    const std::string name = "qv_heartbeat_test_" + std::to_string(getpid());
    sem_unlink(name.c_str());
    qv::sem_ptr sem(QVsem_open(name.c_str(), O_CREAT, 0600, 0, 1));
    ASSERT_NE(sem, nullptr);

    table[0] = 1;
    table[1] = -1;
    table[2] = 0x7fffffff;
    table[4] = 5;  // behind the first idle entry
    // A second start finds the file and leaves it as it is.
    EXPECT_EQ(qvctrl_InitializeHeartbeatFile(path.c_str(), 9), 0);
    EXPECT_EQ(on_disk()[4], 5);
    EXPECT_EQ(qvctrl_CountHeartbeats(table, 8, sem.get()), 3);
    EXPECT_EQ(on_disk(), std::vector<int32_t>(9, 0));

    // A scan process died inside its turn: after the 3 s wait the count goes ahead anyway.
    ASSERT_EQ(QVsem_timedwait(sem.get(), 0), 0);
    table[0] = 1;
    EXPECT_EQ(qvctrl_CountHeartbeats(table, 8, sem.get()), 1);
    int value = -1;
    sem_getvalue(sem.get(), &value);
    EXPECT_EQ(value, 1);
    sem.reset();
    sem_unlink(name.c_str());
}
