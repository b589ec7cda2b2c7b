// The INI parser: every section and entry up to the end or the first error.
#include "FuzzSupport.h"
#include "tarvik/IOBStream.h"
#include "tarvik/Parser.h"

using namespace tarvik;

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    fuzz::quiet_log();
    StringBuffer const bytes = fuzz::bytes_of(data, size);
    IBStream in(bytes);
    IniParser parser(in);
    for (;;) {
        IniParser::Event e = parser.next();
        if (e == IniParser::kDone || e == IniParser::kError) break;
    }
    return 0;
}
