// Services, the process-wide registry of methods, and services made or reached from specification strings.
#include "tarvik/Service.h"

#include <string>
#include <unordered_map>

#include "LogUnit.h"
#include "Memory.h"
#include "ProxyService.h"
#include "SessionContext.h"
#include "tarvik/InterfaceFactory.h"
#include "tarvik/ServiceFactory.h"
#include "tarvik/ServiceManager.h"

TARVIK_LOG_UNIT()

namespace tarvik {

namespace {

// "interface.method" -> the method. Made on first registration and never destroyed, so that static
// methods of other libraries may leave it during static destruction in any order. Its lock is the innermost
// of the service layer (a service looks methods up under its own section) and is never held while a method
// runs.
struct MethodRegistry {
    CriticalSection cs;
    std::unordered_map<std::string, Service::CallMethod*> methods TARVIK_GUARDED_BY(cs);
};

MethodRegistry* method_registry(bool make) {
    static MethodRegistry* registry = nullptr;
    static CriticalSection* guard = memory::create<CriticalSection>();
    CriticalSectionHolder hold(*guard);
    if (!registry && make) registry = memory::create<MethodRegistry>();
    return registry;
}

std::string method_key(char const* interface_name, char const* method_name) {
    std::string key(interface_name ? interface_name : "");
    key += '.';
    key += method_name ? method_name : "";
    return key;
}

Symbol const& sym_session_id() {
    static Symbol const s("session_id");
    return s;
}

}  // namespace

// --- Service::CallMethod ----------------------------------------------------------------------------------

Service::CallMethod::CallMethod(char const* interface_name, char const* method_name)
    : interface_name_(interface_name ? interface_name : ""), method_name_(method_name ? method_name : "") {
    MethodRegistry* r = method_registry(true);
    {
        CriticalSectionHolder hold(r->cs);
        r->methods[method_key(interface_name_.c_str(), method_name_.c_str())] = this;
    }
    if (tvk_log() > 1) TVK_LOG(LEVEL_LOG, "CALL METHOD REGISTER '%0.%1'") << interface_name_ << method_name_;
}

Service::CallMethod::~CallMethod() {
    MethodRegistry* r = method_registry(false);
    if (!r) return;
    CriticalSectionHolder hold(r->cs);
    auto it = r->methods.find(method_key(interface_name_.c_str(), method_name_.c_str()));
    if (it != r->methods.end() && it->second == this) r->methods.erase(it);
}

bool Service::CallMethod::is_oneway() { return false; }

Service::CallMethod* Service::CallMethod::get(char const* interface_name, char const* method_name) {
    MethodRegistry* r = method_registry(false);
    if (!r) return nullptr;
    // One key buffer per thread: a lookup on the call path allocates nothing once the buffer has grown.
    thread_local std::string key;
    key.assign(interface_name ? interface_name : "");
    key += '.';
    key += method_name ? method_name : "";
    CriticalSectionHolder hold(r->cs);
    auto it = r->methods.find(key);
    return it == r->methods.end() ? nullptr : it->second;
}

// --- Service ----------------------------------------------------------------------------------------------

Service::Service(char const* class_name) : class_name_(class_name ? class_name : "") {
    if (tvk_log() > 0) TVK_LOG(LEVEL_LOG, "CREATE SERVICE %0 [%1]") << class_name_ << static_cast<void const*>(this);
}

Service::Service(char const* class_name, char const* name, char const* args)
    : class_name_(class_name ? class_name : ""), name_(name ? name : ""), args_(args ? args : "") {
    if (tvk_log() > 0)
        TVK_LOG(LEVEL_LOG, "CREATE SERVICE %0.%1 [%2]") << class_name_ << name_ << static_cast<void const*>(this);
}

Service::~Service() {
    if (tvk_log() > 0) TVK_LOG(LEVEL_LOG, "DELETE SERVICE %0 [%1]") << class_name_ << static_cast<void const*>(this);
    List<AutoRef<Interface>> interfaces;
    {
        CriticalSectionHolder hold(cs_);
        interfaces.swap(interfaces_);
    }
    // Unbound first, so that dropping the service's own references does not release this service again.
    for (AutoRef<Interface>& i : interfaces) i->set_service(nullptr);
}

CriticalSection& Service::get_cs() { return cs_; }

AString Service::get_name() const {
    CriticalSectionHolder hold(cs_);
    return name_;
}

AString Service::get_address() const {
    CriticalSectionHolder hold(cs_);
    return address_;
}

AString Service::get_args() const {
    CriticalSectionHolder hold(cs_);
    return args_;
}

void Service::set_name(char const* name) {
    CriticalSectionHolder hold(cs_);
    name_ = name ? name : "";
}

void Service::set_address(char const* address) {
    CriticalSectionHolder hold(cs_);
    address_ = address ? address : "";
}

bool Service::add_interface(AutoRef<Interface> const& iface) {
    if (!iface) return false;
    Service* owner = iface->get_service();
    if (owner && owner != this) {
        TVK_LOG(LEVEL_ERR, "INTERFACE %0 BELONG TO SERVICE %1") << iface->get_name() << owner->get_class_name();
        return false;
    }
    {
        CriticalSectionHolder hold(cs_);
        for (AutoRef<Interface> const& i : interfaces_)
            if (i == iface || i->get_name() == iface->get_name()) return false;
        // Held before it is bound, so that this reference is the service's own (it does not hold the service).
        interfaces_.push_back(iface);
    }
    iface->set_service(this);
    return true;
}

bool Service::get_interface(char const* name, AutoRef<Interface>& out) {
    AString const wanted(name ? name : "");
    out.clear();
    {
        CriticalSectionHolder hold(cs_);
        for (AutoRef<Interface> const& i : interfaces_) {
            if (i->get_name() == wanted) {
                out = i;
                break;
            }
        }
    }
    if (!out) {
        TVK_LOG(LEVEL_ERR, "INTERAFCE %0 NOT FOUND") << wanted;
        return false;
    }
    Service* owner = out->get_service();
    if (owner != this) {
        TVK_LOG(LEVEL_ERR, "INTERFACE %0 BELONG TO SERVICE %1")
            << wanted << (owner ? owner->get_class_name() : AString(""));
        out.clear();
        return false;
    }
    return true;
}

void Service::get_interface_names(ListAString& out) const {
    CriticalSectionHolder hold(cs_);
    for (AutoRef<Interface> const& i : interfaces_) out.push_back(i->get_name());
}

int Service::add_factory_interfaces() {
    List<InterfaceFactory*> factories;
    InterfaceFactory::get(class_name_.c_str(), factories);
    int added = 0;
    for (InterfaceFactory* f : factories)
        if (add_interface(f->create(*this))) ++added;
    return added;
}

Tuple& Service::get_session_context(Tuple& out) const {
    CriticalSectionHolder hold(cs_);
    out = session_context_;
    return out;
}

void Service::set_session_context(Tuple const& context) {
    CriticalSectionHolder hold(cs_);
    if (&context != &session_context_) session_context_ = context;
}

AString Service::get_session_id() const {
    CriticalSectionHolder hold(cs_);
    return session_context_.get_astring(sym_session_id());
}

void Service::set_session_id(char const* id) {
    CriticalSectionHolder hold(cs_);
    session_context_.set_astring(sym_session_id(), id ? id : "");
}

AutoRef<ServiceManager> Service::get_manager() const {
    CriticalSectionHolder hold(cs_);
    if (!manager_) return {};
    // The manager may be on its way out (its last reference gone, its destructor not yet at clearing this
    // link, which it does under cs_): its count, read under its own count lock, tells, and a manager with
    // references left cannot lose the last one while that lock is held.
    CriticalSectionHolder counting(manager_->get_cs());
    if (manager_->get_count() <= 0) return {};
    return AutoRef<ServiceManager>(manager_);
}

void Service::set_manager_(ServiceManager* manager) {
    CriticalSectionHolder hold(cs_);
    manager_ = manager;
}

bool Service::publish(AutoRef<ServiceManager> const& manager) {
    if (!manager) return unpublish();
    if (get_manager() == manager) return true;
    unpublish();
    if (!manager->publish(AutoRef<Service>(this))) return false;
    if (tvk_log() > 0)
        TVK_LOG(LEVEL_LOG, "SERVICE %0.%1 PUBLISHED ADDRESS=%2") << class_name_ << get_name() << get_address();
    return true;
}

bool Service::unpublish() {
    AutoRef<ServiceManager> manager = get_manager();
    if (!manager) return false;
    AutoRef<Service> self(this);  // the manager's reference may be the last one
    if (!manager->unpublish(self)) return false;
    if (tvk_log() > 0)
        TVK_LOG(LEVEL_LOG, "SERVICE %0.%1 UNPUBLISHED ADDRESS=%2") << class_name_ << get_name() << get_address();
    return true;
}

bool Service::is_proxy() const { return false; }

bool Service::pick_interface_(char const* iface_name, Tuple const& in, AutoRef<Interface>& out) {
    if (iface_name && *iface_name) return get_interface(iface_name, out);
    {
        CriticalSectionHolder hold(cs_);
        char const* method = in.get_class_name().c_str();
        for (AutoRef<Interface> const& i : interfaces_) {
            if (CallMethod::get(i->get_name().c_str(), method)) {
                out = i;
                return true;
            }
        }
        if (!interfaces_.is_empty()) {
            out = interfaces_.front();
            return true;
        }
    }
    TVK_LOG(LEVEL_ERR, "INTERAFCE %0 NOT FOUND") << "";
    return false;
}

long Service::call(char const* iface_name, Tuple const& in, Tuple& out) {
    AutoRef<Interface> iface;
    if (!pick_interface_(iface_name, in, iface)) return kNoInterface;
    SessionScope scope(nullptr);
    return iface->call(in, out);
}

long Service::call(Tuple& session, char const* iface_name, Tuple const& in, Tuple& out) {
    AutoRef<Interface> iface;
    if (!pick_interface_(iface_name, in, iface)) return kNoInterface;
    SessionScope scope(&session);
    return iface->call(in, out);
}

// --- made and reached from specification strings -----------------------------------------------------------

namespace {

bool read_specification(char const* first, char const* second, char const* specification, Tuple& parts) {
    AString const text(specification ? specification : "");
    return parts.match(first, text) || parts.match(second, text);
}

Symbol const& sym_class() {
    static Symbol const s("class");
    return s;
}
Symbol const& sym_name() {
    static Symbol const s("name");
    return s;
}
Symbol const& sym_args() {
    static Symbol const s("args");
    return s;
}
Symbol const& sym_address() {
    static Symbol const s("address");
    return s;
}

}  // namespace

AutoRef<Service> Service::create(char const* specification) {
    Tuple parts;
    if (!read_specification("%(class):%(name):%(args)", "%(class):%(name)", specification, parts)) {
        TVK_LOG(LEVEL_ERR, "CREATE '%0' INVALID SERVICE SPECIFICATION") << (specification ? specification : "");
        return {};
    }
    char const* cls = parts.get_astring(sym_class(), "");
    List<ServiceFactory*> factories;
    ServiceFactory::get(cls, factories);
    for (ServiceFactory* f : factories) {
        AutoRef<Service> made = f->make(cls, parts.get_astring(sym_name(), ""), parts.get_astring(sym_args(), ""));
        if (tvk_log() > 0)
            TVK_LOG(LEVEL_LOG, "CHECK SERVICE FACTORY %0 %1 = %2")
                << f->get_class_name() << specification << static_cast<void const*>(made.get());
        if (made) return made;
    }
    return {};
}

AutoRef<Service> Service::create(char const* specification, ServiceFactory& factory) {
    Tuple parts;
    if (!read_specification("%(class):%(name):%(args)", "%(class):%(name)", specification, parts)) {
        TVK_LOG(LEVEL_ERR, "CREATE '%0' INVALID SERVICE SPECIFICATION") << (specification ? specification : "");
        return {};
    }
    AutoRef<Service> made = factory.make(parts.get_astring(sym_class(), ""), parts.get_astring(sym_name(), ""),
                                         parts.get_astring(sym_args(), ""));
    if (tvk_log() > 0)
        TVK_LOG(LEVEL_LOG, "CHECK SERVICE FACTORY %0 = %1") << specification << static_cast<void const*>(made.get());
    return made;
}

AutoRef<Service> Service::bind(char const* specification) {
    Tuple parts;
    if (!read_specification("%(class):%(name)@%(address)", "%(class):%(name)", specification, parts)) {
        TVK_LOG(LEVEL_ERR, "BIND '%0' INVALID SERVICE SPECIFICATION") << (specification ? specification : "");
        return {};
    }
    char const* cls = parts.get_astring(sym_class(), "");
    char const* name = parts.get_astring(sym_name(), "");
    if (!parts.is_set(sym_address())) return ServiceManager::getService(cls, name);
    AutoRef<ProxyService> proxy(ProxyService::make(cls, name, parts.get_astring(sym_address(), "")));
    if (!proxy->check_connection()) {
        TVK_LOG(LEVEL_ERR, "SERVICE %0.%1 NOT CONNECTED") << cls << name;
        return {};
    }
    return AutoRef<Service>(proxy.get());
}

}  // namespace tarvik
