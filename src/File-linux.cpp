// Linux half of the file calls: POSIX descriptors.
//
// Windows' sharing modes have no POSIX counterpart: an exclusive open is an ordinary open here (the one
// place that needs exclusivity, FileLock, adds its own). Interrupted calls are restarted.
#include "FileImpl.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "LogUnit.h"

TARVIK_LOG_UNIT()

namespace tarvik::file_impl {

Handle open_read(char const* path) {
    int fd;
    do {
        fd = ::open(path, O_RDONLY | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) return kInvalidHandle;
    // POSIX lets a directory be opened for reading; it is not a file whose bytes can be read, so it is
    // refused here as on Windows, and the caller reports that it cannot open it.
    struct stat st;
    if (::fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) {
        ::close(fd);
        errno = EISDIR;
        return kInvalidHandle;
    }
    return fd;
}

Handle create_write(char const* path, bool append) {
    int flags = O_WRONLY | O_CREAT | O_CLOEXEC | (append ? O_APPEND : O_TRUNC);
    int fd;
    do {
        fd = ::open(path, flags, 0666);
    } while (fd < 0 && errno == EINTR);
    return fd < 0 ? kInvalidHandle : fd;
}

Handle standard(int which) { return which >= 0 && which <= 2 ? which : kInvalidHandle; }

bool is_standard(Handle h) { return h >= 0 && h <= 2; }

bool standard_output_uses_crlf() { return false; }

bool is_terminal(Handle h) { return h >= 0 && ::isatty(static_cast<int>(h)) == 1; }

long read(Handle h, void* dest, unsigned int n) {
    ssize_t r;
    do {
        r = ::read(static_cast<int>(h), dest, n);
    } while (r < 0 && errno == EINTR);
    return static_cast<long>(r);
}

long write(Handle h, void const* src, unsigned int n) {
    ssize_t r;
    do {
        r = ::write(static_cast<int>(h), src, n);
    } while (r < 0 && errno == EINTR);
    return static_cast<long>(r);
}

bool size(Handle h, unsigned long long* out) {
    struct stat st;
    if (::fstat(static_cast<int>(h), &st) != 0) return false;
    *out = static_cast<unsigned long long>(st.st_size);
    return true;
}

void close(Handle h) {
    if (h >= 0 && !is_standard(h)) ::close(static_cast<int>(h));
}

}  // namespace tarvik::file_impl
