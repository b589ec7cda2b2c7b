// List.h: the library's doubly linked list, List<T, A>, over the untyped base BaseList.
//
// The list is circular with a sentinel node inside the List object: begin() is the node after the
// sentinel, end() the sentinel itself. Nodes never move, so references and iterators to an element stay
// valid until that element is erased or the list is cleared or destroyed.
//
// Nodes come from the list's own pool: chunks of nodes allocated together (4 nodes first, doubling up to
// 256 per chunk, or exactly what reserve() asks for), so filling a list of n elements costs a handful of
// allocations, not n. Erased nodes are kept for reuse until clear() or destruction releases every chunk.
// splice() moves all elements of another list, together with the chunks that hold them, without copying.
//
// The allocator A (ListAllocator.h) copies, destroys and compares elements; lists compare element by
// element with it, a shorter list that is a prefix of the other being less.
//
// Thread safety: a list is used by one thread at a time.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <iterator>

#include "tarvik/Array.h"
#include "tarvik/ListAllocator.h"
#include "tarvik/Types.h"
#include "tarvik/detail/PageChain.h"

namespace tarvik {

struct ListNodeBase {
    ListNodeBase* next;
    ListNodeBase* prev;
};

class TARVIK_EXPORT BaseList {
public:
    unsigned int size() const { return size_; }
    bool is_empty() const { return size_ == 0; }

protected:
    explicit BaseList(unsigned int node_size);
    BaseList(BaseList&& other) noexcept;
    // REQUIRES: the derived list destroyed its elements (free_all_ does the rest).
    ~BaseList();
    BaseList(BaseList const&) = delete;
    BaseList& operator=(BaseList const&) = delete;

    // A node from the pool, not linked.
    ListNodeBase* acquire_node_() {
        ListNodeBase* node;
        if (free_) {
            node = free_;
            free_ = node->next;
        } else {
            if (fresh_ == fresh_end_) grow_pool_();
            node = reinterpret_cast<ListNodeBase*>(fresh_);
            fresh_ += node_size_;
        }
        --free_count_;
        return node;
    }
    // Gives an unlinked node (its element already destroyed) back to the pool.
    void release_node_(ListNodeBase* node) {
        node->next = free_;
        free_ = node;
        ++free_count_;
    }
    void link_before_(ListNodeBase* pos, ListNodeBase* node) {
        node->next = pos;
        node->prev = pos->prev;
        pos->prev->next = node;
        pos->prev = node;
        ++size_;
    }
    void unlink_(ListNodeBase* node) {
        node->prev->next = node->next;
        node->next->prev = node->prev;
        --size_;
    }
    // Adds a chunk of nodes to the pool (4 nodes first, doubling up to 256).
    void grow_pool_();
    // Makes sure n more nodes can be acquired with at most one allocation.
    void reserve_nodes_(unsigned int n);
    // Moves the fresh nodes onto the free chain (before a new chunk replaces them, or a splice takes them).
    void chain_fresh_nodes_();
    // Releases every chunk and empties the list. REQUIRES: elements already destroyed.
    void free_all_();
    // Appends every node of `other` (and the chunks behind them) to this list; `other` ends empty.
    void take_all_(BaseList& other);
    void move_from_(BaseList& other) noexcept;

    ListNodeBase head_;
    unsigned int size_ = 0;
    unsigned int node_size_;
    detail::PageChain<struct Chunk> chunks_;  // every chunk of nodes, oldest first
    ListNodeBase* free_ = nullptr;  // released nodes, chained through `next`
    // Nodes of the newest chunk never handed out yet, taken in address order without being chained.
    char* fresh_ = nullptr;
    char* fresh_end_ = nullptr;
    unsigned int free_count_ = 0;  // released and fresh nodes together
    unsigned int next_chunk_ = 4;
};

template <class T, class A = TvkDefaultAllocator<T>>
class List : public BaseList {
    struct Node : ListNodeBase {
        union {
            T value;
        };
        Node() {}
        ~Node() {}
    };
    static_assert(alignof(T) <= 16, "List elements are aligned to at most 16 bytes");
    static T* value_of_(ListNodeBase* n) { return &static_cast<Node*>(n)->value; }
    static T const* value_of_(ListNodeBase const* n) { return &static_cast<Node const*>(n)->value; }

public:
    using value_type = T;
    using allocator_type = A;

