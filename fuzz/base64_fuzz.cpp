// Base64 (the blob's text form): what decodes must encode and decode back to the same bytes.
#include "FuzzSupport.h"
#include "tarvik/Blob.h"
#include "tarvik/IOBStream.h"

using namespace tarvik;

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    fuzz::quiet_log();
    AString const text = fuzz::text_of(data, size);
    Blob blob;
    blob.from_string(text.c_str());
    AString encoded;
    blob.to_string(encoded);
    Blob back;
    back.from_string(encoded.c_str());
    if (back.compare(blob) != 0) __builtin_trap();
    StringBuffer const bytes = fuzz::bytes_of(data, size);
    IBStream in(bytes);
    Blob streamed;
    in >> streamed;
    return 0;
}
