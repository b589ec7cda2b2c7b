#include "tarvik/Processor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "tarvik/GlobVar.h"
#include "tarvik/Symbol.h"

using namespace tarvik;
using namespace std::chrono_literals;
using tarvik::test::StdoutCapture;

namespace {

struct Call : Action {
    explicit Call(std::function<void()> f) : work(std::move(f)) {}
    void run() override { work(); }
    std::function<void()> work;
};

// Runs until let go (`gone`) or asked to stop.
struct Blocker : Action {
    std::atomic<int> started{0};
    std::atomic<bool> gone{false};
    void run() override {
        started.fetch_add(1);
        while (!gone.load() && !is_to_stop()) std::this_thread::sleep_for(1ms);
    }
    bool wait_started() { return tarvik::test::eventually([this] { return started.load() > 0; }); }
};

}  // namespace

TEST(Processor, SingleThreadRunsActionsInSubmissionOrder) {
    std::vector<int> order;  // only the one worker writes it
    Processor processor(1);
    for (int i = 0; i < 1000; ++i)
        processor.submit(AutoRef<Action>(new Call([&order, i] { order.push_back(i); })));
    processor.waitIdle();
    ASSERT_EQ(order.size(), 1000u);
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(order[i], i);
    EXPECT_EQ(processor.get_thread_count(), 1);
}

TEST(Processor, DefaultProcessorRunsEveryActionFromFourThreadsExactlyOnce) {
    Processor& processor = Processor::getDefaultProcessor();
    EXPECT_EQ(processor.get_max_threads(), 8);
    std::atomic<int> total{0};
    std::vector<AutoRef<Action>> actions;
    for (int i = 0; i < 10000; ++i) actions.emplace_back(new Call([&total] { total.fetch_add(1); }));
    std::vector<std::thread> submitters;
    for (int t = 0; t < 4; ++t)
        submitters.emplace_back([&, t] {
            for (int i = t; i < 10000; i += 4) processor.submit(actions[i]);
        });
    for (std::thread& s : submitters) s.join();
    processor.waitIdle();
    EXPECT_EQ(total.load(), 10000);
    int once = 0;
    for (AutoRef<Action>& a : actions)
        once += a->get_runs() == 1 && a->get_submitted() == 0 && !a->is_running();
    EXPECT_EQ(once, 10000);
    EXPECT_EQ(processor.get_submitted_count(), 0);
    EXPECT_LE(processor.get_thread_count(), 8);
}

TEST(Processor, AddsAThreadPerSubmissionFindingNoIdleOneUpToItsMaximum) {
    Processor processor(3);
    std::vector<AutoRef<Blocker>> blockers;
    for (int i = 0; i < 4; ++i) blockers.emplace_back(new Blocker);
    for (int i = 0; i < 3; ++i) {
        processor.submit(blockers[i]);
        ASSERT_TRUE(blockers[i]->wait_started());
        EXPECT_EQ(processor.get_thread_count(), i + 1);
    }
    processor.submit(blockers[3]);
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(processor.get_thread_count(), 3);
    EXPECT_EQ(processor.get_submitted_count(), 1);
    EXPECT_EQ(processor.get_running_count(), 3);
    EXPECT_EQ(blockers[3]->started.load(), 0);

    blockers[1]->gone = true;
    EXPECT_TRUE(blockers[3]->wait_started());
    EXPECT_EQ(blockers[1]->get_runs(), 1);
    for (AutoRef<Blocker>& b : blockers) b->gone = true;
    processor.waitIdle();
    for (AutoRef<Blocker>& b : blockers) EXPECT_EQ(b->get_runs(), 1);
    EXPECT_EQ(processor.get_thread_count(), 3);
}

TEST(Processor, StoppedActionIsSkippedAndRemovedOneLosesEveryQueuedEntry) {
    Processor processor(1);
    AutoRef<Blocker> blocker(new Blocker);
    std::atomic<int> total{0};
    AutoRef<Action> stopped(new Call([&] { total.fetch_add(1); }));
    AutoRef<Action> removed(new Call([&] { total.fetch_add(10); }));
    AutoRef<Action> kept(new Call([&] { total.fetch_add(100); }));
    processor.submit(blocker);
    ASSERT_TRUE(blocker->wait_started());
    for (AutoRef<Action> const* a : {&stopped, &removed, &kept, &removed}) processor.submit(*a);
    stopped->stop(processor, false);
    EXPECT_EQ(stopped->get_submitted(), 1);  // without waiting the entry stays queued
    processor.remove_from_submitted_action(removed);
    EXPECT_EQ(removed->get_submitted(), 0);
    EXPECT_EQ(processor.get_submitted_count(), 2);

    blocker->gone = true;
    processor.waitIdle();
    EXPECT_EQ(total.load(), 100);
    EXPECT_EQ(stopped->get_runs(), 0);
    EXPECT_EQ(kept->get_runs(), 1);
}

TEST(Processor, PausedProcessorKeepsItsQueueAndIsIdleOnceNothingRuns) {
    Processor processor(2);
    AutoRef<Blocker> blocker(new Blocker);
    processor.submit(blocker);
    ASSERT_TRUE(blocker->wait_started());
    processor.pause();
    std::atomic<int> total{0};
    for (int i = 0; i < 3; ++i) processor.submit(AutoRef<Action>(new Call([&] { total.fetch_add(1); })));
    blocker->gone = true;
    processor.waitIdle();  // returns with actions still queued
    EXPECT_EQ(total.load(), 0);
    EXPECT_EQ(processor.get_submitted_count(), 3);
    EXPECT_EQ(processor.get_running_count(), 0);

    processor.resume();
    processor.waitIdle();
    EXPECT_EQ(total.load(), 3);
}

