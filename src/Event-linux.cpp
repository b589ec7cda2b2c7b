// Linux half of Event: an auto-reset flag with a condition variable, shared between processes by name
// through NamedSync.
#include "EventImpl.h"

#include <cerrno>

#include "LogUnit.h"
#include "NamedSync-linux.h"

TARVIK_LOG_UNIT()

namespace tarvik::event_impl {

struct Handle {
    named_sync::Object* object;
};

Handle* create(char const* name) {
    named_sync::Object* object = named_sync::open(name, named_sync::Kind::kEvent, true);
    return object ? new Handle{object} : nullptr;
}

void close(Handle* h) {
    if (!h) return;
    named_sync::close(h->object);
    delete h;
}

bool set(Handle* h) {
    if (named_sync::lock(h->object, Deadline::never()) != 0) return false;
    h->object->shared->signaled = 1;
    pthread_cond_signal(&h->object->shared->cond);  // auto-reset: one waiter takes it
    named_sync::unlock(h->object);
    return true;
}

bool reset(Handle* h) {
    if (named_sync::lock(h->object, Deadline::never()) != 0) return false;
    h->object->shared->signaled = 0;
    named_sync::unlock(h->object);
    return true;
}

int wait(Handle* h, unsigned int ms) {
    Deadline const until = Deadline::in_ms(ms);
    int r = named_sync::lock(h->object, Deadline::never());  // held only briefly by anyone
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
            named_sync::unlock(h->object);
            return 0;
        } else if (r != 0) {
            named_sync::unlock(h->object);
            errno = r;
            return -1;
        }
    }
    s->signaled = 0;
    named_sync::unlock(h->object);
    return 1;
}

}  // namespace tarvik::event_impl
