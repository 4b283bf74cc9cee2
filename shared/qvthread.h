// Thread creation and joining with a time-out. A thread that does not end in time is left
// running (and detached when its handle goes), which shutdown accepts.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>

struct qv_thread_t {
    std::thread thread;
    std::shared_ptr<std::atomic<int>> done;  // set to 1 when the entry has returned

    qv_thread_t() = default;
    qv_thread_t(qv_thread_t&&) = default;
    qv_thread_t& operator=(qv_thread_t&& other) noexcept;
    ~qv_thread_t();
};

// Starts `entry` on a new thread; exceptions escaping the entry are logged. 0 or -1.
int QV_CreateThread(qv_thread_t* thread_out, std::function<void()> entry);
// -1 for no thread, 0 joined, 1 timed out (the thread keeps running).
int QV_JoinThreadTimeout(qv_thread_t* thread, unsigned int milliseconds);
int QV_JoinThread(qv_thread_t* thread);

// Milliseconds of the real-time clock, in 32-bit unsigned arithmetic (wraps).
uint32_t get_ticks();
