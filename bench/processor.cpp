// processor.cpp: the action pool against a minimal std::thread + std::condition_variable queue in the same
// run, and a named event's wake-up latency between two processes.
//
//   ./build/release/bench/tarvik_bench_processor --benchmark_repetitions=3 --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tarvik/Event.h"
#include "tarvik/Processor.h"

using namespace tarvik;

namespace {

// The baseline: a queue of functions served by a fixed set of threads.
class PlainQueue {
public:
    explicit PlainQueue(int threads) {
        for (int i = 0; i < threads; ++i) workers_.emplace_back([this] { serve(); });
    }
    ~PlainQueue() {
        {
            std::lock_guard<std::mutex> lock(m_);
            done_ = true;
        }
        cv_.notify_all();
        for (std::thread& t : workers_) t.join();
    }
    void submit(std::function<void()> f) {
        {
            std::lock_guard<std::mutex> lock(m_);
            queue_.push_back(std::move(f));
        }
        cv_.notify_one();
    }

private:
    void serve() {
        for (;;) {
            std::function<void()> f;
            {
                std::unique_lock<std::mutex> lock(m_);
                cv_.wait(lock, [this] { return done_ || !queue_.empty(); });
                if (queue_.empty()) return;
                f = std::move(queue_.front());
                queue_.pop_front();
            }
            f();
        }
    }
    std::mutex m_;
    std::condition_variable cv_;
    std::deque<std::function<void()>> queue_;
    bool done_ = false;
    std::vector<std::thread> workers_;
};

struct Flag : Action {
    std::atomic<bool>* started;
    explicit Flag(std::atomic<bool>* s) : started(s) {}
    void run() override { started->store(true, std::memory_order_release); }
};

struct Empty : Action {
    std::atomic<int>* left;
    explicit Empty(std::atomic<int>* l) : left(l) {}
    void run() override { left->fetch_sub(1, std::memory_order_acq_rel); }
};

void spin_until(std::atomic<bool>& flag) {
    while (!flag.load(std::memory_order_acquire)) std::this_thread::yield();
}

// From submit to the action's run() starting, one action at a time (an idle worker is woken each time).
void BM_SubmitToRunLatency_Processor(benchmark::State& state) {
    Processor processor(2);
    std::atomic<bool> started{false};
    AutoRef<Action> warm(new Flag(&started));
    processor.submit(warm);
    spin_until(started);
    processor.waitIdle();
    for (auto _ : state) {
        started = false;
        processor.submit(AutoRef<Action>(new Flag(&started)));
        spin_until(started);
    }
    processor.waitIdle();
}
BENCHMARK(BM_SubmitToRunLatency_Processor)->UseRealTime();

void BM_SubmitToRunLatency_PlainQueue(benchmark::State& state) {
    PlainQueue queue(2);
    std::atomic<bool> started{false};
    for (auto _ : state) {
        started = false;
        queue.submit([&started] { started.store(true, std::memory_order_release); });
        spin_until(started);
    }
}
BENCHMARK(BM_SubmitToRunLatency_PlainQueue)->UseRealTime();

constexpr int kActions = 100000;

void BM_Throughput100kEmpty_Processor(benchmark::State& state) {
    Processor processor(2);
    std::vector<AutoRef<Action>> actions;
    std::atomic<int> left{0};
    for (int i = 0; i < kActions; ++i) actions.push_back(AutoRef<Action>(new Empty(&left)));
    for (auto _ : state) {
        left = kActions;
        for (AutoRef<Action> const& a : actions) processor.submit(a);
        processor.waitIdle();
        if (left.load() != 0) state.SkipWithError("actions lost");
    }
    state.SetItemsProcessed(state.iterations() * kActions);
}
BENCHMARK(BM_Throughput100kEmpty_Processor)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Throughput100kEmpty_PlainQueue(benchmark::State& state) {
    PlainQueue queue(2);
    std::atomic<int> left{0};
    for (auto _ : state) {
        left = kActions;
        for (int i = 0; i < kActions; ++i) queue.submit([&left] { left.fetch_sub(1, std::memory_order_acq_rel); });
        while (left.load(std::memory_order_acquire) != 0) std::this_thread::yield();
    }
    state.SetItemsProcessed(state.iterations() * kActions);
}
BENCHMARK(BM_Throughput100kEmpty_PlainQueue)->Unit(benchmark::kMillisecond)->UseRealTime();

// A child process answers each signal of event "ping" by signalling "pong"; one round trip is two
// signal-to-wake latencies.
void BM_NamedEventRoundTripBetweenProcesses(benchmark::State& state) {
    std::string ping = "bench-ping-" + std::to_string(getpid());
    std::string pong = "bench-pong-" + std::to_string(getpid());
    Event to_child(ping.c_str());
    Event to_parent(pong.c_str());
    pid_t child = fork();
    if (child == 0) {
        Event in(ping.c_str());
        Event out(pong.c_str());
        for (;;) {
            if (!in.wait(TimePeriod(5, 0, false))) _exit(0);  // the parent has finished
            out.signal();
        }
    }
    for (auto _ : state) {
        to_child.signal();
        to_parent.wait(TimePeriod(5, 0, false));
    }
    kill(child, SIGTERM);
    waitpid(child, nullptr, 0);
}
BENCHMARK(BM_NamedEventRoundTripBetweenProcesses)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
