// The service manager: publishing, the dispatch of hand-built requests through its callback (exact answers),
// hostile requests, a registry hammered from several threads, and proxies.
#include "tarvik/ServiceManager.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "ServiceSupport.h"
#include "TestSupport.h"
#include "tarvik/GlobVar.h"
#include "tarvik/Time.h"

using namespace tarvik;
using tarvik::test::expect_one_error;
using tarvik::test::LogLevel;
using tarvik::test::make_service;
using tarvik::test::Method;
using tarvik::test::run_together;
using tarvik::test::StdoutCapture;

namespace {

// "echo" copies its input to its output; "sess" reads "n" from the session context, adds one and returns it.
Method mgr_echo("mgr.calc", "echo", [](Tuple const& in, Tuple& out) {
    out.assign(in);
    return 5L;
});
Method mgr_session("mgr.calc", "sess", [](Tuple const&, Tuple& out) {
    AutoRef<Service> s = ServiceManager::getService("calc", "main");
    AutoRef<Interface> iface;
    if (!s || !s->get_interface("mgr.calc", iface)) return -9L;
    Tuple context;
    iface->get_session_context(context);
    int const n = context.get_int("n", 0);
    context.set_int("n", n + 1);
    iface->set_session_context(context);
    out.set_int("seen", n);
    return 0L;
});

Tuple call_request(char const* method, char const* cls = "calc", char const* name = "main") {
    Tuple request("tvk.call");
    request.set_tuple("args_in", Tuple(method)).set_int("x", 3);
    request.set_astring("svc_class", cls);
    request.set_astring("svc_name", name);
    return request;
}

// The names of the attributes, in order, joined with ",".
std::string attribute_names(Tuple const& t) {
    std::string names;
    for (Tuple::ConstValueIterator it(t); it; ++it) names += std::string(names.empty() ? "" : ",") + it.get_name().c_str();
    return names;
}

class Dispatch : public ::testing::Test {
protected:
    void SetUp() override {
        service = make_service("calc", "main", {"mgr.calc"});
        ASSERT_TRUE(service->publish(manager));
    }
    Tuple answer(Tuple const& request) {
        Tuple reply;
        manager->get_callback().on_request(request, reply);
        return reply;
    }
    AutoRef<ServiceManager> manager = ServiceManager::create();
    AutoRef<Service> service;
};

TEST_F(Dispatch, CheckAnswersWhetherTheServiceIsPublished) {
    Tuple check("tvk.check");
    check.set_astring("svc_class", "calc");
    for (auto [name, r] : {std::pair{"main", 1}, std::pair{"other", 2}}) {
        check.set_astring("svc_name", name);
        Tuple reply = answer(check);
        EXPECT_STREQ(reply.get_class_name().c_str(), "tvk.check_return");
        EXPECT_EQ(attribute_names(reply), "r");
        EXPECT_EQ(reply.get_int("r", 0), r) << name;
    }
}

TEST_F(Dispatch, CallAnswerCarriesArgsOutResultAndTheRequestTimestamp) {
    Tuple request = call_request("echo");
    request.set_astring("iface_name", "mgr.calc");
    TimeDate const stamp = TimeDate::now() - TimePeriod(5, 250, true);
    request.set_time_date("tvk.req.timestamp", stamp);
    Tuple reply = answer(request);
    EXPECT_STREQ(reply.get_class_name().c_str(), "tvk.call_return");
    EXPECT_EQ(attribute_names(reply), "args_out,r,tvk.req.timestamp");
    EXPECT_EQ(reply.get_int("r", 0), 5);
    EXPECT_EQ(reply.get_time_date("tvk.req.timestamp"), stamp);
    EXPECT_EQ(reply.get_tuple("args_out").get_int("x", 0), 3);

    // No timestamp in, none out; no interface named: the service picks the one that has the method.
    Tuple bare = answer(call_request("echo"));
    EXPECT_EQ(attribute_names(bare), "args_out,r");
    EXPECT_EQ(bare.get_int("r", 0), 5);

    // A failing call still answers with its result.
    StdoutCapture capture;
    Tuple failing = answer(call_request("missing"));
    EXPECT_EQ(capture.records_with("||INTERFACE CALL: 'mgr.calc'.'missing' FUNCTION NOT REGISTERED"), 1);
    EXPECT_EQ(attribute_names(failing), "args_out,r");
    EXPECT_EQ(failing.get_int("r", 0), Interface::kNotRegistered);
}

TEST_F(Dispatch, SessionContextTravelsInAndBackAndIsLeftOutWhenEmpty) {
    Tuple request = call_request("sess");
    request.set_tuple("session_context").set_int("n", 41);
    Tuple reply = answer(request);
    EXPECT_EQ(attribute_names(reply), "args_out,r,session_context");
    EXPECT_EQ(reply.get_tuple("args_out").get_int("seen", 0), 41);
    EXPECT_EQ(reply.get_tuple("session_context").get_int("n", 0), 42);

    // Without a context in, the method's context is the call's own (empty at first): it comes back.
    Tuple fresh = answer(call_request("sess"));
    EXPECT_EQ(fresh.get_tuple("session_context").get_int("n", 0), 1);
    // A method that leaves the context alone answers without one.
    EXPECT_EQ(attribute_names(answer(call_request("echo"))), "args_out,r");
}

// An unknown service, another request class and hostile requests are reported and answered empty.
TEST_F(Dispatch, UnservedAndHostileRequestsAreReportedAndAnsweredEmpty) {
    struct Case {
        char const* what;
        Tuple request;
        char const* record;
    };
    Tuple other = call_request("echo");
    other.set_class_name(Symbol("tvk.other"));
    Tuple no_class = call_request("echo");
    no_class.clear(Symbol("svc_class"));
    Tuple int_class = call_request("echo");
    int_class.set_int("svc_class", 1);
    Tuple text_args = call_request("echo");
    text_args.set_astring("args_in", "echo");
    Tuple int_context = call_request("echo");
    int_context.set_int("session_context", 0);
    Tuple text_stamp = call_request("echo");
    text_stamp.set_astring("tvk.req.timestamp", "now");
    Tuple check_no_name("tvk.check");
    check_no_name.set_astring("svc_class", "calc");
    Tuple deep = call_request("echo");
    Tuple* level = &deep.set_tuple("args_in");
    for (int i = 0; i < 10000; ++i) level = &level->set_tuple("n");
    Tuple deep_list = call_request("echo");
    Tuple* item = &deep_list.add_tuple("session_context_list", Tuple());
    for (int i = 0; i < 200; ++i) item = &item->add_tuple("l", Tuple());
    Case const cases[] = {
        {"unknown service", call_request("echo", "calc", "nobody"),
         "||NO MATCHING SERVICE tvk.call{args_in:t=echo{x:i=3}, svc_class:as=\"calc\", svc_name:as=\"nobody\"}"},
        {"another class", other, "||REQUEST CLASS 'tvk.other' NOT EXECUTED BY calc.main"},
        {"no svc_class", no_class, "||INVALID REQUEST ATTRIBUTE 'svc_class' IN tvk.call{"},
        {"int svc_class", int_class, "||INVALID REQUEST ATTRIBUTE 'svc_class' IN tvk.call{"},
        {"text args_in", text_args, "||INVALID REQUEST ATTRIBUTE 'args_in' IN tvk.call{"},
        {"int session_context", int_context, "||INVALID REQUEST ATTRIBUTE 'session_context' IN tvk.call{"},
        {"text timestamp", text_stamp, "||INVALID REQUEST ATTRIBUTE 'tvk.req.timestamp' IN tvk.call{"},
        {"check without svc_name", check_no_name, "||INVALID REQUEST ATTRIBUTE 'svc_name' IN tvk.check{"},
        {"args_in 10000 deep", deep, "||REQUEST NESTED DEEPER THAN 128"},
        {"lists of tuples 200 deep", deep_list, "||REQUEST NESTED DEEPER THAN 128"},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.what);
        StdoutCapture capture;
        Tuple reply = answer(c.request);
        expect_one_error(capture, "SERVICEMANAGER", c.record);
        EXPECT_TRUE(reply.is_empty());
        EXPECT_STREQ(reply.get_class_name().c_str(), "");
    }
    // Nesting up to the limit is served.
    Tuple at_limit = call_request("echo");
    Tuple* inner = &at_limit.set_tuple("args_in");
    inner->set_class_name(Symbol("echo"));
    for (int i = 1; i < ServiceManager::kMaxRequestDepth; ++i) inner = &inner->set_tuple("n");
    Tuple reply = answer(at_limit);
    EXPECT_EQ(attribute_names(reply), "args_out,r");
    EXPECT_EQ(reply.get_int("r", 0), 5);
}

