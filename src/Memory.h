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

// Small blocks recycled per thread. Blocks of up to kSmallBlockLimit bytes come in size classes of 16
// bytes; each thread keeps up to kSmallBlocksPerClass freed blocks of every class and hands them out again
// before asking malloc. Short-lived records (strings, tuple values) are freed and made again at a high
// rate, and glibc's per-thread cache keeps only 7 blocks of a size: past that its frees go to shared bins
// that a later large allocation stops to merge. Every block is a malloc block, so a block may be freed by
// any thread, and by std::free as well as by release_small (the cache is just bypassed).
// REQUIRES: release_small gets the byte count given to allocate_small for that block (same class).
// A thread's cached blocks are freed when it ends; after that its small blocks go straight to malloc.
constexpr std::size_t kSmallBlockLimit = 256;
constexpr unsigned int kSmallBlocksPerClass = 32;
void* allocate_small(std::size_t bytes);
void* allocate_small_zeroed(std::size_t bytes);
void release_small(void* block, std::size_t bytes);

}  // namespace tarvik::memory
