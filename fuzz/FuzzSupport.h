// FuzzSupport.h: what the harnesses share: the input as the library's own containers, and the log records
// of malformed input kept off the console.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "tarvik/AString.h"
#include "tarvik/LogHook.h"
#include "tarvik/StringBuffer.h"
#include "tarvik/Tuple.h"

namespace tarvik::fuzz {

// Takes every record and drops it: each malformed input logs one ERR record, and printing millions of
// them would cost more than the decoding. The record is still built, so its formatting is exercised.
class QuietHook : public LogHook {
public:
    void message(Tuple const&) override {}
};

// Installs the quiet hook once per process (TARVIK_FUZZ_LOG=1 in the environment keeps the console).
inline void quiet_log() {
    static bool const done = [] {
        char const* keep = std::getenv("TARVIK_FUZZ_LOG");
        if (!keep || *keep != '1') (new QuietHook)->hook();  // lives as long as the process
        return true;
    }();
    (void)done;
}

inline StringBuffer bytes_of(std::uint8_t const* data, std::size_t size) {
    StringBuffer bytes(4096);
    bytes.append(reinterpret_cast<char const*>(data), static_cast<unsigned int>(size));
    return bytes;
}

// The input as text (a NUL inside ends it for the decoders that take C strings).
inline AString text_of(std::uint8_t const* data, std::size_t size) {
    return AString(reinterpret_cast<char const*>(data), static_cast<unsigned int>(size));
}

}  // namespace tarvik::fuzz