TEST_F(Dispatch, CallTraceAboveLevelTwo) {
    LogLevel level("SERVICEMANAGER", 3);
    StdoutCapture capture;
    answer(call_request("echo"));
    EXPECT_EQ(capture.records_with("LOG|TVK|SERVICEMANAGER|"), 1) << capture.text();
    EXPECT_EQ(capture.records_with("||CALL calc.main.(echo{x:i=3},{x:i=3})=5"), 1) << capture.text();
}

TEST(ServiceManager, PublishesOneServicePerClassAndName) {
    AutoRef<ServiceManager> manager = ServiceManager::create();
    AutoRef<ServiceManager> other = ServiceManager::create();
    AutoRef<Service> first = make_service("pub", "one", {});
    AutoRef<Service> second = make_service("pub", "one", {});
    ASSERT_TRUE(manager->publish(first));
    EXPECT_TRUE(manager->publish(first));
    StdoutCapture capture;
    EXPECT_FALSE(second->publish(manager));
    expect_one_error(capture, "SERVICEMANAGER", "||SERVICE pub.one ALREADY PUBLISHED");
    EXPECT_FALSE(second->get_manager());
    EXPECT_FALSE(manager->publish(AutoRef<Service>()));
    EXPECT_FALSE(manager->unpublish(second));

    // Publishing on another manager leaves the first.
    ASSERT_TRUE(first->publish(other));
    EXPECT_FALSE(manager->get_service("pub", "one"));
    EXPECT_EQ(other->get_service("pub", "one"), first);
    EXPECT_EQ(first->get_manager(), other);
    EXPECT_EQ(ServiceManager::getService("pub", "one"), first);
    ASSERT_TRUE(second->publish(manager));
    EXPECT_EQ(manager->get_service("pub", "one"), second);
}

