// StringOps.h: the character algorithms shared by AString (char) and String (16-bit units).
//
// Everything here works on a pointer and a length; the string classes clamp positions and manage their
// blocks, then call these. Comparison follows the library's rule: the first differing character decides
// (-1 or 1), and when the compared characters are all equal the result is a length difference.
#pragma once

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <cwctype>

#include "Memory.h"
#include "tarvik/Types.h"

namespace tarvik::string_ops {

// Character traits: how a unit compares and how its case is folded.
template <class C>
struct CharRules;

template <>
struct CharRules<char> {
    // Narrow characters compare as signed 8-bit values: bytes from 128 up sort before ASCII.
    static int value(char c) { return static_cast<signed char>(c); }
    static char upper(char c) { return static_cast<char>(std::toupper(static_cast<unsigned char>(c))); }
    static char lower(char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); }
};

template <>
struct CharRules<WChar> {
    static int value(WChar c) { return static_cast<int>(static_cast<unsigned int>(c) & 0xFFFFu); }
    static WChar upper(WChar c) { return static_cast<WChar>(std::towupper(static_cast<wint_t>(value(c)))); }
    static WChar lower(WChar c) { return static_cast<WChar>(std::towlower(static_cast<wint_t>(value(c)))); }
};

template <class C>
unsigned int length_of(C const* s) {
    if (!s) return 0;
    unsigned int n = 0;
    while (s[n]) ++n;
    return n;
}

// Clamps (pos, count) to a string of length len; returns the usable count.
inline unsigned int clamp_range(unsigned int len, unsigned int pos, unsigned int count) {
    if (pos > len) return 0;
    return count > len - pos ? len - pos : count;
}

template <class C>
int compare(C const* a, unsigned int count, C const* b, unsigned int blen, bool no_case) {
    unsigned int n = count < blen ? count : blen;
    for (unsigned int i = 0; i < n; ++i) {
        C ca = no_case ? CharRules<C>::upper(a[i]) : a[i];
        C cb = no_case ? CharRules<C>::upper(b[i]) : b[i];
        if (ca != cb) return CharRules<C>::value(ca) < CharRules<C>::value(cb) ? -1 : 1;
    }
    return static_cast<int>(count) - static_cast<int>(blen);
}

template <class C>
unsigned int find(C const* s, unsigned int len, C const* what, unsigned int wlen, unsigned int pos) {
    if (pos >= len) return npos;
    if (wlen == 0) return pos;
    if (wlen > len - pos) return npos;
    unsigned int last = len - wlen;
    for (unsigned int i = pos; i <= last; ++i) {
        if (s[i] == what[0] && std::memcmp(s + i, what, wlen * sizeof(C)) == 0) return i;
    }
    return npos;
}

template <class C>
unsigned int rfind(C const* s, unsigned int len, C const* what, unsigned int wlen, unsigned int pos) {
    if (len == 0 || wlen > len) return npos;
    if (pos != npos && pos >= len) return npos;
    unsigned int start = len - wlen;
    if (pos < start) start = pos;
    for (unsigned int i = start + 1; i-- > 0;) {
        if (std::memcmp(s + i, what, wlen * sizeof(C)) == 0) return i;
    }
    return npos;
}

template <class C>
bool in_set(C c, C const* set, unsigned int n) {
    for (unsigned int i = 0; i < n; ++i)
        if (set[i] == c) return true;
    return false;
}

template <class C>
unsigned int find_first(C const* s, unsigned int len, C const* set, unsigned int n, unsigned int pos,
                        bool member) {
    for (unsigned int i = pos; i < len; ++i)
        if (in_set(s[i], set, n) == member) return i;
    return npos;
}

template <class C>
unsigned int find_last(C const* s, unsigned int len, C const* set, unsigned int n, unsigned int pos,
                       bool member) {
    if (len == 0) return npos;
    if (pos != npos && pos >= len) return npos;
    unsigned int start = pos == npos ? len - 1 : pos;
    for (unsigned int i = start + 1; i-- > 0;)
        if (in_set(s[i], set, n) == member) return i;
    return npos;
}

