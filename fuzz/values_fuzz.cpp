// The binary value forms of a CommBuffer: the first byte picks the kind to read, the second the page size
// (small pages put values across page ends), the rest are the value bytes; values of the kind are read
// until the bytes run out or a read fails.
#include "FuzzSupport.h"
#include "tarvik/Blob.h"
#include "tarvik/CommBuffer.h"
#include "tarvik/String.h"
#include "tarvik/Symbol.h"
#include "tarvik/Time.h"

using namespace tarvik;

namespace {

template <class T>
void read_all(CommBuffer const& buffer) {
    for (int i = 0; i < 4096 && buffer.remains(1); ++i) {
        T value;
        if (buffer.read(value) < 0) return;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    fuzz::quiet_log();
    if (size < 2) return 0;
    CommBuffer buffer(CommBuffer::kHeaderSize + 1 + data[1]);
    buffer.write_raw(data + 2, static_cast<unsigned int>(size - 2));
    buffer.rewind();
    switch (data[0] % 16) {
        case 0: read_all<Tuple>(buffer); break;
        case 1: read_all<ListTuple>(buffer); break;
        case 2: read_all<AString>(buffer); break;
        case 3: read_all<String>(buffer); break;
        case 4: read_all<Blob>(buffer); break;
        case 5: read_all<StringBuffer>(buffer); break;
        case 6: read_all<Symbol>(buffer); break;
        case 7: read_all<TimeDate>(buffer); break;
        case 8: read_all<ListInt>(buffer); break;
        case 9: read_all<ListLong>(buffer); break;
        case 10: read_all<ArrayInt>(buffer); break;
        case 11: read_all<ListAString>(buffer); break;
        case 12: read_all<ListString>(buffer); break;
        case 13: read_all<ListSymbol>(buffer); break;
        case 14: read_all<ListDouble>(buffer); break;
        default: read_all<long long>(buffer); break;
    }
    return 0;
}
