#include "tarvik/SharedMemory.h"

#include "LogUnit.h"
#include "Memory.h"
#include "SharedMemoryImpl.h"
#include "tarvik/System.h"

TARVIK_LOG_UNIT()

namespace tarvik {

struct SharedMemoryRecord {
    AString name;
    shared_memory_impl::HandlePtr mapping;
    void* view = nullptr;
    unsigned int size = 0;
    bool created = false;
};

SharedMemory::SharedMemory() = default;

SharedMemory::SharedMemory(char const* name, unsigned int size) { set_map(name, size); }

SharedMemory::~SharedMemory() { close(); }

void* SharedMemory::set_map(char const* name, unsigned int size) {
    close();
    record_ = memory::make_unique<SharedMemoryRecord>();
    SharedMemoryRecord* r = record_.get();
    r->name = name;
    r->size = size;
    r->mapping = shared_memory_impl::open(r->name.c_str(), size, &r->created);
    if (!r->mapping) {
        r->created = false;
        TVK_LOG(LEVEL_ERR, "CANNOT CREATE SHARE MEMORY %0 [%1]") << r->name << get_last_system_error_num();
        return get_map();
    }
    r->view = shared_memory_impl::map(r->mapping.get(), size);
    if (!r->view) {
        TVK_LOG(LEVEL_ERR, "CANNOT MAP SHARED MEMORY %0 [%1]") << r->name << get_last_system_error_num();
        r->mapping.reset();
    } else if (tvk_log() > 0) {
        TVK_LOG(LEVEL_LOG, "SHARED MEMORY %0 MAPPED ON %1 SIZE:%2") << r->name << r->view << size;
    }
    return get_map();
}

void* SharedMemory::get_map() const { return record_ ? record_->view : nullptr; }

unsigned int SharedMemory::get_size() const { return record_ ? record_->size : 0; }

bool SharedMemory::created() const { return record_ && record_->created; }

bool SharedMemory::close() {
    if (!record_) return false;
    SharedMemoryRecord* r = record_.get();
    if (tvk_log() > 0) TVK_LOG(LEVEL_LOG, "CLOSE SHM %0") << r->name;
    bool unmapped = false;
    if (r->view) unmapped = shared_memory_impl::unmap(r->view, r->size);
    r->mapping.reset();
    if (tvk_log() > 0) TVK_LOG(LEVEL_LOG, "CLOSE SHM %0 OK") << r->name;
    record_.reset();
    return unmapped;
}

}  // namespace tarvik
