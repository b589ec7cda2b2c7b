// CriticalSectionImpl.h: what a platform half of CriticalSection provides.
//
// `storage` is the CriticalSection's own 64-byte, 16-aligned block; the half keeps its lock object there.
// The lock must be recursive for the thread that holds it.
#pragma once

namespace tarvik::critical_section_impl {

inline constexpr unsigned kStorageSize = 64;

void init(void* storage);       // the lock exists, not held
void destroy(void* storage);    // REQUIRES: not held
void enter(void* storage);      // blocks; recursive for the holder
void leave(void* storage);      // REQUIRES: held by the calling thread
bool try_enter(void* storage);  // never blocks

}  // namespace tarvik::critical_section_impl
