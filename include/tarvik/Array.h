// Array.h: the library's growable array, Array<T, A>, over the untyped base BaseArray.
//
// Elements are stored contiguously. Growth by push_back doubles the capacity, starting at 2; reserve()
// and resize() allocate exactly what they are asked for when that is more. Growing moves the elements
// with the allocator's relocate (a memcpy for scalars), so pointers and iterators into an array are
// invalidated by any operation that grows it, and by erase/insert at or before them.
//
// The allocator A (ListAllocator.h) copies, destroys, moves and compares elements; arrays compare
// element by element with it, a shorter array that is a prefix of the other being less.
//
// Thread safety: an array is used by one thread at a time.
#pragma once

#include <initializer_list>

#include "tarvik/ListAllocator.h"
#include "tarvik/Types.h"

namespace tarvik {

// How an untyped container makes, destroys and moves its elements.
struct ElementOps {
    unsigned int size;
    void (*construct)(void* where, void const* from);
    void (*destroy)(void* where);
    void (*relocate)(void* to, void* from);
    int (*compare)(void const* a, void const* b);
    bool scalar;
};

class TARVIK_EXPORT BaseArray {
public:
    unsigned int size() const { return size_; }
    bool is_empty() const { return size_ == 0; }
    unsigned int capacity() const { return capacity_; }

protected:
    BaseArray() = default;
    ~BaseArray() = default;
    BaseArray(BaseArray const&) = delete;
    BaseArray& operator=(BaseArray const&) = delete;

    void* slot_(unsigned int i, ElementOps const& ops) const {
        return static_cast<char*>(data_) + static_cast<unsigned long long>(i) * ops.size;
    }
    // Makes room for at least `need` elements: by doubling from 2, or exactly `need` when `exact`.
    void grow_(unsigned int need, ElementOps const& ops, bool exact);
    // Shifts the elements from `pos` on by `count` places to the right (room must exist) and raises size.
    void open_gap_(unsigned int pos, unsigned int count, ElementOps const& ops);
    // Destroys `count` elements at `pos` and closes the gap.
    void erase_(unsigned int pos, unsigned int count, ElementOps const& ops);
    // Destroys every element and frees the storage.
    void free_(ElementOps const& ops);
    void copy_from_(BaseArray const& other, ElementOps const& ops);
    void take_(BaseArray& other) noexcept;
    int compare_(BaseArray const& other, ElementOps const& ops) const;

    void* data_ = nullptr;
    unsigned int size_ = 0;
    unsigned int capacity_ = 0;
};

template <class T, class A = TvkDefaultAllocator<T>>
class Array : public BaseArray {
public:
    using value_type = T;
    using allocator_type = A;
    using iterator = T*;
    using const_iterator = T const*;

    Array() = default;
    Array(Array const& other) { copy_from_(other, ops_); }
    Array(Array&& other) noexcept { take_(other); }
    Array(std::initializer_list<T> items) {
        reserve(static_cast<unsigned int>(items.size()));
        for (T const& v : items) push_back(v);
    }
    ~Array() { free_(ops_); }

    Array& operator=(Array const& other) {
        if (this != &other) {
            free_(ops_);
            copy_from_(other, ops_);
        }
        return *this;
    }
    Array& operator=(Array&& other) noexcept {
        if (this != &other) {
            free_(ops_);
            take_(other);
        }
        return *this;
    }

    T* data() { return static_cast<T*>(data_); }
    T const* data() const { return static_cast<T const*>(data_); }
    iterator begin() { return data(); }
    iterator end() { return data() + size_; }
    const_iterator begin() const { return data(); }
    const_iterator end() const { return data() + size_; }
    const_iterator cbegin() const { return begin(); }
    const_iterator cend() const { return end(); }

    // REQUIRES: i < size().
    T& operator[](unsigned int i) { return data()[i]; }
    T const& operator[](unsigned int i) const { return data()[i]; }
    // REQUIRES: !is_empty().
    T& front() { return data()[0]; }
    T const& front() const { return data()[0]; }
    T& back() { return data()[size_ - 1]; }
    T const& back() const { return data()[size_ - 1]; }

    // Appends a copy of v (v may be an element of this array) and returns the stored element.
    T& push_back(T const& v) {
        if (size_ == capacity_ && &v >= data() && &v < data() + size_) {
            T copy(v);  // NOLINT(performance-unnecessary-copy-initialization): v moves when the array grows
            return push_back(copy);
        }
        if (size_ == capacity_) grow_(size_ + 1, ops_, false);
        T* where = data() + size_;
        A::constructor(where, &v);
        ++size_;
        return *where;
    }
    // Appends up to n elements made in place: each is value-initialised, then `fill(T&)` gives it its value
    // or returns false to stop (that element is dropped again). Returns the number appended.
    template <class Fill>
    unsigned int append_from(unsigned int n, Fill&& fill) {
        if (size_ + n > capacity_) grow_(size_ + n, ops_, false);
        unsigned int i = 0;
        for (; i < n; ++i) {
            T* where = data() + size_;
            A::constructor(where, nullptr);
            if (!fill(*where)) {
                A::destructor(where);
                break;
            }
            ++size_;
        }
        return i;
    }
    // Appends a value-initialised element and returns it.
    T& emplace_back() {
        if (size_ == capacity_) grow_(size_ + 1, ops_, false);
        T* where = data() + size_;
        A::constructor(where, nullptr);
        ++size_;
        return *where;
    }
    // REQUIRES: !is_empty().
    void pop_back() { erase_(size_ - 1, 1, ops_); }

    // Inserts a copy of v before pos; returns the new element's position.
    iterator insert(const_iterator pos, T const& v) {
        unsigned int at = index_of_(pos);
        T copy(v);  // v may live in this array and move with the gap
        if (size_ == capacity_) grow_(size_ + 1, ops_, false);
        open_gap_(at, 1, ops_);
        new (data() + at) T(static_cast<T&&>(copy));
        return data() + at;
    }
    // Erases the element at pos; returns the position of the next one.
    iterator erase(const_iterator pos) { return erase(pos, pos + 1); }
    iterator erase(const_iterator first, const_iterator last) {
        unsigned int at = index_of_(first);
        unsigned int to = index_of_(last);
        if (to > at) erase_(at, to - at, ops_);
        return data() + at;
    }

    void clear() { free_(ops_); }
    void reserve(unsigned int n) {
        if (n > capacity_) grow_(n, ops_, true);
    }
    // Cuts to n elements or appends value-initialised ones up to n.
    void resize(unsigned int n) {
        if (n < size_) {
            erase_(n, size_ - n, ops_);
            return;
        }
        reserve(n);
        while (size_ < n) emplace_back();
    }
    void swap(Array& other) noexcept {
        Array t(static_cast<Array&&>(other));
        other = static_cast<Array&&>(*this);
        *this = static_cast<Array&&>(t);
    }

    int compare(Array const& other) const { return compare_(other, ops_); }
    friend bool operator==(Array const& a, Array const& b) { return a.compare(b) == 0; }
    friend bool operator<(Array const& a, Array const& b) { return a.compare(b) < 0; }

private:
    unsigned int index_of_(const_iterator p) const {
        if (p < data()) return 0;
        auto i = static_cast<unsigned int>(p - data());
        return i > size_ ? size_ : i;
    }

    // NOLINTNEXTLINE(bugprone-sizeof-expression): T may be a pointer, and its size is what is wanted
    static constexpr ElementOps ops_ = {sizeof(T), &A::constructor, &A::destructor, &A::relocate, &A::comparator,
                                        A::is_scalar};
};

}  // namespace tarvik
