// Linux half of SharedMemory: POSIX shared memory ("/tvk.shm.<name>"). Every holder keeps a shared flock
// on the object; the holder that closes last (its exclusive flock succeeds) removes the name, so the area
// lives until its last handle closes.
#include "SharedMemoryImpl.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "LogUnit.h"

TARVIK_LOG_UNIT()

namespace tarvik::shared_memory_impl {

struct Handle {
    int fd;
    char path[256];
};

namespace {

bool make_path(char const* name, char (&path)[256]) {
    int n = std::snprintf(path, sizeof path, "/tvk.shm.");
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

}  // namespace

Handle* open(char const* name, unsigned int size, bool* created) {
    *created = false;
    auto* h = new Handle;
    if (!name || !*name || !make_path(name, h->path)) {
        if (name && !*name) errno = EINVAL;
        delete h;
        return nullptr;
    }
    h->fd = ::shm_open(h->path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (h->fd >= 0) {
        ::fchmod(h->fd, 0666);
        if (::ftruncate(h->fd, size) != 0) {
            int e = errno;
            ::close(h->fd);
            ::shm_unlink(h->path);
            delete h;
            errno = e;
            return nullptr;
        }
        *created = true;
    } else if (errno == EEXIST) {
        h->fd = ::shm_open(h->path, O_RDWR | O_CLOEXEC, 0666);
    }
    if (h->fd < 0) {
        int e = errno;
        delete h;
        errno = e;
        return nullptr;
    }
    ::flock(h->fd, LOCK_SH);
    return h;
}

void* map(Handle* h, unsigned int size) {
    // A creator in another process may not have sized the area yet: wait for it briefly.
    struct stat st {};
    for (int i = 0; i < 1000 && ::fstat(h->fd, &st) == 0 && st.st_size == 0 && size > 0; ++i) ::usleep(1000);
    if (static_cast<unsigned long long>(st.st_size) < size) {
        errno = EINVAL;  // mapping beyond the area's end would fault on access
        return nullptr;
    }
    void* view = ::mmap(nullptr, size ? size : 1, PROT_READ | PROT_WRITE, MAP_SHARED, h->fd, 0);
    return view == MAP_FAILED ? nullptr : view;
}

bool unmap(void* view, unsigned int size) { return ::munmap(view, size ? size : 1) == 0; }

void close(Handle* h) {
    if (!h) return;
    if (::flock(h->fd, LOCK_EX | LOCK_NB) == 0) ::shm_unlink(h->path);
    ::close(h->fd);
    delete h;
}

}  // namespace tarvik::shared_memory_impl
