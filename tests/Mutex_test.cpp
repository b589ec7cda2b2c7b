#include "tarvik/Mutex.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "tarvik/Event.h"

using tarvik::Event;
using tarvik::Mutex;
using tarvik::TimePeriod;
using namespace std::chrono_literals;
using tarvik::test::run_together;
using tarvik::test::ms;
using tarvik::test::unique_name;

namespace {

// Whether another thread can take the mutex now (it unlocks again at once when it could).
bool free_for_other_thread(Mutex& m) {
    bool took = false;
    std::thread([&] {
        if ((took = m.try_lock())) m.unlock();
    }).join();
    return took;
}

// Starts this program as a peer running MutexPeer.Act with TARVIK_PEER_MUTEX=<task>:<name>.
int spawn_peer(std::string const& task, std::string const& name) {
    return tarvik::test::spawn_peer("MutexPeer.Act", "TARVIK_PEER_MUTEX=" + task + ":" + name);
}

}  // namespace

// The peer half of the two-process tests: locks the named mutex, signals "<name>.locked", waits for
// "<name>.release", then unlocks ("hold") or dies still holding it ("die").
TEST(MutexPeer, Act) {
    char const* spec = std::getenv("TARVIK_PEER_MUTEX");
    if (!spec) GTEST_SKIP() << "only run as a peer process";
    std::string const name(std::strchr(spec, ':') + 1);
    Event locked((name + ".locked").c_str()), release((name + ".release").c_str());
    Mutex m(name.c_str());
    ASSERT_TRUE(m.lock());
    locked.signal();
    EXPECT_TRUE(release.wait(TimePeriod(20, 0, true)));
    if (std::strncmp(spec, "die:", 4) == 0) std::_Exit(0);
    m.unlock();
}

TEST(Mutex, OwnerMayLockAgainAndOthersWaitForTheLastUnlock) {
    Mutex m;
    ASSERT_TRUE(m.is_ok());
    ASSERT_TRUE(m.lock());
    EXPECT_TRUE(m.try_lock());
    EXPECT_TRUE(m.lock(ms(10)));
    EXPECT_FALSE(free_for_other_thread(m));
    std::thread([&] {
        auto const t0 = std::chrono::steady_clock::now();
        EXPECT_FALSE(m.lock(ms(300)));
        EXPECT_GE(std::chrono::steady_clock::now() - t0, 280ms);
        EXPECT_LT(std::chrono::steady_clock::now() - t0, 3s);
    }).join();
    m.unlock();
    m.unlock();
    EXPECT_FALSE(free_for_other_thread(m));  // still held once
    std::thread waiter([&] {
        EXPECT_TRUE(m.lock(TimePeriod(10, 0, true)));
        m.unlock();
    });
    std::this_thread::sleep_for(100ms);
    m.unlock();
    waiter.join();
    EXPECT_TRUE(free_for_other_thread(m));
}

// Each thread does a read-modify-write that yields in the middle, so without exclusion updates get lost.
// (All go through one handle: ThreadSanitizer cannot tell that two mappings of a name are one mutex.)
TEST(Mutex, ExcludesOtherThreadsUnderContention) {
    constexpr int kThreads = 6, kRounds = 2000;
    Mutex m(unique_name("contention").c_str());
    ASSERT_TRUE(m.is_ok());
    long counter = 0;  // plain: only the mutex guards it
    run_together(kThreads, [&](int t) {
        for (int k = 0; k < kRounds; ++k) {
            if ((k + t) % 3 == 0) {
                while (!m.try_lock()) std::this_thread::yield();
            } else if ((k + t) % 3 == 1) {
                while (!m.lock(ms(5))) {
                }
            } else {
                m.lock();
            }
            long seen = counter;
            std::this_thread::yield();
            counter = seen + 1;
            m.unlock();
        }
    });
    EXPECT_EQ(counter, static_cast<long>(kThreads) * kRounds);
}

TEST(Mutex, OpenFindsOnlyANameThatExists) {
    std::string const name = unique_name("open");
    Mutex opener(name.c_str(), false);
    EXPECT_FALSE(opener.is_ok() || opener.open(name.c_str()) || opener.lock());
    {
        Mutex creator(name.c_str());
        ASSERT_TRUE(opener.open(name.c_str()));
        ASSERT_TRUE(creator.lock());
        EXPECT_FALSE(free_for_other_thread(opener));  // one mutex under both handles
        creator.unlock();
    }
    EXPECT_TRUE(free_for_other_thread(opener));  // the opener's handle keeps it
    EXPECT_FALSE(opener.open(nullptr));
    EXPECT_FALSE(Mutex(name.c_str(), false).open(name.c_str()));  // the last handle closed
}

TEST(Mutex, NamedMutexHeldByAnotherProcessExcludesThisOneUntilReleasedOrDead) {
    for (char const* task : {"hold", "die"}) {
        std::string const name = unique_name(task);
        Event locked((name + ".locked").c_str()), release((name + ".release").c_str());
        Mutex m(name.c_str());
        int peer = spawn_peer(task, name);
        ASSERT_GT(peer, 0);
        ASSERT_TRUE(locked.wait(TimePeriod(20, 0, true)));
        EXPECT_FALSE(m.try_lock());
        auto const t0 = std::chrono::steady_clock::now();
        EXPECT_FALSE(m.lock(ms(200)));
        EXPECT_GE(std::chrono::steady_clock::now() - t0, 180ms);
        EXPECT_LT(std::chrono::steady_clock::now() - t0, 3s);
        release.signal();
        EXPECT_EQ(tarvik::test::exit_status(peer), 0);
#if defined(__SANITIZE_THREAD__)
        // ThreadSanitizer records a lock taken over from a dead owner by try_lock, not by a timed lock.
        ASSERT_TRUE(m.try_lock()) << task;
#else
        ASSERT_TRUE(m.lock(TimePeriod(2, 0, true))) << task;
#endif
        EXPECT_FALSE(free_for_other_thread(m)) << task;  // ours now, and it still excludes
        m.unlock();
        EXPECT_TRUE(free_for_other_thread(m)) << task;
    }
}
