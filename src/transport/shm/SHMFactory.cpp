// SHMFactory: the factories of the shared-memory transport ("SHM:name" and "SHM:name:size").
//
// Both take the address apart with "SHM:%(address):%(size)" then "SHM:%(address)"; the size is the atoi
// of its text, 0 (no size, or a text that is no number) meaning the transport's default. A negative size
// is refused. The endpoints themselves come with the shared-memory transport: until then a well-formed
// address is refused with an "ERR" record after the "TRY CREATE" trace.
#include "transport/Transport.h"

#include "LogUnit.h"
#include "Memory.h"
#include "tarvik/Listener.h"
#include "tarvik/Sender.h"

TARVIK_LOG_UNIT()

namespace tarvik {

namespace {

bool accept_shm(char const* address) {
    if (tvk_log() > 1) TVK_LOG(LEVEL_LOG, "TRY CREATE '%0'") << address;
    AString name;
    int size = 0;
    if (!match_shm_address(address, name, size)) return false;
    if (size < 0) {
        TVK_LOG(LEVEL_ERR, "INVALID SHARED MEMORY SIZE %0 IN '%1'") << size << address;
        return true;
    }
    TVK_LOG(LEVEL_ERR, "NO SHM TRANSPORT IN THIS BUILD FOR '%0'") << address;
    return true;
}

class ListenerFactorySHM : public RefFactory {
public:
    char const* factory_name() const override { return Listener::factory_name(); }
    AutoRefBase create(char const* address) override {
        accept_shm(address);
        return AutoRefBase();
    }
};

class SenderFactorySHM : public RefFactory {
public:
    char const* factory_name() const override { return Sender::factory_name(); }
    AutoRefBase create(char const* address) override {
        accept_shm(address);
        return AutoRefBase();
    }
};

}  // namespace

void register_shm_factories() {
    shm_config();
    static ListenerFactorySHM* const listeners = memory::create<ListenerFactorySHM>();
    static SenderFactorySHM* const senders = memory::create<SenderFactorySHM>();
    (void)listeners;
    (void)senders;
}

}  // namespace tarvik
