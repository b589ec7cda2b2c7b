// Mutex.h: a system mutex, optionally shared between processes by name.
//
// A Mutex is recursive for the thread that owns it. A named mutex is shared by every process that creates
// or opens the same name and lives until its last handle closes; if its owner dies holding it, the next
// locker takes it over. lock() waits without limit, lock(timeout) at most the period, try_lock() not at all.
//
// Unlike CriticalSection it carries no compiler-checked locking annotations: every lock may fail (no handle,
// a time-out, an owner in another process), and nothing in this process is guarded by it alone.
//
// Thread safety: lock/unlock from any thread (unlock by the owner); create/open/destruction must not race
// with other operations on the same object.
#pragma once

#include <memory>

#include "tarvik/Time.h"
#include "tarvik/Types.h"

namespace tarvik {

namespace mutex_impl {
struct Handle;
// Closes a handle and frees it; defined by the platform half, where Handle is complete.
struct CloseHandle {
    void operator()(Handle* h) const;
};
}  // namespace mutex_impl

class TARVIK_EXPORT Mutex {
public:
    // An unnamed mutex.
    Mutex();
    // A named mutex, created (or opened when it exists) at once when `create_now`.
    explicit Mutex(char const* name, bool create_now = true);
    ~Mutex();
    Mutex(Mutex const&) = delete;
    Mutex& operator=(Mutex const&) = delete;

    // Creates the mutex (unnamed when name is null), or opens the named one when it exists.
    bool create(char const* name);
    // Opens an existing named mutex only.
    bool open(char const* name);
    bool is_ok() const { return handle_ != nullptr; }

    bool lock();
    bool lock(TimePeriod const& timeout);
    bool try_lock();
    void unlock();

private:
    void close_();
    std::unique_ptr<mutex_impl::Handle, mutex_impl::CloseHandle> handle_;
};

}  // namespace tarvik
