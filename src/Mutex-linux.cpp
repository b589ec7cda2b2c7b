// Linux half of Mutex: a recursive, robust pthread mutex, shared between processes by name through
// NamedSync.
#include "MutexImpl.h"

#include <cerrno>

#include "LogUnit.h"
#include "NamedSync-linux.h"

TARVIK_LOG_UNIT()

namespace tarvik::mutex_impl {

struct Handle {
    named_sync::Object* object;
};

namespace {

Handle* wrap(named_sync::Object* object) { return object ? new Handle{object} : nullptr; }

}  // namespace

Handle* create(char const* name) { return wrap(named_sync::open(name, named_sync::Kind::kMutex, true)); }

Handle* open(char const* name) {
    if (!name) {
        errno = EINVAL;
        return nullptr;
    }
    return wrap(named_sync::open(name, named_sync::Kind::kMutex, false));
}

void close(Handle* h) {
    if (!h) return;
    named_sync::close(h->object);
    delete h;
}

int lock(Handle* h, long ms) {
    int r = named_sync::lock(h->object, Deadline::in_ms(ms));
    if (r == 0) return 1;
    if (r == ETIMEDOUT) return 0;
    errno = r;
    return -1;
}

bool try_lock(Handle* h) { return named_sync::try_lock(h->object) == 0; }

void unlock(Handle* h) { named_sync::unlock(h->object); }

}  // namespace tarvik::mutex_impl
