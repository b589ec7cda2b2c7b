// services.cpp: a service published on a manager, and a client that calls it by specification string.
//
//     tarvik_services [address]               host and client in this process (default "INPROC:demo")
//     tarvik_services serve ADDRESS           the host alone, until Ctrl-C: "TCPIP:127.0.0.1:5000", ...
//     tarvik_services call ADDRESS            the client alone, against a host started as above
//
// Across two processes:  tarvik_services serve TCPIP:127.0.0.1:5000 &  tarvik_services call TCPIP:127.0.0.1:5000
//
// The host side declares a service class "demo.calc" with two interfaces, "calc" and "text", each made by an
// InterfaceFactory and each with its methods; a ServiceFactory makes services of the class with those
// interfaces. The host creates "demo.calc:main", publishes it on a manager and gives the manager a listener
// on the address. The client side binds to "demo.calc:main@<address>", which checks that the service is
// there and gives a proxy, and calls both interfaces through it: each call travels as a request tuple
// through the transport to the manager, which runs the method and sends the answer back. The client keeps
// a session context: the service counts the client's calls in it.
#include <csignal>
#include <cstdio>
#include <cstring>

#include "tarvik/tarvik.h"

using namespace tarvik;

namespace {

// --- the host side: methods, interfaces and the service class -----------------------------------------------

// Counts the calls of the current session in its context ("calls"), which travels back to the caller.
void count_call(Service& service, char const* iface) {
    AutoRef<Interface> self;
    if (!service.get_interface(iface, self)) return;
    Tuple context;
    self->get_session_context(context);
    context.set_int("calls", context.get_int("calls", 0) + 1);
    self->set_session_context(context);
}

struct CalcMethod : Service::CallMethod {
    CalcMethod(char const* method, bool multiply) : CallMethod("calc", method), multiply(multiply) {}
    long call(Tuple const& in, Tuple& out) override {
        int const a = in.get_int("a", 0), b = in.get_int("b", 0);
        out.set_int("result", multiply ? a * b : a + b);
        if (AutoRef<Service> s = ServiceManager::getService("demo.calc", "main")) count_call(*s, "calc");
        return 0;
    }
    bool multiply;
};
CalcMethod add_method("add", false);
CalcMethod mul_method("mul", true);

struct UpperMethod : Service::CallMethod {
    UpperMethod() : CallMethod("text", "upper") {}
    long call(Tuple const& in, Tuple& out) override {
        AString text = in.get_astring("text");
        out.set_astring("text", text.make_upper());
        if (AutoRef<Service> s = ServiceManager::getService("demo.calc", "main")) count_call(*s, "text");
        return static_cast<long>(text.length());
    }
} upper_method;

// One interface of each name for every service of class demo.calc.
struct NamedInterface : InterfaceFactory {
    explicit NamedInterface(char const* name) : InterfaceFactory("demo.calc"), name(name) {}
    AutoRef<Interface> create(Service&) override { return AutoRef<Interface>(new Interface(name)); }
    char const* name;
};
NamedInterface calc_interface("calc");
NamedInterface text_interface("text");

// Services of class demo.calc, with the interfaces of the factories above.
ServiceFactory demo_services("demo.calc", true);

// --- the client side -----------------------------------------------------------------------------------------

bool show_call(Service& remote, char const* iface, Tuple const& in) {
    Tuple out;
    long const r = remote.call(iface, in, out);
    Tuple context;
    remote.get_session_context(context);
    bcout() << iface << "." << in.get_class_name() << "  sent " << in.to_string() << bendl();
    bcout() << "           got  " << out.to_string() << "  r=" << static_cast<int>(r)
            << "  session " << context.to_string() << bendl();
    return r >= 0;
}

// Host: makes the service, publishes it and listens on the address; the bound address goes to `bound`.
AutoRef<ServiceManager> host(AString const& address, AString& bound) {
    AutoRef<ServiceManager> manager = ServiceManager::create();
    AutoRef<Service> service = Service::create("demo.calc:main");
    AutoRef<Listener> listener;
    if (service && service->publish(manager)) listener = manager->add_listener(address.c_str());
    if (!listener) {
        bcout() << "cannot publish demo.calc:main on " << address << bendl();
        return {};
    }
    Tuple param;
    bound = listener->get_param(param).get_astring("name", "");
    bcout() << "published demo.calc:main on " << bound << bendl();
    return manager;
}

// Client: binds by specification string and calls both interfaces.
bool client(AString const& address) {
    AString text("demo.calc:main@");
    text += address;
    AutoRef<Service> remote = Service::bind(text.c_str());
    if (!remote) {
        bcout() << "cannot bind " << text << bendl();
        return false;
    }
    bcout() << "bound " << text << (remote->is_proxy() ? " (a proxy)" : "") << bendl();
    remote->set_session_id("client-1");

    Tuple add("add"), mul("mul"), upper("upper");
    add.set_int("a", 40);
    add.set_int("b", 2);
    mul.set_int("a", 6);
    mul.set_int("b", 7);
    upper.set_astring("text", "hello, tarvik");
    bool ok = show_call(*remote, "calc", add);
    ok = show_call(*remote, "calc", mul) && ok;
    ok = show_call(*remote, "text", upper) && ok;
    return ok;
}

// Waits for Ctrl-C (SIGINT) or SIGTERM.
void wait_for_stop() {
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    int received = 0;
    sigwait(&stop, &received);
}

}  // namespace

int main(int argc, char** argv) {
    init();
    if (argc == 3 && std::strcmp(argv[1], "serve") == 0) {
        // Blocked before any thread starts, so that every thread leaves them to sigwait.
        sigset_t stop;
        sigemptyset(&stop);
        sigaddset(&stop, SIGINT);
        sigaddset(&stop, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &stop, nullptr);
        AString bound;
        AutoRef<ServiceManager> manager = host(AString(argv[2]), bound);
        if (!manager) return 1;
        wait_for_stop();
        manager->remove_listener(bound.c_str());
        return 0;
    }
    if (argc == 3 && std::strcmp(argv[1], "call") == 0) return client(AString(argv[2])) ? 0 : 1;

    AString const address(argc > 1 ? argv[1] : "INPROC:demo");
    AString bound;
    AutoRef<ServiceManager> manager = host(address, bound);
    if (!manager) return 1;
    bool const ok = client(bound);
    manager->remove_listener(bound.c_str());
    return ok ? 0 : 1;
}
