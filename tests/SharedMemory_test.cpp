#include "tarvik/SharedMemory.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"

using namespace tarvik;
using tarvik::test::StdoutCapture;
using tarvik::test::unique_name;

namespace {

constexpr unsigned int kSize = 4096;

bool named(std::string const& name) {
    return ::access(("/dev/shm/tvk.shm." + name).c_str(), F_OK) == 0;
}

char* bytes(SharedMemory const& area) {
    return static_cast<char*>(area.get_map());
}

}  // namespace

// The peer half of the two-process test: opens the area the parent made (TARVIK_PEER_SHM), checks what the
// parent wrote and answers next to it.
TEST(SharedMemoryPeer, AnswersTheParent) {
    char const* name = std::getenv("TARVIK_PEER_SHM");
    if (!name) GTEST_SKIP() << "run by SharedMemory.AreaWrittenByOneProcessIsReadByAnother";
    SharedMemory area(name, kSize);
    ASSERT_NE(area.get_map(), nullptr);
    EXPECT_FALSE(area.created());
    EXPECT_STREQ(bytes(area), "from the parent");
    std::strcpy(bytes(area) + 100, "from the peer");
}

TEST(SharedMemory, AreaWrittenByOneProcessIsReadByAnother) {
    std::string const name = unique_name("peer");
    SharedMemory area(name.c_str(), kSize);
    ASSERT_NE(area.get_map(), nullptr);
    std::strcpy(bytes(area), "from the parent");

    int const peer = tarvik::test::spawn_peer("SharedMemoryPeer.AnswersTheParent", "TARVIK_PEER_SHM=" + name);
    ASSERT_GT(peer, 0);
    EXPECT_EQ(tarvik::test::exit_status(peer), 0);
    EXPECT_STREQ(bytes(area) + 100, "from the peer");
}

TEST(SharedMemory, CloseAndSetMapReleaseTheCurrentArea) {
    SharedMemory area;
    EXPECT_FALSE(area.close());  // nothing mapped yet

    std::string const first = unique_name("first");
    std::string const second = unique_name("second");
    area.set_map(first.c_str(), kSize);
    void* view = area.set_map(second.c_str(), 64);
    ASSERT_TRUE(view && view == area.get_map());
    EXPECT_EQ(area.get_size(), 64u);
    EXPECT_TRUE(area.created());
    EXPECT_FALSE(named(first));  // it had no other holder
    EXPECT_TRUE(area.close());
    EXPECT_FALSE(area.close());
    EXPECT_EQ(area.get_map(), nullptr);
    EXPECT_FALSE(named(second));
}

TEST(SharedMemory, SameNameGivesViewsOfOneZeroFilledAreaThatLivesUntilItsLastHolderCloses) {
    std::string const name = unique_name("life");
    mode_t const saved_umask = ::umask(077);
    SharedMemory first(name.c_str(), kSize);
    ::umask(saved_umask);
    SharedMemory second(name.c_str(), kSize);
    ASSERT_TRUE(first.get_map() && second.get_map());
    EXPECT_TRUE(first.created());
    EXPECT_FALSE(second.created());
    EXPECT_NE(first.get_map(), second.get_map());
    EXPECT_EQ(std::count(bytes(first), bytes(first) + kSize, 0), static_cast<std::ptrdiff_t>(kSize));
    struct stat st {};
    ASSERT_EQ(::stat(("/dev/shm/tvk.shm." + name).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0666u);  // open to every process, whatever the umask

    bytes(first)[kSize - 1] = 'k';
    EXPECT_EQ(bytes(second)[kSize - 1], 'k');
    first.close();
    SharedMemory third(name.c_str(), kSize);
    EXPECT_FALSE(third.created());
    EXPECT_EQ(bytes(third)[kSize - 1], 'k');
    second.close();
    third.close();
    EXPECT_FALSE(named(name));
    SharedMemory fresh(name.c_str(), kSize);
    EXPECT_TRUE(fresh.created());
    EXPECT_EQ(bytes(fresh)[kSize - 1], 0);
}

TEST(SharedMemory, ExistingAreaOpensWhateverItsSizeAndAnEmptyNameFailsToCreate) {
    std::string const name = unique_name("larger");
    SharedMemory area(name.c_str(), kSize);
    std::strcpy(bytes(area) + kSize - 4, "end");
    StdoutCapture capture;
    SharedMemory larger(name.c_str(), kSize * 2);
    SharedMemory smaller(name.c_str(), 16);
    SharedMemory unnamed("", kSize);
    ASSERT_NE(larger.get_map(), nullptr);
    EXPECT_FALSE(larger.created());
    EXPECT_EQ(larger.get_size(), kSize * 2);
    EXPECT_STREQ(bytes(larger) + kSize - 4, "end");  // the same area, grown behind what it held
    EXPECT_EQ(std::count(bytes(larger) + kSize, bytes(larger) + 2 * kSize, 0),
              static_cast<std::ptrdiff_t>(kSize));
    bytes(larger)[2 * kSize - 1] = 'z';
    SharedMemory again(name.c_str(), kSize * 2);
    EXPECT_EQ(bytes(again)[2 * kSize - 1], 'z');
    EXPECT_NE(smaller.get_map(), nullptr);
    EXPECT_EQ(unnamed.get_map(), nullptr);
    EXPECT_FALSE(unnamed.created());
    EXPECT_EQ(capture.records_with("ERR|TVK|SHAREDMEMORY|"), 1) << capture.text();
    EXPECT_EQ(capture.records_with("||CANNOT CREATE SHARE MEMORY  ["), 1) << capture.text();
}

// One thread keeps opening and closing the name while another opens it twice at a time: however the first
// thread's last close falls between them, the two objects open together share one area.
TEST(SharedMemory, ConcurrentOpenAndCloseNeverSplitsTheArea) {
    std::string const name = unique_name("race");
    std::atomic<bool> done{false};
    std::thread churn([&] {
        while (!done.load()) SharedMemory passing(name.c_str(), kSize);
    });
    int split = 0;
    int failed = 0;
    auto const limit = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    for (int i = 1; i <= 5000 && split + failed == 0 && std::chrono::steady_clock::now() < limit; ++i) {
        SharedMemory a(name.c_str(), kSize);
        SharedMemory b(name.c_str(), kSize);
        if (!a.get_map() || !b.get_map()) {
            ++failed;
        } else {
            static_cast<int volatile*>(a.get_map())[0] = i;
            split += static_cast<int volatile*>(b.get_map())[0] != i;
        }
    }
    done.store(true);
    churn.join();
    EXPECT_EQ(split, 0);
    EXPECT_EQ(failed, 0);
    EXPECT_FALSE(named(name));
}
