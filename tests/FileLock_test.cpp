#include "tarvik/FileLock.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"

using namespace tarvik;
using namespace std::chrono_literals;
using tarvik::test::StdoutCapture;
using tarvik::test::TempDir;

namespace {

bool exists(std::string const& path) {
    return ::access(path.c_str(), F_OK) == 0;
}

bool appears(std::string const& path) {
    return tarvik::test::eventually([&] { return exists(path); }, 20);
}

// Runs wait_lock() on another thread. When it has not returned within two seconds it is reported and
// `let_go` ends the holder's lock, so that the wait can end.
template <class F>
bool wait_lock_at_once(FileLock& lock, F let_go) {
    auto result = std::async(std::launch::async, [&lock] { return lock.wait_lock(); });
    if (result.wait_for(2s) != std::future_status::ready) {
        ADD_FAILURE() << "wait_lock() waited for the holder";
        let_go();
    }
    return result.get();
}

}  // namespace

// The peer half of the two-process test: locks TARVIK_PEER_LOCK, says so by making "<path>.held", and keeps
// the lock until "<path>.release" appears.
TEST(FileLockPeer, HoldsTheLock) {
    char const* path = std::getenv("TARVIK_PEER_LOCK");
    if (!path) GTEST_SKIP() << "run by FileLock.LockHeldByAnotherProcessRefusesBothFormsAtOnce";
    FileLock held(path);
    ASSERT_TRUE(held.lock());
    ASSERT_TRUE(tarvik::test::write_file(std::string(path) + ".held", ""));
    EXPECT_TRUE(appears(std::string(path) + ".release"));
}

TEST(FileLock, LockCreatesTheFileRelocksAndReleasesWithoutDeletingIt) {
    TempDir dir;
    std::string const path = dir.file("lock");
    {
        FileLock lock(path.c_str());
        EXPECT_TRUE(lock.lock());
        EXPECT_TRUE(exists(path));
        EXPECT_TRUE(lock.lock());
        EXPECT_TRUE(lock.wait_lock());
        EXPECT_TRUE(lock.is_locked());
        lock.unlock();
        EXPECT_FALSE(lock.is_locked());
        EXPECT_TRUE(exists(path));
        EXPECT_TRUE(lock.lock());
    }
    FileLock next(path.c_str());  // the destroyed holder let go
    EXPECT_TRUE(next.lock());
}

TEST(FileLock, SecondHolderInThisProcessIsRefusedAtOnceWithoutARecord) {
    TempDir dir;
    std::string const path = dir.file("lock");
    FileLock first(path.c_str());
    FileLock second;
    second = path.c_str();
    ASSERT_TRUE(first.lock());
    {
        StdoutCapture capture;
        EXPECT_FALSE(second.lock());
        EXPECT_FALSE(wait_lock_at_once(second, [&] { first.unlock(); }));
        EXPECT_FALSE(second.is_locked());
        EXPECT_EQ(capture.text(), "");
    }
    first.unlock();
    EXPECT_TRUE(second.lock());
    EXPECT_FALSE(first.lock());
}

TEST(FileLock, LockHeldByAnotherProcessRefusesBothFormsAtOnce) {
    TempDir dir;
    std::string const path = dir.file("lock");
    int const peer = tarvik::test::spawn_peer("FileLockPeer.HoldsTheLock", "TARVIK_PEER_LOCK=" + path);
    ASSERT_GT(peer, 0);

    bool const held = appears(path + ".held");
    FileLock mine(path.c_str());
    if (held) {
        EXPECT_FALSE(mine.lock());
        EXPECT_FALSE(wait_lock_at_once(mine, [&] { tarvik::test::write_file(path + ".release", ""); }));
    }
    tarvik::test::write_file(path + ".release", "");
    int const status = tarvik::test::exit_status(peer);
    ASSERT_TRUE(held);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(mine.lock());  // the peer's lock ended with its process
}

TEST(FileLock, PathInAMissingDirectoryFailsWithoutARecord) {
    TempDir dir;
    std::string const path = dir.file("missing/lock");
    StdoutCapture capture;
    FileLock lock(path.c_str());
    EXPECT_FALSE(lock.lock() || lock.wait_lock() || lock.is_locked());
    EXPECT_EQ(capture.text(), "");
}

// The range lock is what wait_lock() waits for. Held here through another open of the file (one that takes
// no exclusive open), it makes lock() fail with a record while keeping the file, and wait_lock() wait.
TEST(FileLock, RangeLockedElsewhereFailsLockWithARecordAndMakesWaitLockWait) {
    TempDir dir;
    std::string const path = dir.file("lock");
    int const fd = ::open(path.c_str(), O_RDWR | O_CREAT, 0644);
    ASSERT_GE(fd, 0);
    struct flock range {};
    range.l_type = F_WRLCK;
    range.l_whence = SEEK_SET;
    range.l_len = 10;
    ASSERT_EQ(::fcntl(fd, F_OFD_SETLK, &range), 0);

    FileLock lock(path.c_str());
    StdoutCapture capture;
    EXPECT_FALSE(lock.lock());
    EXPECT_EQ(capture.records_with("ERR|TVK|FILELOCK|"), 1) << capture.text();
    EXPECT_NE(capture.text().find("||FAIL TO LOCK FILE " + path + " \n"), std::string::npos)
        << capture.text();
    EXPECT_TRUE(lock.is_locked());  // the file stays open until unlock()
    auto waited = std::async(std::launch::async, [&] { return lock.wait_lock(); });
    EXPECT_EQ(waited.wait_for(200ms), std::future_status::timeout);
    range.l_type = F_UNLCK;
    ASSERT_EQ(::fcntl(fd, F_OFD_SETLK, &range), 0);
    EXPECT_TRUE(waited.get());
    ::close(fd);
}
