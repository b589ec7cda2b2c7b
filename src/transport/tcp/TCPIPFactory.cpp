// TCPIPFactory: the factories of the TCP/IP transport, plain ("TCPIP:host:port") and secure
// ("STCPIP:host:port").
//
// Both take the address apart with "TCPIP:%(address)" then "STCPIP:%(address)" (no escape character).
// The endpoints themselves come with the TCP/IP transport: until then a well-formed address is refused
// with an "ERR" record after the "TRY CREATE" trace, so a caller learns why it got nothing. When the
// listener exists, its factory keeps it only when is_ok() after construction (a listener that could not
// bind is dropped); the sender factory keeps the sender as made.
#include "transport/Transport.h"

#include "LogUnit.h"
#include "Memory.h"
#include "tarvik/Listener.h"
#include "tarvik/Sender.h"

TARVIK_LOG_UNIT()

namespace tarvik {

namespace {

// Shared by both factories: the trace, the match, and the record for a transport not in this build.
bool accept_tcpip(char const* address) {
    if (tvk_log() > 1) TVK_LOG(LEVEL_LOG, "TRY CREATE '%0'") << address;
    AString host_port;
    bool secure = false;
    if (!match_tcpip_address(address, host_port, secure)) return false;
    TVK_LOG(LEVEL_ERR, "NO TCPIP TRANSPORT IN THIS BUILD FOR '%0'") << address;
    return true;
}

class ListenerFactoryTCPIP : public RefFactory {
public:
    char const* factory_name() const override { return Listener::factory_name(); }
    AutoRefBase create(char const* address) override {
        accept_tcpip(address);
        return AutoRefBase();
    }
};

class SenderFactoryTCPIP : public RefFactory {
public:
    char const* factory_name() const override { return Sender::factory_name(); }
    AutoRefBase create(char const* address) override {
        accept_tcpip(address);
        return AutoRefBase();
    }
};

}  // namespace

void register_tcpip_factories() {
    tcpip_config();
    static ListenerFactoryTCPIP* const listeners = memory::create<ListenerFactoryTCPIP>();
    static SenderFactoryTCPIP* const senders = memory::create<SenderFactoryTCPIP>();
    (void)listeners;
    (void)senders;
}

}  // namespace tarvik
