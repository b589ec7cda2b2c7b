// The in-process transport's own rules: names, refusals, parameters, a stop that outlasts a stuck
// callback, and managers of one process calling each other.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "ServiceSupport.h"
#include "TestSupport.h"
#include "tarvik/GlobVar.h"
#include "tarvik/Interface.h"
#include "tarvik/Listener.h"
#include "tarvik/Sender.h"
#include "tarvik/Service.h"
#include "tarvik/ServiceManager.h"
#include "tarvik/Time.h"
#include "tarvik/Tuple.h"

using namespace tarvik;
using tarvik::test::Method;
using tarvik::test::StdoutCapture;

namespace {

struct Echo : Listener::Callback {
    std::atomic<bool> hold{false};
    std::atomic<bool> entered{false};
    void on_request(Tuple const& request, Tuple& reply) override {
        entered = true;
        while (hold) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        reply = request;
    }
};

TEST(Inproc, NameIsOwnedByOneStartedListenerAtATime) {
    init();
    AutoRef<Listener> first("INPROC:owned");
    AutoRef<Listener> second("INPROC:owned");
    ASSERT_TRUE(first && second);
    ASSERT_TRUE(first->start());
    {
        StdoutCapture log;
        EXPECT_FALSE(second->start());
        EXPECT_EQ(log.records_with("INPROC LISTENER NAME 'owned' ALREADY IN USE"), 1);
    }
    EXPECT_TRUE(second->is_stopped());
    EXPECT_TRUE(first->stop());
    EXPECT_TRUE(first->is_stopped());
    EXPECT_TRUE(second->start());
}

TEST(Inproc, CallsWithoutAListenerFailAtOnce) {
    init();
    struct Case {
        char const* address;
        int result;
        char const* record;
    } const cases[] = {
        {"INPROC:nobody", Sender::CALL_REFUSED, "INPROC SENDER: NO LISTENER AT 'INPROC:nobody'"},
        {"INPROC:", Sender::CALL_NOT_READY, "INPROC SENDER 'INPROC:' NOT READY"},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.address);
        AutoRef<Sender> sender(c.address);
        ASSERT_TRUE(sender);
        Tuple reply("stale");
        StdoutCapture log;
        EXPECT_EQ(sender->call(Tuple("x"), reply), c.result);
        EXPECT_EQ(log.records_with(c.record), 1);
        EXPECT_TRUE(reply.is_empty());
        EXPECT_FALSE(sender->is_connected());
    }
    EXPECT_FALSE(AutoRef<Listener>("INPROC:"));  // a listener needs a name
}

TEST(Inproc, ParametersAndStateReadBack) {
    init();
    AutoRef<Listener> listener("INPROC:params");
    AutoRef<Sender> sender("INPROC:params");
    Echo echo;
    listener->set_callback(echo);
    ASSERT_TRUE(listener->start());
    Tuple set;
    set.set_time_period("comm_timeout", TimePeriod(std::int64_t{2}, 0, false));
    sender->set_param(set);
    listener->set_param(set);
    Tuple request("ping");
    request.set_astring("text", "hello");
    Tuple reply;
    ASSERT_EQ(sender->call(request, reply), Sender::CALL_OK);
    EXPECT_EQ(reply.to_string(), request.to_string());
    EXPECT_TRUE(sender->is_connected());

    Tuple s;
    sender->get_param(s);
    EXPECT_EQ(s.to_string(),
              "tarvik.INPROCSender{comm_timeout:tp=2.000000, connection_timeout:tp=-1.000000, name:as=\"INPROC:params\"}");
    Tuple l;
    listener->get_param(l);
    EXPECT_EQ(l.get_class_name(), Symbol("tarvik.INPROCListener"));
    EXPECT_FALSE(l.is_set("connection_timeout"));
    EXPECT_EQ(l.get_long("requests", 0), 1);
    EXPECT_EQ(l.get_long("connections", 0), 1);
    EXPECT_GT(l.get_long("bytes_in", 0), 21);
    EXPECT_EQ(l.get_long("bytes_in", 0), l.get_long("bytes_out", 0));
    sender = AutoRef<Sender>();
    listener->get_param(l);
    EXPECT_EQ(l.get_long("connections", -1), 0);
}

