#include "Memory.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "LogUnit.h"

TARVIK_LOG_UNIT()

namespace tarvik::memory {

namespace {

// Set while out_of_memory() writes its record: an allocation failing inside the record ends at once.
thread_local bool reporting = false;

}  // namespace

void out_of_memory(std::size_t bytes) {
    std::fprintf(stderr, "tarvik: out of memory allocating %zu bytes\n", bytes);
    if (!reporting) {
        reporting = true;
        TVK_LOG(LEVEL_FATAL, "OUT OF MEMORY %0 BYTES") << static_cast<unsigned long long>(bytes);
    }
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

void* try_allocate(std::size_t bytes) { return std::malloc(bytes ? bytes : 1); }

namespace {

constexpr unsigned int kSmallClasses = kSmallBlockLimit / 16;

struct FreeBlock {
    FreeBlock* next;
};

struct SmallCache {
    FreeBlock* head[kSmallClasses] = {};
    unsigned int count[kSmallClasses] = {};
};

// The calling thread's cache, reached through the thread pointer (initial-exec) like the symbol cache.
// Made on the thread's first small allocation, freed with its blocks when the thread ends.
thread_local __attribute__((tls_model("initial-exec"))) SmallCache* cache_of_thread = nullptr;
thread_local __attribute__((tls_model("initial-exec"))) bool cache_gone = false;

struct SmallCacheOwner {
    SmallCache cache;
    ~SmallCacheOwner() {
        cache_of_thread = nullptr;
        cache_gone = true;
        for (FreeBlock* block : cache.head) {
            while (block) {
                FreeBlock* next = block->next;
                std::free(block);
                block = next;
            }
        }
    }
};

SmallCache* thread_cache() {
    if (SmallCache* cache = cache_of_thread) return cache;
    if (cache_gone) return nullptr;
    thread_local SmallCacheOwner owner;
    return cache_of_thread = &owner.cache;
}

// The class of a block of 1..kSmallBlockLimit bytes; its blocks are (class + 1) * 16 bytes.
unsigned int class_of(std::size_t bytes) { return bytes == 0 ? 0 : static_cast<unsigned int>((bytes - 1) / 16); }

}  // namespace

void* allocate_small(std::size_t bytes) {
    if (bytes > kSmallBlockLimit) return allocate(bytes);
    unsigned int c = class_of(bytes);
    if (SmallCache* cache = thread_cache()) {
        if (FreeBlock* block = cache->head[c]) {
            cache->head[c] = block->next;
            --cache->count[c];
            return block;
        }
    }
    return allocate((std::size_t{c} + 1) * 16);
}

void* allocate_small_zeroed(std::size_t bytes) {
    void* block = allocate_small(bytes);
    std::memset(block, 0, bytes);
    return block;
}

void release_small(void* block, std::size_t bytes) {
    if (!block) return;
    if (bytes <= kSmallBlockLimit) {
        unsigned int c = class_of(bytes);
        SmallCache* cache = cache_of_thread;
        if (cache && cache->count[c] < kSmallBlocksPerClass) {
            auto* free_block = static_cast<FreeBlock*>(block);
            free_block->next = cache->head[c];
            cache->head[c] = free_block;
            ++cache->count[c];
            return;
        }
    }
    std::free(block);
}

}  // namespace tarvik::memory
