// The XML form of a tuple (Tuple::read_xml).
#include "FuzzSupport.h"
#include "tarvik/IOBStream.h"

using namespace tarvik;

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    fuzz::quiet_log();
    StringBuffer const bytes = fuzz::bytes_of(data, size);
    IBStream in(bytes);
    Tuple t;
    t.read_xml(in);
    return 0;
}
