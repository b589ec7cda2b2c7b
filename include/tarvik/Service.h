// Service.h: services, their methods, and how a service is made or reached from a specification string.
//
// A Service is a named object of a service class that owns interfaces (Interface.h) and can be published
// on a ServiceManager (ServiceManager.h), which routes requests from other processes to it. A method is a
// Service::CallMethod registered once per process under an interface name and a method name; a call picks
// it through the class name of its input tuple.
//
// Specification strings, read with Tuple::match (the first pattern that fits wins):
//   create  "%(class):%(name):%(args)", then "%(class):%(name)"   ("svc:main:x=1", "svc:main")
//   bind    "%(class):%(name)@%(address)", then "%(class):%(name)" ("svc:main@INPROC:demo", "svc:main")
// create() asks the ServiceFactory objects registered under the class (ServiceFactory.h), newest first,
// until one makes a service; a text that fits no pattern logs "CREATE '%0' INVALID SERVICE SPECIFICATION" at
// ERR. bind() without an address returns the service of that class and name published on a manager of this
// process (ServiceManager::getService); with an address (a transport address such as "INPROC:demo" or
// "TCPIP:host:5000") it makes a proxy service whose calls travel to the manager listening there, checks
// that the remote service exists ("tvk.check"), and returns the proxy; when the check fails it logs
// "SERVICE %0.%1 NOT CONNECTED" at ERR and returns an empty reference. A bind text that fits no pattern
// logs "BIND '%0' INVALID SERVICE SPECIFICATION" at ERR.
//
// Picking the interface of a call (call(iface_name, in, out)):
//   - a name given: the interface of that name; none logs "INTERAFCE %0 NOT FOUND" at ERR and the call
//     returns kNoInterface (-2). An interface that another service owns logs "INTERFACE %0 BELONG TO
//     SERVICE %1" at ERR and is not used.
//   - no name (null or ""): the first interface, in the order they were added, that has a method named by
//     in's class name registered; when none has, the first interface (whose call then reports the
//     unregistered method); a service without interfaces logs "INTERAFCE %0 NOT FOUND" with "".
//
// Session context: a service has its own session context (a Tuple), whose session identifier is kept in
// it under "session_id". call(session, iface_name, in, out) makes `session` the current context while the
// method runs (Interface.h), and the method's changes to it are left in `session`: that is how the manager
// carries a caller's context in and back out. call(iface_name, in, out) runs without a current context, so
// the methods see the service's own. A proxy sends its own context (or the given session) with each call
// and takes the answer's in its place.
//
// Records (unit "SERVICE"): "CREATE SERVICE %0 [%1]", "CREATE SERVICE %0.%1 [%2]", "DELETE SERVICE %0 [%1]"
// and "SERVICE %0.%1 PUBLISHED ADDRESS=%2" / "... UNPUBLISHED ADDRESS=%2" when the level is above 0;
// "CHECK SERVICE FACTORY %0 %1 = %2" (create with every factory) and "CHECK SERVICE FACTORY %0 = %1" (with one
// given factory) above 0; "CALL METHOD REGISTER '%0.%1'" above 1.
//
// Thread safety: every operation of a service may be called from several threads; get_cs() is the
// service's own section, which guards its interfaces, session context, address and manager link, and is
// never held while a method runs. The method registry takes its own lock for registration and lookup only.
// Methods are meant to be process-lifetime objects (static or leaked): a method destroyed while a call on
// another thread has just looked it up is a use after free.
#pragma once

#include "tarvik/AString.h"
#include "tarvik/AutoRef.h"
#include "tarvik/CriticalSection.h"
#include "tarvik/Interface.h"
#include "tarvik/ThreadSafety.h"
#include "tarvik/List.h"
#include "tarvik/Tuple.h"
#include "tarvik/Types.h"

namespace tarvik {

class ServiceFactory;
class ServiceManager;

class TARVIK_EXPORT Service : public RefObject {
public:
    // The result of a call whose interface cannot be found.
    static constexpr long kNoInterface = -2;

    // A method: registered at construction under "interface.method" (a later registration of the same
    // pair replaces it; destruction removes it when it is still the registered one).
    class TARVIK_EXPORT CallMethod {
    public:
        CallMethod(char const* interface_name, char const* method_name);
        virtual ~CallMethod();
        CallMethod(CallMethod const&) = delete;
        CallMethod& operator=(CallMethod const&) = delete;

        // True for a method whose result a caller need not wait for; false here. Interface::call asks it,
        // and runs a one-way method like any other: every call through a manager is answered, so a
        // remote caller learns that the request arrived and how it ended.
        virtual bool is_oneway();
        // The method itself: reads `in`, fills `out`, returns the call's result.
        virtual long call(Tuple const& in, Tuple& out) = 0;

