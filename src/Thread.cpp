#include "tarvik/Thread.h"

#include "Deadline.h"
#include "LogUnit.h"
#include "Memory.h"
#include "ThreadImpl.h"
#include "tarvik/CriticalSection.h"
#include "tarvik/Event.h"
#include "tarvik/System.h"

TARVIK_LOG_UNIT()

namespace tarvik {

namespace {

// Creates and deletes every thread record.
CriticalSection& thread_lock() {
    static CriticalSection* const lock = memory::create<CriticalSection>();
    return *lock;
}

}  // namespace

// The state of one system thread of a Thread object.
struct ThreadRecord {
    Thread* owner;
    thread_impl::Handle* handle = nullptr;
    Event wake{true};
    std::atomic<bool> triggered{false};
    std::atomic<bool> to_stop{false};
    std::atomic<bool> suspended{true};
    // Calls of stop() and wait() that are waiting on the handle; the record (and its handle) stays until
    // the last of them is done.
    int users TARVIK_GUARDED_BY(thread_lock()) = 0;
    // No longer the Thread's record: the last user frees it.
    bool detached TARVIK_GUARDED_BY(thread_lock()) = false;
    // The system thread was resumed and its run() has not returned yet.
    bool body_pending TARVIK_GUARDED_BY(thread_lock()) = false;
    // Given up while run() was still going: the thread frees the record when run() returns.
    bool abandoned TARVIK_GUARDED_BY(thread_lock()) = false;
};

namespace {

constexpr int kStopWaits = 60;
constexpr unsigned int kWaitSliceMs = 1000;

// Waits for the system thread's end in slices of at most a second until the deadline: 1 ended, 0 time-out,
// -1 failure.
int wait_end_until(thread_impl::Handle* handle, Deadline const& deadline) {
    for (;;) {
        int const left = deadline.ms_left();
        int const r = thread_impl::wait_end(handle, left < 0 || static_cast<unsigned int>(left) > kWaitSliceMs
                                                         ? kWaitSliceMs
                                                         : static_cast<unsigned int>(left));
        if (r != 0 || deadline.expired()) return r;
    }
}

bool is_self(ThreadRecord const* r) {
    return r->handle && thread_impl::id(r->handle) == get_current_thread_id();
}

// Under the thread lock, once the record is detached and nobody waits on it: gives the system thread up
// and frees the record. A run() that is still going may still read its record: that record is left to
// its thread, which frees it when run() returns.
void finish(ThreadRecord* r) TARVIK_REQUIRES(thread_lock()) {
    if (!r->detached || r->users > 0) return;
    if (r->handle) {
        thread_impl::release(r->handle);
        r->handle = nullptr;
    }
    if (r->body_pending) {
        r->abandoned = true;
        return;
    }
    delete r;  // counted by hand under the thread lock (owner, users, running body): this was the last
}

}  // namespace

Thread::Thread() = default;

Thread::~Thread() { stop(); }

void Thread::body_(void* record) {
    auto* r = static_cast<ThreadRecord*>(record);
    r->owner->run();
    CriticalSectionHolder hold(thread_lock());
    r->body_pending = false;
    if (r->abandoned) delete r;  // the record was left to its running body (see finish)
}

bool Thread::start() {
    stop();
    {
        CriticalSectionHolder hold(thread_lock());
        ThreadRecord* r = record_.load();
        bool fresh = !r;
        if (fresh) {
            r = memory::create<ThreadRecord>();
            r->owner = this;
            r->handle = thread_impl::create_suspended(&Thread::body_, r);
            if (!r->handle) TVK_LOG(LEVEL_ERR, "CANNOT CREATE THREAD err=%0") << get_last_system_error_num();
            record_.store(r);
        }
        if (!r->handle) {
            TVK_LOG(LEVEL_ERR, "CANNOT RESUME THREAD: NO THREAD!");
        } else {
            r->suspended = false;
            if (thread_impl::resume(r->handle)) {
                if (fresh) r->body_pending = true;  // read by body_ only under this lock, after run()
            } else {
                TVK_LOG(LEVEL_ERR, "CANNOT RESUME THREAD: err=%0") << get_last_system_error_num();
                r->suspended = true;
            }
        }
    }
    return is_running();
}

bool Thread::request_stop() {
    CriticalSectionHolder hold(thread_lock());
    ThreadRecord* r = record_.load();
    if (!r) return false;
    bool was = r->to_stop.exchange(true);
    r->wake.signal();
    return was;
}

bool Thread::stop() {
    ThreadRecord* r;
    bool running;
    {
        CriticalSectionHolder hold(thread_lock());
        r = record_.load();
        if (!r) return true;
        if (!r->to_stop) request_stop();
        if (is_self(r)) return false;  // a thread stopping itself is only marked
        running = r->handle && !r->suspended;
        ++r->users;  // keeps the record and its handle while we wait, even if another stop() completes it
    }
    if (running) wait_end_until(r->handle, Deadline::in_ms(std::int64_t{kStopWaits} * kWaitSliceMs));
    CriticalSectionHolder hold(thread_lock());
    --r->users;
    if (record_.load() == r) {
        record_.store(nullptr);
        r->detached = true;
    }
    finish(r);
    return true;
}

void Thread::trigger() {
    CriticalSectionHolder hold(thread_lock());
    ThreadRecord* r = record_.load();
    if (!r) return;
    r->triggered = true;
    r->wake.signal();
}

bool Thread::wait(TimePeriod const& timeout) {
    ThreadRecord* r;
    {
        CriticalSectionHolder hold(thread_lock());
        r = record_.load();
        if (!r || !r->handle) return true;
        ++r->users;
    }
    std::int64_t const ms = timeout.to_milliseconds();
    bool const ended = wait_end_until(r->handle, Deadline::in_ms(ms < 0 ? 0 : ms)) > 0;
    CriticalSectionHolder hold(thread_lock());
    --r->users;
    finish(r);
    return ended;
}

// The readers below take the thread lock so that a stop() on another thread cannot free the record under
// them.

bool Thread::is_to_stop() const {
    CriticalSectionHolder hold(thread_lock());
    ThreadRecord* r = record_.load();
    return !r || r->to_stop;
}

bool Thread::is_stopped() const {
    CriticalSectionHolder hold(thread_lock());
    ThreadRecord* r = record_.load();
    return !r || !r->handle || thread_impl::has_ended(r->handle);
}

bool Thread::is_running() const {
    CriticalSectionHolder hold(thread_lock());
    ThreadRecord* r = record_.load();
    return r && r->handle && !r->suspended && !thread_impl::has_ended(r->handle);
}

unsigned long Thread::get_id() const {
    CriticalSectionHolder hold(thread_lock());
    ThreadRecord* r = record_.load();
    return r && r->handle ? thread_impl::id(r->handle) : 0;
}

void Thread::run() {
    ThreadRecord* r = record_.load();
    if (!r) return;
    // Both the flag and the wake-up call for an item: a trigger that arrives while an item runs is served
    // at the top of the loop and its wake-up runs the item once more. run_item() must therefore be safe to
    // call with nothing new to do.
    while (!r->to_stop) {
        if (r->triggered.exchange(false)) run_item();
        bool signalled = r->wake.wait(TimePeriod(2, 0, false));
        if (!r->to_stop && (signalled || r->triggered)) {
            r->triggered = false;
            run_item();
        }
    }
}

void Thread::run_item() {}

}  // namespace tarvik
