// Thread.h: threads of the library, and thread-local slots.
//
// A Thread runs run() on a system thread of its own. start() first stops a thread that is still running
// (so one Thread object never runs twice at once), then creates the system thread suspended and resumes it.
// stop() asks the thread to stop (its to-stop flag, and a wake-up) and waits for its end in one-second
// waits, at most 60 of them; then it forgets the system thread. A thread that calls stop() on itself is only
// marked, and stop() returns false: another thread's stop() or start() completes it. A run() that outlives
// the 60 waits is left running on its own (it sees is_to_stop() true from then on); the Thread object must
// still outlive it.
//
// The default run() calls run_item() after each trigger(), looking again at least every 2 seconds, until
// the thread is asked to stop. A trigger() that arrives while an item runs is seen twice, through its flag
// and through its wake-up, so run_item() then runs two more times: it must tolerate a call with nothing new
// to do. Derived classes override run() or run_item(); a derived class whose run() uses
// its own members calls stop() in its destructor, before those members go.
//
// Records (module "TVK", unit "THREAD", at ERR): "CANNOT CREATE THREAD err=%0",
// "CANNOT RESUME THREAD: NO THREAD!", "CANNOT RESUME THREAD: err=%0".
//
// ThreadContext is one thread-local slot: each thread sees its own value (null until it sets one); the
// value belongs to the caller.
//
// Thread safety: every operation may be called from any thread; start() and stop() serialise on one
// process-wide thread lock.
#pragma once

#include <atomic>

#include "tarvik/Time.h"
#include "tarvik/Types.h"

namespace tarvik {

struct ThreadRecord;

class TARVIK_EXPORT Thread {
public:
    Thread();
    // stop().
    virtual ~Thread();
    Thread(Thread const&) = delete;
    Thread& operator=(Thread const&) = delete;

    virtual void run();
    virtual void run_item();

    bool start();
    bool stop();
    // Sets the to-stop flag and wakes the thread; the flag's previous value.
    bool request_stop();
    void trigger();
    // Waits for the thread's end at most the period; true when it has ended (or there is no thread).
    bool wait(TimePeriod const& timeout);

    // Whether the thread was asked to stop (true too when there is no thread).
    bool is_to_stop() const;
    // No thread, or it has ended.
    bool is_stopped() const;
    // Resumed and not ended.
    bool is_running() const;
    // The system thread id (0 when none).
    unsigned long get_id() const;

private:
    static void body_(void* record);
    std::atomic<ThreadRecord*> record_{nullptr};
};

class TARVIK_EXPORT ThreadContext {
public:
    ThreadContext();
    ~ThreadContext();
    ThreadContext(ThreadContext const&) = delete;
    ThreadContext& operator=(ThreadContext const&) = delete;

    void* get_value() const;
    // Only when the slot is valid.
    void set_value(void* value);
    bool isUsed() const { return get_value() != nullptr; }
    bool isValid() const { return valid_; }

private:
    unsigned long key_ = 0;
    bool valid_ = false;
};

}  // namespace tarvik
