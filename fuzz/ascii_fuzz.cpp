// The ASCII form of a CommBuffer: a tuple carried as its XML text in the pages.
#include "FuzzSupport.h"
#include "tarvik/CommBuffer.h"

using namespace tarvik;

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    fuzz::quiet_log();
    CommBuffer buffer(1024);
    buffer.set_is_ascii(true);
    buffer.write_raw(data, static_cast<unsigned int>(size));
    buffer.rewind();
    Tuple t;
    t.read(buffer);
    return 0;
}
