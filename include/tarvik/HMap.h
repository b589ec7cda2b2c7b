// HMap.h: the library's hash map, HMap<K, V>, from a key to an entry.
//
// Separate chaining over a bucket array. The map starts with the bucket count it is given and grows
// (to 2n + 1 buckets) whenever an insertion would take the load (entries / buckets) above the maximum load
// factor; the symbol registry, for one, starts with 203 buckets and a maximum load of 0.75. Entries never
// move once inserted (each lives in its own node), so pointers to keys and values stay valid until the
// entry is erased or the map cleared.
//
// Keys are hashed and compared by HMapTraits<K>; lookups also accept any type the traits can hash and
// compare with a key (an AString-keyed map can be searched with a `char const*` without building a
// string).
//
// Memory: nodes and bucket arrays are raw blocks of the library's allocator, whose failure ends the
// process (no std::bad_alloc leaves a map).
//
// Thread safety: a map is used by one thread at a time (callers that share one add their own lock).
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>
#include <string>
#include <type_traits>
#include <utility>

#include "tarvik/AString.h"
#include "tarvik/Types.h"

namespace tarvik {

// 32-bit FNV-1a over bytes: the hash of every text key.
TARVIK_EXPORT unsigned int hash_bytes(void const* data, std::size_t n);

// The blocks of every map: malloc blocks that are never null (a failure ends the process).
namespace hmap_memory {
TARVIK_EXPORT void* allocate(std::size_t bytes);
TARVIK_EXPORT void* allocate_zeroed(std::size_t bytes);
TARVIK_EXPORT void release(void* block);
}  // namespace hmap_memory

template <class K>
struct HMapTraits {
    static_assert(std::is_integral_v<K> || std::is_pointer_v<K> || std::is_enum_v<K>,
                  "give HMapTraits<K> a hash and an equality for this key type");
    static unsigned int hash(K k) {
        unsigned long long x;
        if constexpr (std::is_pointer_v<K>) {
            x = reinterpret_cast<std::uintptr_t>(k);
        } else {
            x = static_cast<unsigned long long>(k);
        }
        x ^= x >> 33;
        x *= 0xff51afd7ed558ccdULL;
        x ^= x >> 33;
        return static_cast<unsigned int>(x);
    }
    static bool equal(K a, K b) { return a == b; }
};

// A text given by pointer and length, for looking up AString keys without building a string.
struct TextKey {
    char const* data;
    unsigned int length;
};

// Keys that are views of texts owned elsewhere (which must outlive the entry).
template <>
struct HMapTraits<TextKey> {
    static unsigned int hash(TextKey k) { return hash_bytes(k.data, k.length); }
    static bool equal(TextKey a, TextKey b) {
        return a.length == b.length && std::char_traits<char>::compare(a.data, b.data, a.length) == 0;
    }
};

template <>
struct HMapTraits<AString> {
    static unsigned int hash(TextKey k) { return hash_bytes(k.data, k.length); }
    static bool equal(AString const& a, TextKey b) {
        return a.length() == b.length && std::char_traits<char>::compare(a.c_str(), b.data, b.length) == 0;
    }
    static unsigned int hash(AString const& k) { return hash_bytes(k.c_str(), k.length()); }
    static unsigned int hash(char const* k) { return k ? hash_bytes(k, std::char_traits<char>::length(k)) : hash_bytes("", 0); }
    static bool equal(AString const& a, AString const& b) { return a == b; }
    static bool equal(AString const& a, char const* b) { return a == (b ? b : ""); }
};

template <class K, class V, class Traits = HMapTraits<K>>
class HMap {
public:
    struct Entry {
        K const key;
        V value;
    };

private:
    struct Node {
        Node* next;
        unsigned int hash;
        Entry entry;
    };
    static_assert(alignof(Node) <= alignof(std::max_align_t), "a node lives in a malloc block");

public:
    template <bool Const>
    class Iterator {
    public:
        using reference = std::conditional_t<Const, Entry const&, Entry&>;
        using pointer = std::conditional_t<Const, Entry const*, Entry*>;
        Iterator(Node* const* buckets, unsigned int count, unsigned int b, Node* n)
            : buckets_(buckets), count_(count), bucket_(b), node_(n) {
            settle_();
        }
        reference operator*() const { return node_->entry; }
        pointer operator->() const { return &node_->entry; }
        Iterator& operator++() {
            node_ = node_->next;
            if (!node_) {
                ++bucket_;
                settle_();
            }
            return *this;
        }
        friend bool operator==(Iterator const& a, Iterator const& b) { return a.node_ == b.node_; }

