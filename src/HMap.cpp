#include "tarvik/HMap.h"

#include <cstdlib>

#include "LogUnit.h"
#include "Memory.h"

TARVIK_LOG_UNIT()

namespace tarvik {

unsigned int hash_bytes(void const* data, std::size_t n) {
    auto const* p = static_cast<unsigned char const*>(data);
    unsigned int h = 2166136261u;
    for (std::size_t i = 0; i < n; ++i) {
        h ^= p[i];
        h *= 16777619u;
    }
    return h;
}

namespace hmap_memory {

void* allocate(std::size_t bytes) { return memory::allocate(bytes); }
void* allocate_zeroed(std::size_t bytes) { return memory::allocate_zeroed(bytes); }
void release(void* block) { std::free(block); }

}  // namespace hmap_memory

}  // namespace tarvik
