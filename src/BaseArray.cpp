#include "tarvik/Array.h"

#include <cstdlib>
#include <cstring>

#include "LogUnit.h"
#include "Memory.h"

TARVIK_LOG_UNIT()

namespace tarvik {

void BaseArray::grow_(unsigned int need, ElementOps const& ops, bool exact) {
    if (need <= capacity_) return;
    // Doubling starts at 2: an empty array's first push_back makes room for two elements.
    unsigned long long capacity = exact ? need : (capacity_ ? capacity_ : 2);
    while (capacity < need) capacity *= 2;
    if (capacity > 0xFFFFFFFFull) capacity = 0xFFFFFFFFull;
    void* fresh = memory::allocate(static_cast<std::size_t>(capacity) * ops.size);
    if (ops.scalar) {
        if (size_) std::memcpy(fresh, data_, static_cast<std::size_t>(size_) * ops.size);
    } else {
        for (unsigned int i = 0; i < size_; ++i)
            ops.relocate(static_cast<char*>(fresh) + static_cast<std::size_t>(i) * ops.size, slot_(i, ops));
    }
    std::free(data_);
    data_ = fresh;
    capacity_ = static_cast<unsigned int>(capacity);
}

void BaseArray::open_gap_(unsigned int pos, unsigned int count, ElementOps const& ops) {
    if (ops.scalar) {
        std::memmove(slot_(pos + count, ops), slot_(pos, ops), static_cast<std::size_t>(size_ - pos) * ops.size);
    } else {
        for (unsigned int i = size_; i-- > pos;) ops.relocate(slot_(i + count, ops), slot_(i, ops));
    }
    size_ += count;
}

void BaseArray::erase_(unsigned int pos, unsigned int count, ElementOps const& ops) {
    for (unsigned int i = pos; i < pos + count; ++i) ops.destroy(slot_(i, ops));
    if (ops.scalar) {
        std::memmove(slot_(pos, ops), slot_(pos + count, ops),
                     static_cast<std::size_t>(size_ - pos - count) * ops.size);
    } else {
        for (unsigned int i = pos + count; i < size_; ++i) ops.relocate(slot_(i - count, ops), slot_(i, ops));
    }
    size_ -= count;
}

void BaseArray::free_(ElementOps const& ops) {
    if (!ops.scalar)
        for (unsigned int i = 0; i < size_; ++i) ops.destroy(slot_(i, ops));
    std::free(data_);
    data_ = nullptr;
    size_ = 0;
    capacity_ = 0;
}

void BaseArray::copy_from_(BaseArray const& other, ElementOps const& ops) {
    if (other.size_ == 0) return;
    grow_(other.size_, ops, true);
    if (ops.scalar) {
        std::memcpy(data_, other.data_, static_cast<std::size_t>(other.size_) * ops.size);
        size_ = other.size_;
        return;
    }
    for (unsigned int i = 0; i < other.size_; ++i) {
        ops.construct(slot_(i, ops), other.slot_(i, ops));
        ++size_;
    }
}

void BaseArray::take_(BaseArray& other) noexcept {
    data_ = other.data_;
    size_ = other.size_;
    capacity_ = other.capacity_;
    other.data_ = nullptr;
    other.size_ = 0;
    other.capacity_ = 0;
}

int BaseArray::compare_(BaseArray const& other, ElementOps const& ops) const {
    unsigned int n = size_ < other.size_ ? size_ : other.size_;
    for (unsigned int i = 0; i < n; ++i) {
        int r = ops.compare(slot_(i, ops), other.slot_(i, ops));
        if (r) return r;
    }
    return size_ < other.size_ ? -1 : (size_ > other.size_ ? 1 : 0);
}

}  // namespace tarvik