        AString const& get_interface_name() const { return interface_name_; }
        AString const& get_method_name() const { return method_name_; }

        // The method registered under the pair; null when there is none (or no registry yet).
        static CallMethod* get(char const* interface_name, char const* method_name);

    private:
        AString interface_name_;
        AString method_name_;
    };

    explicit Service(char const* class_name);
    Service(char const* class_name, char const* name, char const* args);
    ~Service() override;
    Service(Service const&) = delete;
    Service& operator=(Service const&) = delete;

    AString const& get_class_name() const { return class_name_; }
    // The name, address and args are copied out under the service's section.
    AString get_name() const TARVIK_EXCLUDES(cs_);
    AString get_address() const TARVIK_EXCLUDES(cs_);
    AString get_args() const TARVIK_EXCLUDES(cs_);
    void set_name(char const* name) TARVIK_EXCLUDES(cs_);
    void set_address(char const* address) TARVIK_EXCLUDES(cs_);
    CriticalSection& get_cs() override TARVIK_RETURN_CAPABILITY(cs_);

    // Adds an interface and binds it to this service. False (and nothing added) for a null reference, for
    // an interface another service owns ("INTERFACE %0 BELONG TO SERVICE %1" at ERR) or for a second
    // interface of the same name. May be called with get_cs() held (a proxy adds its interfaces so).
    bool add_interface(AutoRef<Interface> const& iface);
    // The interface of that name into `out`; false when there is none ("INTERAFCE %0 NOT FOUND" at ERR).
    virtual bool get_interface(char const* name, AutoRef<Interface>& out) TARVIK_EXCLUDES(cs_);
    // The names of the interfaces, in the order they were added. May be called with get_cs() held.
    void get_interface_names(ListAString& out) const;
    // Adds one interface from each InterfaceFactory registered under this service's class; how many.
    int add_factory_interfaces();

    // The service's own session context (see the header comment).
    Tuple& get_session_context(Tuple& out) const TARVIK_EXCLUDES(cs_);
    void set_session_context(Tuple const& context) TARVIK_EXCLUDES(cs_);
    AString get_session_id() const TARVIK_EXCLUDES(cs_);
    void set_session_id(char const* id) TARVIK_EXCLUDES(cs_);

    // The manager the service is published on (empty when none).
    AutoRef<ServiceManager> get_manager() const TARVIK_EXCLUDES(cs_);
    // Publishes on a manager (leaving the one it was published on before), or leaves it. False when the
    // manager refuses (another service of the same class and name is published there).
    bool publish(AutoRef<ServiceManager> const& manager) TARVIK_EXCLUDES(cs_);
    bool unpublish() TARVIK_EXCLUDES(cs_);

    // True for a proxy service, whose calls go to another process.
    virtual bool is_proxy() const;
    // Calls a method (see the header comment for the choice of the interface): its result, kNoInterface,
    // or Interface::kNotRegistered.
    virtual long call(char const* iface_name, Tuple const& in, Tuple& out) TARVIK_EXCLUDES(cs_);
    // The same with `session` as the current session context; the method's changes are left in it.
    virtual long call(Tuple& session, char const* iface_name, Tuple const& in, Tuple& out)
        TARVIK_EXCLUDES(cs_);

    // Made from a specification string by the registered factories (see the header comment).
    static AutoRef<Service> create(char const* specification);
    static AutoRef<Service> create(char const* specification, ServiceFactory& factory);
    // Reached by specification string: published in this process, or through a proxy.
    static AutoRef<Service> bind(char const* specification);

protected:
    // The interface a call goes to; kNoInterface's record is logged here.
    bool pick_interface_(char const* iface_name, Tuple const& in, AutoRef<Interface>& out)
        TARVIK_EXCLUDES(cs_);

private:
    friend class ServiceManagerImpl;
    // Set by the manager under its own lock when it publishes or drops the service.
    void set_manager_(ServiceManager* manager) TARVIK_EXCLUDES(cs_);

    AString class_name_;
    // Lock order: the list of managers, a manager's lock, then this section, then an interface's section;
    // the method registry's lock innermost. Never held while a method runs.
    mutable CriticalSection cs_ TARVIK_ACQUIRED_BEFORE(Interface::cs_);
    AString name_ TARVIK_GUARDED_BY(cs_);
    AString address_ TARVIK_GUARDED_BY(cs_);
    AString args_ TARVIK_GUARDED_BY(cs_);
    List<AutoRef<Interface>> interfaces_ TARVIK_GUARDED_BY(cs_);
    Tuple session_context_ TARVIK_GUARDED_BY(cs_);
    ServiceManager* manager_ TARVIK_GUARDED_BY(cs_) = nullptr;  // not counted (the manager holds us)
};

}  // namespace tarvik