    template <bool Const>
    class Iterator {
    public:
        using iterator_category = std::bidirectional_iterator_tag;
        using value_type = T;
        using difference_type = long;
        using pointer = std::conditional_t<Const, T const*, T*>;
        using reference = std::conditional_t<Const, T const&, T&>;
        using node_pointer = std::conditional_t<Const, ListNodeBase const*, ListNodeBase*>;

        Iterator() = default;
        explicit Iterator(node_pointer n) : node_(n) {}
        operator Iterator<true>() const { return Iterator<true>(node_); }
        reference operator*() const { return *value_of_(node_); }
        pointer operator->() const { return value_of_(node_); }
        Iterator& operator++() {
            node_ = node_->next;
            return *this;
        }
        Iterator operator++(int) {
            Iterator t = *this;
            node_ = node_->next;
            return t;
        }
        Iterator& operator--() {
            node_ = node_->prev;
            return *this;
        }
        Iterator operator--(int) {
            Iterator t = *this;
            node_ = node_->prev;
            return t;
        }
        friend bool operator==(Iterator a, Iterator b) { return a.node_ == b.node_; }
        node_pointer node() const { return node_; }

    private:
        node_pointer node_ = nullptr;
    };
    using iterator = Iterator<false>;
    using const_iterator = Iterator<true>;

    List() : BaseList(sizeof(Node)) {}
    List(List const& other) : BaseList(sizeof(Node)) { append_copy_(other); }
    List(List&& other) noexcept : BaseList(static_cast<BaseList&&>(other)) {}
    List(std::initializer_list<T> items) : BaseList(sizeof(Node)) {
        reserve(static_cast<unsigned int>(items.size()));
        for (T const& v : items) push_back(v);
    }
    ~List() { clear(); }

    List& operator=(List const& other) {
        if (this != &other) {
            clear();
            append_copy_(other);
        }
        return *this;
    }
    List& operator=(List&& other) noexcept {
        if (this != &other) {
            clear();
            move_from_(other);
        }
        return *this;
    }

    iterator begin() { return iterator(head_.next); }
    iterator end() { return iterator(&head_); }
    const_iterator begin() const { return const_iterator(head_.next); }
    const_iterator end() const { return const_iterator(&head_); }
    const_iterator cbegin() const { return begin(); }
    const_iterator cend() const { return end(); }

    // REQUIRES: !is_empty().
    T& front() { return *value_of_(head_.next); }
    T const& front() const { return *value_of_(head_.next); }
    T& back() { return *value_of_(head_.prev); }
    T const& back() const { return *value_of_(head_.prev); }

    // Each adder returns the stored element.
    T& push_back(T const& v) { return *value_of_(make_before_(&head_, &v)); }
    T& push_front(T const& v) { return *value_of_(make_before_(head_.next, &v)); }
    T& emplace_back() { return *value_of_(make_before_(&head_, nullptr)); }
    // Appends up to n elements made in place: each is value-initialised, then `fill(T&)` gives it its value
    // or returns false to stop (that element is dropped again). Returns the number appended. Decoders
    // produce elements straight into the list this way: one pool reservation, and nodes taken from a fresh
    // block in address order with the pool's fields updated once.
    template <class Fill>
    unsigned int append_from(unsigned int n, Fill&& fill) {
        reserve(n);
        ListNodeBase* tail = head_.prev;
        unsigned int i = 0;
        if (!free_ && static_cast<std::size_t>(fresh_end_ - fresh_) >= std::size_t{n} * sizeof(Node)) {
            char* at = fresh_;
            for (; i < n; ++i, at += sizeof(Node)) {
                auto* node = reinterpret_cast<ListNodeBase*>(at);
                A::constructor(value_of_(node), nullptr);
                if (!fill(*value_of_(node))) {
                    A::destructor(value_of_(node));
                    break;
                }
                node->prev = tail;
                tail->next = node;
                tail = node;
            }
            fresh_ = at;
            free_count_ -= i;
        } else {
            for (; i < n; ++i) {
                ListNodeBase* node = acquire_node_();
                A::constructor(value_of_(node), nullptr);
                if (!fill(*value_of_(node))) {
                    A::destructor(value_of_(node));
                    release_node_(node);
                    break;
                }
                node->prev = tail;
                tail->next = node;
                tail = node;
            }
        }
        tail->next = &head_;
        head_.prev = tail;
        size_ += i;
        return i;
    }
    T& emplace_front() { return *value_of_(make_before_(head_.next, nullptr)); }
    // Inserts a copy of v before pos; returns the new element's position.
    iterator insert(const_iterator pos, T const& v) {
        return iterator(make_before_(const_cast<ListNodeBase*>(pos.node()), &v));
    }
    // REQUIRES: !is_empty().
    void pop_front() { destroy_(head_.next); }
    void pop_back() { destroy_(head_.prev); }
    // Erases the element at pos (not end()); returns the position of the next one.
    iterator erase(const_iterator pos) {
        auto* n = const_cast<ListNodeBase*>(pos.node());
        if (n == &head_) return end();
        ListNodeBase* next = n->next;
        destroy_(n);
        return iterator(next);
    }
    // Destroys every element and releases all memory.
    void clear() {
        if (!A::is_scalar)
            for (ListNodeBase* n = head_.next; n != &head_; n = n->next) A::destructor(value_of_(n));
        free_all_();
    }
    // Prepares room for n more elements in one allocation.
    void reserve(unsigned int n) { reserve_nodes_(n); }
    // Moves every element of `other` to the end of this list, without copying; `other` ends empty.
    void splice(List& other) {
        if (&other != this) take_all_(other);
    }
    void swap(List& other) noexcept {
        List t(static_cast<List&&>(other));
        other = static_cast<List&&>(*this);
        *this = static_cast<List&&>(t);
    }

