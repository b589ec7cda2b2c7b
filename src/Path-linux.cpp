// Linux half of Path: stat() for the questions about files, $TMPDIR for the temporary directory.
#include "PathImpl.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>

#include "LogUnit.h"

TARVIK_LOG_UNIT()

namespace tarvik::path_impl {

Kind kind(char const* path) {
    struct stat st;
    if (::stat(path, &st) != 0) return Kind::none;
    if (S_ISREG(st.st_mode)) return Kind::file;
    if (S_ISDIR(st.st_mode)) return Kind::directory;
    return Kind::other;
}

std::int64_t size(char const* path) {
    struct stat st;
    if (::stat(path, &st) != 0) return -1;
    if (!S_ISREG(st.st_mode)) {
        errno = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
        return -1;
    }
    return static_cast<std::int64_t>(st.st_size);
}

bool modified(char const* path, TimeDate& out) {
    struct stat st;
    if (::stat(path, &st) != 0) return false;
    out = TimeDate(st.st_mtim);
    return true;
}

AString temp_directory() {
    char const* dir = std::getenv("TMPDIR");
    return dir && *dir ? AString(dir) : AString("/tmp");
}

}  // namespace tarvik::path_impl
