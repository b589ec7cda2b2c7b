// TCPIPFactory: the factories of the TCP/IP transport, plain ("TCPIP:host:port") and secure
// ("STCPIP:host:port").
//
// Both take the address apart with "TCPIP:%(address)" then "STCPIP:%(address)" (no escape character).
// The listener factory keeps a listener only when is_ok() after construction (one that could not bind is
// dropped, its reason already recorded); the sender factory keeps the sender as made.
#include "transport/Transport.h"

#include "LogUnit.h"
#include "Memory.h"
#include "tarvik/Listener.h"
#include "tarvik/Sender.h"
#include "transport/tcp/TCPIP.h"
#include "transport/tls/Tls.h"

TARVIK_LOG_UNIT()

namespace tarvik {

namespace {

// Shared by both factories: the trace and the match; false for an address that is not ours.
bool accept_tcpip(char const* address, AString& host_port, bool& secure) {
    if (tvk_log() > 1) TVK_LOG(LEVEL_LOG, "TRY CREATE '%0'") << address;
    return match_tcpip_address(address, host_port, secure);
}

template <class Endpoint>
AutoRefBase make_endpoint(char const* address, bool keep_only_ok) {
    AString host_port;
    bool secure = false;
    if (!accept_tcpip(address, host_port, secure)) return AutoRefBase();
    auto* endpoint = memory::create<Endpoint>(host_port.c_str(), secure);
    AutoRefBase made(endpoint);
    if (keep_only_ok && !endpoint->is_ok()) return AutoRefBase();
    if (tvk_log() > 1) TVK_LOG(LEVEL_LOG, "OK CREATE '%0'") << static_cast<void const*>(endpoint);
    return made;
}

class ListenerFactoryTCPIP : public RefFactory {
public:
    char const* factory_name() const override { return Listener::factory_name(); }
    AutoRefBase create(char const* address) override { return make_endpoint<TCPIPListener>(address, true); }
};

class SenderFactoryTCPIP : public RefFactory {
public:
    char const* factory_name() const override { return Sender::factory_name(); }
    AutoRefBase create(char const* address) override { return make_endpoint<TCPIPSender>(address, false); }
};

}  // namespace

void register_tcpip_factories() {
    tcpip_config();
    tcpip_limits();
    register_tls_variables();
    static ListenerFactoryTCPIP* const listeners = memory::create<ListenerFactoryTCPIP>();
    static SenderFactoryTCPIP* const senders = memory::create<SenderFactoryTCPIP>();
    (void)listeners;
    (void)senders;
}

}  // namespace tarvik
