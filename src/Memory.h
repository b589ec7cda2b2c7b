// Memory.h: the raw allocation every block of the library goes through, and the one policy for a failed
// allocation, which every allocation of the library follows:
//
// 1. A size the library chose itself (a node, a handle, a page of a size it fixed, a string or array grown
//    by its caller's data already in memory) is not checked: its failure is fatal. It ends the process
//    through out_of_memory(), which writes the size to stderr and a FATAL record ("OUT OF MEMORY %0
//    BYTES"), then aborts, rather than returning null into code that would dereference it. The library's
//    callers have nothing to fall back on either. Such allocations go through allocate() /
//    allocate_zeroed() / allocate_small() for raw blocks and through create() / make_unique() /
//    make_array() below for objects: never through a plain `new`, whose std::bad_alloc would cross the
//    API (no exception does), nor through a malloc whose null is tested (or not) on the spot.
// 2. A size that comes from input (a length in a page header or a stream, a file size, a count in a
//    record) is checked against a named limit, documented in the header of the family that reads it,
//    before anything is allocated. Over the limit, and when the allocation of a size within it fails
//    (try_allocate() returns null), the operation fails with its failure result and an "ERR" record in
//    its own unit naming the size; the process goes on.
//
// Ownership: an object the library makes is held by std::unique_ptr (AutoRef for counted objects). A naked
// delete / free is left only where raw storage is owned by design (the counted base, the containers, the
// page allocators), each with the reason beside it.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

namespace tarvik::memory {

// The end of the process after a failed allocation of `bytes` (rule 1): writes the size to stderr and a
// FATAL record, then aborts. Safe when the record itself cannot be allocated.
[[noreturn]] void out_of_memory(std::size_t bytes);

// malloc that never returns null (rule 1); freed with std::free.
void* allocate(std::size_t bytes);
// calloc that never returns null (rule 1); freed with std::free.
void* allocate_zeroed(std::size_t bytes);
// malloc that returns null on failure, for a size from input already checked against its limit (rule 2);
// freed with std::free.
void* try_allocate(std::size_t bytes);

// The deleter of a unique_ptr that holds a block of allocate(), allocate_zeroed() or try_allocate().
struct Free {
    void operator()(void* block) const { std::free(block); }
};

// new T(args...) (new T{args...} for an aggregate) that never returns null (rule 1), for an owner that is
// not a unique_ptr (AutoRef, a registry never destroyed). Freed with delete, as any new T.
template <class T, class... Args>
T* create(Args&&... args) {
    T* object;
    if constexpr (std::is_aggregate_v<T>) {
        object = new (std::nothrow) T{std::forward<Args>(args)...};
    } else {
        object = new (std::nothrow) T(std::forward<Args>(args)...);
    }
    if (!object) out_of_memory(sizeof(T));
    return object;
}
// std::make_unique<T>(args...) that never fails (rule 1).
template <class T, class... Args>
std::unique_ptr<T> make_unique(Args&&... args) {
    return std::unique_ptr<T>(create<T>(std::forward<Args>(args)...));
}
// std::make_unique<T[]>(n) (elements value-initialised) that never fails (rule 1).
template <class T>
std::unique_ptr<T[]> make_array(std::size_t n) {
    T* elements = new (std::nothrow) T[n]();
    // NOLINTNEXTLINE(bugprone-sizeof-expression): T is the element type, a pointer for arrays of pointers
    if (!elements) out_of_memory(n * sizeof(T));
    return std::unique_ptr<T[]>(elements);
}

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
