// The one-line text form of a tuple (Tuple::from_string); what reads back must write out and read back
// equal.
#include "FuzzSupport.h"

using namespace tarvik;

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    fuzz::quiet_log();
    AString const text = fuzz::text_of(data, size);
    Tuple t;
    if (!t.from_string(text.c_str())) return 0;
    Tuple back;
    if (!back.from_string(t.to_string().c_str()) || !(back == t)) __builtin_trap();
    return 0;
}
