// FileLock.h: an exclusive lock held on a file by one holder at a time.
//
// lock() opens the file (creating it when missing) for this holder alone and locks its first 10 bytes.
// While one FileLock holds a file, every other FileLock on it, in this process or another, is refused at
// once: by lock(), and by wait_lock() too, since the exclusive open fails before any wait (wait_lock() only
// waits when the range is locked through an open that this rule lets through). A refused open returns false
// without a record; a failed range lock logs "FAIL TO LOCK FILE %0 " (trailing blank included) at ERR and
// keeps the file open until unlock(). Locking again releases the held lock first. The file is not deleted.
//
// On Linux the exclusive open is an flock taken with the open; it binds the library's FileLocks (and
// other flock users), not programs that merely read or write the file.
//
// Thread safety: one object is used by one thread at a time.
#pragma once

#include "tarvik/Path.h"
#include "tarvik/Types.h"

namespace tarvik {

class TARVIK_EXPORT FileLock : public Path {
public:
    FileLock() = default;
    explicit FileLock(char const* path) : Path(path) {}
    FileLock& operator=(char const* path) {
        Path::operator=(path);
        return *this;
    }
    // unlock().
    ~FileLock();
    FileLock(FileLock const&) = delete;
    FileLock& operator=(FileLock const&) = delete;

    bool lock();
    bool wait_lock();
    // Releases the lock ("FAIL TO UNLOCK FILE %0 " at ERR when the release fails) and closes the file.
    void unlock();
    bool is_locked() const { return handle_ != -1; }

private:
    bool take_(bool wait);
    long long handle_ = -1;
};

}  // namespace tarvik
