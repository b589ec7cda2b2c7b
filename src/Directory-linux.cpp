// Linux half of Directory: mkdir/rmdir, a tree walk through descriptors (openat, unlinkat) that never
// follows a symbolic link, readdir for listings, and inotify for change notification, with an eventfd
// beside it so that another thread can wake a waiting poll.
#include "DirectoryImpl.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "Deadline.h"
#include "LogUnit.h"
#include "Memory.h"

TARVIK_LOG_UNIT()

namespace tarvik::directory_impl {

namespace {

// Keeps errno across a cleanup call.
template <class F>
void preserving_errno(F cleanup) {
    int e = errno;
    cleanup();
    errno = e;
}

bool is_dot_or_dot_dot(char const* name) {
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

AString child_path(AString const& dir, char const* name) {
    if (!dir.is_empty() && dir[dir.length() - 1] == '/') return dir + name;
    return dir + "/" + name;
}

struct TreeEntry {
    std::string name;
    bool is_directory;
};

// The entries of the directory open on `fd`, links not followed. The names are read before anything is
// removed, so that removing never disturbs the reading. Takes over `fd`.
bool read_tree_level(int fd, std::vector<TreeEntry>& out) {
    DIR* dir = ::fdopendir(fd);
    if (!dir) {
        preserving_errno([fd] { ::close(fd); });
        return false;
    }
    errno = 0;
    while (dirent* e = ::readdir(dir)) {
        if (!is_dot_or_dot_dot(e->d_name)) {
            bool is_directory = e->d_type == DT_DIR;
            if (e->d_type == DT_UNKNOWN) {
                struct stat st;
                is_directory = ::fstatat(fd, e->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode);
            }
            out.push_back({e->d_name, is_directory});
        }
        errno = 0;
    }
    bool ok = errno == 0;
    preserving_errno([dir] { ::closedir(dir); });
    return ok;
}

// Removes everything inside the directory `path`, whose parent is open on `parent_fd` under `name`.
bool empty_tree(int parent_fd, char const* name, AString const& path, AString& failed) {
    int fd = ::openat(parent_fd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        failed = path;
        return false;
    }
    // A second descriptor for unlinkat, since read_tree_level hands `fd` to the directory stream it closes.
    int keep = ::dup(fd);
    std::vector<TreeEntry> entries;
    if (keep < 0 || !read_tree_level(fd, entries)) {
        if (keep < 0) preserving_errno([fd] { ::close(fd); });
        if (keep >= 0) preserving_errno([keep] { ::close(keep); });
        failed = path;
        return false;
    }
    bool ok = true;
    for (TreeEntry const& entry : entries) {
        char const* child = entry.name.c_str();
        if (entry.is_directory && !empty_tree(keep, child, child_path(path, child), failed)) {
            ok = false;
            break;
        }
        if (::unlinkat(keep, child, entry.is_directory ? AT_REMOVEDIR : 0) != 0 && errno != ENOENT) {
            failed = child_path(path, child);
            ok = false;
            break;
        }
    }
    preserving_errno([keep] { ::close(keep); });
    return ok;
}

}  // namespace

bool make(char const* path) {
    if (::mkdir(path, 0777) == 0) return true;
    if (errno != EEXIST) return false;
    struct stat st;
    if (::stat(path, &st) == 0 && S_ISDIR(st.st_mode)) return true;
    errno = EEXIST;
    return false;
}

bool remove_empty(char const* path) { return ::rmdir(path) == 0; }

bool remove_tree(char const* path, AString& failed) {
    struct stat st;
    if (::lstat(path, &st) != 0) {
        if (errno == ENOENT) return true;
        failed = path;
        return false;
    }
    if (!S_ISDIR(st.st_mode)) {
        failed = path;
        errno = ENOTDIR;
        return false;
    }
    if (!empty_tree(AT_FDCWD, path, AString(path), failed)) return false;
    if (::rmdir(path) != 0 && errno != ENOENT) {
        failed = path;
        return false;
    }
    return true;
}

bool read_entries(char const* path, Array<Directory::Entry>& out) {
    DIR* dir = ::opendir(path);
    if (!dir) return false;
    int fd = ::dirfd(dir);
    errno = 0;
    while (dirent* e = ::readdir(dir)) {
        if (!is_dot_or_dot_dot(e->d_name)) {
            Directory::EntryKind kind = Directory::EntryKind::other;
            if (e->d_type == DT_REG) {
                kind = Directory::EntryKind::file;
            } else if (e->d_type == DT_DIR) {
                kind = Directory::EntryKind::directory;
            } else if (e->d_type == DT_LNK || e->d_type == DT_UNKNOWN) {
                struct stat st;
                if (::fstatat(fd, e->d_name, &st, 0) == 0) {
                    if (S_ISREG(st.st_mode)) kind = Directory::EntryKind::file;
                    if (S_ISDIR(st.st_mode)) kind = Directory::EntryKind::directory;
                }
            }
            Directory::Entry& entry = out.emplace_back();
            entry.name = e->d_name;
            entry.kind = kind;
        }
        errno = 0;
    }
    bool ok = errno == 0;
    preserving_errno([dir] { ::closedir(dir); });
    return ok;
}

struct Watch {
    int inotify = -1;
    int wake = -1;
    // The watched directory was removed or moved away: nothing more is reported.
    bool ended = false;

