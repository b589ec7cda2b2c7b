#include "Memory.h"

#include <cstdio>
#include <cstdlib>

#include "LogUnit.h"

TARVIK_LOG_UNIT()

namespace tarvik::memory {

[[noreturn]] static void out_of_memory(std::size_t bytes) {
    std::fprintf(stderr, "tarvik: out of memory allocating %zu bytes\n", bytes);
    std::abort();
}

void* allocate(std::size_t bytes) {
    void* p = std::malloc(bytes ? bytes : 1);
    if (!p) out_of_memory(bytes);
    return p;
}

void* allocate_zeroed(std::size_t bytes) {
    void* p = std::calloc(1, bytes ? bytes : 1);
    if (!p) out_of_memory(bytes);
    return p;
}

}  // namespace tarvik::memory
