// TupleDump.h: debug dumps of the ASCII CommBuffers that carry tuples.
//
// While the global variable "TVK.COMM" "REQUESTS.XML.SAVE" is not 0, every ASCII buffer a tuple is written
// to or read from is saved whole, page headers included, as "./debug-req-%05d-<direction>.txt"; the number
// counts dumps process-wide from 0. A dump that cannot be written gives an "ERR" record and nothing else.
// Safe from several threads (each dump takes its own number).
#pragma once

namespace tarvik {

class CommBuffer;

// `direction` is "write" or "read". The buffer's headers and ASCII flags are refreshed first.
void save_debug_dump(CommBuffer const& buffer, char const* direction);

}  // namespace tarvik
