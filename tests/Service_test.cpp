// Interfaces, methods, services, their factories, and create / bind by specification string.
#include "tarvik/Service.h"

#include <gtest/gtest.h>

#include <string>

#include "ServiceSupport.h"
#include "TestSupport.h"
#include "tarvik/InterfaceFactory.h"
#include "tarvik/ServiceFactory.h"
#include "tarvik/ServiceManager.h"

using namespace tarvik;
using tarvik::test::CountedService;
using tarvik::test::expect_one_error;
using tarvik::test::LogLevel;
using tarvik::test::make_service;
using tarvik::test::Method;
using tarvik::test::StdoutCapture;

namespace {

// Two interfaces with a method of the same name, kept apart by the interface name; "sum" adds "a" and "b".
Method alpha_which("svc.alpha", "which", [](Tuple const&, Tuple& out) {
    out.set_astring("from", "alpha");
    return 1L;
});
Method beta_which("svc.beta", "which", [](Tuple const&, Tuple& out) {
    out.set_astring("from", "beta");
    return 2L;
});
Method beta_sum("svc.beta", "sum", [](Tuple const& in, Tuple& out) {
    out.set_int("sum", in.get_int("a", 0) + in.get_int("b", 0));
    return 0L;
});

// Reads the session context through the interface it runs on, records what it saw in `out` and changes it.
Method session_touch("svc.session", "touch", [](Tuple const& in, Tuple& out) {
    AutoRef<Interface> self;
    Service* s = ServiceManager::getService("sess", "one").get();
    if (!s || !s->get_interface("svc.session", self)) return -9L;
    Tuple seen;
    self->get_session_context(seen);
    out.set_astring("user", seen.get_astring("user", "-"));
    if (in.get_bool("adopt", false)) self->set_self_session_context();
    seen.set_int("calls", seen.get_int("calls", 0) + 1);
    self->set_session_context(seen);
    return 0L;
});

long call_named(Service& s, char const* iface, char const* method, Tuple& out) {
    Tuple in(method);
    return s.call(iface, in, out);
}

TEST(Interface, CallRunsTheMethodNamedByTheInputClassOnItsOwnInterface) {
    AutoRef<Interface> alpha(new Interface("svc.alpha"));
    AutoRef<Interface> beta(new Interface("svc.beta"));
    Call_C a(alpha, "which");
    Call_C b(beta, "which");
    EXPECT_STREQ(a.in().get_class_name().c_str(), "which");
    EXPECT_EQ(a.call(), 1);
    EXPECT_EQ(b.call(), 2);
    EXPECT_STREQ(a.out().get_astring("from", ""), "alpha");
    EXPECT_STREQ(b.out().get_astring("from", ""), "beta");

    Call_C sum(beta, "sum");
    sum.in().set_int("a", 40);
    sum.in().set_int("b", 2);
    EXPECT_EQ(sum.call(), 0);
    EXPECT_EQ(sum.out().get_int("sum", 0), 42);
}

TEST(Interface, UnregisteredMethodIsReportedAndLeavesTheOutputAlone) {
    AutoRef<Interface> alpha(new Interface("svc.alpha"));
    Tuple out;
    out.set_int("kept", 7);
    StdoutCapture capture;
    EXPECT_EQ(alpha->call(Tuple("nope"), out), Interface::kNotRegistered);
    expect_one_error(capture, "INTERFACE", "||INTERFACE CALL: 'svc.alpha'.'nope' FUNCTION NOT REGISTERED");
    EXPECT_EQ(out.get_count(), 1u);
    EXPECT_EQ(out.get_int("kept", 0), 7);
    EXPECT_EQ(Call_C(AutoRef<Interface>(), "which").call(), Interface::kNotRegistered);
}

TEST(CallMethod, LaterRegistrationReplacesAndDestructionRemovesOnlyItsOwnEntry) {
    EXPECT_EQ(Service::CallMethod::get("svc.tmp", "m"), nullptr);
    {
        LogLevel level("SERVICE", 2);
        StdoutCapture capture;
        Method first("svc.tmp", "m", [](Tuple const&, Tuple&) { return 1L; });
        EXPECT_EQ(capture.records_with("LOG|TVK|SERVICE|"), 1) << capture.text();
        EXPECT_EQ(capture.records_with("||CALL METHOD REGISTER 'svc.tmp.m'"), 1);
        EXPECT_EQ(Service::CallMethod::get("svc.tmp", "m"), &first);
        {
            Method second("svc.tmp", "m", [](Tuple const&, Tuple&) { return 2L; });
            EXPECT_EQ(Service::CallMethod::get("svc.tmp", "m"), &second);
        }
        // The replaced one does not come back, and its destruction below takes nothing away.
        EXPECT_EQ(Service::CallMethod::get("svc.tmp", "m"), nullptr);
        Method third("svc.tmp", "m", [](Tuple const&, Tuple&) { return 3L; });
        EXPECT_EQ(Service::CallMethod::get("svc.tmp", "m"), &third);
    }
    EXPECT_EQ(Service::CallMethod::get("svc.tmp", "m"), nullptr);
    EXPECT_EQ(Service::CallMethod::get("svc.alpha", "which"), &alpha_which);
    EXPECT_FALSE(alpha_which.is_oneway());
}

TEST(Service, CallPicksTheInterface) {
    AutoRef<Service> s = make_service("pick", "one", {"svc.alpha", "svc.beta"});
    AutoRef<Service> empty = make_service("pick", "none", {});
    struct Case {
        Service* service;
        char const* iface;
        char const* method;
        long result;
        char const* from;    // "from" in the output, "" when none
        char const* record;  // the one ERR record, "" when none
    };
    Case const cases[] = {
        {s.get(), "svc.beta", "which", 2, "beta", ""},
        {s.get(), "svc.alpha", "which", 1, "alpha", ""},
        {s.get(), "", "which", 1, "alpha", ""},  // both have it: the first added
        {s.get(), nullptr, "sum", 0, "", ""},    // only beta has it
        {s.get(), "", "nope", Interface::kNotRegistered, "", "||INTERFACE CALL: 'svc.alpha'.'nope' FUNCTION NOT REGISTERED"},
        {s.get(), "svc.gamma", "which", Service::kNoInterface, "", "||INTERAFCE svc.gamma NOT FOUND"},
        {empty.get(), "", "which", Service::kNoInterface, "", "||INTERAFCE  NOT FOUND"},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(std::string(c.iface ? c.iface : "(null)") + " " + c.method);
        Tuple out;
        StdoutCapture capture;
        EXPECT_EQ(call_named(*c.service, c.iface, c.method, out), c.result);
        EXPECT_STREQ(out.get_astring("from", ""), c.from);
        EXPECT_EQ(capture.records_with("ERR|TVK|"), *c.record ? 1 : 0) << capture.text();
        if (*c.record) {
            EXPECT_EQ(capture.records_with(c.record), 1) << capture.text();
        }
    }
}

TEST(Service, InterfacesBelongToOneServiceAndHaveDistinctNames) {
    AutoRef<Service> s = make_service("own", "one", {"svc.alpha"});
    AutoRef<Service> other = make_service("own", "two", {});
    AutoRef<Interface> alpha;
    ASSERT_TRUE(s->get_interface("svc.alpha", alpha));
    EXPECT_EQ(alpha->get_service(), s.get());
    EXPECT_FALSE(alpha->is_proxy());
    EXPECT_FALSE(s->add_interface(AutoRef<Interface>(new Interface("svc.alpha"))));
    EXPECT_FALSE(s->add_interface(AutoRef<Interface>()));
    StdoutCapture capture;
    EXPECT_FALSE(other->add_interface(alpha));
    expect_one_error(capture, "SERVICE", "||INTERFACE svc.alpha BELONG TO SERVICE own");
    ListAString names;
    other->get_interface_names(names);
    EXPECT_TRUE(names.is_empty());
    EXPECT_FALSE(alpha->find("svc.beta"));
    ASSERT_TRUE(s->add_interface(AutoRef<Interface>(new Interface("svc.beta"))));
    EXPECT_EQ(alpha->find("svc.beta")->get_name(), AString("svc.beta"));
}

TEST(Service, AnInterfaceHeldOutsideKeepsItsServiceAlive) {
    int const before = CountedService::live;
    AutoRef<Interface> alpha;
    {
        AutoRef<Service> s = make_service("life", "one", {"svc.alpha", "svc.beta"});
        ASSERT_TRUE(s->get_interface("svc.alpha", alpha));
        Call_C call(alpha, "which");
        EXPECT_EQ(call.call(), 1);
    }
    EXPECT_EQ(CountedService::live, before + 1);
    ASSERT_NE(alpha->get_service(), nullptr);
    EXPECT_EQ(alpha->find("svc.beta")->get_name(), AString("svc.beta"));  // a second holder, dropped at once
    EXPECT_EQ(CountedService::live, before + 1);
    alpha.clear();
    EXPECT_EQ(CountedService::live, before);
}

TEST(Service, SessionContextIsCarriedIntoAndOutOfACall) {
    AutoRef<ServiceManager> manager = ServiceManager::create();
    AutoRef<Service> s = make_service("sess", "one", {"svc.session"});
    ASSERT_TRUE(s->publish(manager));
    s->set_session_id("own-session");
    EXPECT_STREQ(s->get_session_id().c_str(), "own-session");

    // With a session: the method sees and changes the caller's context.
    Tuple session;
    session.set_astring("user", "ann");
    Tuple in("touch"), out;
    EXPECT_EQ(s->call(session, "", in, out), 0);
    EXPECT_STREQ(out.get_astring("user", ""), "ann");
    EXPECT_EQ(session.get_int("calls", 0), 1);

    // Without one: the service's own context is the one seen and changed.
    EXPECT_EQ(s->call("svc.session", in, out), 0);
    EXPECT_STREQ(out.get_astring("user", ""), "-");
    Tuple own;
    EXPECT_EQ(s->get_session_context(own).get_int("calls", 0), 1);
    EXPECT_STREQ(own.get_astring("session_id", ""), "own-session");

    // The const form runs with a copy: the caller's context is not changed.
    AutoRef<Interface> iface;
    ASSERT_TRUE(s->get_interface("svc.session", iface));
    EXPECT_EQ(iface->call(in, out, &session), 0);
    EXPECT_EQ(session.get_int("calls", 0), 1);

    // A method may adopt the caller's context as the service's own.
    Tuple adopt("touch");
    adopt.set_bool("adopt", true);
    EXPECT_EQ(s->call(session, "", adopt, out), 0);
    EXPECT_STREQ(s->get_session_context(own).get_astring("user", ""), "ann");
    EXPECT_EQ(own.get_int("calls", 0), 1);
    EXPECT_EQ(session.get_int("calls", 0), 2);
}

// --- factories and specification strings ----------------------------------------------------------------

struct RecordingFactory : ServiceFactory {
    RecordingFactory(char const* cls, bool with_interfaces, bool makes) : ServiceFactory(cls, with_interfaces), makes(makes) {}
    AutoRef<Service> create(char const* cls, char const* name, char const* args) override {
        ++asked;
        return makes ? ServiceFactory::create(cls, name, args) : AutoRef<Service>();
    }
    bool makes;
    int asked = 0;
};

struct NamedInterfaces : InterfaceFactory {
    NamedInterfaces(char const* cls, char const* iface) : InterfaceFactory(cls), iface(iface) {}
    AutoRef<Interface> create(Service&) override { return AutoRef<Interface>(new Interface(iface)); }
    char const* iface;
};

TEST(ServiceFactory, RegistryListsTheFactoriesOfAClassNewestFirstWhileTheyLive) {
    RecordingFactory older("fact", false, true);
    List<ServiceFactory*> found;
    {
        RecordingFactory newer("fact", false, true);
        RecordingFactory other("Fact", false, true);  // class names count case
        EXPECT_EQ(ServiceFactory::get("fact", found), 2);
        ASSERT_EQ(found.size(), 2u);
        EXPECT_EQ(found.front(), &newer);
        EXPECT_EQ(found.back(), &older);
    }
    found.clear();
    EXPECT_EQ(ServiceFactory::get("fact", found), 1);
    EXPECT_EQ(ServiceFactory::get("none", found), 0);

    NamedInterfaces first("fact", "svc.alpha"), second("fact", "svc.beta");
    List<InterfaceFactory*> ifactories;
    EXPECT_EQ(InterfaceFactory::get("fact", ifactories), 2);
    EXPECT_EQ(ifactories.front(), &second);
    EXPECT_STREQ(ifactories.front()->get_class_name().c_str(), "fact");
}

TEST(Service, CreateReadsTheSpecificationAndAsksTheFactoriesOfTheClass) {
    RecordingFactory fallback("make", false, true);
    RecordingFactory makes("make", true, true);  // newest: asked first
    NamedInterfaces alpha("make", "svc.alpha"), beta("make", "svc.beta");
    struct Case {
        char const* text;
        bool made;
        char const* name;
        char const* args;
    };
    Case const cases[] = {
        {"make:main:x=1", true, "main", "x=1"},
        {"make:main", true, "main", ""},
        {"make:main:a:b", true, "main", "a:b"},  // the last field takes the rest
        {"make::", true, "", ""},
        {"other:main", false, "", ""},            // no factory of that class
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.text);
        AutoRef<Service> s = Service::create(c.text);
        ASSERT_EQ(static_cast<bool>(s), c.made);
        if (!c.made) continue;
        EXPECT_STREQ(s->get_class_name().c_str(), "make");
        EXPECT_STREQ(s->get_name().c_str(), c.name);
        EXPECT_STREQ(s->get_args().c_str(), c.args);
        ListAString names;
        s->get_interface_names(names);
        EXPECT_EQ(names, (ListAString{"svc.beta", "svc.alpha"}));
        Tuple out;
        EXPECT_EQ(call_named(*s, "svc.alpha", "which", out), 1);
    }
    EXPECT_EQ(fallback.asked, 0);

