// ServiceManager.h: publishes services and answers the requests its listeners receive.
//
// A host makes a manager, publishes services on it, and gives it listeners (Listener.h); a caller in another
// thread, process or machine binds to "class:name@address" (Service::bind), which gives a proxy service
// whose calls travel as request tuples through a Sender to the manager's listener and come back as answer
// tuples:
//
//     AutoRef<ServiceManager> manager = ServiceManager::create();
//     service->publish(manager);
//     manager->add_listener("INPROC:demo");
//     ...
//     AutoRef<Service> remote = Service::bind("demo.calc:main@INPROC:demo");
//     long r = remote->call("calc", in, out);
//
// The manager is a handle: ServiceManager::create() returns the library's implementation, which is also the
// Listener::Callback that every listener of the manager delivers to.
//
// The protocol. Requests and answers are told apart by their class name:
//   "tvk.call"         "args_in" (tuple), "tvk.req.timestamp" (date-time, when the proxy built it),
//                      "svc_class", "svc_name" (narrow strings), "iface_name" (narrow string, only when the
//                      caller named an interface), "session_context" (tuple, only when the proxy has one)
//   "tvk.call_return"  "args_out" (tuple), "session_context" (tuple, only when not empty after the call),
//                      "r" (int, the call's result, always present), "tvk.req.timestamp" (copied unchanged
//                      from the request when it has one)
//   "tvk.check"        "svc_class", "svc_name"
//   "tvk.check_return" "r" (int): 1 when the service is published here, 2 when it is not
//
// Dispatch of one request (on the listener's thread, several at once):
//   1. A request is hostile input and is checked first: tuples nested deeper than kMaxRequestDepth (128, as
//      deep as a CommBuffer carries) below the request log "REQUEST NESTED DEEPER THAN %0" at ERR;
//      a missing "svc_class" or "svc_name", or an attribute of the protocol held with another kind, logs
//      "INVALID REQUEST ATTRIBUTE '%0' IN %1" at ERR. Such a request gets an empty answer (no "r").
//   2. The published service of that class and name is looked up. A "tvk.check" is answered at once.
//   3. No service: "NO MATCHING SERVICE %0" at ERR with the request; the answer stays empty (no "r"), which
//      the proxy reports as an invalid answer.
//   4. A matched request of another class than "tvk.call" is not executed: "REQUEST CLASS '%0' NOT EXECUTED
//      BY %1.%2" at ERR, empty answer.
//   5. A call runs Service::call(session, iface_name, args_in, args_out) with the request's session context
//      (empty without one), and the answer carries "args_out", "r", the session context when not empty and
//      the request's timestamp. "CALL %0.%1.%2(%3,%4)=%5" at LOG when the level is above 2.
//
// The proxy side (a service made by Service::bind with an address, or by make_proxy): each call sends a
// "tvk.call" through its sender, takes "args_out" into the caller's output tuple (the caller's output is
// replaced, class name included) and the answer's session context as its own, and returns "r". Failures:
//   - no sender (the address named no transport): "PROXY %0.%1.%2 CALL NO SENDER" at ERR, kNoSender;
//   - the exchange failed: the sender's negative result (Sender::CallResult), `out` untouched;
//   - an answer without "r": "INVALID ANSWER REQUEST (no return value) '%0' => ANSWER '%1'" at ERR,
//     kInvalidAnswer.
// "request time => '%0'" at LOG (above 2) gives the time from the request's timestamp to the answer.
// The connection check sends "tvk.check": "TRY CHECK CONNECTION %0" (above 1), "CHECK CONNECTION CREATE %0
// %1" (address and whether a sender was made; at ERR when none was), "CHECK CONNECTION %0" (the
// answer's "r", or the sender's negative result; above 1). Proxies are made with "CREATE PROXY SERVICE class=%0 name=%1 arg=%2" (above 0).
//
// Publishing: one service per class and name per manager; a second one is refused with "SERVICE %0.%1
// ALREADY PUBLISHED" at ERR. The manager holds a reference to each published service and to each of its
// listeners. Records: "CREATE SERVICE MANAGER %0" / "DELETE SERVICE MANAGER %0" and "PUBLISH SERVICE %0.%1"
// / "UNPUBLISH SERVICE %0.%1" at LOG above 0.
//
// Lifetime: releasing the last reference to a manager stops and unlinks its listeners (in-flight requests
// finish or fail, as Listener::stop says), drops its listeners (and so their threads) and unpublishes its
// services. A proxy's sender, and its connection, go with the proxy.
//
// Thread safety: every operation may be called from any thread, and requests are dispatched on several
// threads at once while services are published and unpublished. The manager's registry lock is held only to
// look up, add or remove entries: never while a method runs, nor while a listener starts or stops.
#pragma once

#include "tarvik/AutoRef.h"
#include "tarvik/Listener.h"
#include "tarvik/Service.h"
#include "tarvik/Types.h"

namespace tarvik {

class TARVIK_EXPORT ServiceManager : public RefObject {
public:
    // Results of a proxy call that did not get a result from the remote service.
    static constexpr long kNoSender = -1000001;
    static constexpr long kInvalidAnswer = -1000020;
    // The deepest nesting of tuples a request may carry.
    static constexpr int kMaxRequestDepth = 128;

    // A new manager (the library's implementation).
    static AutoRef<ServiceManager> create();

    // Publishes a service under its class and name; false for a null service or when another service of
    // that class and name is published here. A service published on another manager leaves it first.
    virtual bool publish(AutoRef<Service> const& service) = 0;
    // Withdraws a published service; false when it is not published here.
    virtual bool unpublish(AutoRef<Service> const& service) = 0;
    // The service of that class and name published here, or an empty reference.
    virtual AutoRef<Service> get_service(char const* class_name, char const* name) = 0;

    // Makes a listener from an address (Listener.h), links it and starts it; the listener, or an empty
    // reference ("ADD LISTENER '%0' FAILED" at ERR) when no transport accepts the address or it cannot start.
    virtual AutoRef<Listener> add_listener(char const* address) = 0;
    // Links and starts (when stopped) a listener made by the caller; false for a null one or when it cannot
    // start.
    virtual bool add_listener(AutoRef<Listener> const& listener) = 0;
    // Stops, unlinks and drops a listener of this manager, by the address it was added with or by
    // reference; false when the manager has no such listener.
    virtual bool remove_listener(char const* address) = 0;
    virtual bool remove_listener(AutoRef<Listener> const& listener) = 0;

    // The manager as the receiver of requests: what its listeners deliver to, and what a caller can drive
    // directly with a request tuple.
    virtual Listener::Callback& get_callback() = 0;

    // The service of that class and name published on any manager of this process (the newest manager
    // first), or an empty reference.
    static AutoRef<Service> getService(char const* class_name, char const* name);
    // A proxy for the service of that class and name at a transport address, without a connection check.
    // Its calls fail with kNoSender when no transport accepts the address.
    static AutoRef<Service> make_proxy(char const* class_name, char const* name, char const* address);

    // The name a manager is made under: "tarvik::ServiceManager".
    static char const* factory_name() { return "tarvik::ServiceManager"; }

protected:
    ServiceManager() = default;
    ~ServiceManager() override = default;
};

}  // namespace tarvik
