// The token parser: every token up to the end or the first error.
#include "FuzzSupport.h"
#include "tarvik/IOBStream.h"
#include "tarvik/Parser.h"

using namespace tarvik;

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    fuzz::quiet_log();
    StringBuffer const bytes = fuzz::bytes_of(data, size);
    IBStream in(bytes);
    TokenParser parser(in);
    for (;;) {
        TokenParser::Kind k = parser.next();
        if (k == TokenParser::kEnd || k == TokenParser::kError) break;
    }
    return 0;
}
