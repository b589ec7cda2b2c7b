// AnnotatedMutex.h: std::mutex and std::condition_variable with the locking annotations of ThreadSafety.h.
//
// The standard library's lock types carry no annotations, so code guarded by a std::mutex is not checked.
// AnnotatedMutex is the lock, MutexHold its scoped holder (which can drop and retake the lock inside its
// scope), CondVar a condition variable that waits with a holder. Use CriticalSection where a recursive,
// public lock is wanted; use these where a condition variable is needed or the lock is internal.
//
// A wait is written as a loop in the holder's scope rather than with a predicate: the analysis does not
// know that a predicate runs locked. A wait with a time-out takes a Deadline (Deadline.h), so that the
// loop spends the time-out once in all.
//
// Thread safety: AnnotatedMutex and CondVar are meant to be shared between threads; a MutexHold belongs
// to the thread that made it.
#pragma once

#include <condition_variable>
#include <mutex>

#include "Deadline.h"
#include "tarvik/ThreadSafety.h"

namespace tarvik {

class TARVIK_CAPABILITY("mutex") AnnotatedMutex {
public:
    void lock() TARVIK_ACQUIRE() { m_.lock(); }
    void unlock() TARVIK_RELEASE() { m_.unlock(); }
    std::mutex& native() { return m_; }

private:
    std::mutex m_;
};

class TARVIK_SCOPED_CAPABILITY MutexHold {
public:
    explicit MutexHold(AnnotatedMutex& mutex) TARVIK_ACQUIRE(mutex) : lock_(mutex.native()) {}
    ~MutexHold() TARVIK_RELEASE() {}
    MutexHold(MutexHold const&) = delete;
    MutexHold& operator=(MutexHold const&) = delete;

    // Drops the lock before the end of the scope (to notify, call out or log without it) and takes it
    // again.
    void unlock() TARVIK_RELEASE() { lock_.unlock(); }
    void lock() TARVIK_ACQUIRE() { lock_.lock(); }
    std::unique_lock<std::mutex>& native() { return lock_; }

private:
    std::unique_lock<std::mutex> lock_;
};

class CondVar {
public:
    // REQUIRES: `hold` holds the lock. Returns after a notification or a spurious wake-up, locked again.
    void wait(MutexHold& hold) { cv_.wait(hold.native()); }
    // As wait(), bounded by `deadline`; false once the deadline has passed (a never-expiring deadline
    // waits as wait() does).
    bool wait_until(MutexHold& hold, Deadline const& deadline) {
        if (deadline.is_never()) {
            cv_.wait(hold.native());
            return true;
        }
        return cv_.wait_until(hold.native(), deadline.when()) == std::cv_status::no_timeout ||
               !deadline.expired();
    }
    void notify_one() { cv_.notify_one(); }
    void notify_all() { cv_.notify_all(); }

private:
    std::condition_variable cv_;
};

}  // namespace tarvik
