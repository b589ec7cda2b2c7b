// FileLockImpl.h: what a platform half of FileLock provides.
#pragma once

namespace tarvik::file_lock_impl {

// Opens the file for writing, created when missing, for this holder alone: refused at once (-1) while any
// other holder has it open so. A handle, or -1 with the system error left for get_last_system_error_num().
long long open_exclusive(char const* path);
// Locks / unlocks the first 10 bytes; `wait` blocks until the range is free.
bool lock_range(long long handle, bool wait);
bool unlock_range(long long handle);
void close(long long handle);

}  // namespace tarvik::file_lock_impl
