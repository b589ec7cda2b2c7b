// ProxyService.h: the service that stands for a service of another manager.
//
// A proxy has the class and name of the remote service and, as its address, the transport address of the
// remote manager's listener. Its calls become "tvk.call" requests sent through one Sender made from that
// address (ServiceManager.h has the protocol and the records); its interfaces are made on demand, one per
// name asked for, and forward to it. The sender, and so its connection, is released with the proxy.
#pragma once

#include "tarvik/AutoRef.h"
#include "tarvik/Sender.h"
#include "tarvik/Service.h"

namespace tarvik {

class ProxyService : public Service {
    // Only make() can name it, so a proxy is made only there (with its sender) and always counted.
    struct MakeTag {
        explicit MakeTag() = default;
    };

public:
    ProxyService(MakeTag, char const* class_name, char const* name, char const* address);
    // Makes the proxy and its sender ("CREATE PROXY SERVICE class=%0 name=%1 arg=%2"); the sender is null
    // when no transport accepts the address.
    static AutoRef<ProxyService> make(char const* class_name, char const* name, char const* address);

    bool is_proxy() const override { return true; }
    // Adds the interface under the service's section when it is new, then looks it up.
    bool get_interface(char const* name, AutoRef<Interface>& out) override TARVIK_EXCLUDES(get_cs());
    // Sends with the proxy's own session context, and takes the answer's as its own.
    long call(char const* iface_name, Tuple const& in, Tuple& out) override TARVIK_EXCLUDES(get_cs());
    // Sends with `session`, and leaves the answer's session context in it.
    long call(Tuple& session, char const* iface_name, Tuple const& in, Tuple& out) override
        TARVIK_EXCLUDES(get_cs());
    // Asks the remote manager whether the service is published there ("tvk.check" answered with r = 1).
    bool check_connection() TARVIK_EXCLUDES(get_cs());

private:
    // One exchange; `session` is sent when not empty and replaced by the answer's context when it has one.
    long exchange_(Tuple& session, char const* iface_name, Tuple const& in, Tuple& out)
        TARVIK_EXCLUDES(get_cs());

    AutoRef<Sender> sender_;  // set once at construction, so read without a lock
};

}  // namespace tarvik
