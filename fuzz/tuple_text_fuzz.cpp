// The one-line text form of a tuple (Tuple::from_string); what reads back must write out and read back
// equal. Values of one name that stand side by side (a decoder keeps both) come back in reverse order,
// each insertion going in front of its namesakes, so the check reads the text back twice.
#include "FuzzSupport.h"

using namespace tarvik;

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    fuzz::quiet_log();
    AString const text = fuzz::text_of(data, size);
    Tuple t;
    if (!t.from_string(text.c_str())) return 0;
    Tuple once, twice;
    if (!once.from_string(t.to_string().c_str()) || !twice.from_string(once.to_string().c_str())) __builtin_trap();
    if (!(twice == t)) __builtin_trap();
    return 0;
}
