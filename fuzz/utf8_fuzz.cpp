// UTF-8 conversion: the input decoded to 8-bit characters, to 16-bit units (and encoded back), and to the
// system code page.
#include "FuzzSupport.h"
#include "tarvik/String.h"

using namespace tarvik;

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    fuzz::quiet_log();
    AString const text = fuzz::text_of(data, size);
    AString narrow;
    DecodeFromUTF8(text, narrow);
    String wide;
    DecodeFromUTF8(text, wide);
    AString encoded;
    EncodeToUTF8(wide, encoded);
    AString system;
    DecodeFromUTF8(text.c_str(), system);
    return 0;
}
