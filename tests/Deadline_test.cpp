#include "../src/Deadline.h"

#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <cstdint>
#include <thread>

using tarvik::Deadline;
using namespace std::chrono_literals;

TEST(Deadline, NegativeTimeOutNeverExpiresAndZeroHasExpiredAlready) {
    struct Case {
        std::int64_t ms;
        bool never, expired;
        int ms_left;
    };
    for (Case c : {Case{-1, true, false, -1}, Case{INT64_MIN, true, false, -1}, Case{0, false, true, 0}}) {
        SCOPED_TRACE(c.ms);
        Deadline const d = Deadline::in_ms(c.ms);
        EXPECT_EQ(d.is_never(), c.never);
        EXPECT_EQ(d.expired(), c.expired);
        EXPECT_EQ(d.ms_left(), c.ms_left);
        EXPECT_EQ(d.left(), c.never ? Deadline::Clock::duration::max() : Deadline::Clock::duration::zero());
        if (c.never) {
            EXPECT_EQ(d.when(), Deadline::Clock::time_point::max());
        }
    }
    EXPECT_TRUE(Deadline::never().is_never());
}

TEST(Deadline, TimeLeftIsRoundedUpToAWholeMillisecondAndHugeTimeOutsAreCapped) {
    // Less than a millisecond left is 1, not 0: a wait of 0 would look once and give up early.
    Deadline const soon = Deadline::at(Deadline::Clock::now() + 300us);
    int const left = soon.ms_left();
    EXPECT_TRUE(left == 1 || (left == 0 && soon.expired())) << left;

    Deadline const later = Deadline::in_ms(5000);
    EXPECT_GT(later.ms_left(), 4000);
    EXPECT_LE(later.ms_left(), 5000);
    EXPECT_FALSE(later.expired());
    EXPECT_EQ(Deadline::in_ms(std::int64_t{1} << 40).ms_left(), INT_MAX);
    Deadline const far = Deadline::in_ms(INT64_MAX);  // capped, not wrapped into the past
    EXPECT_FALSE(far.expired());
    EXPECT_EQ(far.ms_left(), INT_MAX);
}

TEST(Deadline, AStepwiseWaitSpendsItsTimeOutOnceInAll) {
    Deadline const d = Deadline::in_ms(60);
    auto const start = Deadline::Clock::now();
    int steps = 0;
    while (!d.expired()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(d.ms_left() < 20 ? d.ms_left() : 20));
        ++steps;
    }
    EXPECT_GE(Deadline::Clock::now() - start, 60ms);
    EXPECT_GE(steps, 2);
    EXPECT_EQ(d.ms_left(), 0);
    EXPECT_EQ(d.left(), Deadline::Clock::duration::zero());
}
