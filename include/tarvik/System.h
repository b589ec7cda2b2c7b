// System.h: questions about the running process and machine, and unique identifiers.
//
// The computer name, the program path, the program name and the application name are cached in
// process-wide strings after the first call that fills them (the names can also be set). The working
// directory is read at every call. The error functions read the calling thread's last system error (errno
// on Linux, GetLastError() on Windows).
//
// Thread safety: every function may be called from any thread; the caches are guarded by one lock.
#pragma once

#include "tarvik/AString.h"
#include "tarvik/Types.h"

namespace tarvik {

// The computer name (cached).
TARVIK_EXPORT AString get_system_name();
TARVIK_EXPORT unsigned long get_current_thread_id();
TARVIK_EXPORT unsigned long get_current_process_id();
// The full path of the process's executable (cached).
TARVIK_EXPORT AString get_program_file_path();
// The program name: the one set, else the base name of the executable (which then becomes the set name).
TARVIK_EXPORT AString get_program_name();
// Stores a program name; true when it differs from the stored one (false, and nothing changes, if equal).
TARVIK_EXPORT bool set_program_name(char const* name);
// The application name; "TVK" until one is set.
TARVIK_EXPORT AString get_application_name();
TARVIK_EXPORT bool set_application_name(char const* name);
// The current directory, read at every call.
TARVIK_EXPORT AString get_working_dir();
// The calling thread's last system error number.
TARVIK_EXPORT int get_last_system_error_num();
// "#<number>." followed by the system's message for it, with every "\r\n" removed ("#12345." alone when
// the system has no message).
TARVIK_EXPORT AString get_last_system_error_text();
// A new GUID in the registry text form: braces, upper-case hexadecimal groups 8-4-4-4-12.
TARVIK_EXPORT AString create_guid();
// A new GUID in the library's compact form: 24 characters of
// "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_$", six per 32-bit word of the GUID
// (in memory order), most significant 6-bit group first, so characters 1, 7, 13 and 19 are in "A".."D".
TARVIK_EXPORT AString create_tvk_guid();

}  // namespace tarvik