    // The newest factory declining lets the next one make it; a given factory is the only one asked.
    makes.makes = false;
    AutoRef<Service> by_fallback = Service::create("make:main");
    ASSERT_TRUE(by_fallback);
    EXPECT_EQ(makes.asked, 5);
    EXPECT_EQ(fallback.asked, 1);
    ListAString plain;
    by_fallback->get_interface_names(plain);
    EXPECT_TRUE(plain.is_empty());
    RecordingFactory lone("elsewhere", false, true);
    AutoRef<Service> by_one = Service::create("make:solo:y", lone);
    ASSERT_TRUE(by_one);
    EXPECT_STREQ(by_one->get_args().c_str(), "y");
    ListAString none;
    by_one->get_interface_names(none);
    EXPECT_TRUE(none.is_empty());
}

TEST(Service, InvalidSpecificationsAreReported) {
    struct Case {
        char const* text;
        bool bind;
        char const* record;
    };
    Case const cases[] = {
        {"lonely", false, "||CREATE 'lonely' INVALID SERVICE SPECIFICATION"},
        {"", false, "||CREATE '' INVALID SERVICE SPECIFICATION"},
        {"lonely", true, "||BIND 'lonely' INVALID SERVICE SPECIFICATION"},
        {"", true, "||BIND '' INVALID SERVICE SPECIFICATION"},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.text);
        StdoutCapture capture;
        EXPECT_FALSE(c.bind ? Service::bind(c.text) : Service::create(c.text));
        expect_one_error(capture, "SERVICE", c.record);
        RecordingFactory f("x", false, true);
        if (!c.bind) {
            EXPECT_FALSE(Service::create(c.text, f));
        }
        EXPECT_EQ(f.asked, 0);
    }
}

