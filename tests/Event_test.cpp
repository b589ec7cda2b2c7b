#include "tarvik/Event.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <barrier>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "tarvik/GlobVar.h"
#include "tarvik/Symbol.h"

using tarvik::Event;
using tarvik::TimePeriod;
using tarvik::test::StdoutCapture;
using namespace std::chrono_literals;
using tarvik::test::ms;
using tarvik::test::unique_name;

namespace {

double seconds_since(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// Starts this program as a peer running EventPeer.Act with TARVIK_PEER_EVENT=<task>:<name>.
int spawn_peer(std::string const& task, std::string const& name) {
    return tarvik::test::spawn_peer("EventPeer.Act", "TARVIK_PEER_EVENT=" + task + ":" + name);
}

}  // namespace

// The peer half of the two-process test; does nothing unless started by it.
TEST(EventPeer, Act) {
    char const* spec = std::getenv("TARVIK_PEER_EVENT");
    if (!spec) GTEST_SKIP() << "only run as a peer process";
    Event event(std::strchr(spec, ':') + 1);
    ASSERT_TRUE(event.is_valid());
    if (std::strncmp(spec, "signal:", 7) == 0) {
        EXPECT_TRUE(event.signal());
    } else {
        EXPECT_TRUE(event.wait(TimePeriod(10, 0, true)));
    }
}

TEST(Event, AutoResetTakesOneSignalAndSignalsDoNotAccumulate) {
    Event e;
    ASSERT_TRUE(e.is_valid());
    EXPECT_FALSE(e.wait(ms(10)));  // created not signalled
    EXPECT_TRUE(e.signal());
    EXPECT_TRUE(e.wait(ms(10)));
    EXPECT_FALSE(e.wait(ms(10)));  // the wait cleared it
    e.signal();
    e.signal();
    EXPECT_TRUE(e.wait(ms(10)));
    EXPECT_FALSE(e.wait(ms(10)));
    e.signal();
    EXPECT_TRUE(e.reset());
    EXPECT_FALSE(e.wait(ms(10)));

    Event later(false);
    EXPECT_FALSE(later.is_valid() || later.signal() || later.wait(ms(10)));
    EXPECT_TRUE(later.create());
    EXPECT_TRUE(later.signal() && later.wait(ms(10)));
}

TEST(Event, WaitReturnsFalseAtItsTimeOutAndWithoutOneWaitsForTheSignal) {
    Event e;
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_FALSE(e.wait(TimePeriod(2, 500, true)));
    EXPECT_GE(seconds_since(t0), 2.3);
    EXPECT_LE(seconds_since(t0), 3.5);

    std::thread signaller([&] {
        std::this_thread::sleep_for(1500ms);  // longer than one slice of the wait
        e.signal();
    });
    t0 = std::chrono::steady_clock::now();
    EXPECT_TRUE(e.wait());
    EXPECT_GE(seconds_since(t0), 1.4);
    signaller.join();
}

TEST(Event, NamedEventWakesWaitersInOtherProcesses) {
    std::string const name = unique_name("peer");
    Event e(name.c_str());
    ASSERT_TRUE(e.is_valid());
    int peer = spawn_peer("signal", name);
    ASSERT_GT(peer, 0);
    EXPECT_TRUE(e.wait(TimePeriod(20, 0, true)));
    EXPECT_EQ(tarvik::test::exit_status(peer), 0);

    peer = spawn_peer("wait", name);
    ASSERT_GT(peer, 0);
    std::this_thread::sleep_for(300ms);  // most likely the peer waits by now; either way it takes the signal
    e.signal();
    EXPECT_EQ(tarvik::test::exit_status(peer), 0);
    EXPECT_FALSE(e.wait(ms(10)));  // the peer took it
}

TEST(Event, NamedEventLivesUntilItsLastHandleCloses) {
    std::string const name = unique_name("life");
    auto second = std::make_unique<Event>(name.c_str());
    {
        Event first(name.c_str());
        first.signal();
        EXPECT_TRUE(second->wait(ms(10)));  // one event under two handles
        first.signal();
    }
    Event again(name.c_str());
    EXPECT_TRUE(again.wait(ms(10)));  // `second` kept it, signal included
    again.signal();
    second.reset();
    again.create(name.c_str());  // closes the last handle, then creates the name anew
    EXPECT_FALSE(again.wait(ms(10)));
}

// One thread opens the name again while the other may be closing the last handle of it: whatever the
// interleaving, two handles open at the same time are one event.
TEST(Event, NamedEventReopenedWhileItsLastHandleClosesIsStillShared) {
    std::string const name = unique_name("reopen");
    std::barrier sync(2);
    std::atomic<int> missed{-1};
    std::thread signaller([&] {
        for (int i = 0; i < 5000 && missed < 0; ++i) {
            Event e(name.c_str());
            sync.arrive_and_wait();
            e.signal();
            sync.arrive_and_wait();
            sync.arrive_and_wait();  // the waiter has looked
        }
    });
    for (int i = 0; i < 5000 && missed < 0; ++i) {
        Event e(name.c_str());
        sync.arrive_and_wait();
        sync.arrive_and_wait();
        if (!e.wait(ms(500))) missed = i;
        sync.arrive_and_wait();
    }
    signaller.join();
    EXPECT_EQ(missed, -1);
}

TEST(Event, TraceRecordsFollowTheUnitLevel) {
    std::string const name = unique_name("trace");
    auto exercise = [&] {
        Event e(name.c_str());
        e.signal();
        e.wait(ms(10));
        e.reset();
        Event unnamed;
    };
    StdoutCapture quiet;
    exercise();
    EXPECT_EQ(quiet.text(), "");

    tarvik::Symbol const tvk("TVK"), unit("EVENT");
    int const previous = tarvik::GlobVarLog::set(tvk, unit, 2);
    StdoutCapture capture;
    exercise();
    tarvik::GlobVarLog::set(tvk, unit, previous);
    EXPECT_EQ(capture.records_with("\tLOG|TVK|EVENT|"), 7) << capture.text();
    EXPECT_EQ(capture.records_with("|CREATE NAMED EVENT " + name + ": true"), 1);
    EXPECT_EQ(capture.records_with("|SIGNAL EVENT " + name), 1);
    EXPECT_EQ(capture.records_with("|EVENT '" + name + "' SIGNALED"), 1);
    EXPECT_EQ(capture.records_with("|RESET EVENT " + name), 1);
    EXPECT_EQ(capture.records_with("|DELETE EVENT " + name), 1);
    // The unnamed one is known by its address, the same in both of its records.
    std::string const& text = capture.text();
    std::size_t const at = text.find("|CREATE EVENT ") + 14;
    std::string const address = text.substr(at, text.find('\n', at) - at);
    EXPECT_FALSE(address.empty());
    EXPECT_NE(text.find("|DELETE EVENT " + address + "\n"), std::string::npos) << text;
}

TEST(Event, CreatingAnEventWithAnImpossibleNameLogsTheFailure) {
    std::string const name(300, 'n');
    StdoutCapture capture;
    Event e(name.c_str());
    EXPECT_FALSE(e.is_valid());
    EXPECT_EQ(capture.records_with("\tERR|TVK|EVENT|"), 1) << capture.text();
    EXPECT_EQ(capture.records_with("|CANNOT CREATE EVENT " + name + " [#" + std::to_string(ENAMETOOLONG) +
                                   "." + std::strerror(ENAMETOOLONG) + "]"),
              1);
}
