// ThreadImpl.h: what a platform half of Thread and ThreadContext provides.
//
// A system thread is created suspended: it runs body(arg) only once resumed. Failures return null / false /
// -1 with the system error left for get_last_system_error_num().
#pragma once

namespace tarvik::thread_impl {

struct Handle;

Handle* create_suspended(void (*body)(void*), void* arg);
bool resume(Handle* h);
// Waits at most ms milliseconds for the thread's end: 1 ended, 0 time-out, -1 failure.
int wait_end(Handle* h, unsigned int ms);
bool has_ended(Handle* h);
// The system thread id (0 until the thread has started running).
unsigned long id(Handle* h);
// Gives the handle up: an ended thread is joined; a running one is left to finish on its own, and one
// never resumed ends without running its body.
void release(Handle* h);
void sleep_ms(unsigned int ms);

// Thread-local slots.
bool slot_alloc(unsigned long* key);
void slot_free(unsigned long key);
void* slot_get(unsigned long key);
bool slot_set(unsigned long key, void* value);

}  // namespace tarvik::thread_impl
