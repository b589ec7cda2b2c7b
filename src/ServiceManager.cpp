// The service manager: its registry of published services and listeners, the dispatch of requests, and
// the proxy services that send requests to another manager.
#include "tarvik/ServiceManager.h"

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "LogUnit.h"
#include "Memory.h"
#include "ProxyService.h"
#include "tarvik/Log.h"
#include "tarvik/Time.h"
#include "tarvik/Tuple.h"

TARVIK_LOG_UNIT()

namespace tarvik {

class ServiceManagerImpl;

namespace {

struct Names {
    Symbol call{"tvk.call"};
    Symbol call_return{"tvk.call_return"};
    Symbol check{"tvk.check"};
    Symbol check_return{"tvk.check_return"};
    Symbol args_in{"args_in"};
    Symbol args_out{"args_out"};
    Symbol timestamp{"tvk.req.timestamp"};
    Symbol svc_class{"svc_class"};
    Symbol svc_name{"svc_name"};
    Symbol iface_name{"iface_name"};
    Symbol session_context{"session_context"};
    Symbol r{"r"};
};

Names const& names() {
    static Names const* const n = memory::create<Names>();
    return *n;
}

// Whether every tuple inside `t` (values and lists of tuples) lies at most `room` levels below it. The walk
// stops as soon as the limit is passed, so a hostile nesting costs no more than the limit in stack.
bool depth_within(Tuple const& t, int room) {
    for (Tuple::Value const* v = t.first(); v; v = v->get_next()) {
        if (Tuple const* inner = v->is_tuple()) {
            if (room <= 0 || !depth_within(*inner, room - 1)) return false;
        } else if (ListTuple const* list = v->is_list_tuple()) {
            for (Tuple const& item : *list)
                if (room <= 0 || !depth_within(item, room - 1)) return false;
        }
    }
    return true;
}

// Every live manager, newest first, for getService. Made on first use and never destroyed.
struct ManagerList {
    CriticalSection cs;
    std::vector<ServiceManagerImpl*> managers TARVIK_GUARDED_BY(cs);
};

ManagerList& manager_list() {
    static ManagerList* const list = memory::create<ManagerList>();
    return *list;
}

}  // namespace

// --- the implementation ------------------------------------------------------------------------------------

class ServiceManagerImpl : public ServiceManager, public Listener::Callback {
public:
    ServiceManagerImpl();
    ~ServiceManagerImpl() override;

    bool publish(AutoRef<Service> const& service) override TARVIK_EXCLUDES(cs_);
    bool unpublish(AutoRef<Service> const& service) override TARVIK_EXCLUDES(cs_);
    AutoRef<Service> get_service(char const* class_name, char const* name) override TARVIK_EXCLUDES(cs_);
    AutoRef<Listener> add_listener(char const* address) override TARVIK_EXCLUDES(cs_);
    bool add_listener(AutoRef<Listener> const& listener) override TARVIK_EXCLUDES(cs_);
    bool remove_listener(char const* address) override TARVIK_EXCLUDES(cs_);
    bool remove_listener(AutoRef<Listener> const& listener) override TARVIK_EXCLUDES(cs_);
    Listener::Callback& get_callback() override { return *this; }

    void on_request(Tuple const& request, Tuple& reply) override TARVIK_EXCLUDES(cs_);

private:
    // One link per listener: a callback is linked to one listener at a time, and a manager may have many.
    struct Link : Listener::Callback {
        explicit Link(ServiceManagerImpl& m) : manager(m) {}
        void on_request(Tuple const& request, Tuple& reply) override { manager.on_request(request, reply); }
        ServiceManagerImpl& manager;
    };
    struct Entry {
        AString address;  // "" for a listener added by reference
        AutoRef<Listener> listener;
        std::unique_ptr<Link> link;  // the callback linked to the listener, owned here
    };
    using Key = std::pair<std::string, std::string>;

    bool attach_listener_(AString const& address, AutoRef<Listener> const& listener) TARVIK_EXCLUDES(cs_);
    // Stops the listener: never under cs_, since its in-flight requests may need it.
    static void detach_listener_(Entry& entry);
    // Takes the first listener entry that `match` accepts out of the list and detaches it; false when none.
    template <class Match>
    bool remove_listener_if_(Match const& match) TARVIK_EXCLUDES(cs_);
    bool valid_request_(Tuple const& request);