TEST(Service, BindWithoutAddressFindsTheServicePublishedInThisProcess) {
    AutoRef<ServiceManager> first = ServiceManager::create();
    AutoRef<ServiceManager> second = ServiceManager::create();
    AutoRef<Service> a = make_service("bound", "a", {});
    AutoRef<Service> b = make_service("bound", "b", {});
    EXPECT_FALSE(Service::bind("bound:a"));
    ASSERT_TRUE(a->publish(first));
    ASSERT_TRUE(b->publish(second));
    EXPECT_EQ(Service::bind("bound:a"), a);
    EXPECT_EQ(Service::bind("bound:b"), b);
    EXPECT_FALSE(Service::bind("bound:c"));
    EXPECT_FALSE(Service::bind("Bound:a"));
    EXPECT_TRUE(a->unpublish());
    EXPECT_FALSE(a->unpublish());
    EXPECT_FALSE(Service::bind("bound:a"));
    second.clear();  // a released manager withdraws its services
    EXPECT_FALSE(Service::bind("bound:b"));
    EXPECT_FALSE(b->get_manager());
}

TEST(Service, BindToAnAddressNoTransportAcceptsIsNotConnected) {
    LogLevel level("SERVICEMANAGER", 2);
    StdoutCapture capture;
    EXPECT_FALSE(Service::bind("calc:main@NOWHERE:x"));
    EXPECT_EQ(capture.records_with("||CREATE PROXY SERVICE class=calc name=main arg=NOWHERE:x"), 1) << capture.text();
    EXPECT_EQ(capture.records_with("LOG|TVK|SERVICEMANAGER|"), 2) << capture.text();
    EXPECT_EQ(capture.records_with("||TRY CHECK CONNECTION NOWHERE:x"), 1);
    expect_one_error(capture, "SERVICEMANAGER", "||CHECK CONNECTION CREATE NOWHERE:x false");
    expect_one_error(capture, "SERVICE", "||SERVICE calc.main NOT CONNECTED");
}

