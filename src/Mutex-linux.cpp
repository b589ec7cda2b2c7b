// Linux half of Mutex: a recursive, robust pthread mutex, shared between processes by name through
// NamedSync.
#include "MutexImpl.h"

#include <cerrno>

#include "LogUnit.h"
#include "Memory.h"
#include "NamedSync-linux.h"

TARVIK_LOG_UNIT()

namespace tarvik::mutex_impl {

struct Handle {
    named_sync::ObjectPtr object;
};

// Handle is complete only in this half, so the deleter of its unique_ptr is defined here.
void CloseHandle::operator()(Handle* h) const { std::default_delete<Handle>()(h); }

namespace {

HandlePtr wrap(named_sync::ObjectPtr object) {
    return HandlePtr(object ? memory::create<Handle>(std::move(object)) : nullptr);
}

}  // namespace

HandlePtr create(char const* name) { return wrap(named_sync::open(name, named_sync::Kind::kMutex, true)); }

HandlePtr open(char const* name) {
    if (!name) {
        errno = EINVAL;
        return nullptr;
    }
    return wrap(named_sync::open(name, named_sync::Kind::kMutex, false));
}

int lock(Handle* h, long ms) {
    int r = named_sync::lock(h->object.get(), Deadline::in_ms(ms));
    if (r == 0) return 1;
    if (r == ETIMEDOUT) return 0;
    errno = r;
    return -1;
}

bool try_lock(Handle* h) { return named_sync::try_lock(h->object.get()) == 0; }

void unlock(Handle* h) { named_sync::unlock(h->object.get()); }

}  // namespace tarvik::mutex_impl
