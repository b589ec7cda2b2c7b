#include "tarvik/Thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "tarvik/System.h"

using tarvik::Thread;
using tarvik::TimePeriod;
using namespace std::chrono_literals;
using tarvik::test::eventually;

namespace {

// A run() that polls is_to_stop(), counts its starts and ends, and lingers a little after the stop
// request, so that a stop() that did not wait for it would be caught.
struct Poller : Thread {
    ~Poller() override { stop(); }
    void run() override {
        id = tarvik::get_current_thread_id();
        ++begun;
        while (!is_to_stop()) std::this_thread::sleep_for(1ms);
        std::this_thread::sleep_for(50ms);
        ++ended;
    }
    std::atomic<int> begun{0}, ended{0};
    std::atomic<unsigned long> id{0};
};

}  // namespace

TEST(Thread, StopOfANeverStartedThreadReturnsTrueAtOnce) {
    Poller t;
    EXPECT_TRUE(t.stop());
    EXPECT_TRUE(t.is_stopped() && t.is_to_stop() && !t.is_running());
    EXPECT_EQ(t.get_id(), 0u);
    EXPECT_TRUE(t.wait(TimePeriod(0, 10, true)));
    EXPECT_FALSE(t.request_stop());
}

TEST(Thread, RunGoesOnItsOwnThreadUntilAskedToStop) {
    Poller t;
    ASSERT_TRUE(t.start());
    ASSERT_TRUE(eventually([&] { return t.begun == 1; }));
    EXPECT_TRUE(t.is_running() && !t.is_stopped() && !t.is_to_stop());
    EXPECT_EQ(t.get_id(), t.id.load());
    EXPECT_NE(t.get_id(), tarvik::get_current_thread_id());
    EXPECT_FALSE(t.wait(TimePeriod(0, 50, true)));  // still running
    EXPECT_FALSE(t.request_stop());                 // the flag's previous value
    EXPECT_TRUE(t.request_stop());
    EXPECT_TRUE(t.wait(TimePeriod(10, 0, true)));
    EXPECT_EQ(t.ended, 1);
    EXPECT_TRUE(t.is_stopped() && !t.is_running());
    EXPECT_TRUE(t.stop());
    EXPECT_EQ(t.get_id(), 0u);
}

TEST(Thread, DefaultRunServesATriggerDuringAnItemThroughBothItsFlagAndItsWakeUp) {
    // run_item() waits until it is allowed as many items as it has started.
    struct Counter : Thread {
        ~Counter() override { stop(); }
        void run_item() override {
            int n = ++items;
            while (permits < n) std::this_thread::sleep_for(1ms);
        }
        std::atomic<int> items{0}, permits{0};
    } t;
    ASSERT_TRUE(t.start());
    // Twice, from an idle thread: a trigger runs one item; a second trigger while that item runs is served
    // at the top of the loop, and its pending wake-up runs the item once more, and no further.
    for (int round = 0; round < 2; ++round) {
        int const base = t.items;
        t.permits = base;
        std::this_thread::sleep_for(100ms);
        t.trigger();
        ASSERT_TRUE(eventually([&] { return t.items == base + 1; }));
        t.trigger();
        t.permits = base + 1;
        ASSERT_TRUE(eventually([&] { return t.items == base + 2; }));
        t.permits = base + 2;
        ASSERT_TRUE(eventually([&] { return t.items == base + 3; }));
        t.permits = base + 3;
        std::this_thread::sleep_for(300ms);
        EXPECT_EQ(t.items, base + 3) << round;
    }
    t.permits = 1000;
    EXPECT_TRUE(t.stop());
    t.trigger();  // no thread: nothing happens
    EXPECT_EQ(t.items, 6);
}