TEST(Service, LifecycleAndPublishingRecords) {
    LogLevel service_level("SERVICE", 1);
    LogLevel manager_level("SERVICEMANAGER", 1);
    RecordingFactory f("rec", false, true);
    StdoutCapture capture;
    {
        AutoRef<ServiceManager> manager = ServiceManager::create();
        AutoRef<Service> plain(new Service("rec"));
        AutoRef<Service> s = Service::create("rec:main");
        s->set_address("here");
        ASSERT_TRUE(s->publish(manager));
        ASSERT_TRUE(s->unpublish());
    }
    std::string const& text = capture.text();
    for (char const* record : {"LOG|TVK|SERVICE|", "||CREATE SERVICE rec [", "||CREATE SERVICE rec.main [",
                               "||CHECK SERVICE FACTORY rec rec:main = ", "||SERVICE rec.main PUBLISHED ADDRESS=here",
                               "||SERVICE rec.main UNPUBLISHED ADDRESS=here", "||CREATE SERVICE MANAGER ",
                               "||PUBLISH SERVICE rec.main", "||UNPUBLISH SERVICE rec.main",
                               "||DELETE SERVICE MANAGER "}) {
        int const expected = std::string(record) == "LOG|TVK|SERVICE|" ? 7 : 1;
        EXPECT_EQ(capture.records_with(record), expected) << record << "\n" << text;
    }
    EXPECT_EQ(capture.records_with("||DELETE SERVICE rec ["), 2) << text;
}

}  // namespace
