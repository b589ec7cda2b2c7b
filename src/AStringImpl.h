// AStringImpl.h: the text conversions a platform half of AString provides.
//
// The "system code page" is the narrow encoding of the platform: the ANSI code page on Windows, UTF-8 on
// Linux. Each conversion writes at most dest_size units and returns how many it wrote, or -1 with the
// system error number in *error (the text cannot be represented, or does not fit).
#pragma once

#include "tarvik/Types.h"

namespace tarvik::astring_impl {

// The most narrow bytes that one wchar_t can become: 3 for a UTF-16 unit, 4 for a UTF-32 character.
unsigned int max_narrow_per_wide();

// `count` wchar_t characters (UTF-16 on Windows, UTF-32 on Linux) to the system code page.
long wide_to_system(wchar_t const* text, unsigned int count, char* dest, unsigned int dest_size, int* error);

#if !TARVIK_WCHAR_T_IS_WCHAR
// `count` 16-bit units (UTF-16, surrogate pairs combined) to the system code page.
long units_to_system(WChar const* units, unsigned int count, char* dest, unsigned int dest_size, int* error);
#endif

// `len` bytes of UTF-8 to 16-bit units (no terminator added).
long utf8_to_units(char const* utf8, unsigned int len, WChar* dest, unsigned int dest_size, int* error);

}  // namespace tarvik::astring_impl
