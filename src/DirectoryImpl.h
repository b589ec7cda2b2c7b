// DirectoryImpl.h: what a platform half of Directory provides.
//
// A call that fails leaves the system error where get_last_system_error_num() and
// get_last_system_error_text() find it, for the caller's record; the halves write no records themselves.
#pragma once

#include <memory>

#include "tarvik/AString.h"
#include "tarvik/Array.h"
#include "tarvik/Directory.h"

namespace tarvik::directory_impl {

// Creates one directory whose parent exists. True too when the path already is a directory (made by
// someone else meanwhile, for instance).
bool make(char const* path);
// Removes an empty directory.
bool remove_empty(char const* path);
// Removes a directory and everything in it without following symbolic links; true when the path does not
// exist. A path that is not a directory, or is a link, fails with "not a directory". On failure `failed`
// names the entry that could not be removed (or opened).
bool remove_tree(char const* path, AString& failed);
// Appends the directory's entries, in the system's order, without "." and "..". A link's kind is that of
// its target; a dangling link is `other`.
bool read_entries(char const* path, Array<Directory::Entry>& out);

// A watch over the entries of one directory. The half defines Watch and CloseWatch (declared in
// Directory.h), which releases the watch's descriptors and frees it.
using WatchPtr = std::unique_ptr<Watch, CloseWatch>;
// Null when the directory cannot be watched.
WatchPtr open_watch(char const* path);
// Waits at most `timeout_ms` (0: only looks, negative: no limit) for changes or a wake, then appends every
// change that has arrived. `ended` becomes true when the watched directory was removed or moved away (the
// watch then reports nothing more). Returns the number appended (0 on time-out or wake), or -1.
long wait_changes(Watch* watch, long long timeout_ms, Array<Directory::Change>& out, bool& ended);
// Makes the current or next wait_changes() return at once. Safe from any thread while another waits.
void wake(Watch* watch);

}  // namespace tarvik::directory_impl
