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
        took = cs.try_enter();
        if (took) cs.leave();
    }).join();
    return took;
}

}  // namespace

TEST(CriticalSection, HolderMayEnterAgainAndOthersWaitForTheLastLeave) {
    CriticalSection cs;
    EXPECT_TRUE(free_for_other_thread(cs));
    cs.enter();
    EXPECT_TRUE(cs.try_enter());  // the holder never waits
    {
        CriticalSectionHolder inner(cs);
        EXPECT_FALSE(free_for_other_thread(cs));
    }
    cs.leave();
    EXPECT_FALSE(free_for_other_thread(cs));  // still held once
    cs.leave();
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
        for (int k = 0; k < kRounds; ++k) {
            if ((k + t) % 4 == 0) {
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
    });
    EXPECT_EQ(counter, static_cast<long>(kThreads) * kRounds);
}
