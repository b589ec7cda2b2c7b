// PathImpl.h: what a platform half of Path provides: the questions asked of the file system.
//
// Every call follows symbolic links. A call that fails leaves the system error where
// get_last_system_error_num() and get_last_system_error_text() find it, for the caller's record.
#pragma once

#include <cstdint>

#include "tarvik/AString.h"
#include "tarvik/Time.h"

namespace tarvik::path_impl {

enum class Kind { none, file, directory, other };

// What the path names; none (with the system error) when it cannot be examined.
Kind kind(char const* path);
// The size of a regular file, or -1 (the system error says why; "is a directory" for a directory, "invalid
// argument" for another kind of entry).
std::int64_t size(char const* path);
// The last modification time as a local TimeDate; false when the path cannot be examined.
bool modified(char const* path, TimeDate& out);
// The platform's directory for temporary files.
AString temp_directory();

}  // namespace tarvik::path_impl