    // Lock order: the list of managers, then this lock, then a service's section (set_manager_ runs under
    // it), then an interface's; the method registry's lock innermost. Held only to look up, add or remove.
    CriticalSection cs_ TARVIK_ACQUIRED_AFTER(ManagerList::cs) TARVIK_ACQUIRED_BEFORE(Service::cs_);
    std::map<Key, AutoRef<Service>> services_ TARVIK_GUARDED_BY(cs_);
    std::vector<Entry> listeners_ TARVIK_GUARDED_BY(cs_);
};

ServiceManagerImpl::ServiceManagerImpl() {
    {
        ManagerList& l = manager_list();
        CriticalSectionHolder hold(l.cs);
        l.managers.insert(l.managers.begin(), this);
    }
    if (tvk_log() > 0) TVK_LOG(LEVEL_LOG, "CREATE SERVICE MANAGER %0") << static_cast<void const*>(this);
}

ServiceManagerImpl::~ServiceManagerImpl() {
    {
        ManagerList& l = manager_list();
        CriticalSectionHolder hold(l.cs);
        auto& list = l.managers;
        for (auto it = list.begin(); it != list.end(); ++it) {
            if (*it == this) {
                list.erase(it);
                break;
            }
        }
    }
    // The services' links first, so that no service hands this manager out any more; requests still in
    // flight hold their service and finish, new ones find nothing.
    std::map<Key, AutoRef<Service>> services;
    {
        CriticalSectionHolder hold(cs_);
        services.swap(services_);
        for (auto& [key, service] : services) service->set_manager_(nullptr);
    }
    detach();  // in case a caller linked the manager itself to a listener
    std::vector<Entry> listeners;
    {
        CriticalSectionHolder hold(cs_);
        listeners.swap(listeners_);
    }
    for (Entry& e : listeners) detach_listener_(e);
    services.clear();
    if (tvk_log() > 0) TVK_LOG(LEVEL_LOG, "DELETE SERVICE MANAGER %0") << static_cast<void const*>(this);
}

bool ServiceManagerImpl::publish(AutoRef<Service> const& service) {
    if (!service) return false;
    AutoRef<ServiceManager> previous = service->get_manager();
    if (previous.get() == this) return true;
    if (previous) previous->unpublish(service);
    Key key(service->get_class_name().c_str(), service->get_name().c_str());
    {
        CriticalSectionHolder hold(cs_);
        auto [it, added] = services_.emplace(key, service);
        if (!added) {
            TVK_LOG(LEVEL_ERR, "SERVICE %0.%1 ALREADY PUBLISHED") << key.first.c_str() << key.second.c_str();
            return false;
        }
        service->set_manager_(this);
    }
    if (tvk_log() > 0) TVK_LOG(LEVEL_LOG, "PUBLISH SERVICE %0.%1") << key.first.c_str() << key.second.c_str();
    return true;
}

bool ServiceManagerImpl::unpublish(AutoRef<Service> const& service) {
    if (!service) return false;
    AutoRef<Service> dropped;  // released after the lock
    {
        CriticalSectionHolder hold(cs_);
        for (auto it = services_.begin(); it != services_.end(); ++it) {
            if (it->second == service) {
                dropped = it->second;
                services_.erase(it);
                service->set_manager_(nullptr);
                break;
            }
        }
    }
    if (!dropped) return false;
    if (tvk_log() > 0)
        TVK_LOG(LEVEL_LOG, "UNPUBLISH SERVICE %0.%1") << dropped->get_class_name() << dropped->get_name();
    return true;
}

AutoRef<Service> ServiceManagerImpl::get_service(char const* class_name, char const* name) {
    Key key(class_name ? class_name : "", name ? name : "");
    CriticalSectionHolder hold(cs_);
    auto it = services_.find(key);
    return it == services_.end() ? AutoRef<Service>() : it->second;
}

AutoRef<Listener> ServiceManagerImpl::add_listener(char const* address) {
    AString const text(address ? address : "");
    AutoRef<Listener> listener(text.c_str());
    if (!listener || !attach_listener_(text, listener)) {
        TVK_LOG(LEVEL_ERR, "ADD LISTENER '%0' FAILED") << text;
        return {};
    }
    return listener;
}

bool ServiceManagerImpl::add_listener(AutoRef<Listener> const& listener) {
    return listener && attach_listener_(AString(""), listener);
}

bool ServiceManagerImpl::attach_listener_(AString const& address, AutoRef<Listener> const& listener) {
    Entry entry{address, listener, memory::make_unique<Link>(*this)};
    listener->set_callback(*entry.link);
    if (listener->is_stopped() && !listener->start()) {
        detach_listener_(entry);
        return false;
    }
    CriticalSectionHolder hold(cs_);
    listeners_.push_back(std::move(entry));
    return true;
}

void ServiceManagerImpl::detach_listener_(Entry& entry) {
    entry.listener->stop();
    // After reset_callback() no worker calls the link any more, so it can go.
    entry.link->detach();
    entry.link.reset();
    entry.listener.clear();
}

bool ServiceManagerImpl::remove_listener(char const* address) {
    AString const text(address ? address : "");
    return remove_listener_if_([&text](Entry const& e) { return !e.address.is_empty() && e.address == text; });
}

bool ServiceManagerImpl::remove_listener(AutoRef<Listener> const& listener) {
    return remove_listener_if_([&listener](Entry const& e) { return e.listener == listener; });
}

template <class Match>
bool ServiceManagerImpl::remove_listener_if_(Match const& match) {
    Entry found{};
    {
        CriticalSectionHolder hold(cs_);
        for (auto it = listeners_.begin(); it != listeners_.end(); ++it) {
            if (match(*it)) {
                found = std::move(*it);
                listeners_.erase(it);
                break;
            }
        }
    }
    if (!found.link) return false;
    detach_listener_(found);
    return true;
}

bool ServiceManagerImpl::valid_request_(Tuple const& request) {
    Names const& n = names();
    // The whole request, so that no record below prints a hostile nesting.
    if (!depth_within(request, kMaxRequestDepth)) {
        TVK_LOG(LEVEL_ERR, "REQUEST NESTED DEEPER THAN %0") << kMaxRequestDepth;
        return false;
    }
    struct Expect {
        Symbol const& name;
        Types kind;
        bool required;
    };
    Expect const expected[] = {
        {n.svc_class, T_ASTRING, true},      {n.svc_name, T_ASTRING, true},
        {n.iface_name, T_ASTRING, false},    {n.args_in, T_TUPLE, false},
        {n.session_context, T_TUPLE, false}, {n.timestamp, T_TIME_DATE, false},
    };
    for (Expect const& e : expected) {
        bool const present = request.is_set(e.name);
        if ((e.required && !present) || (present && !request.is_set(e.name, e.kind))) {
            TVK_LOG(LEVEL_ERR, "INVALID REQUEST ATTRIBUTE '%0' IN %1") << e.name << request;
            return false;
        }
    }
    return true;
}

void ServiceManagerImpl::on_request(Tuple const& request, Tuple& reply) {
    Names const& n = names();
    if (!valid_request_(request)) return;
    char const* cls = request.get_astring(n.svc_class, "");
    char const* name = request.get_astring(n.svc_name, "");
    AutoRef<Service> service = get_service(cls, name);
    if (request.is_a(n.check)) {
        reply.set_int(n.r, service ? 1 : 2);
        reply.set_class_name(n.check_return);
        return;
    }
    if (!service) {
        TVK_LOG(LEVEL_ERR, "NO MATCHING SERVICE %0") << request;
        return;
    }
    if (!request.is_a(n.call)) {
        TVK_LOG(LEVEL_ERR, "REQUEST CLASS '%0' NOT EXECUTED BY %1.%2") << request.get_class_name() << cls << name;
        return;
    }
    char const* iface = request.get_astring(n.iface_name, "");
    Tuple session;
    if (Tuple const* context = request.get_ptuple(n.session_context)) session = *context;
    static Tuple const no_args;
    Tuple const* args_in = request.get_ptuple(n.args_in);
    Tuple& args_out = reply.set_tuple(n.args_out);
    long const result = service->call(session, iface, args_in ? *args_in : no_args, args_out);
    if (tvk_log() > 2)
        TVK_LOG(LEVEL_LOG, "CALL %0.%1.%2(%3,%4)=%5")
            << cls << name << iface << (args_in ? *args_in : no_args) << args_out << result;
    if (!session.is_empty()) reply.set_tuple(n.session_context).splice(session);
    reply.set_int(n.r, static_cast<int>(result));
    reply.set_class_name(n.call_return);
    if (TimeDate const* stamp = request.get_ptime_date(n.timestamp)) reply.set_time_date(n.timestamp, *stamp);
}

// --- the handle's statics ------------------------------------------------------------------------------------

AutoRef<ServiceManager> ServiceManager::create() { return AutoRef<ServiceManager>(new ServiceManagerImpl); }

AutoRef<Service> ServiceManager::getService(char const* class_name, char const* name) {
    ManagerList& l = manager_list();
    CriticalSectionHolder hold(l.cs);
    for (ServiceManagerImpl* m : l.managers)
        if (AutoRef<Service> s = m->get_service(class_name, name)) return s;
    return {};
}

AutoRef<Service> ServiceManager::make_proxy(char const* class_name, char const* name, char const* address) {
    return AutoRef<Service>(ProxyService::make(class_name, name, address).get());
}

// --- proxies -------------------------------------------------------------------------------------------------

namespace {

// Forwards every call to its proxy service under its own name.
class ProxyInterface : public Interface {
public:
    explicit ProxyInterface(char const* name) : Interface(name) {}
    bool is_proxy() const override { return true; }
    long call(Tuple const& in, Tuple& out) override {
        Service* s = get_service();
        return s ? s->call(get_name().c_str(), in, out) : ServiceManager::kNoSender;
    }
    long call(Tuple const& in, Tuple& out, Tuple const* context) override {
        Service* s = get_service();
        if (!s) return ServiceManager::kNoSender;
        if (!context) return s->call(get_name().c_str(), in, out);
        Tuple session(*context);
        return s->call(session, get_name().c_str(), in, out);
    }
};

}  // namespace

ProxyService::ProxyService(MakeTag, char const* class_name, char const* name, char const* address)
    : Service(class_name, name, "") {
    set_address(address);
    sender_ = AutoRef<Sender>(address);
}

AutoRef<ProxyService> ProxyService::make(char const* class_name, char const* name, char const* address) {
    if (tvk_log() > 0)
        TVK_LOG(LEVEL_LOG, "CREATE PROXY SERVICE class=%0 name=%1 arg=%2") << class_name << name << address;
    return AutoRef<ProxyService>(memory::create<ProxyService>(MakeTag{}, class_name, name, address));
}

bool ProxyService::get_interface(char const* name, AutoRef<Interface>& out) {
    {
        CriticalSectionHolder hold(get_cs());
        ListAString names;
        get_interface_names(names);
        bool known = false;
        for (AString const& n : names) known = known || n == (name ? name : "");
        if (!known) add_interface(AutoRef<Interface>(memory::create<ProxyInterface>(name)));
    }
    return Service::get_interface(name, out);
}

long ProxyService::call(char const* iface_name, Tuple const& in, Tuple& out) {
    Tuple session;
    get_session_context(session);
    Tuple const sent(session);
    long const r = exchange_(session, iface_name, in, out);
    if (!(session == sent)) set_session_context(session);
    return r;
}

long ProxyService::call(Tuple& session, char const* iface_name, Tuple const& in, Tuple& out) {
    return exchange_(session, iface_name, in, out);
}

long ProxyService::exchange_(Tuple& session, char const* iface_name, Tuple const& in, Tuple& out) {
    Names const& n = names();
    if (!sender_) {
        TVK_LOG(LEVEL_ERR, "PROXY %0.%1.%2 CALL NO SENDER") << get_class_name() << get_name() << get_address();
        return ServiceManager::kNoSender;
    }
    Tuple request(n.call);
    request.set_cref_tuple(n.args_in, in);
    request.set_time_date(n.timestamp, TimeDate::now());
    request.set_astring(n.svc_class, get_class_name());
    request.set_astring(n.svc_name, get_name());
    if (iface_name && *iface_name) request.set_astring(n.iface_name, iface_name);
    if (!session.is_empty()) request.set_cref_tuple(n.session_context, session);
    Tuple answer;
    int const sent = sender_->call(request, answer);
    if (sent != Sender::CALL_OK) return sent < 0 ? sent : static_cast<long>(Sender::CALL_FAILED);
    if (Tuple* args_out = answer.get_ptuple(n.args_out)) out.splice(*args_out);
    if (Tuple* context = answer.get_ptuple(n.session_context)) session.splice(*context);
    int const* r = answer.get_pint(n.r);
    if (!r) {
        TVK_LOG(LEVEL_ERR, "INVALID ANSWER REQUEST (no return value) '%0' => ANSWER '%1'") << request << answer;
        return ServiceManager::kInvalidAnswer;
    }
    if (TimeDate const* stamp = answer.get_ptime_date(n.timestamp)) {
        if (tvk_log() > 2) TVK_LOG(LEVEL_LOG, "request time => '%0'") << (TimeDate::now() - *stamp);
    }
    return *r;
}

bool ProxyService::check_connection() {
    Names const& n = names();
    AString const address = get_address();
    if (tvk_log() > 1) TVK_LOG(LEVEL_LOG, "TRY CHECK CONNECTION %0") << address;
    if (!sender_) {
        TVK_LOG(LEVEL_ERR, "CHECK CONNECTION CREATE %0 %1") << address << false;
        return false;
    }
    if (tvk_log() > 1) TVK_LOG(LEVEL_LOG, "CHECK CONNECTION CREATE %0 %1") << address << true;
    Tuple request(n.check);
    request.set_astring(n.svc_class, get_class_name());
    request.set_astring(n.svc_name, get_name());
    Tuple answer;
    int const sent = sender_->call(request, answer);
    int const r = sent == Sender::CALL_OK ? answer.get_int(n.r, 0) : sent;
    if (tvk_log() > 1) TVK_LOG(LEVEL_LOG, "CHECK CONNECTION %0") << r;
    return r == 1;
}

}  // namespace tarvik
