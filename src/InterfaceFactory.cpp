// The registry of interface factories, by service class name.
#include "tarvik/InterfaceFactory.h"

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
    std::vector<InterfaceFactory*> factories TARVIK_GUARDED_BY(cs);
};

Registry& registry() {
    static Registry* const r = memory::create<Registry>();
    return *r;
}

}  // namespace

InterfaceFactory::InterfaceFactory(char const* class_name) : class_name_(class_name ? class_name : "") {
    Registry& r = registry();
    CriticalSectionHolder hold(r.cs);
    r.factories.insert(r.factories.begin(), this);
}

InterfaceFactory::~InterfaceFactory() {
    Registry& r = registry();
    CriticalSectionHolder hold(r.cs);
    r.factories.erase(std::remove(r.factories.begin(), r.factories.end(), this), r.factories.end());
}

int InterfaceFactory::get(char const* class_name, List<InterfaceFactory*>& out) {
    AString const wanted(class_name ? class_name : "");
    Registry& r = registry();
    CriticalSectionHolder hold(r.cs);
    int found = 0;
    for (InterfaceFactory* f : r.factories) {
        if (f->class_name_ == wanted) {
            out.push_back(f);
            ++found;
        }
    }
    return found;
}

}  // namespace tarvik
