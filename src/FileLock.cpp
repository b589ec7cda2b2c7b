#include "tarvik/FileLock.h"

#include "FileLockImpl.h"
#include "LogUnit.h"

TARVIK_LOG_UNIT()

namespace tarvik {

FileLock::~FileLock() { unlock(); }

bool FileLock::take_(bool wait) {
    unlock();
    handle_ = file_lock_impl::open_exclusive(c_str());
    if (handle_ == -1) return false;  // another holder has the file: refused without a record
    if (!file_lock_impl::lock_range(handle_, wait)) {
        TVK_LOG(LEVEL_ERR, "FAIL TO LOCK FILE %0 ") << get_text();
        return false;
    }
    return true;
}

bool FileLock::lock() { return take_(false); }

bool FileLock::wait_lock() { return take_(true); }

void FileLock::unlock() {
    if (handle_ == -1) return;
    if (!file_lock_impl::unlock_range(handle_)) TVK_LOG(LEVEL_ERR, "FAIL TO UNLOCK FILE %0 ") << get_text();
    file_lock_impl::close(handle_);
    handle_ = -1;
}

}  // namespace tarvik
