// TupleDump.cpp: the debug dumps of tuples carried in ASCII CommBuffers.
#include "TupleDump.h"

#include <atomic>

#include "LogUnit.h"
#include "Memory.h"
#include "tarvik/CommBuffer.h"
#include "tarvik/GlobVar.h"
#include "tarvik/IOBStream.h"
#include "tarvik/Path.h"

TARVIK_LOG_UNIT()

namespace tarvik {

namespace {

// "TVK.COMM" "REQUESTS.XML.SAVE": when not 0, ASCII request buffers are saved as debug dumps.
GlobVarInt& requests_xml_save() {
    static GlobVarInt* const variable = memory::create<GlobVarInt>(Symbol("TVK.COMM"), Symbol("REQUESTS.XML.SAVE"), 0);
    return *variable;
}
// NOLINTNEXTLINE(cert-err58-cpp): built at load on purpose, so that a host can list and set it at once
[[maybe_unused]] GlobVarInt& requests_xml_save_at_load = requests_xml_save();

std::atomic<unsigned int> debug_dump_counter{0};

}  // namespace

void save_debug_dump(CommBuffer const& buffer, char const* direction) {
    if (requests_xml_save().get() == 0) return;
    CommBuffer& pages = const_cast<CommBuffer&>(buffer);  // headers and flags are refreshed, not the content
    pages.update_ascii_flags();
    pages.update_headers();
    AString name;
    name.Format("./debug-req-%05u-%s.txt", debug_dump_counter.fetch_add(1), direction);
    AString text = buffer.to_string();
    OBStream out(Path(name), false, false);
    if (!out.is_open()) {
        TVK_LOG(LEVEL_ERR, "CANNOT WRITE DEBUG DUMP '%0'") << name;
        return;
    }
    out.put(text.c_str(), text.length());
}

}  // namespace tarvik
