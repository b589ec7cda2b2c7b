#include "tarvik/CriticalSection.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "TestSupport.h"

using tarvik::CriticalSection;
using tarvik::CriticalSectionHolder;
using tarvik::test::run_together;

namespace {

// Whether another thread can take the section right now (it leaves again at once when it could).
bool free_for_other_thread(CriticalSection& cs) {
    bool took = false;
    std::thread([&] {
        if (cs.try_enter()) {
            took = true;
            cs.leave();
        }
    }).join();
    return took;
}

// Recursive entry is what these tests check, and the locking analysis does not model it: the steps that
// enter a held section again are kept out of the analysis here.
void enter_twice_leave_in_steps(CriticalSection& cs) TARVIK_NO_THREAD_SAFETY_ANALYSIS {
    cs.enter();
    EXPECT_TRUE(cs.try_enter());  // the holder never waits
    {
        CriticalSectionHolder inner(cs);
        EXPECT_FALSE(free_for_other_thread(cs));
    }
    cs.leave();
    EXPECT_FALSE(free_for_other_thread(cs));  // still held once
    cs.leave();
}

// One read-modify-write that yields in the middle, entering the section again for the write.
void add_one(CriticalSection& cs, long& counter, bool by_try) TARVIK_NO_THREAD_SAFETY_ANALYSIS {
    if (by_try) {
        while (!cs.try_enter()) std::this_thread::yield();
    } else {
        cs.enter();
    }
    long seen = counter;
    std::this_thread::yield();
    {
        CriticalSectionHolder again(cs);  // recursive entry inside the section
        counter = seen + 1;
    }
    cs.leave();
}

}  // namespace

TEST(CriticalSection, HolderMayEnterAgainAndOthersWaitForTheLastLeave) {
    CriticalSection cs;
    EXPECT_TRUE(free_for_other_thread(cs));
    enter_twice_leave_in_steps(cs);
    EXPECT_TRUE(free_for_other_thread(cs));
    {
        CriticalSectionHolder outer(cs);
        EXPECT_FALSE(free_for_other_thread(cs));
    }
    EXPECT_TRUE(free_for_other_thread(cs));  // the holder left on scope exit
}

// Each thread does a read-modify-write that yields in the middle: without exclusion, updates get lost.
TEST(CriticalSection, ExcludesOtherThreadsUnderContention) {
    constexpr int kThreads = 6;
    constexpr int kRounds = 4000;
    CriticalSection cs;
    long counter = 0;  // plain: only the section guards it
    run_together(kThreads, [&](int t) {
        for (int k = 0; k < kRounds; ++k) add_one(cs, counter, (k + t) % 4 == 0);
    });
    EXPECT_EQ(counter, static_cast<long>(kThreads) * kRounds);
}
