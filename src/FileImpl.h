// FileImpl.h: the file calls a platform half provides to the streams and the blob file forms.
//
// A Handle is the platform's file handle as a number; kInvalidHandle marks none. Every call that fails
// returns -1 (or kInvalidHandle, or false) and leaves the system error where get_last_system_error_num()
// and get_last_system_error_text() find it, so the caller can put it into its "ERR" record.
#pragma once

namespace tarvik::file_impl {

using Handle = long long;
inline constexpr Handle kInvalidHandle = -1;

// An existing file for reading; other holders may read, write and delete it meanwhile.
Handle open_read(char const* path);
// A file for writing, no sharing where the platform knows it: created or truncated, or with `append`
// opened or created and written at its end.
Handle create_write(char const* path, bool append);
// Standard input (0), output (1) or error (2). Such handles are never closed by the library.
Handle standard(int which);
bool is_standard(Handle h);
// Whether text-mode standard output stores a line feed as carriage return + line feed on this platform.
bool standard_output_uses_crlf();
// Whether the handle is a terminal (for colours).
bool is_terminal(Handle h);

// Bytes read (0 at the end of the file) or -1.
long read(Handle h, void* dest, unsigned int n);
// Bytes written or -1. A short count is possible; callers loop.
long write(Handle h, void const* src, unsigned int n);
// The file's size, or false.
bool size(Handle h, unsigned long long* out);
void close(Handle h);

}  // namespace tarvik::file_impl
