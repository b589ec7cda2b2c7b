// The pull XML parser: every event up to the end or the first error.
#include "FuzzSupport.h"
#include "tarvik/IOBStream.h"
#include "tarvik/Parser.h"

using namespace tarvik;

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    fuzz::quiet_log();
    StringBuffer const bytes = fuzz::bytes_of(data, size);
    IBStream in(bytes);
    XmlParser parser(in);
    for (;;) {
        XmlParser::Event e = parser.next();
        if (e == XmlParser::kDone || e == XmlParser::kError) break;
        if (e == XmlParser::kStart) {
            for (unsigned int i = 0; i < parser.attribute_count(); ++i) parser.attribute(parser.attribute_name(i).c_str());
        }
    }
    return 0;
}
