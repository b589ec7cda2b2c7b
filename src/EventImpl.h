// EventImpl.h: what a platform half of Event provides.
//
// An event is auto-reset: set() makes it signalled; a wait that finds it signalled clears it and returns;
// signals do not accumulate. A named event is shared by every process that opens the name and lives until
// its last handle closes. Failures return null / false / -1 with the system error left for
// get_last_system_error_num().
#pragma once

#include <memory>

#include "tarvik/Event.h"

namespace tarvik::event_impl {

// The half defines Handle and CloseHandle (declared in Event.h), which closes the handle and frees it.
using HandlePtr = std::unique_ptr<Handle, CloseHandle>;

// Creates an unnamed event, or creates or opens the named one. Not signalled when new.
HandlePtr create(char const* name);
bool set(Handle* h);
bool reset(Handle* h);
// Waits at most ms milliseconds: 1 when signalled (now cleared), 0 on time-out, -1 on failure.
int wait(Handle* h, unsigned int ms);

}  // namespace tarvik::event_impl
