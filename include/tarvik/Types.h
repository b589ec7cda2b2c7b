// Types.h: the small vocabulary shared by every family of the library.
//
// WChar is one 16-bit code unit of a String. It is wchar_t on Windows and char16_t elsewhere, so that a
// String holds the same units, and travels in the same wire and file forms, on every platform. Functions
// that accept wide text also accept `wchar_t const*` everywhere; on Linux such text is UTF-32 and is
// converted to 16-bit units (characters above U+FFFF become surrogate pairs).
#pragma once

#include <cstdint>

#include "tarvik/Export.h"

namespace tarvik {

#if defined(_WIN32)
using WChar = wchar_t;
#define TARVIK_WCHAR_T_IS_WCHAR 1
#else
using WChar = char16_t;
#define TARVIK_WCHAR_T_IS_WCHAR 0
#endif
static_assert(sizeof(WChar) == 2, "a String unit is 16 bits on every platform");

// The "not found" result of every search and the "up to the end" count: all bits set.
inline constexpr unsigned int npos = 0xFFFFFFFFu;

// Result code of every operation that cannot open a file.
inline constexpr long kCannotOpenFile = -1000002;
// Result code of a transport whose connection is not ready.
inline constexpr long kConnectionNotReady = -1000001;

class AString;
class String;
class StringBuffer;
class Blob;
class Symbol;
class Path;
class OBStream;
class IBStream;
class CommBuffer;
class Log;

}  // namespace tarvik
