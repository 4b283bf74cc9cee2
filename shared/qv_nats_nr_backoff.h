// Back-off for requests that meet no responder: a worker may be restarting, so the request is
// retried after short sleeps (at most 4 steps and 400 ms, never past the request's time-out).
#pragma once

#include <cstdint>
#include <ctime>

struct qv_nats_nr_state_t {
    struct timespec t0 {};
    uint32_t retries = 0;
    uint64_t waited_ms = 0;
};

void qv_nats_nr_init(qv_nats_nr_state_t* state);
// The request's remaining budget: timeout minus the time already slept in back-off, floored at 0.
uint64_t qv_nats_nr_attempt_timeout_ms(const qv_nats_nr_state_t* state, uint64_t timeout_ms);
// Sleeps one back-off step and answers true, or answers false when no step is left.
bool qv_nats_nr_should_retry(qv_nats_nr_state_t* state, uint64_t timeout_ms, const char* subject);
// Takes one back-off step without sleeping: logs it, counts it and returns its length in ms, or
// returns 0 when no step is left. For callers that wait by other means than a sleep.
uint64_t qv_nats_nr_take_step(qv_nats_nr_state_t* state, uint64_t timeout_ms, const char* subject);
// The step qv_nats_nr_should_retry would sleep, or 0 when it would refuse; `now` is the monotonic
// time. Exposed for the arithmetic's tests.
uint64_t qv_nats_nr_next_backoff_ms(const qv_nats_nr_state_t* state, uint64_t timeout_ms,
                                    const struct timespec& now);
