// Memory.h: the raw allocation every block of the library goes through.
//
// The library does not recover from an exhausted heap (its callers have nothing to fall back on either):
// a failed allocation ends the process with a message instead of returning null into code that would
// then dereference it.
#pragma once

#include <cstddef>

namespace tarvik::memory {

// malloc that never returns null.
void* allocate(std::size_t bytes);
// calloc that never returns null.
void* allocate_zeroed(std::size_t bytes);

}  // namespace tarvik::memory
