// MutexImpl.h: what a platform half of Mutex provides.
//
// A mutex is recursive for its owner. A named one is shared by every process that opens the name and lives
// until its last handle closes; if its owner dies holding it, the next locker gets it. Failures return null
// / false / -1 with the system error left for get_last_system_error_num().
#pragma once

#include <memory>

#include "tarvik/Mutex.h"

namespace tarvik::mutex_impl {

// The half defines Handle and CloseHandle (declared in Mutex.h), which closes the handle and frees it.
using HandlePtr = std::unique_ptr<Handle, CloseHandle>;

// An unnamed mutex, or the named one (created when missing).
HandlePtr create(char const* name);
// The named mutex, only when it exists.
HandlePtr open(char const* name);
// ms < 0: no limit. 1 when locked, 0 on time-out, -1 on failure.
int lock(Handle* h, long ms);
bool try_lock(Handle* h);
void unlock(Handle* h);

}  // namespace tarvik::mutex_impl