    // The first element that compares equal to v, or end().
    iterator find(T const& v) {
        for (iterator i = begin(); i != end(); ++i)
            if (A::comparator(&*i, &v) == 0) return i;
        return end();
    }
    const_iterator find(T const& v) const { return const_cast<List*>(this)->find(v); }
    // Stable sort by the allocator's comparator.
    void sort() { merge_sort_(); }

    int compare(List const& other) const {
        const_iterator a = begin(), b = other.begin();
        for (; a != end() && b != other.end(); ++a, ++b) {
            int r = A::comparator(&*a, &*b);
            if (r) return r;
        }
        return a != end() ? 1 : (b != other.end() ? -1 : 0);
    }
    friend bool operator==(List const& a, List const& b) { return a.size() == b.size() && a.compare(b) == 0; }
    friend bool operator<(List const& a, List const& b) { return a.compare(b) < 0; }

private:
    ListNodeBase* make_before_(ListNodeBase* pos, T const* from) {
        ListNodeBase* n = acquire_node_();
        A::constructor(value_of_(n), from);
        link_before_(pos, n);
        return n;
    }
    void destroy_(ListNodeBase* n) {
        unlink_(n);
        A::destructor(value_of_(n));
        release_node_(n);
    }
    void append_copy_(List const& other) {
        reserve(other.size());
        for (T const& v : other) push_back(v);
    }
    void merge_sort_() {
        if (size_ < 2) return;
        // Bottom-up merge of runs, relinking nodes; elements never move.
        Array<ListNodeBase*> nodes;
        nodes.reserve(size_);
        for (ListNodeBase* n = head_.next; n != &head_; n = n->next) nodes.push_back(n);
        Array<ListNodeBase*> scratch;
        scratch.resize(size_);
        unsigned int count = size_;
        for (unsigned int width = 1; width < count; width *= 2) {
            for (unsigned int lo = 0; lo < count; lo += 2 * width) {
                unsigned int mid = lo + width < count ? lo + width : count;
                unsigned int hi = lo + 2 * width < count ? lo + 2 * width : count;
                unsigned int i = lo, j = mid, k = lo;
                while (i < mid && j < hi)
                    scratch[k++] = A::comparator(value_of_(nodes[j]), value_of_(nodes[i])) < 0 ? nodes[j++] : nodes[i++];
                while (i < mid) scratch[k++] = nodes[i++];
                while (j < hi) scratch[k++] = nodes[j++];
            }
            nodes.swap(scratch);
        }
        ListNodeBase* prev = &head_;
        for (ListNodeBase* n : nodes) {
            prev->next = n;
            n->prev = prev;
            prev = n;
        }
        prev->next = &head_;
        head_.prev = prev;
    }
};

}  // namespace tarvik
