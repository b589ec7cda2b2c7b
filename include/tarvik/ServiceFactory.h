// ServiceFactory.h: factories that make services of a class from a specification string.
//
// A ServiceFactory is registered under a service class name at construction and removed at destruction.
// Service::create("class:name:args") asks the factories registered under "class", newest first, until one
// returns a service (Service.h). The base create() makes a plain Service of the class with that name and
// args; a factory constructed with use_interface_factories = true then adds to the service it made (its
// own or the base one) one interface from each InterfaceFactory registered under the class
// (InterfaceFactory.h). So a service class whose behaviour lies wholly in its methods needs no Service
// subclass:
//
//     ServiceFactory calc_services("demo.calc", true);     // services of class demo.calc, with interfaces
//     AutoRef<Service> s = Service::create("demo.calc:main");
//
// Class names are compared exactly (case counts).
//
// Thread safety: registration, removal and get() take the registry's lock; create() runs without it. A
// factory must outlive every get() that may list it (factories are meant to be static objects).
#pragma once

#include "tarvik/AString.h"
#include "tarvik/AutoRef.h"
#include "tarvik/List.h"
#include "tarvik/Service.h"
#include "tarvik/Types.h"

namespace tarvik {

class TARVIK_EXPORT ServiceFactory {
public:
    ServiceFactory(char const* class_name, bool use_interface_factories);
    virtual ~ServiceFactory();
    ServiceFactory(ServiceFactory const&) = delete;
    ServiceFactory& operator=(ServiceFactory const&) = delete;

    AString const& get_class_name() const { return class_name_; }
    bool uses_interface_factories() const { return use_interface_factories_; }

    // The service this factory makes for a specification; an empty reference when it makes none. The base
    // makes a plain Service(class_name, name, args).
    virtual AutoRef<Service> create(char const* class_name, char const* name, char const* args);

    // create(), then the interfaces of the InterfaceFactory objects when the factory uses them.
    AutoRef<Service> make(char const* class_name, char const* name, char const* args);

    // Appends the factories registered under class_name, newest first; returns how many were appended.
    static int get(char const* class_name, List<ServiceFactory*>& out);

private:
    AString class_name_;
    bool use_interface_factories_;
};

}  // namespace tarvik