// Edits a string block in place. `Policy` supplies the block management of the string class:
//   Raw* allocate(unsigned n)          a block for n characters, length 0 (capacity (n / 16 + 1) * 16)
//   void reallocate(Raw*& raw, unsigned n)   grows to hold n characters keeping the content; nothing when n fits
//   void release(Raw* raw)             frees a block (never the nil block)
//   Raw* nil()                         the shared empty block (capacity 0)
// Every editor operation takes positions and counts already clamped by the caller.
template <class C, class Raw, class Policy>
class Editor {
public:
    static constexpr unsigned int kMaxLength = 0xFFFFFFFEu - 64u;

    Editor(Raw*& raw, Policy policy) : raw_(raw), policy_(policy) {}

    void set_length(unsigned int n) {
        if (raw_->capacity == 0) return;  // the nil block stays as it is
        raw_->length = n;
        raw_->chars()[n] = C(0);
    }
    void clear() {
        policy_.release(raw_);
        raw_ = policy_.nil();
    }
    // Makes room for n characters without keeping the content.
    void grow_nocopy(unsigned int n) {
        if (n <= raw_->capacity) return;
        Raw* fresh = policy_.allocate(n);
        policy_.release(raw_);
        raw_ = fresh;
    }
    void assign(C const* text, unsigned int n) {
        if (!text || n == 0) {
            clear();
            return;
        }
        if (inside_(text)) {
            Copy copy(text, n);
            assign(copy.data, n);
            return;
        }
        grow_nocopy(n);
        std::memcpy(raw_->chars(), text, n * sizeof(C));
        set_length(n);
    }
    // `count` characters at `pos` become the n characters of text (or, with a null text, n copies of fill).
    // Returns false, changing nothing, when the result would be too long.
    bool replace(unsigned int pos, unsigned int count, C const* text, unsigned int n, C fill = C(0)) {
        if (text && n && inside_(text)) {
            Copy copy(text, n);
            return replace(pos, count, copy.data, n, fill);
        }
        unsigned int len = raw_->length;
        unsigned long long new_len = static_cast<unsigned long long>(len) - count + n;
        if (new_len > kMaxLength) return false;
        if (new_len == 0) {
            clear();
            return true;
        }
        policy_.reallocate(raw_, static_cast<unsigned int>(new_len));
        C* s = raw_->chars();
        std::memmove(s + pos + n, s + pos + count, (len - pos - count) * sizeof(C));
        if (text) {
            std::memcpy(s + pos, text, n * sizeof(C));
        } else {
            for (unsigned int i = 0; i < n; ++i) s[pos + i] = fill;
        }
        set_length(static_cast<unsigned int>(new_len));
        return true;
    }
    void resize(unsigned int n, C fill) {
        if (n == 0) {
            clear();
        } else if (n <= raw_->length) {
            set_length(n);
        } else {
            replace(raw_->length, 0, nullptr, n - raw_->length, fill);
        }
    }

private:
    // A private copy of characters that lie inside the block being edited.
    struct Copy {
        Copy(C const* text, unsigned int n) : data(static_cast<C*>(memory::allocate(n * sizeof(C) + 1))) {
            std::memcpy(data, text, n * sizeof(C));
        }
        ~Copy() { std::free(data); }
        Copy(Copy const&) = delete;
        Copy& operator=(Copy const&) = delete;
        C* data;
    };
    bool inside_(C const* text) const {
        C const* begin = raw_->chars();
        return text >= begin && text <= begin + raw_->length;
    }

    Raw*& raw_;
    Policy policy_;
};

// Glob matching with captures, shared by AString::match and String::match (C is char or WChar; a set's
// ranges compare units as unsigned values). `cap_begin`/`cap_end` receive up to `max_caps` capture
// ranges. Returns whether the whole text matched.
template <class C>
bool glob_match(C const* pattern, C const* text, unsigned int tlen, unsigned int* cap_begin,
                unsigned int* cap_end, unsigned int max_caps);

}  // namespace tarvik::string_ops
