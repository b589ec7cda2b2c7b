// Interfaces of a service, the prepared call, and the current session context.
#include "tarvik/Interface.h"

#include "LogUnit.h"
#include "SessionContext.h"
#include "tarvik/Service.h"

TARVIK_LOG_UNIT()

namespace tarvik {

namespace {
thread_local Tuple* current_context = nullptr;
}  // namespace

SessionScope::SessionScope(Tuple* context) : saved_(current_context) { current_context = context; }
SessionScope::~SessionScope() { current_context = saved_; }
Tuple* SessionScope::current() { return current_context; }

Interface::Interface(char const* name) : name_(name ? name : "") {}

Interface::~Interface() = default;

CriticalSection& Interface::get_cs() { return cs_; }

Service* Interface::get_service() const {
    CriticalSectionHolder hold(cs_);
    return service_;
}

void Interface::set_service(Service* service) {
    Service* drop = nullptr;
    Service* take = nullptr;
    {
        CriticalSectionHolder hold(cs_);
        if (service == service_) return;
        if (holds_service_) drop = service_;
        service_ = service;
        // The service's own reference is one; any beyond it are outside holders that keep the service.
        holds_service_ = service_ != nullptr && get_count() > 1;
        if (holds_service_) take = service_;
    }
    if (take) take->attach();
    if (drop) drop->release();
}

void Interface::attach() {
    Service* take = nullptr;
    {
        CriticalSectionHolder hold(cs_);
        RefObject::attach();
        if (service_ && !holds_service_ && get_count() > 1) {
            holds_service_ = true;
            take = service_;
        }
    }
    if (take) take->attach();
}

void Interface::release() {
    Service* drop = nullptr;
    {
        CriticalSectionHolder hold(cs_);
        if (get_count() > 1) {
            // Not the last reference: dropped here, under the section, so that the check of the service's
            // hold sees the count it leaves.
            RefObject::release();
            if (holds_service_ && get_count() <= 1) {
                holds_service_ = false;
                drop = service_;
            }
            if (!drop) return;
        }
    }
    if (drop) {
        // The service may go now; when it does, it drops its own reference to the interface, which then
        // goes too.
        drop->release();
        return;
    }
    // The last reference (no service is held then): deletes the interface, outside its own section.
    RefObject::release();
}

bool Interface::is_proxy() const { return false; }

long Interface::call(Tuple const& in, Tuple& out) {
    char const* method = in.get_class_name().c_str();
    Service::CallMethod* m = Service::CallMethod::get(name_.c_str(), method);
    if (!m) {
        TVK_LOG(LEVEL_ERR, "INTERFACE CALL: '%0'.'%1' FUNCTION NOT REGISTERED") << name_ << method;
        return kNotRegistered;
    }
    // A one-way method runs like any other here: only a remote caller could skip waiting for it.
    (void)m->is_oneway();
    return m->call(in, out);
}

long Interface::call(Tuple const& in, Tuple& out, Tuple const* context) {
    if (!context) {
        SessionScope scope(nullptr);
        return call(in, out);
    }
    Tuple copy(*context);
    SessionScope scope(&copy);
    return call(in, out);
}

Tuple& Interface::get_self_session_context(Tuple& out) {
    Service* s = get_service();
    if (s) {
        s->get_session_context(out);
    } else {
        out.clear();
    }
    return out;
}

void Interface::set_self_session_context() {
    Tuple* current = SessionScope::current();
    Service* s = get_service();
    if (current && s) s->set_session_context(*current);
}

Tuple& Interface::get_session_context(Tuple& out) {
    if (Tuple* current = SessionScope::current()) {
        out = *current;
        return out;
    }
    return get_self_session_context(out);
}

void Interface::set_session_context(Tuple const& context) {
    if (Tuple* current = SessionScope::current()) {
        if (current != &context) *current = context;
        return;
    }
    if (Service* s = get_service()) s->set_session_context(context);
}

AutoRef<Interface> Interface::find(char const* name) const {
    AutoRef<Interface> found;
    Service* s = get_service();
    if (s) s->get_interface(name, found);
    return found;
}

Call_C::Call_C(AutoRef<Interface> const& iface, char const* method) : iface_(iface) {
    in_.set_class_name(Symbol(method ? method : ""));
}

int Call_C::call() {
    if (!iface_) return static_cast<int>(Interface::kNotRegistered);
    return static_cast<int>(iface_->call(in_, out_));
}

}  // namespace tarvik
