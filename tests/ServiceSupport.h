// ServiceSupport.h: what the service tests share: methods made from lambdas, services with named
// interfaces, a live count of services, log levels set for the length of a test, and the check of one
// error record, and the bytes of a buffer as a socket carries them.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <initializer_list>
#include <string>
#include <utility>

#include "TestSupport.h"
#include "tarvik/CommBuffer.h"
#include "tarvik/GlobVar.h"
#include "tarvik/Interface.h"
#include "tarvik/Service.h"
#include "tarvik/Symbol.h"
#include "tarvik/Tuple.h"

namespace tarvik::test {

// The pages of a buffer one after the other, headers included: what a transport puts on the wire.
inline std::string bytes_of(CommBuffer const& b) {
    std::string out;
    CommBuffer::PageIterator pages(b);
    while (pages.hasNext()) {
        CommBuffer::Page const* p = pages.next();
        out.append(reinterpret_cast<char const*>(p->data()), p->used);
    }
    return out;
}

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

// Expects exactly one "ERR" record of the library source file `unit` in `capture`, and one record holding
// `text`.
inline void expect_one_error(StdoutCapture& capture, char const* unit, char const* text) {
    EXPECT_EQ(capture.records_with(std::string("ERR|TVK|") + unit + "|"), 1) << capture.text();
    EXPECT_EQ(capture.records_with(text), 1) << text << "\n" << capture.text();
}

}  // namespace tarvik::test
