// Linux half of AString's conversions: the system code page is UTF-8 and wchar_t is UTF-32.
//
// Conversions are strict: a surrogate that is not part of a pair, a character above U+10FFFF or a
// malformed UTF-8 sequence fails with EILSEQ rather than being replaced, so that a failed conversion is
// reported instead of silently changing the text.
#include "AStringImpl.h"

#include <cerrno>

#include "LogUnit.h"
#include "Utf8.h"

TARVIK_LOG_UNIT()

namespace tarvik::astring_impl {

namespace {

// Appends the UTF-8 form of code point cp; false when it does not fit or is not a character.
bool put_utf8(unsigned long cp, char* dest, unsigned int dest_size, unsigned int& at) {
    if (!utf8::is_character(cp)) return false;
    char bytes[4];
    unsigned int n = utf8::encode(cp, bytes);
    if (n > dest_size - at) return false;
    for (unsigned int i = 0; i < n; ++i) dest[at++] = bytes[i];
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
    for (unsigned int i = 0; i < count;) {
        unsigned int taken;
        unsigned long cp = utf8::from_units(units + i, count - i, taken);
        if (!put_utf8(cp, dest, dest_size, at)) return fail(error);  // a surrogate left alone fails here
        i += taken;
    }
    return at;
}

long utf8_to_units(char const* text, unsigned int len, WChar* dest, unsigned int dest_size, int* error) {
    auto const* s = reinterpret_cast<unsigned char const*>(text);
    unsigned int at = 0;
    for (unsigned int i = 0; i < len;) {
        utf8::Sequence seq = utf8::decode(s + i, len - i);
        if (seq.length == 0 || !seq.well_formed) return fail(error);
        i += seq.length;
        unsigned int need = seq.code < 0x10000 ? 1 : 2;
        if (dest_size - at < need) return fail(error);
        at += utf8::to_units(seq.code, dest + at);
    }
    return at;
}

}  // namespace tarvik::astring_impl
