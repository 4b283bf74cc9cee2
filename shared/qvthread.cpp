#include "qvthread.h"

#include <chrono>
#include <exception>
#include <system_error>

#include <sys/time.h>

#include "log.h"

qv_thread_t& qv_thread_t::operator=(qv_thread_t&& other) noexcept {
    if (this != &other) {
        if (thread.joinable()) {
            thread.detach();
        }
        thread = std::move(other.thread);
        done = std::move(other.done);
    }
    return *this;
}

qv_thread_t::~qv_thread_t() {
    if (thread.joinable()) {
        thread.detach();
    }
}

int QV_CreateThread(qv_thread_t* thread_out, std::function<void()> entry) {
    if (thread_out == nullptr || !entry) {
        return -1;
    }
    auto done = std::make_shared<std::atomic<int>>(0);
    try {
        thread_out->thread = std::thread([entry = std::move(entry), done]() {
            try {
                entry();
            } catch (const std::exception& e) {
                log_error("Thread ended by exception: %s", e.what());
            } catch (...) {
                log_error("Thread ended by unknown exception");
            }
            done->store(1);
        });
    } catch (const std::system_error& e) {
        log_error("Failed to create thread: %s", e.what());
        return -1;
    }
    thread_out->done = std::move(done);
    return 0;
}

int QV_JoinThreadTimeout(qv_thread_t* thread, unsigned int milliseconds) {
    if (thread == nullptr || !thread->thread.joinable() || !thread->done) {
        return -1;
    }
    const uint32_t start = get_ticks();
    while (thread->done->load() == 0) {
        if (get_ticks() - start >= milliseconds) {
            return 1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    thread->thread.join();
    return 0;
}

int QV_JoinThread(qv_thread_t* thread) {
    if (thread == nullptr || !thread->thread.joinable()) {
        return -1;
    }
    thread->thread.join();
    return 0;
}

uint32_t get_ticks() {
    struct timeval tv {};
    gettimeofday(&tv, nullptr);
    return static_cast<uint32_t>(tv.tv_sec) * 1000u + static_cast<uint32_t>(tv.tv_usec / 1000);
}
