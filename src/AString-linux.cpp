// Linux half of AString's conversions: the system code page is UTF-8 and wchar_t is UTF-32.
//
// Conversions are strict: a surrogate that is not part of a pair, a character above U+10FFFF or a
// malformed UTF-8 sequence fails with EILSEQ rather than being replaced, so that a failed conversion is
// reported instead of silently changing the text.
#include "AStringImpl.h"

#include <cerrno>

#include "LogUnit.h"

TARVIK_LOG_UNIT()

namespace tarvik::astring_impl {

namespace {

// Appends the UTF-8 form of code point cp; false when it does not fit or is not a character.
bool put_utf8(unsigned long cp, char* dest, unsigned int dest_size, unsigned int& at) {
    unsigned char bytes[4];
    unsigned int n;
    if (cp < 0x80) {
        bytes[0] = static_cast<unsigned char>(cp);
        n = 1;
    } else if (cp < 0x800) {
        bytes[0] = static_cast<unsigned char>(0xC0 | (cp >> 6));
        bytes[1] = static_cast<unsigned char>(0x80 | (cp & 0x3F));
        n = 2;
    } else if (cp < 0x10000) {
        if (cp >= 0xD800 && cp <= 0xDFFF) return false;
        bytes[0] = static_cast<unsigned char>(0xE0 | (cp >> 12));
        bytes[1] = static_cast<unsigned char>(0x80 | ((cp >> 6) & 0x3F));
        bytes[2] = static_cast<unsigned char>(0x80 | (cp & 0x3F));
        n = 3;
    } else if (cp <= 0x10FFFF) {
        bytes[0] = static_cast<unsigned char>(0xF0 | (cp >> 18));
        bytes[1] = static_cast<unsigned char>(0x80 | ((cp >> 12) & 0x3F));
        bytes[2] = static_cast<unsigned char>(0x80 | ((cp >> 6) & 0x3F));
        bytes[3] = static_cast<unsigned char>(0x80 | (cp & 0x3F));
        n = 4;
    } else {
        return false;
    }
    if (n > dest_size - at) return false;
    for (unsigned int i = 0; i < n; ++i) dest[at++] = static_cast<char>(bytes[i]);
    return true;
}

long fail(int* error) {
    if (error) *error = EILSEQ;
    errno = EILSEQ;
    return -1;
}

}  // namespace

unsigned int max_narrow_per_wide() { return 4; }

long wide_to_system(wchar_t const* text, unsigned int count, char* dest, unsigned int dest_size, int* error) {
    unsigned int at = 0;
    for (unsigned int i = 0; i < count; ++i) {
        if (!put_utf8(static_cast<unsigned long>(static_cast<unsigned int>(text[i])), dest, dest_size, at))
            return fail(error);
    }
    return at;
}

long units_to_system(WChar const* units, unsigned int count, char* dest, unsigned int dest_size, int* error) {
    unsigned int at = 0;
    for (unsigned int i = 0; i < count; ++i) {
        unsigned long cp = units[i];
        if (cp >= 0xD800 && cp <= 0xDBFF) {  // high surrogate: needs its low half
            if (i + 1 >= count || units[i + 1] < 0xDC00 || units[i + 1] > 0xDFFF) return fail(error);
            cp = 0x10000 + ((cp - 0xD800) << 10) + (units[i + 1] - 0xDC00u);
            ++i;
        }
        if (!put_utf8(cp, dest, dest_size, at)) return fail(error);
    }
    return at;
}

long utf8_to_units(char const* utf8, unsigned int len, WChar* dest, unsigned int dest_size, int* error) {
    auto const* s = reinterpret_cast<unsigned char const*>(utf8);
    unsigned int at = 0;
    for (unsigned int i = 0; i < len;) {
        unsigned long cp = s[i];
        unsigned int extra;
        unsigned long min;
        if (cp < 0x80) {
            extra = 0;
            min = 0;
        } else if (cp >= 0xC2 && cp <= 0xDF) {
            extra = 1;
            min = 0x80;
            cp &= 0x1F;
        } else if (cp >= 0xE0 && cp <= 0xEF) {
            extra = 2;
            min = 0x800;
            cp &= 0x0F;
        } else if (cp >= 0xF0 && cp <= 0xF4) {
            extra = 3;
            min = 0x10000;
            cp &= 0x07;
        } else {
            return fail(error);
        }
        if (extra > len - i - 1) return fail(error);
        for (unsigned int k = 1; k <= extra; ++k) {
            if ((s[i + k] & 0xC0) != 0x80) return fail(error);
            cp = (cp << 6) | (s[i + k] & 0x3Fu);
        }
        if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return fail(error);
        i += extra + 1;
        if (cp >= 0x10000) {
            if (dest_size - at < 2) return fail(error);
            cp -= 0x10000;
            dest[at++] = static_cast<WChar>(0xD800 + (cp >> 10));
            dest[at++] = static_cast<WChar>(0xDC00 + (cp & 0x3FF));
        } else {
            if (dest_size - at < 1) return fail(error);
            dest[at++] = static_cast<WChar>(cp);
        }
    }
    return at;
}

}  // namespace tarvik::astring_impl
