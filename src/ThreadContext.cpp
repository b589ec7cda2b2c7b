#include "tarvik/Thread.h"

#include "LogUnit.h"
#include "ThreadImpl.h"

TARVIK_LOG_UNIT()

namespace tarvik {

ThreadContext::ThreadContext() : valid_(thread_impl::slot_alloc(&key_)) {}

ThreadContext::~ThreadContext() {
    if (valid_) thread_impl::slot_free(key_);
}

void* ThreadContext::get_value() const { return valid_ ? thread_impl::slot_get(key_) : nullptr; }

void ThreadContext::set_value(void* value) {
    if (valid_) thread_impl::slot_set(key_, value);
}

}  // namespace tarvik
