// Event.h: auto-reset events, optionally shared between processes by name.
//
// signal() sets the event; one waiter (or the next wait()) takes it and clears it; signals do not
// accumulate. A named event is shared by every process that creates or opens the same name, and lives until
// its last handle closes. wait() waits in slices of at most one second, so no wait in the library blocks
// for longer than a second at a time.
//
// Records (module "TVK", unit "EVENT"): "CANNOT CREATE EVENT %0 [%1]" and "EVENT '%0' WAIT ERROR '%1'" at
// ERR; when the unit's log level is above 1, "CREATE EVENT %0", "CREATE NAMED EVENT %0: %1",
// "DELETE EVENT %0", "SIGNAL EVENT %0", "RESET EVENT %0" and "EVENT '%0' SIGNALED" at LOG.
//
// Thread safety: every operation may be called from any thread; create() and destruction must not race
// with other operations on the same object.
#pragma once

#include <memory>

#include "tarvik/AString.h"
#include "tarvik/Time.h"
#include "tarvik/Types.h"

namespace tarvik {

namespace event_impl {
struct Handle;
// Closes a handle and frees it; defined by the platform half, where Handle is complete.
struct CloseHandle {
    void operator()(Handle* h) const;
};
}  // namespace event_impl

class TARVIK_EXPORT Event {
public:
    // An unnamed event, created at once when `create_now`.
    explicit Event(bool create_now = true);
    // A named event, shared by the processes that use the name.
    explicit Event(char const* name);
    ~Event();
    Event(Event const&) = delete;
    Event& operator=(Event const&) = delete;

    // Closes a previous event, then creates (or, for a name that exists, opens) one; not signalled when new.
    bool create(char const* name = nullptr);
    bool is_valid() const { return handle_ != nullptr; }
    AString const& get_name() const { return name_; }

    bool signal();
    bool reset();
    // Waits at most `timeout` (zero or negative: no limit), measured on the monotonic clock so that a change
    // of the wall clock neither shortens nor stretches it; true when the event was signalled (and is now
    // cleared), false on time-out or error.
    bool wait(TimePeriod const& timeout);
    bool wait() { return wait(TimePeriod()); }

private:
    void close_();
    std::unique_ptr<event_impl::Handle, event_impl::CloseHandle> handle_;
    AString name_;
};

}  // namespace tarvik