TEST(Thread, StopCalledByTheThreadOnItselfOnlyMarksItUntilAnotherThreadStopsIt) {
    struct SelfStopper : Thread {
        ~SelfStopper() override { stop(); }
        void run() override {
            result = stop() ? 1 : 0;
            marked = is_to_stop();
            while (!release) std::this_thread::sleep_for(1ms);
        }
        std::atomic<int> result{-1};
        std::atomic<bool> marked{false}, release{false};
    } t;
    ASSERT_TRUE(t.start());
    ASSERT_TRUE(eventually([&] { return t.result >= 0; }));  // it did not wait for its own end
    EXPECT_EQ(t.result, 0);
    EXPECT_TRUE(t.marked);
    EXPECT_TRUE(t.is_running() && t.is_to_stop());  // the record stays while run() goes on
    EXPECT_NE(t.get_id(), 0u);
    t.release = true;
    EXPECT_TRUE(t.stop());
    EXPECT_TRUE(t.is_stopped());
    EXPECT_EQ(t.get_id(), 0u);
}

TEST(Thread, StartOnARunningThreadStopsItBeforeStartingAnotherRun) {
    Poller t;
    ASSERT_TRUE(t.start());
    ASSERT_TRUE(eventually([&] { return t.begun == 1; }));
    ASSERT_TRUE(t.start());
    EXPECT_EQ(t.ended, 1);  // the first run() was over before the second could begin
    ASSERT_TRUE(eventually([&] { return t.begun == 2; }));
    EXPECT_FALSE(t.is_to_stop());  // a fresh record
    EXPECT_EQ(t.get_id(), t.id.load());
    EXPECT_TRUE(t.stop());
    EXPECT_EQ(t.ended, 2);
}

// Every stop() waits for the end, and the record goes once, after the last of them, while another thread
// keeps looking at the Thread (AddressSanitizer catches a use after free).
TEST(Thread, ConcurrentStopsAllWaitForTheEnd) {
    for (int round = 0; round < 20; ++round) {
        Poller t;
        ASSERT_TRUE(t.start());
        ASSERT_TRUE(eventually([&] { return t.begun == 1; }));
        std::atomic<int> ended_at_return{0};
        std::atomic<bool> done{false};
        std::thread reader([&] {
            while (!done) {
                t.trigger();
                t.get_id();
                t.wait(TimePeriod(0, 1, true));
            }
        });
        std::vector<std::thread> stoppers;
        for (int k = 0; k < 4; ++k)
            stoppers.emplace_back([&] { ended_at_return += t.stop() && t.ended == 1; });
        for (std::thread& s : stoppers) s.join();
        done = true;
        reader.join();
        EXPECT_EQ(ended_at_return, 4);
        EXPECT_TRUE(t.is_stopped());
    }
}

// stop() gives up on a run() that ignores it after its 60 one-second waits; the run() is released
// afterwards so that the process can end.
TEST(Thread, SlowStopGivesUpOnARunThatNeverReturnsAfterAboutAMinute) {
    struct Stubborn : Thread {
        void run() override {
            for (begun = true; !release;) std::this_thread::sleep_for(10ms);
            finished = true;
        }
        std::atomic<bool> begun{false}, release{false}, finished{false};
    } t;
    ASSERT_TRUE(t.start());
    ASSERT_TRUE(eventually([&] { return t.begun.load(); }));
    auto const t0 = std::chrono::steady_clock::now();
    bool const stopped = t.stop();
    double const seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    t.release = true;
    EXPECT_TRUE(stopped);
    EXPECT_GE(seconds, 58.0);
    EXPECT_LE(seconds, 75.0);
    EXPECT_TRUE(t.is_stopped() && t.is_to_stop());
    EXPECT_TRUE(eventually([&] { return t.finished.load(); }));
    std::this_thread::sleep_for(50ms);  // the abandoned thread frees its record as it ends
}

TEST(ThreadContext, EachThreadSeesItsOwnValue) {
    tarvik::ThreadContext slot;
    ASSERT_TRUE(slot.isValid());
    EXPECT_FALSE(slot.isUsed());
    int mine = 1, theirs = 2;
    slot.set_value(&mine);
    EXPECT_TRUE(slot.isUsed());
    void *before = &mine, *after = nullptr;
    std::thread([&] {
        before = slot.get_value();
        slot.set_value(&theirs);
        after = slot.get_value();
    }).join();
    EXPECT_EQ(before, nullptr);
    EXPECT_EQ(after, &theirs);
    EXPECT_EQ(slot.get_value(), &mine);
    slot.set_value(nullptr);
    EXPECT_FALSE(slot.isUsed());
}
