#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>

#include "qvthread.h"

using std::chrono::milliseconds;

TEST(ThreadJoin, JoinsAThreadThatEndsAndRefusesWhatIsNotThere) {
    std::atomic<bool> ran{false};
    qv_thread_t thread;
    ASSERT_EQ(QV_CreateThread(&thread,
                              [&] {
                                  std::this_thread::sleep_for(milliseconds(100));
                                  ran = true;
                              }),
              0);
    EXPECT_EQ(QV_JoinThreadTimeout(&thread, 20000), 0);
    EXPECT_TRUE(ran.load());
    EXPECT_EQ(QV_JoinThreadTimeout(&thread, 100), -1);
    EXPECT_EQ(QV_JoinThreadTimeout(nullptr, 100), -1);
    EXPECT_EQ(QV_CreateThread(&thread, nullptr), -1);

    // An exception leaving the entry ends that thread only.
    ASSERT_EQ(QV_CreateThread(&thread, [] { throw std::runtime_error("boom"); }), 0);
    EXPECT_EQ(QV_JoinThreadTimeout(&thread, 20000), 0);
}

TEST(ThreadJoin, TimeOutReturnsOneAndLeavesTheThreadRunning) {
    std::atomic<bool> release{false};
    qv_thread_t thread;
    ASSERT_EQ(QV_CreateThread(&thread,
                              [&] {
                                  while (!release.load()) {
                                      std::this_thread::sleep_for(milliseconds(5));
                                  }
                              }),
              0);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(QV_JoinThreadTimeout(&thread, 1000), 1);
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(990));

    // Not cancelled: once let go it ends on its own and is joined.
    release = true;
    EXPECT_EQ(QV_JoinThreadTimeout(&thread, 20000), 0);
}