TEST(ServiceManager, ListenersThatNoTransportMakesAreRefused) {
    AutoRef<ServiceManager> manager = ServiceManager::create();
    StdoutCapture capture;
    EXPECT_FALSE(manager->add_listener("NOWHERE:x"));
    EXPECT_EQ(capture.records_with("||ADD LISTENER 'NOWHERE:x' FAILED"), 1) << capture.text();
    EXPECT_FALSE(manager->add_listener(AutoRef<Listener>()));
    EXPECT_FALSE(manager->remove_listener("NOWHERE:x"));
    EXPECT_FALSE(manager->remove_listener(AutoRef<Listener>()));
}

TEST(ServiceManager, RegistryHoldsUnderConcurrentPublishUnpublishAndCalls) {
    AutoRef<ServiceManager> manager = ServiceManager::create();
    AutoRef<Service> shared = make_service("calc", "main", {"mgr.calc"});
    ASSERT_TRUE(shared->publish(manager));
    std::atomic<int> answered{0}, unknown{0};
    StdoutCapture quiet;  // the unknown-service records
    run_together(4, [&](int t) {
        std::string const name = "churn" + std::to_string(t);
        for (int i = 0; i < 300; ++i) {
            AutoRef<Service> mine = make_service("calc", name.c_str(), {"mgr.calc"});
            if (t % 2 == 0) {
                mine->publish(manager);
            } else {
                manager->publish(mine);
            }
            Tuple reply;
            manager->get_callback().on_request(call_request("echo", "calc", (i % 2 ? "main" : name.c_str())), reply);
            if (reply.get_int("r", 0) == 5) ++answered;
            Tuple gone;
            if (t % 2 == 0) {
                mine->unpublish();
            } else {
                manager->unpublish(mine);
            }
            manager->get_callback().on_request(call_request("echo", "calc", name.c_str()), gone);
            if (gone.is_empty()) ++unknown;
            EXPECT_FALSE(ServiceManager::getService("calc", name.c_str()));
        }
    });
    EXPECT_EQ(answered, 4 * 300);
    EXPECT_EQ(unknown, 4 * 300);
    EXPECT_EQ(manager->get_service("calc", "main"), shared);
}

