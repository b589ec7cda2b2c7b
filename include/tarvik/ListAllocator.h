// ListAllocator.h: the element managers of the library's containers.
//
// `Array<T, A>` and `List<T, A>` keep untyped storage; the allocator argument A tells them how an element
// is made, copied, destroyed, moved and compared, through static functions over raw addresses:
//
//   constructor(void* where, void const* from)  copy-constructs from `from`, or value-initialises when null
//   destructor(void* where)                     destroys the element in place
//   relocate(void* to, void* from)              moves an element to uninitialised `to`, leaving `from` dead
//   comparator(void const* a, void const* b)    negative, 0 or positive, like compare()
//   is_scalar                                   true when the element is plain bytes (memcpy-able)
//
// TvkScalarListAllocator<T> is for numbers and other plain data; TvkListAllocator<T> is for classes, and
// compares with T::compare when T has one, otherwise with operator<; elements with neither compare equal,
// so containers of them compare by size only.
#pragma once

#include <cmath>
#include <cstring>
#include <new>
#include <type_traits>
#include <utility>

namespace tarvik {

template <class T>
struct TvkScalarListAllocator {
    static_assert(std::is_trivially_copyable_v<T>, "TvkScalarListAllocator is for plain data");
    using value_type = T;
    static constexpr bool is_scalar = true;

    static void constructor(void* where, void const* from) {
        if (from) {
            std::memcpy(where, from, sizeof(T));  // NOLINT(bugprone-sizeof-expression): T may be a pointer
        } else {
            new (where) T();
        }
    }
    static void destructor(void*) {}
    // NOLINTNEXTLINE(bugprone-sizeof-expression): T may be a pointer, and its size is what is wanted
    static void relocate(void* to, void* from) { std::memcpy(to, from, sizeof(T)); }
    static int comparator(void const* a, void const* b) {
        T const& x = *static_cast<T const*>(a);
        T const& y = *static_cast<T const*>(b);
        if constexpr (std::is_floating_point_v<T>) {
            // A total order: NaN equals NaN and sorts after every number.
            bool const nx = std::isnan(x), ny = std::isnan(y);
            if (nx || ny) return nx == ny ? 0 : (nx ? 1 : -1);
        }
        return x < y ? -1 : (y < x ? 1 : 0);
    }
};

template <class T>
struct TvkListAllocator {
    using value_type = T;
    static constexpr bool is_scalar = false;

    static void constructor(void* where, void const* from) {
        if (from) {
            new (where) T(*static_cast<T const*>(from));
        } else {
            new (where) T();
        }
    }
    static void destructor(void* where) { static_cast<T*>(where)->~T(); }
    static void relocate(void* to, void* from) {
        T* src = static_cast<T*>(from);
        new (to) T(std::move(*src));
        src->~T();
    }
    static int comparator(void const* a, void const* b) {
        T const& x = *static_cast<T const*>(a);
        T const& y = *static_cast<T const*>(b);
        if constexpr (requires { x.compare(y); }) {
            int r = x.compare(y);
            return r < 0 ? -1 : (r > 0 ? 1 : 0);
        } else if constexpr (requires { x < y; }) {
            return x < y ? -1 : (y < x ? 1 : 0);
        } else {
            return 0;  // elements without an order: containers of them compare by size only
        }
    }
};

// The allocator a container picks when none is named: the scalar one for numbers, enumerations and
// pointers, the class one for everything else (so `List<Symbol>` is `List<Symbol, TvkListAllocator<Symbol>>`
// and `Array<int>` is `Array<int, TvkScalarListAllocator<int>>`).
template <class T>
using TvkDefaultAllocator =
    std::conditional_t<std::is_arithmetic_v<T> || std::is_enum_v<T> || std::is_pointer_v<T>,
                       TvkScalarListAllocator<T>, TvkListAllocator<T>>;

}  // namespace tarvik
