#include "tarvik/Event.h"

#include "Deadline.h"
#include "EventImpl.h"
#include "LogUnit.h"
#include "tarvik/System.h"

TARVIK_LOG_UNIT()

namespace tarvik {

namespace {

// No wait blocks for more than a second at a time.
constexpr int kSliceMs = 1000;

}  // namespace

Event::Event(bool create_now) {
    if (create_now) create(nullptr);
}

Event::Event(char const* name) { create(name); }

Event::~Event() { close_(); }

void Event::close_() {
    if (!handle_) return;
    if (tvk_log() > 1) {
        // An unnamed event is known by its address, printed as "CREATE EVENT %0" printed it.
        if (name_.is_empty()) {
            TVK_LOG(LEVEL_LOG, "DELETE EVENT %0") << static_cast<void const*>(this);
        } else {
            TVK_LOG(LEVEL_LOG, "DELETE EVENT %0") << name_;
        }
    }
    handle_.reset();
}

bool Event::create(char const* name) {
    close_();
    name_ = name ? name : "";
    handle_ = event_impl::create(name);
    if (!handle_) {
        TVK_LOG(LEVEL_ERR, "CANNOT CREATE EVENT %0 [%1]") << name_ << get_last_system_error_text();
        return false;
    }
    if (tvk_log() > 1) {
        if (name) {
            TVK_LOG(LEVEL_LOG, "CREATE NAMED EVENT %0: %1") << name_ << true;
        } else {
            TVK_LOG(LEVEL_LOG, "CREATE EVENT %0") << static_cast<void const*>(this);
        }
    }
    return true;
}

bool Event::signal() {
    if (!handle_) return false;
    if (tvk_log() > 1) TVK_LOG(LEVEL_LOG, "SIGNAL EVENT %0") << name_;
    return event_impl::set(handle_.get());
}

bool Event::reset() {
    if (!handle_) return false;
    if (tvk_log() > 1) TVK_LOG(LEVEL_LOG, "RESET EVENT %0") << name_;
    return event_impl::reset(handle_.get());
}

bool Event::wait(TimePeriod const& timeout) {
    if (!handle_) return false;
    // Whole milliseconds, rounded up so that a time-out shorter than one still waits.
    Deadline const deadline =
        timeout > TimePeriod() ? Deadline::in_ms((timeout.to_microseconds() + 999) / 1000) : Deadline::never();
    for (;;) {
        if (deadline.expired()) return false;
        int const left = deadline.ms_left();
        unsigned int const slice = left < 0 || left > kSliceMs ? kSliceMs : static_cast<unsigned int>(left);
        int r = event_impl::wait(handle_.get(), slice);
        if (r > 0) {
            if (tvk_log() > 1) TVK_LOG(LEVEL_LOG, "EVENT '%0' SIGNALED") << name_;
            return true;
        }
        if (r < 0) {
            TVK_LOG(LEVEL_ERR, "EVENT '%0' WAIT ERROR '%1'") << name_ << get_last_system_error_text();
            return false;
        }
    }
}

}  // namespace tarvik
