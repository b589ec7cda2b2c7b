// Linux half of SharedMemory: POSIX shared memory ("/tvk.shm.<name>"). Every holder keeps a shared flock
// on the object; the holder that closes last (its exclusive flock succeeds) removes the name, so the area
// lives until its last handle closes. An opener can race with that last close: it may open the object just
// before its name is removed, or find the name gone between seeing it exist and opening it. So once it
// holds its shared lock (from then on no close can remove the name) it checks that the name still refers
// to the object it opened, and starts over when not.
#include "SharedMemoryImpl.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "Deadline.h"
#include "LogUnit.h"
#include "Memory.h"
#include "NamedSync-linux.h"

TARVIK_LOG_UNIT()

namespace tarvik::shared_memory_impl {

struct Handle {
    int fd = -1;
    char path[256];
};

void CloseHandle::operator()(Handle* h) const {
    // Only the last holder gets the exclusive lock. A refused conversion drops the shared lock it had, so of
    // two holders closing together the later one succeeds, and the name never outlives all its holders.
    if (::flock(h->fd, LOCK_EX | LOCK_NB) == 0) ::shm_unlink(h->path);
    ::close(h->fd);
    std::default_delete<Handle>()(h);  // Handle is complete only in this half
}

namespace {

// Whether `path` still names the object open on `fd`.
bool names(char const* path, int fd) {
    int other = ::shm_open(path, O_RDONLY | O_CLOEXEC, 0);
    if (other < 0) return false;
    struct stat mine {};
    struct stat named {};
    bool same = ::fstat(fd, &mine) == 0 && ::fstat(other, &named) == 0 && mine.st_dev == named.st_dev &&
                mine.st_ino == named.st_ino;
    ::close(other);
    return same;
}

int lock_shared(int fd) {
    int r;
    do {
        r = ::flock(fd, LOCK_SH);
    } while (r != 0 && errno == EINTR);
    return r;
}

constexpr int kOpenAttempts = 1000;
// How long a mapping waits for a creator in another process to size the area.
constexpr int kSizeWaitMs = 1000;

}  // namespace

HandlePtr open(char const* name, unsigned int size, bool* created) {
    *created = false;
    // A failed open only frees the handle; its descriptor is closed by hand (the name must not go with it).
    std::unique_ptr<Handle> h = memory::make_unique<Handle>();
    if (!name || !*name || !named_sync::make_path("shm", name, h->path)) {
        if (name && !*name) errno = EINVAL;
        return nullptr;
    }
    for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
        bool made = true;
        h->fd = ::shm_open(h->path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (h->fd < 0 && errno == EEXIST) {
            made = false;
            h->fd = ::shm_open(h->path, O_RDWR | O_CLOEXEC, 0666);
            if (h->fd < 0 && errno == ENOENT) continue;  // its last holder removed it meanwhile
        }
        if (h->fd < 0) break;
        if (made) {
            ::fchmod(h->fd, 0666);
            if (::ftruncate(h->fd, size) != 0) {
                int e = errno;
                ::close(h->fd);
                ::shm_unlink(h->path);
                errno = e;
                return nullptr;
            }
        }
        if (lock_shared(h->fd) != 0) break;
        if (names(h->path, h->fd)) {
            *created = made;
            return HandlePtr(h.release());
        }
        ::close(h->fd);  // removed by a closing holder before this one took its lock: start over
        h->fd = -1;
        errno = ENOENT;
    }
    int e = errno;
    if (h->fd >= 0) ::close(h->fd);
    errno = e;
    return nullptr;
}

void* map(Handle* h, unsigned int size) {
    // A creator in another process may not have sized the area yet: wait for it briefly.
    struct stat st {};
    Deadline const deadline = Deadline::in_ms(kSizeWaitMs);
    while (::fstat(h->fd, &st) == 0 && st.st_size == 0 && size > 0 && !deadline.expired()) ::usleep(1000);
    // An existing area is opened whatever size it was made with, and the requested length is mapped: a
    // smaller area grows to it (zero-filled) so that no byte of the view lies past the area's end.
    // posix_fallocate only ever extends, so holders growing it at once never shrink it under another.
    if (static_cast<unsigned long long>(st.st_size) < size) {
        int e = ::posix_fallocate(h->fd, 0, size);
        if (e != 0) {
            errno = e;
            return nullptr;
        }
    }
    void* view = ::mmap(nullptr, size ? size : 1, PROT_READ | PROT_WRITE, MAP_SHARED, h->fd, 0);
    return view == MAP_FAILED ? nullptr : view;
}

bool unmap(void* view, unsigned int size) { return ::munmap(view, size ? size : 1) == 0; }

}  // namespace tarvik::shared_memory_impl
