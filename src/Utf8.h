// Utf8.h: the one UTF-8 decoder and encoder of the library, and the UTF-16 pairing of code points.
//
// The decoder reads a sequence by its lead byte alone, as the folding conversions of AString and String
// want it: a byte below 128, or one that cannot lead (a stray continuation 128-191, 254, 255), is a
// sequence of one byte whose value is the byte; 192-223 takes one continuation byte, 224-239 two, 240-247
// three, 248-251 four, 252-253 five, each adding its low 6 bits whatever its top bits are. It also says
// whether the sequence is well-formed UTF-8 (lead 194-244, continuations 10xxxxxx, shortest form, a
// character up to U+10FFFF that is no surrogate), which is what the strict conversion of the system code
// page needs. A sequence cut short by the end of the text has length 0.
//
// Callers:
//   AString DecodeFromUTF8  folds code points into bytes (a code point of 65536 or more becomes two)
//   String DecodeFromUTF8   code points into 16-bit units (above U+FFFF: a surrogate pair)
//   astring_impl (Linux)    the strict conversion between UTF-8 and wide text
//   String EncodeToUTF8     each 16-bit unit on its own, surrogates included (3 bytes each)
//   XmlParser               character references
#pragma once

#include "tarvik/Types.h"

namespace tarvik::utf8 {

struct Sequence {
    unsigned long code;  // the code point the lead byte rule gives (up to 31 bits)
    unsigned int length;  // bytes taken; 0 when the text ends inside the sequence
    bool well_formed;     // strict UTF-8 (see the header comment)
};

// The number of continuation bytes a lead byte asks for under the lead byte rule.
inline unsigned int continuation_count(unsigned int lead) {
    return lead < 192 ? 0 : lead < 224 ? 1 : lead < 240 ? 2 : lead < 248 ? 3 : lead < 252 ? 4 : lead < 254 ? 5 : 0;
}

inline bool is_surrogate(unsigned long cp) { return cp >= 0xD800 && cp <= 0xDFFF; }

// A Unicode scalar value: up to U+10FFFF and no surrogate.
inline bool is_character(unsigned long cp) { return cp <= 0x10FFFF && !is_surrogate(cp); }

// Decodes the sequence that starts at s[0]; n (at least 1) is the number of bytes left.
inline Sequence decode(unsigned char const* s, unsigned int n) {
    unsigned int lead = s[0];
    unsigned int extra = continuation_count(lead);
    if (extra == 0) return {lead, 1, lead < 0x80};
    if (extra > n - 1) return {0, 0, false};
    static constexpr unsigned char kLeadBits[] = {0, 0x1F, 0x0F, 0x07, 0x03, 0x01};
    static constexpr unsigned long kShortest[] = {0, 0x80, 0x800, 0x10000, 0x200000, 0x4000000};
    unsigned long code = lead & kLeadBits[extra];
    bool continuations = true;
    for (unsigned int k = 1; k <= extra; ++k) {
        continuations = continuations && (s[k] & 0xC0) == 0x80;
        code = (code << 6) | (s[k] & 0x3Fu);
    }
    bool well_formed = extra <= 3 && continuations && code >= kShortest[extra] && is_character(code);
    return {code, extra + 1, well_formed};
}

// Writes the UTF-8 form of cp (up to U+10FFFF; a surrogate is written as the 3 bytes of its value) to
// out, which has room for 4 bytes; returns the count.
inline unsigned int encode(unsigned long cp, char* out) {
    if (cp < 0x80) {
        out[0] = static_cast<char>(cp);
        return 1;
    }
    if (cp < 0x800) {
        out[0] = static_cast<char>(0xC0 | (cp >> 6));
        out[1] = static_cast<char>(0x80 | (cp & 0x3F));
        return 2;
    }
    if (cp < 0x10000) {
        out[0] = static_cast<char>(0xE0 | (cp >> 12));
        out[1] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out[2] = static_cast<char>(0x80 | (cp & 0x3F));
        return 3;
    }
    out[0] = static_cast<char>(0xF0 | (cp >> 18));
    out[1] = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out[2] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out[3] = static_cast<char>(0x80 | (cp & 0x3F));
    return 4;
}

// Writes cp (up to U+10FFFF) as 16-bit units: one below U+10000, otherwise a surrogate pair. Returns the
// count.
inline unsigned int to_units(unsigned long cp, WChar* out) {
    if (cp < 0x10000) {
        out[0] = static_cast<WChar>(cp);
        return 1;
    }
    cp -= 0x10000;
    out[0] = static_cast<WChar>(0xD800 + (cp >> 10));
    out[1] = static_cast<WChar>(0xDC00 + (cp & 0x3FF));
    return 2;
}

// The code point of the units at u[0] (n of them left, at least 1): a high surrogate followed by a low one
// is combined and `taken` becomes 2; any other unit stands for itself (taken 1).
inline unsigned long from_units(WChar const* u, unsigned int n, unsigned int& taken) {
    unsigned long hi = u[0];
    if (hi >= 0xD800 && hi <= 0xDBFF && n > 1 && u[1] >= 0xDC00 && u[1] <= 0xDFFF) {
        taken = 2;
        return 0x10000 + ((hi - 0xD800) << 10) + (static_cast<unsigned long>(u[1]) - 0xDC00);
    }
    taken = 1;
    return hi;
}

}  // namespace tarvik::utf8
