#include "tarvik/Mutex.h"

#include "LogUnit.h"
#include "MutexImpl.h"
#include "tarvik/System.h"

TARVIK_LOG_UNIT()

namespace tarvik {

Mutex::Mutex() { create(nullptr); }

Mutex::Mutex(char const* name, bool create_now) {
    if (create_now) create(name);
}

Mutex::~Mutex() { close_(); }

void Mutex::close_() { handle_.reset(); }

bool Mutex::create(char const* name) {
    close_();
    handle_ = mutex_impl::create(name);
    if (!handle_) TVK_LOG(LEVEL_ERR, "CANNOT CREATE MUTEX %0 [%1]") << (name ? name : "") << get_last_system_error_text();
    return handle_ != nullptr;
}

bool Mutex::open(char const* name) {
    close_();
    handle_ = mutex_impl::open(name);
    if (!handle_ && tvk_log() > 1)
        TVK_LOG(LEVEL_LOG, "CANNOT OPEN MUTEX %0 [%1]") << (name ? name : "") << get_last_system_error_text();
    return handle_ != nullptr;
}

bool Mutex::lock() { return handle_ && mutex_impl::lock(handle_.get(), -1) > 0; }

bool Mutex::lock(TimePeriod const& timeout) {
    if (!handle_) return false;
    std::int64_t ms = timeout.to_milliseconds();
    return mutex_impl::lock(handle_.get(), ms < 0 ? 0 : static_cast<long>(ms)) > 0;
}

bool Mutex::try_lock() { return handle_ && mutex_impl::try_lock(handle_.get()); }

void Mutex::unlock() {
    if (handle_) mutex_impl::unlock(handle_.get());
}

}  // namespace tarvik
