// The XML form of a table (Table::read_xml).
#include "FuzzSupport.h"
#include "tarvik/IOBStream.h"
#include "tarvik/Table.h"

using namespace tarvik;

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    fuzz::quiet_log();
    StringBuffer const bytes = fuzz::bytes_of(data, size);
    IBStream in(bytes);
    Table table;
    table.read_xml(in);
    return 0;
}
