// Interface.h: the named interfaces of a service, and the prepared call.
//
// A service (Service.h) exposes named interfaces; an interface exposes methods. A method is a
// Service::CallMethod object registered once per process under "interface.method". A call names its
// method through the class name of its input tuple, so a call is fully described by an interface and two
// tuples, which is what lets the same call travel as a request to another process (ServiceManager.h).
//
// Interface::call(in, out) looks up "<interface name>.<class name of in>" and runs that method. When none is
// registered it logs "INTERFACE CALL: '%0'.'%1' FUNCTION NOT REGISTERED" at ERR (interface, method), leaves
// `out` untouched and returns kNotRegistered (-1).
//
// Ownership: an interface is a counted object held through AutoRef<Interface>. A service holds each of its
// interfaces; while an interface is bound to a service (set_service), every reference to the interface
// other than the service's own holds the service as well, so an AutoRef<Interface> kept by a caller (or by
// a Call_C) keeps its service alive. The service unbinds its interfaces when it is destroyed.
//
// Session context (a Tuple, which the service manager carries in requests and answers as
// "session_context"): while a call runs with a session context, that context is the current one on the
// calling thread, and the method reaches it through the interface it was called on:
//   get_session_context(t)      copies the current call's context into t, or the service's own context
//                               when the call runs without one; returns t
//   set_session_context(t)      replaces the current call's context (the caller gets it back), or the
//                               service's own when the call runs without one
//   get_self_session_context(t) copies the service's own context into t, whatever the call; returns t
//   set_self_session_context()  makes the current call's context the service's own (a method adopts the
//                               caller's session); nothing when the call runs without one
// call(in, out, context) runs with a copy of *context: what the method changes is not returned (use
// Service::call with a session tuple for that).
//
// Thread safety: call() may run on several threads at once; the registry of methods takes its own lock
// for lookups only, never while a method runs. get_cs() is the interface's own section; it guards the
// interface's counts and its service link. Lock order: a service's section before its interfaces' (the
// service is locked while it binds an interface); the method registry's lock is taken last, under either.
#pragma once

#include "tarvik/AString.h"
#include "tarvik/AutoRef.h"
#include "tarvik/CriticalSection.h"
#include "tarvik/ThreadSafety.h"
#include "tarvik/Tuple.h"
#include "tarvik/Types.h"

namespace tarvik {

class Service;

class TARVIK_EXPORT Interface : public RefObject {
public:
    // The result of a call whose method is not registered.
    static constexpr long kNotRegistered = -1;

    explicit Interface(char const* name);
    ~Interface() override;
    Interface(Interface const&) = delete;
    Interface& operator=(Interface const&) = delete;

    AString const& get_name() const { return name_; }
    // The service the interface belongs to (null when unbound). The pointer is not counted by itself:
    // hold the interface (or the service) for as long as it is used.
    Service* get_service() const TARVIK_EXCLUDES(cs_);
    // Binds the interface to a service, or unbinds it (null). Service::add_interface does this.
    void set_service(Service* service) TARVIK_EXCLUDES(cs_);
    CriticalSection& get_cs() override TARVIK_RETURN_CAPABILITY(cs_);

    // True for the interfaces of a proxy service, whose calls go to another process.
    virtual bool is_proxy() const;
    // Runs the method named by in's class name (see the header comment); its result, or kNotRegistered.
    virtual long call(Tuple const& in, Tuple& out);
    // The same, with a copy of *context as the current session context (null: none).
    virtual long call(Tuple const& in, Tuple& out, Tuple const* context);

    virtual Tuple& get_self_session_context(Tuple& out);
    virtual void set_self_session_context();
    virtual Tuple& get_session_context(Tuple& out);
    virtual void set_session_context(Tuple const& context);

    // Another interface of the same service, by name; null when unbound or when the service has none.
    AutoRef<Interface> find(char const* name) const;

private:
    // Counted references (see the header comment): beyond the service's own, they hold the service too.
    void attach() override TARVIK_EXCLUDES(cs_);
    void release() override TARVIK_EXCLUDES(cs_);

    friend class Service;  // which names cs_ in its lock order

    AString name_;
    mutable CriticalSection cs_;
    Service* service_ TARVIK_GUARDED_BY(cs_) = nullptr;
    // One reference on service_ is taken for outside holders.
    bool holds_service_ TARVIK_GUARDED_BY(cs_) = false;
};

// A prepared call: an input tuple whose class name is the method name, an output tuple and the interface.
// The caller fills in(), runs call(), then reads out(). Used by one thread at a time.
class TARVIK_EXPORT Call_C {
public:
    Call_C(AutoRef<Interface> const& iface, char const* method);
    Tuple& in() { return in_; }
    Tuple& out() { return out_; }
    // The interface's call(in, out) result; kNotRegistered without an interface.
    int call();

private:
    Tuple in_;
    Tuple out_;
    AutoRef<Interface> iface_;
};

}  // namespace tarvik
