// InterfaceFactory.h: factories that furnish the services of a class with interfaces.
//
// An InterfaceFactory is registered under a service class name at construction and removed at
// destruction; Service::add_factory_interfaces() asks every factory registered under its service's class
// for one interface each. So a program declares what each interface of a service class is once, as a
// static factory, and every service of that class (made by a ServiceFactory built with
// use_interface_factories, or by hand) gets them.
//
//     struct CalcFactory : InterfaceFactory {
//         CalcFactory() : InterfaceFactory("demo.calc") {}
//         AutoRef<Interface> create(Service&) override { return AutoRef<Interface>(new Interface("calc")); }
//     } calc_factory;
//
// Class names are compared exactly (case counts). Factories are listed newest first.
//
// Thread safety: registration, removal and get() take the registry's lock; create() runs without it.
// A factory must outlive every get() that may list it (factories are meant to be static objects).
#pragma once

#include "tarvik/AString.h"
#include "tarvik/AutoRef.h"
#include "tarvik/Interface.h"
#include "tarvik/List.h"
#include "tarvik/Types.h"

namespace tarvik {

class Service;

class TARVIK_EXPORT InterfaceFactory {
public:
    explicit InterfaceFactory(char const* class_name);
    virtual ~InterfaceFactory();
    InterfaceFactory(InterfaceFactory const&) = delete;
    InterfaceFactory& operator=(InterfaceFactory const&) = delete;

    AString const& get_class_name() const { return class_name_; }
    // A new interface for `service` (which adds it); an empty reference when the factory makes none.
    virtual AutoRef<Interface> create(Service& service) = 0;

    // Appends the factories registered under class_name, newest first; returns how many were appended.
    static int get(char const* class_name, List<InterfaceFactory*>& out);

private:
    AString class_name_;
};

}  // namespace tarvik