TEST(ServiceManager, ProxyWithoutSenderFailsItsCalls) {
    AutoRef<Service> proxy = ServiceManager::make_proxy("calc", "main", "NOWHERE:x");
    ASSERT_TRUE(proxy);
    EXPECT_TRUE(proxy->is_proxy());
    EXPECT_STREQ(proxy->get_address().c_str(), "NOWHERE:x");
    AutoRef<Interface> iface;
    ASSERT_TRUE(proxy->get_interface("mgr.calc", iface));
    EXPECT_TRUE(iface->is_proxy());
    Tuple out;
    out.set_int("kept", 1);
    StdoutCapture capture;
    EXPECT_EQ(iface->call(Tuple("echo"), out), ServiceManager::kNoSender);
    EXPECT_EQ(proxy->call("", Tuple("echo"), out), ServiceManager::kNoSender);
    EXPECT_EQ(capture.records_with("ERR|TVK|SERVICEMANAGER|"), 2) << capture.text();
    EXPECT_EQ(capture.records_with("||PROXY calc.main.NOWHERE:x CALL NO SENDER"), 2);
    EXPECT_EQ(out.get_int("kept", 0), 1);
}

// --- proxies over the in-process transport -------------------------------------------------------------------

// A manager publishing calc.main and listening on an in-process address.
struct Host {
    explicit Host(char const* address) {
        init();
        EXPECT_TRUE(service->publish(manager));
        listener = manager->add_listener(address);
        EXPECT_TRUE(listener) << address;
    }
    AutoRef<ServiceManager> manager = ServiceManager::create();
    AutoRef<Service> service = make_service("calc", "main", {"mgr.calc"});
    AutoRef<Listener> listener;
};

TEST(ServiceProxy, CallsTravelToTheRemoteServiceWithTheirSessionContext) {
    Host host("INPROC:proxy-calls");
    AutoRef<Service> remote = Service::bind("calc:main@INPROC:proxy-calls");
    ASSERT_TRUE(remote);
    EXPECT_TRUE(remote->is_proxy());
    EXPECT_NE(remote, host.service);
    EXPECT_STREQ(remote->get_address().c_str(), "INPROC:proxy-calls");

    Tuple in("echo"), out("stale");
    in.set_int("x", 9);
    in.set_blob("bytes", Blob("\x00\x01\xff", 3, 0));
    out.set_int("stale", 1);
    EXPECT_EQ(remote->call("mgr.calc", in, out), 5);
    EXPECT_EQ(out.get_int("x", 0), 9);
    EXPECT_EQ(out.get_blob("bytes").get_size(), 3u);
    EXPECT_FALSE(out.is_set(Symbol("stale")));  // the output is the answer's, not merged into the old one

    // The proxy's own context goes out with each call and comes back changed.
    Tuple context;
    context.set_int("n", 10);
    remote->set_session_context(context);
    Tuple sess("sess");
    EXPECT_EQ(remote->call("", sess, out), 0);
    EXPECT_EQ(out.get_int("seen", 0), 10);
    EXPECT_EQ(remote->get_session_context(context).get_int("n", 0), 11);
    AutoRef<Interface> iface;
    ASSERT_TRUE(remote->get_interface("mgr.calc", iface));
    EXPECT_EQ(iface->call(sess, out), 0);
    EXPECT_EQ(out.get_int("seen", 0), 11);
    EXPECT_EQ(remote->get_session_context(context).get_int("n", 0), 12);
    // A session given to the call is the one sent and changed; the proxy's own stays.
    Tuple session;
    session.set_int("n", 100);
    EXPECT_EQ(remote->call(session, "mgr.calc", sess, out), 0);
    EXPECT_EQ(session.get_int("n", 0), 101);
    EXPECT_EQ(remote->get_session_context(context).get_int("n", 0), 12);
}

