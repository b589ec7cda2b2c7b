// The registry of service factories, by service class name, and the base factory.
#include "tarvik/ServiceFactory.h"

#include <algorithm>
#include <vector>

#include "LogUnit.h"
#include "Memory.h"
#include "tarvik/CriticalSection.h"

TARVIK_LOG_UNIT()

namespace tarvik {

namespace {

// Newest first. Made on first use and never destroyed, so that static factories may leave it in any order.
struct Registry {
    CriticalSection cs;
    std::vector<ServiceFactory*> factories TARVIK_GUARDED_BY(cs);
};

Registry& registry() {
    static Registry* const r = memory::create<Registry>();
    return *r;
}

}  // namespace

ServiceFactory::ServiceFactory(char const* class_name, bool use_interface_factories)
    : class_name_(class_name ? class_name : ""), use_interface_factories_(use_interface_factories) {
    Registry& r = registry();
    CriticalSectionHolder hold(r.cs);
    r.factories.insert(r.factories.begin(), this);
}

ServiceFactory::~ServiceFactory() {
    Registry& r = registry();
    CriticalSectionHolder hold(r.cs);
    r.factories.erase(std::remove(r.factories.begin(), r.factories.end(), this), r.factories.end());
}

AutoRef<Service> ServiceFactory::create(char const* class_name, char const* name, char const* args) {
    return AutoRef<Service>(memory::create<Service>(class_name, name, args));
}

AutoRef<Service> ServiceFactory::make(char const* class_name, char const* name, char const* args) {
    AutoRef<Service> made = create(class_name, name, args);
    if (made && use_interface_factories_) made->add_factory_interfaces();
    return made;
}

int ServiceFactory::get(char const* class_name, List<ServiceFactory*>& out) {
    AString const wanted(class_name ? class_name : "");
    Registry& r = registry();
    CriticalSectionHolder hold(r.cs);
    int found = 0;
    for (ServiceFactory* f : r.factories) {
        if (f->class_name_ == wanted) {
            out.push_back(f);
            ++found;
        }
    }
    return found;
}

}  // namespace tarvik
