#include <gtest/gtest.h>

#include "qv_nats_nr_backoff.h"

namespace {

// A state started at a whole second, and that second plus `ms` milliseconds.
qv_nats_nr_state_t started() {
    qv_nats_nr_state_t s;
    qv_nats_nr_init(&s);
    s.t0.tv_nsec = 0;
    return s;
}
struct timespec after(const qv_nats_nr_state_t& s, long ms) {
    struct timespec t = s.t0;
    t.tv_nsec = ms * 1000000L;
    return t;
}

}  // namespace

TEST(NoRespondersBackoff, NeverSleepsPastTheRequestTimeoutOr400msAndCountsWhatItSlept) {
    qv_nats_nr_state_t s = started();
    // A 100 ms request 80 ms in: a 25 ms step would end past the deadline.
    EXPECT_EQ(qv_nats_nr_next_backoff_ms(&s, 100, after(s, 80)), 0u);
    EXPECT_NE(qv_nats_nr_next_backoff_ms(&s, 100, after(s, 10)), 0u);
    // The budget shrinks by what was slept already.
    s.waited_ms = 30;
    EXPECT_EQ(qv_nats_nr_attempt_timeout_ms(&s, 100), 70u);
    s.waited_ms = 130;
    EXPECT_EQ(qv_nats_nr_attempt_timeout_ms(&s, 100), 0u);

    // Growing steps, 25 ms and up, until a next one would pass 400 ms in all.
    qv_nats_nr_init(&s);
    int steps = 0;
    while (qv_nats_nr_should_retry(&s, 100000, "qv-test")) {
        ++steps;
    }
    EXPECT_GE(steps, 3);
    EXPECT_LE(steps, 4);
    EXPECT_EQ(s.retries, static_cast<uint32_t>(steps));
    EXPECT_LE(s.waited_ms, 400u);
}
