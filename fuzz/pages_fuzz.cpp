// The page stream: cuts the input back into pages as a socket or a file delivers them, then reads what a
// request carries (a tuple, or a list of tuples) from the pages.
#include "FuzzSupport.h"
#include "tarvik/CommBuffer.h"
#include "tarvik/IOBStream.h"

using namespace tarvik;

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    fuzz::quiet_log();
    StringBuffer const bytes = fuzz::bytes_of(data, size);
    IBStream in(bytes);
    CommBuffer buffer;
    while (buffer.read(in) >= 0) {  // one buffer after another, as on a connection
        Tuple t;
        t.read(buffer);
        buffer.rewind();
        ListTuple list;
        buffer.read(list);
    }
    return 0;
}