TEST(Processor, StopAndAbortFlagQueuedAndRunningActionsAndEmptyTheQueue) {
    for (bool abort : {false, true}) {
        SCOPED_TRACE(abort ? "abort" : "stop");
        Processor processor(1);
        AutoRef<Blocker> running(new Blocker);
        AutoRef<Action> queued(new Action);
        processor.submit(running);
        ASSERT_TRUE(running->wait_started());
        processor.submit(queued);
        abort ? processor.abort() : processor.stop();
        EXPECT_EQ(processor.get_submitted_count(), 0);
        EXPECT_EQ(queued->get_submitted(), 0);
        EXPECT_TRUE(queued->is_to_stop() && running->is_to_stop());
        EXPECT_EQ(queued->is_to_abort(), abort);
        EXPECT_EQ(running->is_to_abort(), abort);
        processor.waitIdle();  // the running action saw its flag and returned
        EXPECT_EQ(running->get_runs(), 1);
        EXPECT_EQ(queued->get_runs(), 0);
    }
}

TEST(Processor, WaitActionIsZeroAfterItsTimeOutInMillisecondsAndOneOnceDone) {
    Processor processor(1);
    AutoRef<Blocker> blocker(new Blocker);
    AutoRef<Action> action(blocker);
    processor.submit(action);
    ASSERT_TRUE(blocker->wait_started());
    auto const start = std::chrono::steady_clock::now();
    EXPECT_EQ(processor.waitAction(action, 150), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 140ms);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 900ms);
    EXPECT_EQ(action->wait(processor, 0), 0);

    std::thread releaser([&] {
        std::this_thread::sleep_for(50ms);
        blocker->gone = true;
    });
    EXPECT_EQ(processor.waitAction(action, -1), 1);
    releaser.join();
    EXPECT_EQ(action->get_runs(), 1);
}

// A waiting stop or abort takes the action's queued entries out, then waits for its run.
TEST(ActionGroup, AppliesEachOperationToEveryMember) {
    Processor processor(2);
    ActionGroup group;
    AutoRef<Blocker> first(new Blocker);
    AutoRef<Blocker> second(new Blocker);
    group.add(first);
    group.add(second);
    auto const start = std::chrono::steady_clock::now();
    processor.submit(group);
    ASSERT_TRUE(first->wait_started() && second->wait_started());
    // Both came before either new worker woke: the one woken passes the wake-up on, as a worker left
    // without one looks at the queue again only after 500 ms.
    EXPECT_LT(std::chrono::steady_clock::now() - start, 300ms);
    processor.submit(first);  // queued behind its own run
    EXPECT_EQ(group.wait(processor, 20), 0);

    group.abort(processor, true);
    EXPECT_EQ(processor.get_submitted_count(), 0);
    EXPECT_EQ(first->started.load(), 1);
    for (AutoRef<Action>& a : group.get()) {
        EXPECT_TRUE(a->is_to_abort());
        EXPECT_EQ(a->get_runs(), 1);
        EXPECT_EQ(a->get_submitted(), 0);
        EXPECT_FALSE(a->is_running());
    }
    EXPECT_EQ(group.wait(processor, 0), 1);
    group.reset();
    group.stop(processor, false);
    for (AutoRef<Action>& a : group.get()) EXPECT_TRUE(a->is_to_stop() && !a->is_to_abort());
}

TEST(Processor, TraceRecordsAppearOnlyWhenTheProcessorLevelIsRaised) {
    auto run_one = [] {
        Processor processor(2);
        processor.submit(AutoRef<Action>(new Action));
        processor.waitIdle();
    };
    StdoutCapture quiet;
    run_one();
    EXPECT_EQ(quiet.text(), "");
    int const saved = GlobVarLog::set(Symbol("TVK"), Symbol("PROCESSOR"), 3);
    StdoutCapture capture;
    run_one();
    GlobVarLog::set(Symbol("TVK"), Symbol("PROCESSOR"), saved);
    EXPECT_EQ(capture.records_with("LOG|TVK|PROCESSOR|"), capture.lines_with("|")) << capture.text();
    for (char const* text : {"|Add submitted action ",
                             "|Check free thread nb_free_threads=0 nb_submitted_action=1 (nb_running=0)",
                             "|Create new thread. currently 0 / 2 threads", "|Try remove action ",
                             "|Remove action ", "|Try terminate processor ", " wait idle OK", " terminated"})
        EXPECT_EQ(capture.records_with(text), 1) << text << "\n" << capture.text();
}

// The wait for idle and the wait for the workers share one second; then the error record and 3 seconds.
TEST(Processor, SlowTerminateGivesUpOnANeverReturningActionAfterAboutFourSeconds) {
    Processor processor(1);
    AutoRef<Blocker> blocker(new Blocker);
    processor.submit(blocker);
    ASSERT_TRUE(blocker->wait_started());
    StdoutCapture capture;
    auto const start = std::chrono::steady_clock::now();
    processor.terminate();
    auto const spent = std::chrono::steady_clock::now() - start;
    EXPECT_GE(spent, 4s);
    EXPECT_LT(spent, 4400ms);
    EXPECT_EQ(capture.records_with("ERR|TVK|PROCESSOR|"), 1) << capture.text();
    EXPECT_EQ(capture.records_with("||ERROR: processor will be deleted while 1 threads still running!!"), 1)
        << capture.text();
    EXPECT_TRUE(blocker->is_running());
    blocker->gone = true;  // so that the destructor's terminate() can end and join the worker
}