TEST(ServiceProxy, RecordsOfTheCheckTheCallAndAnInvalidAnswer) {
    Host host("INPROC:proxy-records");
    LogLevel level("SERVICEMANAGER", 3);
    StdoutCapture capture;
    AutoRef<Service> remote = Service::bind("calc:main@INPROC:proxy-records");
    ASSERT_TRUE(remote);
    Tuple out;
    EXPECT_EQ(remote->call("mgr.calc", Tuple("echo"), out), 5);
    // Unpublished behind the proxy's back: the manager answers without "r".
    ASSERT_TRUE(host.service->unpublish());
    EXPECT_EQ(remote->call("mgr.calc", Tuple("echo"), out), ServiceManager::kInvalidAnswer);
    for (char const* record : {"||CREATE PROXY SERVICE class=calc name=main arg=INPROC:proxy-records",
                               "||TRY CHECK CONNECTION INPROC:proxy-records",
                               "||CHECK CONNECTION CREATE INPROC:proxy-records true", "||CHECK CONNECTION 1",
                               "||CALL calc.main.mgr.calc(echo{},{})=5", "||request time => '",
                               "||NO MATCHING SERVICE tvk.call{",
                               "||INVALID ANSWER REQUEST (no return value) 'tvk.call{args_in:t=echo{}, iface_name:as=\"mgr.calc\", "
                               "svc_class:as=\"calc\", svc_name:as=\"main\", tvk.req.timestamp:td="})
        EXPECT_EQ(capture.records_with(record), 1) << record << "\n" << capture.text();
    EXPECT_EQ(capture.records_with("ERR|TVK|SERVICEMANAGER|"), 2) << capture.text();

    // A proxy bound now finds nothing to check.
    StdoutCapture later;
    EXPECT_FALSE(Service::bind("calc:main@INPROC:proxy-records"));
    EXPECT_EQ(later.records_with("||CHECK CONNECTION 2"), 1) << later.text();
    EXPECT_EQ(later.records_with("||SERVICE calc.main NOT CONNECTED"), 1) << later.text();
}

TEST(ServiceProxy, AProxyPublishedOnAnotherManagerRelaysCallsAndSessionContext) {
    Host origin("INPROC:relay-origin");
    AutoRef<ServiceManager> relay = ServiceManager::create();
    AutoRef<Service> forward = ServiceManager::make_proxy("calc", "main", "INPROC:relay-origin");
    ASSERT_TRUE(forward->publish(relay));
    ASSERT_TRUE(relay->add_listener("INPROC:relay-front"));

    AutoRef<Service> remote = Service::bind("calc:main@INPROC:relay-front");
    ASSERT_TRUE(remote);
    Tuple context;
    context.set_int("n", 7);
    remote->set_session_context(context);
    Tuple out;
    EXPECT_EQ(remote->call("mgr.calc", Tuple("sess"), out), 0);
    EXPECT_EQ(out.get_int("seen", 0), 7);
    EXPECT_EQ(remote->get_session_context(context).get_int("n", 0), 8);
    // The relay's own context is not the caller's: each request carries its own.
    EXPECT_TRUE(forward->get_session_context(context).is_empty());
}

}  // namespace
