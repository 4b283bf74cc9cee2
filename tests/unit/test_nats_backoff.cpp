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

TEST(NoRespondersBackoff, StepsGrowWithinTheirJitterBandsAndStopAt400ms) {
    const qv_nats_nr_state_t st = started();
    const uint64_t lower[] = {25, 50, 100, 200};
    const uint64_t upper[] = {37, 75, 150, 300};
    // The jitter comes from the clock's nanoseconds: both ends and a middle.
    for (long nsec : {0L, 12L, 999999999L}) {
        for (uint32_t r = 0; r < 4; ++r) {
            qv_nats_nr_state_t s = st;
            s.retries = r;
            struct timespec now = s.t0;
            now.tv_nsec = nsec;
            const uint64_t b = qv_nats_nr_next_backoff_ms(&s, 100000, now);
            EXPECT_TRUE(b >= lower[r] && b <= upper[r]) << b << " at " << r << " " << nsec;
        }
    }
    // After three steps of their minimum (25 + 50 + 100 = 175 ms), a fourth of 200 ms fits; after
    // their maximum (37 + 75 + 150 = 262 ms) a fourth step of 200..300 ms would pass 400 ms.
    qv_nats_nr_state_t s = st;
    s.retries = 3;
    s.waited_ms = 175;
    EXPECT_EQ(qv_nats_nr_next_backoff_ms(&s, 100000, st.t0), 200u);
    s.waited_ms = 262;
    EXPECT_EQ(qv_nats_nr_next_backoff_ms(&s, 100000, st.t0), 0u);
    s.retries = 4;
    s.waited_ms = 0;
    EXPECT_EQ(qv_nats_nr_next_backoff_ms(&s, 100000, st.t0), 0u);
}

TEST(NoRespondersBackoff, NeverSleepsPastTheRequestTimeoutAndCountsWhatItSlept) {
    qv_nats_nr_state_t s = started();
    // A 100 ms request 80 ms in: a 25 ms step would end past the deadline.
    EXPECT_EQ(qv_nats_nr_next_backoff_ms(&s, 100, after(s, 80)), 0u);
    EXPECT_NE(qv_nats_nr_next_backoff_ms(&s, 100, after(s, 10)), 0u);
    // The budget shrinks by what was slept already.
    s.waited_ms = 30;
    EXPECT_EQ(qv_nats_nr_attempt_timeout_ms(&s, 100), 70u);
    s.waited_ms = 130;
    EXPECT_EQ(qv_nats_nr_attempt_timeout_ms(&s, 100), 0u);

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
