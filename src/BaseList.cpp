#include "tarvik/List.h"

#include <cstdlib>

#include "LogUnit.h"
#include "Memory.h"

TARVIK_LOG_UNIT()

namespace tarvik {

// A block of nodes; the nodes follow the header, each node_size_ bytes.
struct Chunk {
    Chunk* next;
    unsigned int count;
};

namespace {

constexpr unsigned int kChunkHeader = 16;  // keeps the nodes 16-aligned
constexpr unsigned int kMaxChunkNodes = 256;
static_assert(sizeof(Chunk) <= kChunkHeader);

}  // namespace

BaseList::BaseList(unsigned int node_size) : node_size_(node_size) {
    head_.next = head_.prev = &head_;
}

BaseList::BaseList(BaseList&& other) noexcept : node_size_(other.node_size_) {
    head_.next = head_.prev = &head_;
    move_from_(other);
}

BaseList::~BaseList() { free_all_(); }

void BaseList::reserve_nodes_(unsigned int n) {
    if (n <= free_count_) return;
    unsigned long long count = n - free_count_;
    chain_fresh_nodes_();
    auto* chunk = static_cast<Chunk*>(memory::allocate_small(kChunkHeader + count * node_size_));
    chunk->count = static_cast<unsigned int>(count);
    chunks_.push_back(chunk);
    fresh_ = reinterpret_cast<char*>(chunk) + kChunkHeader;
    fresh_end_ = fresh_ + count * node_size_;
    free_count_ += chunk->count;
}

void BaseList::chain_fresh_nodes_() {
    for (; fresh_ != fresh_end_; fresh_ += node_size_) {
        auto* node = reinterpret_cast<ListNodeBase*>(fresh_);
        node->next = free_;
        free_ = node;
    }
    fresh_ = fresh_end_ = nullptr;
}

void BaseList::grow_pool_() {
    reserve_nodes_(next_chunk_);
    if (next_chunk_ < kMaxChunkNodes) next_chunk_ *= 2;
}

void BaseList::free_all_() {
    chunks_.release_all([this](Chunk* chunk) {
        memory::release_small(chunk, kChunkHeader + chunk->count * node_size_);
    });
    head_.next = head_.prev = &head_;
    size_ = 0;
    free_ = nullptr;
    fresh_ = fresh_end_ = nullptr;
    free_count_ = 0;
    next_chunk_ = 4;
}

void BaseList::take_all_(BaseList& other) {
    if (other.size_ == 0) return;
    // Link the other chain after our last node.
    ListNodeBase* first = other.head_.next;
    ListNodeBase* last = other.head_.prev;
    first->prev = head_.prev;
    head_.prev->next = first;
    last->next = &head_;
    head_.prev = last;
    size_ += other.size_;
    // The nodes live in the other's chunks: those chunks, and their unused nodes, come along.
    chunks_.append(other.chunks_);
    other.chain_fresh_nodes_();
    while (other.free_) {
        ListNodeBase* n = other.free_;
        other.free_ = n->next;
        release_node_(n);
    }
    other.free_count_ = 0;
    other.free_all_();
}

void BaseList::move_from_(BaseList& other) noexcept {
    chunks_.append(other.chunks_);
    free_ = other.free_;
    fresh_ = other.fresh_;
    fresh_end_ = other.fresh_end_;
    free_count_ = other.free_count_;
    next_chunk_ = other.next_chunk_;
    size_ = other.size_;
    if (other.size_) {
        head_.next = other.head_.next;
        head_.prev = other.head_.prev;
        head_.next->prev = &head_;
        head_.prev->next = &head_;
    } else {
        head_.next = head_.prev = &head_;
    }
    other.free_all_();
}

}  // namespace tarvik