    private:
        void settle_() {
            while (!node_ && bucket_ < count_) {
                node_ = buckets_[bucket_];
                if (!node_) ++bucket_;
            }
        }
        Node* const* buckets_;
        unsigned int count_;
        unsigned int bucket_;
        Node* node_;
    };
    using iterator = Iterator<false>;
    using const_iterator = Iterator<true>;

    explicit HMap(unsigned int initial_buckets = 203, float max_load_factor = 0.75f)
        : bucket_count_(initial_buckets ? initial_buckets : 1),
          max_load_(max_load_factor > 0.0f ? max_load_factor : 0.75f) {
        buckets_ = new_buckets_(bucket_count_);
    }
    HMap(HMap const& other) : HMap(other.bucket_count_, other.max_load_) {
        for (Entry const& e : other) insert(e.key, e.value);
    }
    HMap& operator=(HMap const& other) {
        if (this != &other) {
            clear();
            for (Entry const& e : other) insert(e.key, e.value);
        }
        return *this;
    }
    ~HMap() {
        clear();
        hmap_memory::release(buckets_);
    }

    unsigned int size() const { return size_; }
    bool is_empty() const { return size_ == 0; }
    unsigned int bucket_count() const { return bucket_count_; }
    float max_load_factor() const { return max_load_; }

    template <class Q>
    V* find(Q const& key) {
        unsigned int h = Traits::hash(key);
        for (Node* n = buckets_[h % bucket_count_]; n; n = n->next)
            if (n->hash == h && Traits::equal(n->entry.key, key)) return &n->entry.value;
        return nullptr;
    }
    template <class Q>
    V const* find(Q const& key) const {
        return const_cast<HMap*>(this)->find(key);
    }

    // Inserts (key, value) unless the key is present. Returns the stored value and whether it is new.
    std::pair<V*, bool> insert(K const& key, V const& value) {
        if (V* existing = find(key)) return {existing, false};
        unsigned int h = Traits::hash(key);
        if (static_cast<float>(size_ + 1) > max_load_ * static_cast<float>(bucket_count_)) rehash_(bucket_count_ * 2 + 1);
        void* block = hmap_memory::allocate(sizeof(Node));
        Node* n = new (block) Node{buckets_[h % bucket_count_], h, Entry{key, value}};
        buckets_[h % bucket_count_] = n;
        ++size_;
        return {&n->entry.value, true};
    }
    // The value of key, inserted value-initialised when missing.
    V& operator[](K const& key) { return *insert(key, V()).first; }

    template <class Q>
    bool erase(Q const& key) {
        unsigned int h = Traits::hash(key);
        for (Node** link = &buckets_[h % bucket_count_]; *link; link = &(*link)->next) {
            Node* n = *link;
            if (n->hash == h && Traits::equal(n->entry.key, key)) {
                *link = n->next;
                free_node_(n);
                --size_;
                return true;
            }
        }
        return false;
    }

    void clear() {
        for (unsigned int b = 0; b < bucket_count_; ++b) {
            for (Node* n = buckets_[b]; n;) {
                Node* next = n->next;
                free_node_(n);
                n = next;
            }
            buckets_[b] = nullptr;
        }
        size_ = 0;
    }

    iterator begin() { return iterator(buckets_, bucket_count_, 0, nullptr); }
    iterator end() { return iterator(buckets_, bucket_count_, bucket_count_, nullptr); }
    const_iterator begin() const { return const_iterator(buckets_, bucket_count_, 0, nullptr); }
    const_iterator end() const { return const_iterator(buckets_, bucket_count_, bucket_count_, nullptr); }

private:
    // The map owns its nodes and bucket array as raw blocks by design (see Memory above).
    static Node** new_buckets_(unsigned int count) {
        // NOLINTNEXTLINE(bugprone-sizeof-expression): the bucket array holds pointers to nodes
        std::size_t bytes = static_cast<std::size_t>(count) * sizeof(Node*);
        return static_cast<Node**>(hmap_memory::allocate_zeroed(bytes));
    }
    static void free_node_(Node* n) {
        n->~Node();
        hmap_memory::release(n);
    }

    void rehash_(unsigned int count) {
        Node** fresh = new_buckets_(count);
        for (unsigned int b = 0; b < bucket_count_; ++b) {
            for (Node* n = buckets_[b]; n;) {
                Node* next = n->next;
                n->next = fresh[n->hash % count];
                fresh[n->hash % count] = n;
                n = next;
            }
        }
        hmap_memory::release(buckets_);
        buckets_ = fresh;
        bucket_count_ = count;
    }

    Node** buckets_;
    unsigned int bucket_count_;
    float max_load_;
    unsigned int size_ = 0;
};

}  // namespace tarvik
