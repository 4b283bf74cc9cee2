#include "qv_nats_nr_backoff.h"

#include <chrono>
#include <thread>

#include "log.h"

namespace {

constexpr uint32_t s_max_retries = 4;
constexpr uint64_t s_max_total_ms = 400;

uint64_t s_elapsed_ms(const struct timespec& from, const struct timespec& to) {
    int64_t ms = (static_cast<int64_t>(to.tv_sec) - from.tv_sec) * 1000 +
                 (static_cast<int64_t>(to.tv_nsec) - from.tv_nsec) / 1000000;
    return ms > 0 ? static_cast<uint64_t>(ms) : 0;
}

}  // namespace

void qv_nats_nr_init(qv_nats_nr_state_t* state) {
    if (state == nullptr) {
        return;
    }
    clock_gettime(CLOCK_MONOTONIC, &state->t0);
    state->retries = 0;
    state->waited_ms = 0;
}

uint64_t qv_nats_nr_attempt_timeout_ms(const qv_nats_nr_state_t* state, uint64_t timeout_ms) {
    if (state == nullptr || state->waited_ms >= timeout_ms) {
        return state == nullptr ? timeout_ms : 0;
    }
    return timeout_ms - state->waited_ms;
}

uint64_t qv_nats_nr_next_backoff_ms(const qv_nats_nr_state_t* state, uint64_t timeout_ms,
                                    const struct timespec& now) {
    if (state == nullptr || state->retries > s_max_retries - 1) {
        return 0;
    }
    const uint64_t base = 25ULL << state->retries;
    const uint64_t backoff = base + static_cast<uint64_t>(now.tv_nsec) % (base / 2 + 1);
    const uint64_t elapsed = s_elapsed_ms(state->t0, now);
    if (state->waited_ms + backoff > s_max_total_ms || timeout_ms <= backoff + elapsed) {
        return 0;
    }
    return backoff;
}

uint64_t qv_nats_nr_take_step(qv_nats_nr_state_t* state, uint64_t timeout_ms, const char* subject) {
    struct timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const uint64_t backoff = qv_nats_nr_next_backoff_ms(state, timeout_ms, now);
    if (backoff == 0) {
        return 0;
    }
    log_debug("nats: no responders for %s - backoff %lums, retry %u/%u",
              subject != nullptr ? subject : "(unknown)", static_cast<unsigned long>(backoff),
              state->retries + 1, s_max_retries);
    state->waited_ms += backoff;
    state->retries++;
    return backoff;
}

bool qv_nats_nr_should_retry(qv_nats_nr_state_t* state, uint64_t timeout_ms, const char* subject) {
    const uint64_t backoff = qv_nats_nr_take_step(state, timeout_ms, subject);
    if (backoff == 0) {
        return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(backoff));
    return true;
}
