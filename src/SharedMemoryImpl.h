// SharedMemoryImpl.h: what a platform half of SharedMemory provides.
//
// Named areas shared by the processes of the machine, readable and writable by all of them, zero-filled
// when new, alive until their last holder closes them. Failures return null / false with the system error
// left for get_last_system_error_num().
#pragma once

#include <memory>

namespace tarvik::shared_memory_impl {

struct Handle;
// Closes a handle (the area goes when this was its last holder) and frees it; defined by the half.
struct CloseHandle {
    void operator()(Handle* h) const;
};
using HandlePtr = std::unique_ptr<Handle, CloseHandle>;

// Creates the area (`*created` true) or opens the existing one (`*created` false).
HandlePtr open(char const* name, unsigned int size, bool* created);
// Maps `size` bytes of the area for reading and writing, growing a smaller area to that size first.
void* map(Handle* h, unsigned int size);
bool unmap(void* view, unsigned int size);

}  // namespace tarvik::shared_memory_impl
