// Linux half of CriticalSection: a recursive pthread mutex kept in the section's own storage.
#include "CriticalSectionImpl.h"

#include <pthread.h>

#include <cstdlib>
#include <new>

#include "LogUnit.h"

TARVIK_LOG_UNIT()

namespace tarvik::critical_section_impl {

static_assert(sizeof(pthread_mutex_t) <= kStorageSize, "pthread_mutex_t does not fit the storage");
static_assert(alignof(pthread_mutex_t) <= 16, "pthread_mutex_t needs more alignment than the storage");

static pthread_mutex_t* mutex_of(void* storage) { return static_cast<pthread_mutex_t*>(storage); }

void init(void* storage) {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_t* m = new (storage) pthread_mutex_t;
    // A lock that cannot be made leaves nothing sane to fall back to; the library cannot run without it.
    if (pthread_mutex_init(m, &attr) != 0) std::abort();
    pthread_mutexattr_destroy(&attr);
}

void destroy(void* storage) { pthread_mutex_destroy(mutex_of(storage)); }

void enter(void* storage) { pthread_mutex_lock(mutex_of(storage)); }

void leave(void* storage) { pthread_mutex_unlock(mutex_of(storage)); }

bool try_enter(void* storage) { return pthread_mutex_trylock(mutex_of(storage)) == 0; }

}  // namespace tarvik::critical_section_impl
