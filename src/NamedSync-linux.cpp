// Linux: process-shared synchronisation objects in POSIX shared memory (see NamedSync-linux.h).
#include "NamedSync-linux.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <new>

#include "LogUnit.h"
#include "Memory.h"

TARVIK_LOG_UNIT()

namespace tarvik::named_sync {

namespace {

void init_state(Shared* s, Kind kind, bool process_shared) {
    pthread_mutexattr_t ma;
    pthread_mutexattr_init(&ma);
    if (process_shared) {
        pthread_mutexattr_setpshared(&ma, PTHREAD_PROCESS_SHARED);
        pthread_mutexattr_setrobust(&ma, PTHREAD_MUTEX_ROBUST);
    }
    if (kind == Kind::kMutex) pthread_mutexattr_settype(&ma, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&s->mutex, &ma);
    pthread_mutexattr_destroy(&ma);
    pthread_condattr_t ca;
    pthread_condattr_init(&ca);
    if (process_shared) pthread_condattr_setpshared(&ca, PTHREAD_PROCESS_SHARED);
    pthread_condattr_setclock(&ca, CLOCK_MONOTONIC);
    pthread_cond_init(&s->cond, &ca);
    pthread_condattr_destroy(&ca);
    s->signaled = 0;
    s->ready.store(1, std::memory_order_release);
}

// How long an opener waits for the creator in another process to size and initialise the object.
constexpr int kInitWaitMs = 1000;

// Waits (briefly) until a freshly created object has its size.
bool wait_initialised(int fd) {
    Deadline const deadline = Deadline::in_ms(kInitWaitMs);
    for (;;) {
        struct stat st;
        if (::fstat(fd, &st) == 0 && st.st_size >= static_cast<off_t>(sizeof(Shared))) return true;
        if (deadline.expired()) break;
        ::usleep(1000);
    }
    errno = ETIMEDOUT;
    return false;
}

// Gives up an open (the caller frees the object, not open yet): closes fd (when open), removes the name
// when this open created it, and keeps errno as the failure left it.
ObjectPtr fail_open(Object const* object, int fd, bool created) {
    int e = errno;
    if (fd >= 0) ::close(fd);
    if (created) ::shm_unlink(object->path);
    errno = e;
    return nullptr;
}

}  // namespace

bool make_path(char const* kind, char const* name, char (&path)[256]) {
    int n = std::snprintf(path, sizeof path, "/tvk.%s.", kind);
    for (char const* p = name; *p; ++p) {
        if (n >= static_cast<int>(sizeof path) - 1) {
            errno = ENAMETOOLONG;
            return false;
        }
        path[n++] = *p == '/' ? '_' : *p;
    }
    path[n] = '\0';
    return true;
}

ObjectPtr open(char const* name, Kind kind, bool create) {
    ObjectPtr object = memory::make_unique<Object>();
    if (!name) {
        object->own_shared = memory::make_unique<Shared>();
        object->shared = object->own_shared.get();
        init_state(object->shared, kind, false);
        return object;
    }
    if (!make_path(kind == Kind::kEvent ? "ev" : "mx", name, object->path)) return nullptr;
    // A last holder that is closing removes the name while holding its exclusive lock; one that opened the
    // name just before that gets its shared lock only once the object is unlinked. Such an orphan is left
    // and the name opened (or created) again, so that every holder of a name shares one object.
    for (int attempt = 0;; ++attempt) {
        bool created = false;
        int fd = create ? ::shm_open(object->path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666) : -1;
        if (fd >= 0) {
            created = true;
            ::fchmod(fd, 0666);  // any process of the machine may open it, whatever the umask
            if (::ftruncate(fd, sizeof(Shared)) != 0) return fail_open(object.get(), fd, true);
        } else if (!create || errno == EEXIST) {
            fd = ::shm_open(object->path, O_RDWR | O_CLOEXEC, 0666);
            if (fd < 0 && errno == ENOENT && create && attempt < 100) continue;  // its last holder just went
        }
        if (fd < 0 || (!created && !wait_initialised(fd))) return fail_open(object.get(), fd, false);
        ::flock(fd, LOCK_SH);  // one more holder
        struct stat st;
        if (::fstat(fd, &st) == 0 && st.st_nlink == 0 && attempt < 100) {
            ::close(fd);  // unlinked meanwhile by its last holder
            continue;
        }
        void* view = ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (view == MAP_FAILED) return fail_open(object.get(), fd, created);
        object->fd = fd;
        object->shared = static_cast<Shared*>(view);
        if (created) {
            init_state(object->shared, kind, true);
        } else {
            Deadline const deadline = Deadline::in_ms(kInitWaitMs);
            while (object->shared->ready.load(std::memory_order_acquire) != 1 && !deadline.expired()) ::usleep(1000);
        }
        return object;
    }
}

Object::~Object() {
    if (!shared) return;  // an open that failed: it cleaned up after itself
    if (fd < 0) {
        pthread_cond_destroy(&shared->cond);
        pthread_mutex_destroy(&shared->mutex);
    } else {
        ::munmap(shared, sizeof(Shared));
        // The last holder can take the lock exclusively: it removes the name.
        if (::flock(fd, LOCK_EX | LOCK_NB) == 0) ::shm_unlink(path);
        ::close(fd);
    }
}

int lock(Object* object, Deadline const& deadline) {
    int r;
    if (deadline.is_never()) {
        r = pthread_mutex_lock(&object->shared->mutex);
    } else {
        // pthread_mutex_timedlock waits on the wall clock, so it is given short slices (thread sanitizers
        // do not know pthread_mutex_clocklock, and a lock taken there looks unlocked to them); the
        // monotonic deadline decides when to give up, so a change of the wall clock moves one slice at most.
        do {
            long const slice_ms = std::min(deadline.ms_left(), 100);
            struct timespec until {};
            ::clock_gettime(CLOCK_REALTIME, &until);
            until.tv_sec += slice_ms / 1000;
            until.tv_nsec += (slice_ms % 1000) * 1000000L;
            if (until.tv_nsec >= 1000000000L) {
                ++until.tv_sec;
                until.tv_nsec -= 1000000000L;
            }
            r = pthread_mutex_timedlock(&object->shared->mutex, &until);
        } while (r == ETIMEDOUT && !deadline.expired());
    }
    if (r == EOWNERDEAD) {  // its owner died holding it: the state is ours to take over
        pthread_mutex_consistent(&object->shared->mutex);
        r = 0;
    }
    return r;
}

int try_lock(Object* object) {
    int r = pthread_mutex_trylock(&object->shared->mutex);
    if (r == EOWNERDEAD) {
        pthread_mutex_consistent(&object->shared->mutex);
        r = 0;
    }
    return r;
}

void unlock(Object* object) { pthread_mutex_unlock(&object->shared->mutex); }

struct timespec monotonic_time(Deadline const& deadline) {
    // The steady clock of the C++ library on Linux is CLOCK_MONOTONIC, counted from the same origin.
    auto const since = deadline.when().time_since_epoch();
    auto const seconds = std::chrono::duration_cast<std::chrono::seconds>(since);
    struct timespec t;
    t.tv_sec = static_cast<time_t>(seconds.count());
    t.tv_nsec = static_cast<long>(std::chrono::duration_cast<std::chrono::nanoseconds>(since - seconds).count());
    return t;
}

}  // namespace tarvik::named_sync