TEST(Inproc, StopFailsCallsStuckPastTheListenersTimeoutAndUnlinkWaitsForThem) {
    init();
    AutoRef<Listener> listener("INPROC:stuck");
    Echo echo;
    echo.hold = true;
    listener->set_callback(echo);
    Tuple set;
    set.set_time_period("comm_timeout", TimePeriod(std::int64_t{0}, 100, true));
    listener->set_param(set);
    ASSERT_TRUE(listener->start());
    int result = 1;
    std::thread caller([&] {
        AutoRef<Sender> sender("INPROC:stuck");
        Tuple reply;
        result = sender->call(Tuple("x"), reply);
    });
    while (!echo.entered) std::this_thread::yield();
    {
        StdoutCapture log;
        EXPECT_TRUE(listener->stop());
        caller.join();
        EXPECT_EQ(log.records_with("INPROC LISTENER 'stuck': 1 WORKERS STILL BUSY AT STOP"), 1);
    }
    EXPECT_EQ(result, Sender::CALL_PEER_CLOSED);
    std::atomic<bool> unlinked{false};
    std::thread unlinker([&] {
        listener->reset_callback();
        unlinked = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_FALSE(unlinked.load());  // the stuck call is still inside the callback
    echo.hold = false;
    unlinker.join();
    EXPECT_EQ(echo.get_listener(), nullptr);
}

// A callback that stops its own listener from inside a call.
struct StopsItsListener : Listener::Callback {
    void on_request(Tuple const&, Tuple& reply) override {
        get_listener()->stop();
        reply.set_int("stopped", 1);
    }
};

TEST(Inproc, CallbackStoppingItsOwnListenerStillAnswersItsCall) {
    init();
    AutoRef<Listener> listener("INPROC:self-stop");
    StopsItsListener callback;
    listener->set_callback(callback);
    ASSERT_TRUE(listener->start());
    AutoRef<Sender> sender("INPROC:self-stop");
    Tuple reply;
    StdoutCapture log;
    ASSERT_EQ(sender->call(Tuple("x"), reply), Sender::CALL_OK);
    EXPECT_EQ(reply.get_int("stopped", 0), 1);
    EXPECT_TRUE(listener->is_stopped());
    EXPECT_EQ(log.records_with("WORKERS STILL BUSY"), 0);
}

TEST(Inproc, ManagersOfOneProcessCallEachOther) {
    init();
    // relay.forward, on one manager's service, calls math.double of another manager's service by proxy.
    static Method const* const methods[] = {
        new Method("relay", "forward", [](Tuple const& in, Tuple& out) {
            AutoRef<Service> next = Service::bind("inproc.b:b@INPROC:beta");
            if (!next) return -99L;
            Tuple inner("double");
            inner.set_int("n", in.get_int("n", 0));
            long r = next->call("math", inner, out);
            out.set_int("relayed", 1);
            return r;
        }),
        new Method("math", "double", [](Tuple const& in, Tuple& out) {
            out.set_int("n", in.get_int("n", 0) * 2);
            return 2L;
        }),
    };
    (void)methods;
    AutoRef<ServiceManager> alpha = ServiceManager::create();
    AutoRef<ServiceManager> beta = ServiceManager::create();
    AutoRef<Service> a(new Service("inproc.a", "a", ""));
    AutoRef<Service> b(new Service("inproc.b", "b", ""));
    a->add_interface(AutoRef<Interface>(new Interface("relay")));
    b->add_interface(AutoRef<Interface>(new Interface("math")));
    ASSERT_TRUE(a->publish(alpha));
    ASSERT_TRUE(b->publish(beta));
    ASSERT_TRUE(alpha->add_listener("INPROC:alpha"));
    ASSERT_TRUE(beta->add_listener("INPROC:beta"));

    AutoRef<Service> proxy = Service::bind("inproc.a:a@INPROC:alpha");
    ASSERT_TRUE(proxy);
    Tuple in("forward");
    in.set_int("n", 21);
    Tuple out;
    EXPECT_EQ(proxy->call("relay", in, out), 2);
    EXPECT_EQ(out.get_int("n", 0), 42);
    EXPECT_EQ(out.get_int("relayed", 0), 1);
}

}  // namespace
