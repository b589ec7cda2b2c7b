// Processor.h: actions, and the pool of worker threads that runs them.
//
// An Action is a unit of work with a virtual run(). Actions are counted objects: make them with new and hold
// them through AutoRef<Action> (submitting an action takes a reference, and the last release deletes it).
// A Processor runs submitted actions in submission order on worker threads that it creates on demand: a
// submission that finds no idle thread adds one, up to the processor's maximum (0: no limit). Threads are
// only ever added, never retired, until terminate(). The process-wide default processor has at most 8.
//
// A running action is never interrupted: stop() and abort() set flags that its run() polls through
// is_to_stop() / is_to_abort(); an action stopped before it starts is skipped (its runs count stays).
// pause() keeps submissions queued without starting any; resume() goes on.
//
// Waiting: waitIdle() returns once nothing is running and (unless paused) nothing is queued; waitAction()
// once the action is neither queued in nor running on this processor, or after its time-out in
// milliseconds (negative: no limit). Action::stop(processor, true) and abort(processor, true) also take
// the action out of the processor's queue, then wait for it without limit.
//
// terminate() (also run by the destructor) pauses the processor, waits for it to become idle, asks every
// worker to stop and polls for them to end; the wait for idle and the poll share one second in all (an
// action that never returns would otherwise hold terminate() forever). When workers remain it logs "ERROR:
// processor will be deleted while %0 threads still running!!" at ERR and sleeps 3 seconds, so a
// never-returning action costs about 4 seconds. Trace records at LOG through the unit "PROCESSOR": per action when its level is above 2
// ("Add submitted action %0", "Check free thread ...", "Try remove action ...", "Remove action ...",
// "Wait idle processor ..."), per thread and for termination when above 0.
//
// Thread safety: every operation may be called from any thread. A processor has an action lock (its queue,
// its running list and their counts) and a thread lock (its workers and the idle count); the two are never
// held together: a submission releases the action lock before its check for an idle worker takes the thread
// lock. Action counters use one process-wide lock of their own, taken inside either.
#pragma once

#include <atomic>
#include <memory>

#include "tarvik/AutoRef.h"
#include "tarvik/List.h"
#include "tarvik/ThreadSafety.h"
#include "tarvik/Types.h"

namespace tarvik {

class Processor;
class ProcessorImpl;

class TARVIK_EXPORT Action : public RefObject {
public:
    Action();
    ~Action() override;
    // The process-wide section that guards every action's counters (and its reference counts).
    CriticalSection& get_cs() override;
    // The work; empty here.
    virtual void run();  // NOLINT(bugprone-virtual-near-miss): not RefObject::Run, a hook of its own

    void setStop() { to_stop_.store(true, std::memory_order_release); }
    // Also sets the stop flag.
    void setAbort() {
        to_abort_.store(true, std::memory_order_release);
        to_stop_.store(true, std::memory_order_release);
    }
    // Clears both flags.
    void reset() {
        to_stop_.store(false, std::memory_order_release);
        to_abort_.store(false, std::memory_order_release);
    }
    bool is_to_stop() const { return to_stop_.load(std::memory_order_acquire); }
    bool is_to_abort() const { return to_abort_.load(std::memory_order_acquire); }

    bool is_running();
    bool is_stopped() { return !is_running(); }
    // Submits this action to the processor.
    void submit(Processor& processor);
    // Raise / lower the count of processors that hold the action in their queue.
    void submit();
    void unsubmit();
    // Request a stop / abort; with `wait`, take the action out of the processor's queue and wait for it.
    void stop(Processor& processor, bool wait);
    void abort(Processor& processor, bool wait);
    // Processor::waitAction(this, timeout_ms).
    int wait(Processor& processor, int timeout_ms);

    int get_submitted();
    int get_running();
    // How many times the action has finished running.
    int get_runs();

private:
    friend class ProcessorImpl;
    // The process-wide lock of every action's counters, made on first use; get_cs() returns it.
    static CriticalSection& counter_lock_();

    std::atomic<bool> to_stop_{false};
    std::atomic<bool> to_abort_{false};
    int submitted_ TARVIK_GUARDED_BY(counter_lock_()) = 0;
    int running_ TARVIK_GUARDED_BY(counter_lock_()) = 0;
    int runs_ TARVIK_GUARDED_BY(counter_lock_()) = 0;
};

using ActionList = List<AutoRef<Action>, TvkListAllocator<AutoRef<Action>>>;

// Several actions handled as one: each operation applies to every member in list order.
class TARVIK_EXPORT ActionGroup {
public:
    void add(AutoRef<Action> const& action) { actions_.push_back(action); }
    ActionList& get() { return actions_; }
    void stop(Processor& processor, bool wait);
    void abort(Processor& processor, bool wait);
    // The smallest result of waiting for each member.
    int wait(Processor& processor, int timeout_ms);
    void reset();
    void clear() { actions_.clear(); }

private:
    ActionList actions_;
};

class TARVIK_EXPORT Processor {
public:
    // At most max_threads workers (0: no limit).
    explicit Processor(int max_threads = 0);
    // terminate().
    ~Processor();
    Processor(Processor const&) = delete;
    Processor& operator=(Processor const&) = delete;

    void submit(AutoRef<Action> const& action);
    void submit(ActionGroup& group);
    // Takes every queued entry of the action out of the queue.
    void remove_from_submitted_action(AutoRef<Action> const& action);
    void pause();
    void resume();
    // Stop / abort every queued action (the queue is emptied) and every running one.
    void stop();
    void abort();
    void waitIdle();
    // 1 once the action is neither queued nor running here; 0 after timeout_ms (negative: no limit).
    int waitAction(AutoRef<Action> const& action, int timeout_ms);
    void terminate();

    int get_thread_count() const;
    int get_max_threads() const;
    int get_submitted_count() const;
    int get_running_count() const;

    // The process-wide processor (at most 8 threads), made on first call, terminated at process exit.
    static Processor& getDefaultProcessor();

private:
    std::unique_ptr<ProcessorImpl> impl_;
};

}  // namespace tarvik
