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
#include "qvctrl_PIDlockfile.h"
#include "qvsemaphore.h"
#include "qv_test_util.h"

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

std::vector<int32_t> read_table(const std::string& path) {
    const std::string bytes = read_file(path);
    std::vector<int32_t> table(bytes.size() / 4);
    memcpy(table.data(), bytes.data(), table.size() * 4);
    return table;
}

}  // namespace

TEST(PidFile, DaemonModeWritesThePidOverOldContentAndTakesNoLock) {
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

    EXPECT_EQ(qvctrl_StorePID(&fd, (dir / "missing/control.pid").c_str(), false), -1);
    EXPECT_EQ(fd, -1);
}

TEST(PidFile, ConsoleModeLockKeepsOutASecondInstanceWhileTheDescriptorIsOpen) {
    TempDir dir;
    const std::string path = dir / "control.pid";
    write_file(path, "old");

    int fd = -1;
    ASSERT_EQ(qvctrl_StorePID(&fd, path.c_str(), true), 0);
    EXPECT_EQ(read_file(path), "old");
    EXPECT_EQ(store_pid_locked_in_child(path), 1);
    close(fd);
    EXPECT_EQ(store_pid_locked_in_child(path), 0);
}

TEST(HeartbeatFile, CreatedZeroedOnceThenKeptAsItIs) {
    TempDir dir;
    const std::string path = dir / "qv_heartbeat_x";
    ASSERT_EQ(qvctrl_InitializeHeartbeatFile(path.c_str(), 1000), 0);
    EXPECT_EQ(read_file(path), std::string(4000, '\0'));
    EXPECT_EQ(file_mode(path), 0777u);

    write_file(path, "abc");
    EXPECT_EQ(qvctrl_InitializeHeartbeatFile(path.c_str(), 1000), 0);
    EXPECT_EQ(read_file(path), "abc");

    // No entries: an empty file, which cannot be mapped; the caller still owns the record.
    const std::string empty = dir / "qv_heartbeat_empty";
    ASSERT_EQ(qvctrl_InitializeHeartbeatFile(empty.c_str(), 0), 0);
    EXPECT_EQ(read_file(empty).size(), 0u);
    std::unique_ptr<mappedRegionS> region;
    EXPECT_EQ(memmap(empty.c_str(), 0, &region, O_RDWR), -1);
    ASSERT_NE(region, nullptr);
    EXPECT_EQ(memGetAddr(region.get()), nullptr);
}

TEST(MemMap, ExistingFileIsMappedWholeAndANewOneIsZeroFilledTwice) {
    TempDir dir;
    const std::string path = dir / "table";
    write_file(path, std::string(100, 'a'));
    std::unique_ptr<mappedRegionS> region;
    ASSERT_EQ(memmap(path.c_str(), 7, &region, O_RDWR), 0);
    ASSERT_EQ(memGetLength(region.get()), 100u);
    static_cast<char*>(memGetAddr(region.get()))[99] = 'z';
    EXPECT_EQ(memunmap(&region), 0);
    EXPECT_EQ(region, nullptr);
    EXPECT_EQ(read_file(path), std::string(99, 'a') + "z");

    const std::string fresh = dir / "new";
    ASSERT_EQ(memmap(fresh.c_str(), 3000, &region, O_RDWR), 0);
    EXPECT_EQ(memGetLength(region.get()), 3000u);
    EXPECT_EQ(read_file(fresh), std::string(6000, '\0'));
    EXPECT_EQ(file_mode(fresh), 0600u);

    // An existing file that cannot be opened (O_DIRECTORY, whoever runs this) fails at mmap.
    EXPECT_EQ(memmap(path.c_str(), 0, &region, O_RDONLY | O_DIRECTORY), -1);
    EXPECT_EQ(memGetAddr(region.get()), nullptr);
    EXPECT_EQ(memmap((dir / "missing/table").c_str(), 16, &region, O_RDWR), -1);
}

TEST(CountHeartbeats, CountsUpToTheFirstIdleEntryResetsAndSurvivesAStuckSemaphore) {
    TempDir dir;
    const std::string path = dir / "qv_heartbeat_count";
    ASSERT_EQ(qvctrl_InitializeHeartbeatFile(path.c_str(), 9), 0);
    std::unique_ptr<mappedRegionS> region;
    ASSERT_EQ(memmap(path.c_str(), 0, &region, O_RDWR), 0);
    auto* table = static_cast<int32_t*>(memGetAddr(region.get()));
    const std::string name = "qv_heartbeat_test_" + std::to_string(getpid());
    sem_unlink(name.c_str());
    qv::sem_ptr sem(QVsem_open(name.c_str(), O_CREAT, 0600, 0, 1));
    ASSERT_NE(sem, nullptr);

    table[0] = 1;
    table[1] = -1;
    table[2] = 0x7fffffff;
    table[4] = 5;  // behind the first idle entry
    EXPECT_EQ(qvctrl_CountHeartbeats(table, 8, sem.get()), 3);
    EXPECT_EQ(read_table(path), std::vector<int32_t>(9, 0));

    // A full table also counts the word behind it, which it leaves alone.
    for (int i = 0; i < 9; ++i) {
        table[i] = i + 1;
    }
    EXPECT_EQ(qvctrl_CountHeartbeats(table, 8, sem.get()), 9);
    EXPECT_EQ(read_table(path), (std::vector<int32_t>{0, 0, 0, 0, 0, 0, 0, 0, 9}));

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
