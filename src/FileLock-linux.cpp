// Linux half of FileLock: the exclusive open is an flock(LOCK_EX | LOCK_NB) taken right after opening (it
// belongs to the open file description, so a second open in this process is refused too), and the range
// lock an open-file-description lock over the first 10 bytes.
#include "FileLockImpl.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

#include "LogUnit.h"

TARVIK_LOG_UNIT()

namespace tarvik::file_lock_impl {

long long open_exclusive(char const* path) {
    int fd;
    do {
        fd = ::open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) return -1;
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        int e = errno;
        ::close(fd);
        errno = e;
        return -1;
    }
    return fd;
}

namespace {

bool range(long long handle, short type, int command) {
    struct flock fl {};
    fl.l_type = type;
    fl.l_whence = SEEK_SET;
    fl.l_start = 0;
    fl.l_len = 10;
    int r;
    do {
        r = ::fcntl(static_cast<int>(handle), command, &fl);
    } while (r != 0 && errno == EINTR);
    return r == 0;
}

}  // namespace

bool lock_range(long long handle, bool wait) { return range(handle, F_WRLCK, wait ? F_OFD_SETLKW : F_OFD_SETLK); }

bool unlock_range(long long handle) { return range(handle, F_UNLCK, F_OFD_SETLK); }

void close(long long handle) { ::close(static_cast<int>(handle)); }

}  // namespace tarvik::file_lock_impl
