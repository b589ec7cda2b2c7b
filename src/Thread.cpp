#include "tarvik/Thread.h"

#include "LogUnit.h"
#include "ThreadImpl.h"
#include "tarvik/CriticalSection.h"
#include "tarvik/Event.h"
#include "tarvik/System.h"

TARVIK_LOG_UNIT()

namespace tarvik {

// The state of one system thread of a Thread object.
struct ThreadRecord {
    Thread* owner;
    thread_impl::Handle* handle = nullptr;
    Event wake{true};
    std::atomic<bool> triggered{false};
    std::atomic<bool> to_stop{false};
    std::atomic<bool> suspended{true};
};

namespace {

constexpr int kStopWaits = 60;

// Creates and deletes every thread record.
CriticalSection& thread_lock() {
    static CriticalSection* const lock = new CriticalSection;
    return *lock;
}

bool is_self(ThreadRecord const* r) {
    return r->handle && thread_impl::id(r->handle) == get_current_thread_id();
}

}  // namespace

Thread::Thread() = default;

Thread::~Thread() { stop(); }

void Thread::body_(void* record) {
    auto* r = static_cast<ThreadRecord*>(record);
    r->owner->run();
}

bool Thread::start() {
    stop();
    {
        CriticalSectionHolder hold(thread_lock());
        ThreadRecord* r = record_.load();
        if (!r) {
            r = new ThreadRecord;
            r->owner = this;
            r->handle = thread_impl::create_suspended(&Thread::body_, r);
            if (!r->handle) TVK_LOG(LEVEL_ERR, "CANNOT CREATE THREAD err=%0") << get_last_system_error_num();
            record_.store(r);
        }
        if (!r->handle) {
            TVK_LOG(LEVEL_ERR, "CANNOT RESUME THREAD: NO THREAD!");
        } else {
            r->suspended = false;
            if (!thread_impl::resume(r->handle)) {
                TVK_LOG(LEVEL_ERR, "CANNOT RESUME THREAD: err=%0") << get_last_system_error_num();
                r->suspended = true;
            }
        }
    }
    return is_running();
}

bool Thread::request_stop() {
    ThreadRecord* r = record_.load();
    if (!r) return false;
    bool was = r->to_stop.exchange(true);
    r->wake.signal();
    return was;
}

bool Thread::stop() {
    thread_impl::Handle* handle;
    bool self;
    ThreadRecord* r;
    {
        CriticalSectionHolder hold(thread_lock());
        r = record_.load();
        if (!r) return true;
        if (!r->to_stop) request_stop();
        handle = r->handle;
        self = is_self(r);
    }
    if (self) return false;  // a thread stopping itself is only marked
    if (handle && !r->suspended) {
        for (int i = 0; i < kStopWaits; ++i)
            if (thread_impl::wait_end(handle, 1000) != 0) break;
    }
    CriticalSectionHolder hold(thread_lock());
    if (record_.load() != r) return true;  // another stop() completed it meanwhile
    record_.store(nullptr);
    if (handle) {
        bool ended = thread_impl::has_ended(handle);
        thread_impl::release(handle);
        // A run() that outlived the waits may still read its record: it is left to the process.
        if (!ended) return true;
    }
    delete r;
    return true;
}

void Thread::trigger() {
    ThreadRecord* r = record_.load();
    if (!r) return;
    r->triggered = true;
    r->wake.signal();
}

bool Thread::wait(TimePeriod const& timeout) {
    ThreadRecord* r = record_.load();
    if (!r || !r->handle) return true;
    std::int64_t ms = timeout.to_milliseconds();
    return thread_impl::wait_end(r->handle, ms < 0 ? 0 : static_cast<unsigned int>(ms)) > 0;
}

bool Thread::is_to_stop() const {
    ThreadRecord* r = record_.load();
    return !r || r->to_stop;
}

bool Thread::is_stopped() const {
    ThreadRecord* r = record_.load();
    return !r || !r->handle || thread_impl::has_ended(r->handle);
}

bool Thread::is_running() const {
    ThreadRecord* r = record_.load();
    return r && r->handle && !r->suspended && !thread_impl::has_ended(r->handle);
}

unsigned long Thread::get_id() const {
    ThreadRecord* r = record_.load();
    return r && r->handle ? thread_impl::id(r->handle) : 0;
}

void Thread::run() {
    ThreadRecord* r = record_.load();
    if (!r) return;
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
