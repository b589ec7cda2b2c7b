// Time texts: a period's text and XML forms, a date's XML form, and a date's format string (the input's
// first line) applied to the date read.
#include "FuzzSupport.h"
#include "tarvik/IOBStream.h"
#include "tarvik/Time.h"

using namespace tarvik;

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    fuzz::quiet_log();
    std::size_t cut = 0;
    while (cut < size && data[cut] != '\n') ++cut;
    AString const format = fuzz::text_of(data, cut);
    std::size_t const from = cut < size ? cut + 1 : size;
    AString const text = fuzz::text_of(data + from, size - from);

    TimePeriod period;
    period.from_string(text.c_str());
    period.to_string();
    period.to_string_full_precision();
    StringBuffer const bytes = fuzz::bytes_of(data + from, size - from);
    IBStream in(bytes);
    period.read_xml(in);
    IBStream again(bytes);
    TimeDate date;
    date.read_xml(again);
    date.to_string(format.c_str());
    date.to_string();
    return 0;
}