    ~Watch() {
        if (inotify >= 0) ::close(inotify);
        if (wake >= 0) ::close(wake);
    }
};

// Watch is complete only in this half, so the deleter of its unique_ptr is defined here.
void CloseWatch::operator()(Watch* watch) const { std::default_delete<Watch>()(watch); }

namespace {

constexpr std::uint32_t kWatchMask = IN_CREATE | IN_MOVED_TO | IN_CLOSE_WRITE | IN_DELETE | IN_MOVED_FROM |
                                     IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_EXCL_UNLINK;
constexpr std::uint32_t kWatchEnded = IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED | IN_UNMOUNT;
// Reads per wait: a directory that changes without pause still lets the caller have its batch.
constexpr int kMaxReads = 16;

void drain_wake(int fd) {
    std::uint64_t count;
    while (::read(fd, &count, sizeof count) < 0 && errno == EINTR) {
    }
}

// Appends the changes of the bytes read from the inotify descriptor; returns how many.
long parse_events(Watch* watch, char const* bytes, std::size_t n, Array<Directory::Change>& out) {
    long count = 0;
    std::size_t at = 0;
    while (at + sizeof(inotify_event) <= n) {
        inotify_event ev;
        std::memcpy(&ev, bytes + at, sizeof ev);
        std::size_t const total = sizeof ev + ev.len;
        if (total > n - at) break;
        char const* name = bytes + at + sizeof ev;
        std::size_t const name_length = ::strnlen(name, ev.len);
        at += total;
        if (watch->ended) continue;
        Directory::ChangeKind kind;
        if (ev.mask & IN_Q_OVERFLOW) {
            kind = Directory::ChangeKind::overflow;
        } else if (ev.mask & kWatchEnded) {
            watch->ended = true;
            continue;
        } else if (ev.mask & (IN_CREATE | IN_MOVED_TO)) {
            kind = Directory::ChangeKind::created;
        } else if (ev.mask & IN_CLOSE_WRITE) {
            kind = Directory::ChangeKind::changed;
        } else if (ev.mask & (IN_DELETE | IN_MOVED_FROM)) {
            kind = Directory::ChangeKind::removed;
        } else {
            continue;
        }
        Directory::Change& change = out.emplace_back();
        change.kind = kind;
        if (kind != Directory::ChangeKind::overflow)
            change.name.assign(name, static_cast<unsigned int>(name_length));
        change.is_directory = (ev.mask & IN_ISDIR) != 0;
        ++count;
    }
    return count;
}

}  // namespace

WatchPtr open_watch(char const* path) {
    int fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd < 0) return nullptr;
    if (::inotify_add_watch(fd, path, kWatchMask) < 0) {
        preserving_errno([fd] { ::close(fd); });
        return nullptr;
    }
    int wake = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wake < 0) {
        preserving_errno([fd] { ::close(fd); });
        return nullptr;
    }
    WatchPtr watch(memory::create<Watch>());
    watch->inotify = fd;
    watch->wake = wake;
    return watch;
}

long wait_changes(Watch* watch, long long timeout_ms, Array<Directory::Change>& out, bool& ended) {
    ended = watch->ended;
    if (ended) return 0;
    Deadline const deadline = Deadline::in_ms(timeout_ms);  // 0: only looks; negative: never
    pollfd fds[2] = {{watch->inotify, POLLIN, 0}, {watch->wake, POLLIN, 0}};
    for (;;) {
        int r = ::poll(fds, 2, deadline.ms_left());
        if (r >= 0) break;
        if (errno != EINTR) return -1;
    }
    if (fds[1].revents & POLLIN) drain_wake(watch->wake);

    alignas(inotify_event) char bytes[16 * 1024];
    long count = 0;
    for (int reads = 0; reads < kMaxReads; ++reads) {
        ssize_t n = ::read(watch->inotify, bytes, sizeof bytes);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno == EAGAIN) break;
        if (n < 0) return count > 0 ? count : -1;
        if (n == 0) break;
        count += parse_events(watch, bytes, static_cast<std::size_t>(n), out);
    }
    ended = watch->ended;
    return count;
}

void wake(Watch* watch) {
    std::uint64_t one = 1;
    while (::write(watch->wake, &one, sizeof one) < 0 && errno == EINTR) {
    }
}

}  // namespace tarvik::directory_impl
