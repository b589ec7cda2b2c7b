// The pattern matcher (Tuple::match): the input is the escape character, the pattern up to the first line
// feed, then the text; matched once from a string and once from a stream.
#include "FuzzSupport.h"
#include "tarvik/IOBStream.h"

using namespace tarvik;

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    fuzz::quiet_log();
    if (size < 1) return 0;
    char const escape = static_cast<char>(data[0]);
    std::size_t cut = 1;
    while (cut < size && data[cut] != '\n') ++cut;
    AString const pattern = fuzz::text_of(data + 1, cut - 1);
    std::size_t const from = cut < size ? cut + 1 : size;
    AString const text = fuzz::text_of(data + from, size - from);
    Tuple t;
    t.match(pattern, text, escape);
    StringBuffer const bytes = fuzz::bytes_of(data + from, size - from);
    IBStream in(bytes);
    Tuple u;
    u.match(pattern, in, escape);
    return 0;
}
