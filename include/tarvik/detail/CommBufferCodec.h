// detail/CommBufferCodec.h: NOT PUBLIC INTERFACE. The inline codec of CommBuffer's lists and arrays,
// included at the end of CommBuffer.h because List and Array of any element type are written through
// templates; applications must not include it or call what it defines, and it may change at any time.
//
// Runs of integers are encoded straight into the last page and decoded straight from the read page, with
// local cursors; small numbers (one byte unsigned, two bytes signed) take one branch. A value that does not
// fit the page's free space, or that crosses a page end, goes through the general code of CommBuffer.cpp.
// Signed values travel as their two's-complement bits.
#pragma once

#include <type_traits>

#include "tarvik/CommBuffer.h"

namespace tarvik {

template <class Item>
unsigned int CommBuffer::encode_item_(Item v, unsigned char* out) {
    if constexpr (std::is_signed_v<Item>) {
        if (v > -0x80 && v < 0x80) {
            out[0] = static_cast<unsigned char>(v < 0 ? (0x80 | -v) : v);
            out[1] = 0x80;
            return 2;
        }
        return encode_signed_(static_cast<long long>(v), out);
    } else {
        if (v < 0x80) {
            out[0] = static_cast<unsigned char>(v | 0x80);
            return 1;
        }
        return encode_unsigned_(static_cast<unsigned long long>(v), out);
    }
}

template <class C>
long CommBuffer::write_integer_items_(C const& items) {
    using Item = std::decay_t<decltype(*items.begin())>;
    long total = 0;
    unsigned char* start = nullptr;
    unsigned char* p = nullptr;
    unsigned char const* limit = nullptr;  // 12 bytes (more than the longest form) before the page end
    auto open = [&] {
        start = p = nullptr;
        if (pages_.last() && pages_.last()->capacity - pages_.last()->used >= 12) {
            start = p = pages_.last()->data() + pages_.last()->used;
            limit = pages_.last()->data() + pages_.last()->capacity - 12;
        }
    };
    auto close = [&] {
        auto written = static_cast<unsigned int>(p - start);
        if (start) {
            pages_.last()->used += written;
            size_ += written;
            total += written;
        }
    };
    open();
    for (Item item : items) {
        if (p && p <= limit) {
            p += encode_item_(item, p);
        } else {
            close();
            total += write(item);
            open();
        }
    }
    close();
    return total;
}

template <class C, class Item>
long CommBuffer::read_integer_items_(C& items, unsigned long long count) const {
    unsigned long long done = 0;
    while (done < count && settle_()) {
        unsigned char const* base = pos_.page->data();
        unsigned char const* p = base + pos_.offset;
        unsigned char const* end = base + pos_.page->used;
        done += items.append_from(static_cast<unsigned int>(count - done), [&p, end](Item& out) {
            if constexpr (std::is_signed_v<Item>) {
                if (end - p < 2 || p[1] != 0x80) return false;
                auto magnitude = static_cast<unsigned long long>(p[0] & 0x7F);
                out = static_cast<Item>((p[0] & 0x80) ? 0ull - magnitude : magnitude);
                p += 2;
            } else {
                if (p == end || !(p[0] & 0x80)) return false;
                out = static_cast<Item>(p[0] & 0x7F);
                p += 1;
            }
            return true;
        });
        pos_.offset = static_cast<unsigned int>(p - base);
        if (done == count) break;
        // A larger number, or one that crosses into the next page: the general reader.
        unsigned long long bits;
        unsigned int taken;
        if constexpr (std::is_signed_v<Item>) {
            long long v;
            taken = read_signed_(v);
            bits = static_cast<unsigned long long>(v);
        } else {
            taken = read_unsigned_(bits);
        }
        if (taken == 0) break;
        items.push_back(static_cast<Item>(bits));
        ++done;
    }
    // Integer reads never fail: the elements the buffer no longer holds read as 0.
    for (; done < count; ++done) items.push_back(Item{});
    return 0;
}

template <class C>
long CommBuffer::write_items_(C const& items, unsigned int count) {
    write_unsigned_(count);
    long total = 0;
    using Item = std::decay_t<decltype(*items.begin())>;
    if constexpr (std::is_integral_v<Item> && !std::is_same_v<Item, bool>) {
        return write_integer_items_(items);
    } else {
        for (auto const& item : items) {
            // A StringBuffer on its own is written as bare bytes; inside a list it needs its length.
            if constexpr (std::is_same_v<Item, StringBuffer>) {
                total += write_counted(item);
            } else {
                total += write(item);
            }
        }
        return total;
    }
}

template <class C, class Add>
long CommBuffer::read_items_(C& items, Add add) const {
    unsigned long long count = 0;
    read_unsigned_(count);
    if (!remains(count)) return refuse_length_(count, remaining());
    if (!enter_()) return -1;
    items.reserve(static_cast<unsigned int>(count));
    long total = 0;
    using Item = std::decay_t<decltype(add())>;
    if constexpr (std::is_integral_v<Item> && !std::is_same_v<Item, bool>) {
        // Integers in runs, decoded straight from the pages (their reads count no bytes).
        total = read_integer_items_(items, count);
        leave_();
        return total;
    }
    for (unsigned long long i = 0; i < count; ++i) {
        Pos before = pos_;
        long r = read(add());
        if (r < 0) {
            total = r;
            break;
        }
        // Integer reads never fail: an element that took no byte means the buffer ran out.
        if (pos_.page == before.page && pos_.offset == before.offset && !before.rewind_pending) {
            total = refuse_length_(count, 0);
            break;
        }
        total += r;
    }
    leave_();
    return total;
}

}  // namespace tarvik
