// Linux half of Event: an auto-reset flag with a condition variable, shared between processes by name
// through NamedSync.
#include "EventImpl.h"

#include <cerrno>

#include "LogUnit.h"
#include "Memory.h"
#include "NamedSync-linux.h"

TARVIK_LOG_UNIT()

namespace tarvik::event_impl {

struct Handle {
    named_sync::ObjectPtr object;
};

// Handle is complete only in this half, so the deleter of its unique_ptr is defined here.
void CloseHandle::operator()(Handle* h) const { std::default_delete<Handle>()(h); }

HandlePtr create(char const* name) {
    named_sync::ObjectPtr object = named_sync::open(name, named_sync::Kind::kEvent, true);
    return HandlePtr(object ? memory::create<Handle>(std::move(object)) : nullptr);
}

bool set(Handle* h) {
    if (named_sync::lock(h->object.get(), Deadline::never()) != 0) return false;
    h->object->shared->signaled = 1;
    pthread_cond_signal(&h->object->shared->cond);  // auto-reset: one waiter takes it
    named_sync::unlock(h->object.get());
    return true;
}

bool reset(Handle* h) {
    if (named_sync::lock(h->object.get(), Deadline::never()) != 0) return false;
    h->object->shared->signaled = 0;
    named_sync::unlock(h->object.get());
    return true;
}

int wait(Handle* h, unsigned int ms) {
    Deadline const until = Deadline::in_ms(ms);
    int r = named_sync::lock(h->object.get(), Deadline::never());  // held only briefly by anyone
    if (r != 0) {
        errno = r;
        return -1;
    }
    named_sync::Shared* s = h->object->shared;
    struct timespec const deadline = named_sync::monotonic_time(until);
    while (!s->signaled) {
        r = pthread_cond_timedwait(&s->cond, &s->mutex, &deadline);
        if (r == EOWNERDEAD) {
            pthread_mutex_consistent(&s->mutex);
        } else if (r == ETIMEDOUT) {
            named_sync::unlock(h->object.get());
            return 0;
        } else if (r != 0) {
            named_sync::unlock(h->object.get());
            errno = r;
            return -1;
        }
    }
    s->signaled = 0;
    named_sync::unlock(h->object.get());
    return 1;
}

}  // namespace tarvik::event_impl
