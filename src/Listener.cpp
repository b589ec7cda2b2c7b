// Listener: the neutral operations of a listener, and linking a callback to it.
#include "tarvik/Listener.h"

#include "LogUnit.h"
#include "tarvik/Tuple.h"

TARVIK_LOG_UNIT()

namespace tarvik {

Listener::Callback::~Callback() { detach(); }

void Listener::Callback::detach() {
    if (listener_) listener_->reset_callback();
}

Listener::~Listener() {
    // A listener going away leaves its callback unlinked, not pointing at freed memory. Only the base
    // operation can run here (the derived part is gone).
    Listener::reset_callback();
}

bool Listener::start() { return false; }
bool Listener::stop() { return false; }
bool Listener::is_ok() { return false; }
bool Listener::is_stopped() { return true; }

void Listener::set_callback(Callback& callback) {
    if (callback.listener_ && callback.listener_ != this) callback.listener_->reset_callback();
    if (callback_ && callback_ != &callback) callback_->listener_ = nullptr;
    callback.listener_ = this;
    callback_ = &callback;
    if (tvk_log() > 1) TVK_LOG(LEVEL_LOG, "SET CALLBACK %0 ON LISTENER %1") << static_cast<void const*>(&callback)
                                                                          << static_cast<void const*>(this);
}

void Listener::reset_callback() {
    if (!callback_) return;
    if (tvk_log() > 1) TVK_LOG(LEVEL_LOG, "RESET CALLBACK %0 ON LISTENER %1") << static_cast<void const*>(callback_)
                                                                            << static_cast<void const*>(this);
    callback_->listener_ = nullptr;
    callback_ = nullptr;
}

void Listener::set_param(Tuple const&) {}
Tuple& Listener::get_param(Tuple& param) { return param; }

}  // namespace tarvik
