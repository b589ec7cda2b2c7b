#include "tarvik/AutoRef.h"

#include "LogUnit.h"
#include "Memory.h"
#include "tarvik/AString.h"
#include "tarvik/Array.h"
#include "tarvik/CriticalSection.h"

TARVIK_LOG_UNIT()

namespace tarvik {

namespace {

constexpr int kDestroying = -1000;

CriticalSection& counts_section() {
    static CriticalSection* const section = memory::create<CriticalSection>();
    return *section;
}

}  // namespace

// --- RefObject ------------------------------------------------------------------------------------------

RefObject::~RefObject() = default;

void RefObject::attach() {
    CriticalSectionHolder hold(get_cs());
    ++count_;
}

void RefObject::release() {
    bool destroy = false;
    {
        CriticalSectionHolder hold(get_cs());
        if (--count_ == 0) {
            count_ = kDestroying;
            destroy = true;
        }
    }
    if (destroy) delete this;  // the counted base owns itself: the last release frees the object
}

void RefObject::nested_attach() {
    {
        CriticalSectionHolder hold(get_cs());
        ++nested_count_;
    }
    attach();
}

void RefObject::nested_release() {
    bool last = false;
    {
        CriticalSectionHolder hold(get_cs());
        if (--nested_count_ == 0) {
            nested_count_ = kDestroying;
            last = true;
        }
    }
    if (last) interface_release();
    release();
}

void RefObject::interface_release() {}

void RefObject::Run() {}

CriticalSection& RefObject::get_cs() { return counts_section(); }

AutoRefBase RefObject::create() { return AutoRefBase(); }
AutoRefBase RefObject::create(char const*) { return AutoRefBase(); }
AutoRefBase RefObject::auto_create() { return AutoRefBase(); }
AutoRefBase RefObject::auto_create(char const*) { return AutoRefBase(); }
AutoRefBase RefObject::bind() { return AutoRefBase(); }
AutoRefBase RefObject::bind(char const*) { return AutoRefBase(); }

int RefObject::get_count() {
    CriticalSectionHolder hold(get_cs());
    return count_;
}

int RefObject::get_nested_count() {
    CriticalSectionHolder hold(get_cs());
    return nested_count_;
}

// --- RefFactory -----------------------------------------------------------------------------------------

namespace {

struct FactoryList {
    CriticalSection lock;
    RefFactory* head TARVIK_GUARDED_BY(lock) = nullptr;
};

FactoryList& factories() {
    static FactoryList* const list = memory::create<FactoryList>();
    return *list;
}

// The factories registered under `name` (ignoring case), newest first, copied under the lock so that
// their create()/bind() run without it.
Array<RefFactory*> matching(char const* name) {
    Array<RefFactory*> found;
    FactoryList& list = factories();
    CriticalSectionHolder hold(list.lock);
    for (RefFactory* f = list.head; f; f = f->get_next()) {
        if (AString(f->factory_name()).CompareNoCase(name ? name : "") == 0) found.push_back(f);
    }
    return found;
}

template <class Ask>
AutoRefBase lookup(char const* factory_name, AutoRefBase const& def, Ask ask) {
    for (RefFactory* f : matching(factory_name)) {
        AutoRefBase made = ask(f);
        if (made.get_()) return made;
    }
    return def;
}

}  // namespace

RefFactory::RefFactory() {
    FactoryList& list = factories();
    CriticalSectionHolder hold(list.lock);
    next_ = list.head;
    list.head = this;
}

RefFactory::~RefFactory() {
    FactoryList& list = factories();
    CriticalSectionHolder hold(list.lock);
    for (RefFactory* f = list.head; f; f = f->next_) {
        if (f == this) {
            list.head = next_;
            break;
        }
    }
}

char const* RefFactory::factory_name() const { return ""; }
AutoRefBase RefFactory::create(char const*) { return AutoRefBase(); }
AutoRefBase RefFactory::bind(char const*) { return AutoRefBase(); }

RefFactory* RefFactory::get_head() {
    FactoryList& list = factories();
    CriticalSectionHolder hold(list.lock);
    return list.head;
}

AutoRefBase RefFactory::lookup_create(char const* factory_name, char const* name, AutoRefBase const& def) {
    return lookup(factory_name, def, [name](RefFactory* f) { return f->create(name); });
}

AutoRefBase RefFactory::lookup_bind(char const* factory_name, char const* name, AutoRefBase const& def) {
    return lookup(factory_name, def, [name](RefFactory* f) { return f->bind(name); });
}

}  // namespace tarvik
