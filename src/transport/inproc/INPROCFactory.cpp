// INPROCFactory: the factories of the in-process transport ("INPROC:name").
//
// Both take the address apart with "INPROC:%(address)" (no escape character). The listener factory keeps
// a listener only when is_ok() after construction (a name is given); the sender factory keeps the sender
// as made (a sender without a name fails its calls with Sender::CALL_NOT_READY).
#include "transport/inproc/INPROC.h"

#include "LogUnit.h"
#include "Memory.h"

TARVIK_LOG_UNIT()

namespace tarvik {

namespace {

class ListenerFactoryINPROC : public RefFactory {
public:
    char const* factory_name() const override { return Listener::factory_name(); }
    AutoRefBase create(char const* address) override {
        if (tvk_log() > 1) TVK_LOG(LEVEL_LOG, "TRY CREATE '%0'") << address;
        AString name;
        if (!match_inproc_address(address, name)) return AutoRefBase();
        AutoRefBase made(memory::create<INPROCListener>(address));
        if (!static_cast<Listener*>(made.get_())->is_ok()) {
            TVK_LOG(LEVEL_ERR, "INVALID INPROC ADDRESS '%0'") << address;
            return AutoRefBase();
        }
        if (tvk_log() > 1) TVK_LOG(LEVEL_LOG, "OK CREATE '%0'") << static_cast<void const*>(made.get_());
        return made;
    }
};

class SenderFactoryINPROC : public RefFactory {
public:
    char const* factory_name() const override { return Sender::factory_name(); }
    AutoRefBase create(char const* address) override {
        if (tvk_log() > 1) TVK_LOG(LEVEL_LOG, "TRY CREATE '%0'") << address;
        AString name;
        if (!match_inproc_address(address, name)) return AutoRefBase();
        AutoRefBase made(memory::create<INPROCSender>(address));
        if (tvk_log() > 1) TVK_LOG(LEVEL_LOG, "OK CREATE '%0'") << static_cast<void const*>(made.get_());
        return made;
    }
};

}  // namespace

void register_inproc_factories() {
    inproc_config();
    static ListenerFactoryINPROC* const listeners = memory::create<ListenerFactoryINPROC>();
    static SenderFactoryINPROC* const senders = memory::create<SenderFactoryINPROC>();
    (void)listeners;
    (void)senders;
}

}  // namespace tarvik
