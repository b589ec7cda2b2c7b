// SharedMemory.h: named memory areas that several processes map.
//
// SharedMemory(name, size) creates the area of that name, or opens it when another process (or another
// object of this one) already made it; created() tells which. A new area is zero-filled. The area is
// readable and writable by every process of the machine (it is made with permissions 0666, whatever the
// umask), and it lives until its last holder closes it. The size given is the length mapped: every party
// must agree on it (transports pass it in their address). An existing area is opened whatever size it was
// made with: a smaller size maps the area's start, a larger one grows the area (zero-filled) to that size.
//
// Records (module "TVK", unit "SHAREDMEMORY"): "CANNOT CREATE SHARE MEMORY %0 [%1]" and
// "CANNOT MAP SHARED MEMORY %0 [%1]" at ERR with the name and the system error number; when the unit's log
// level is above 0, "SHARED MEMORY %0 MAPPED ON %1 SIZE:%2", "CLOSE SHM %0" and "CLOSE SHM %0 OK" at LOG.
//
// Thread safety: an object is used by one thread at a time. SharedMemory provides no synchronisation of the
// area's content: processes that share it use Event and Mutex (named) around it.
#pragma once

#include <memory>

#include "tarvik/AString.h"
#include "tarvik/Types.h"

namespace tarvik {

struct SharedMemoryRecord;

class TARVIK_EXPORT SharedMemory {
public:
    SharedMemory();
    SharedMemory(char const* name, unsigned int size);
    // close().
    ~SharedMemory();
    SharedMemory(SharedMemory const&) = delete;
    SharedMemory& operator=(SharedMemory const&) = delete;

    // Closes the current area, then creates or opens the named one; returns get_map().
    void* set_map(char const* name, unsigned int size);
    // The mapped area, or null.
    void* get_map() const;
    unsigned int get_size() const;
    // False without an area; otherwise whether this object created it.
    bool created() const;
    // False without an area; otherwise unmaps and closes it and returns whether a view was unmapped.
    bool close();

private:
    std::unique_ptr<SharedMemoryRecord> record_;
};

}  // namespace tarvik
