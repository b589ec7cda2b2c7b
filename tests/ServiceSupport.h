// ServiceSupport.h: what the service tests share: methods made from lambdas, services with named
// interfaces, a live count of services, and log levels set for the length of a test.
#pragma once

#include <atomic>
#include <functional>
#include <initializer_list>
#include <utility>

#include "tarvik/GlobVar.h"
#include "tarvik/Interface.h"
#include "tarvik/Service.h"
#include "tarvik/Symbol.h"
#include "tarvik/Tuple.h"

namespace tarvik::test {

// A method whose body is a lambda.
struct Method : Service::CallMethod {
    using Body = std::function<long(Tuple const&, Tuple&)>;
    Method(char const* iface, char const* method, Body b) : CallMethod(iface, method), body(std::move(b)) {}
    long call(Tuple const& in, Tuple& out) override { return body(in, out); }
    Body body;
};

// A service that counts live instances, so tests can see when one is destroyed.
struct CountedService : Service {
    static inline std::atomic<int> live{0};
    CountedService(char const* cls, char const* name) : Service(cls, name, "") { ++live; }
    ~CountedService() override { --live; }
};

// A counted service with one plain Interface per name.
inline AutoRef<Service> make_service(char const* cls, char const* name, std::initializer_list<char const*> ifaces) {
    AutoRef<Service> s(new CountedService(cls, name));
    for (char const* i : ifaces) s->add_interface(AutoRef<Interface>(new Interface(i)));
    return s;
}

// Sets the level of a library source file's log variable ("SERVICE", ...) and restores it at the end.
class LogLevel {
public:
    LogLevel(char const* unit, int level) : unit_(unit), saved_(GlobVarLog::set(Symbol("TVK"), Symbol(unit), level)) {}
    ~LogLevel() { GlobVarLog::set(Symbol("TVK"), Symbol(unit_), saved_); }
    LogLevel(LogLevel const&) = delete;
    LogLevel& operator=(LogLevel const&) = delete;

private:
    char const* unit_;
    int saved_;
};

}  // namespace tarvik::test
