// NamedSync-linux.h: synchronisation state that several processes share by name (Linux halves only).
//
// A named object is a small POSIX shared-memory object ("/tvk.<kind>.<name>") holding a process-shared,
// robust pthread mutex, a condition variable on the monotonic clock and a signalled flag. Every holder keeps
// a shared flock on it; the holder that closes last (its exclusive flock succeeds) removes the name, so the
// object lives until its last handle closes, as a named kernel object does. An unnamed object is the same
// state in this process's memory.
#pragma once

#include <pthread.h>

#include <atomic>
#include <memory>

#include "Deadline.h"

namespace tarvik::named_sync {

struct Shared {
    std::atomic<int> ready;  // 1 once the creator has initialised the rest
    int signaled;
    pthread_mutex_t mutex;
    pthread_cond_t cond;
};

enum class Kind { kEvent, kMutex };

// An open object: closing it (its destructor) unmaps it, and the last holder of a name removes the name.
struct Object {
    Object() = default;
    ~Object();
    Object(Object const&) = delete;
    Object& operator=(Object const&) = delete;

    Shared* shared = nullptr;  // null until open; own_shared or the mapping
    std::unique_ptr<Shared> own_shared;  // the state of an unnamed object
    int fd = -1;        // -1 for an unnamed object
    char path[256] = {};
};
using ObjectPtr = std::unique_ptr<Object>;

// The shared-memory object name "/tvk.<kind>.<name>" for `name`, each '/' in it turned to '_'. False with
// errno ENAMETOOLONG when it does not fit.
bool make_path(char const* kind, char const* name, char (&path)[256]);

// Creates the object (unnamed when name is null); a named one is opened when it exists, or only opened
// when `create` is false. Null on failure, with errno set.
ObjectPtr open(char const* name, Kind kind, bool create);
// Locks the object's mutex, waiting at most until the deadline; a lock abandoned by a dead owner is taken
// over. 0 when locked, else the error number (ETIMEDOUT on time-out).
int lock(Object* object, Deadline const& deadline);
int try_lock(Object* object);
void unlock(Object* object);
// The deadline as an absolute time of CLOCK_MONOTONIC (the clock of Deadline and of the objects'
// condition variables), for the pthread calls that wait until a given time. Not for a deadline that never
// expires.
struct timespec monotonic_time(Deadline const& deadline);

}  // namespace tarvik::named_sync
