#include "tarvik/Directory.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"

using namespace tarvik;
using namespace std::chrono_literals;
using tarvik::test::StdoutCapture;
using tarvik::test::TempDir;
using tarvik::test::write_file;
using Kind = Directory::ChangeKind;

namespace {

// " [#<number>.<message>]" as the records end.
std::string because(int error) { return " [#" + std::to_string(error) + "." + std::strerror(error) + "]"; }

Directory dir_at(std::string const& path) { return Directory(Path(path.c_str())); }

bool is_file(std::string const& path) { return Path(path.c_str()).is_file(); }

std::string joined(Array<AString> const& names) {
    std::string out;
    for (AString const& n : names) out += std::string(out.empty() ? "" : " ") + n.c_str();
    return out;
}

// Counts the iterator's own descriptor too, the same at every call.
long open_descriptors() { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); }

// "created:name", "changed:name", ... for a change.
std::string text(Directory::Change const& c) {
    static char const* const kinds[] = {"created", "changed", "removed", "overflow"};
    return std::string(kinds[static_cast<int>(c.kind)]) + ":" + c.name.c_str() + (c.is_directory ? "/" : "");
}

// Polls until `wanted` (as text() writes it) arrives, at most 20 seconds; appends every change seen to
// `seen`. The index of the wanted change in `seen`, or -1.
int await(Directory::Watcher& watcher, std::vector<std::string>& seen, std::string const& wanted) {
    auto const deadline = std::chrono::steady_clock::now() + 20s;
    for (;;) {
        for (std::size_t i = 0; i < seen.size(); ++i)
            if (seen[i] == wanted) return static_cast<int>(i);
        Array<Directory::Change> batch;
        if (std::chrono::steady_clock::now() > deadline || watcher.poll(batch, TimePeriod(0, 200, true)) < 0)
            return -1;
        for (Directory::Change const& c : batch) seen.push_back(text(c));
    }
}

}  // namespace

TEST(Directory, CreateMakesEveryMissingParentAndAcceptsAnExistingDirectory) {
    TempDir tmp;
    EXPECT_FALSE(dir_at(tmp.file("a")).exists());
    EXPECT_TRUE(dir_at(tmp.file("a/b//c/")).create());
    EXPECT_TRUE(dir_at(tmp.file("a/b/c")).exists());
    EXPECT_TRUE(dir_at(tmp.file("a/b/c")).create());

    ASSERT_TRUE(write_file(tmp.file("plain"), "x"));
    EXPECT_FALSE(dir_at(tmp.file("plain")).exists());
    StdoutCapture capture;
    EXPECT_FALSE(dir_at(tmp.file("plain/sub/leaf")).create());
    EXPECT_EQ(capture.records_with("\tERR|TVK|DIRECTORY|"), 1) << capture.text();
    EXPECT_EQ(capture.records_with("CANNOT CREATE DIRECTORY " + tmp.file("plain") + because(EEXIST)), 1);
}

TEST(Directory, ListSortsNamesAndTellsFilesFromDirectories) {
    TempDir tmp;
    for (char const* file : {"b.txt", "c.txt", ".hidden"}) ASSERT_TRUE(write_file(tmp.file(file), ""));
    for (char const* sub : {"a", "C"}) ASSERT_TRUE(dir_at(tmp.file(sub)).create());
    ASSERT_EQ(::symlink(tmp.file("a").c_str(), tmp.file("ln").c_str()), 0);
    ASSERT_EQ(::symlink("nowhere", tmp.file("zz").c_str()), 0);
    Directory dir = dir_at(tmp.path());

    Array<Directory::Entry> entries;
    ASSERT_TRUE(dir.list(entries));
    std::string kinds;
    for (auto const& e : entries)
        kinds += std::string(e.name.c_str()) + "=" + "fdo"[static_cast<int>(e.kind)] + " ";
    EXPECT_EQ(kinds, ".hidden=f C=d a=d b.txt=f c.txt=f ln=d zz=o ");
    Array<AString> names;
    ASSERT_TRUE(dir.list(names));
    EXPECT_EQ(joined(names), ".hidden C a b.txt c.txt ln zz");
    ASSERT_TRUE(dir.list(names, Directory::EntryKind::file));
    EXPECT_EQ(joined(names), ".hidden b.txt c.txt");
    ASSERT_TRUE(dir.list(names, Directory::EntryKind::directory));
    EXPECT_EQ(joined(names), "C a ln");
    ASSERT_TRUE(dir_at(tmp.file("C")).list(names));
    EXPECT_TRUE(names.is_empty());

    names.push_back(AString("stale"));
    StdoutCapture capture;
    EXPECT_FALSE(dir_at(tmp.file("missing")).list(names));
    EXPECT_TRUE(names.is_empty());
    EXPECT_EQ(capture.records_with("CANNOT LIST DIRECTORY " + tmp.file("missing") + because(ENOENT)), 1)
        << capture.text();
}

TEST(Directory, RemoveTakesOnlyAnEmptyDirectoryAndRemoveAllNotWhatTheTreesLinksPointTo) {
    TempDir tmp;
    ASSERT_TRUE(dir_at(tmp.file("tree/x/y/z")).create());
    ASSERT_TRUE(dir_at(tmp.file("outside")).create());
    for (char const* f : {"outside/keep", "tree/f", "tree/x/f", "tree/x/y/f"})
        ASSERT_TRUE(write_file(tmp.file(f), "d"));
    ASSERT_EQ(::symlink(tmp.file("outside").c_str(), tmp.file("tree/x/link").c_str()), 0);
    ASSERT_EQ(::symlink(tmp.file("outside").c_str(), tmp.file("dirlink").c_str()), 0);

    StdoutCapture capture;
    EXPECT_FALSE(dir_at(tmp.file("tree/x/y")).remove());
    EXPECT_TRUE(dir_at(tmp.file("tree/x/y/z")).remove());
    EXPECT_FALSE(dir_at(tmp.file("tree/x/y/z")).exists());
    EXPECT_TRUE(dir_at(tmp.file("tree")).remove_all());
    EXPECT_FALSE(Path(tmp.file("tree").c_str()).exists());
    EXPECT_TRUE(dir_at(tmp.file("tree")).remove_all());  // already gone
    EXPECT_FALSE(dir_at(tmp.file("outside/keep")).remove_all());
    EXPECT_FALSE(dir_at(tmp.file("dirlink")).remove_all());
    EXPECT_TRUE(is_file(tmp.file("outside/keep")));
    EXPECT_EQ(capture.records_with("\tERR|TVK|DIRECTORY|"), 3) << capture.text();
    EXPECT_EQ(capture.records_with("CANNOT REMOVE DIRECTORY " + tmp.file("tree/x/y") + because(ENOTEMPTY)),
              1);
    EXPECT_EQ(capture.records_with("CANNOT REMOVE " + tmp.file("outside/keep") + because(ENOTDIR)), 1);
    EXPECT_EQ(capture.records_with("CANNOT REMOVE " + tmp.file("dirlink") + because(ENOTDIR)), 1);
}

// Tried from inside a scratch tree, so that a fault could only reach scratch files. The root is tried in
// its drive form, a plain relative name on Linux; "/" follows the same rule.
TEST(Directory, RemoveAllRefusesEmptyRootAndCurrentOrParentDirectories) {
    TempDir tmp;
    ASSERT_TRUE(dir_at(tmp.file("x/y/a")).create());
    ASSERT_TRUE(dir_at(tmp.file("x/y/C:")).create());
    ASSERT_TRUE(write_file(tmp.file("x/y/a/f"), ""));
    std::string const home = Path::get_current_directory().c_str();
    ASSERT_EQ(::chdir(tmp.file("x/y").c_str()), 0);
    StdoutCapture capture;
    for (char const* path : {"", ".", "./", "a/..", "..", "a/../..", "C:\\", "C:/a/.."})
        EXPECT_FALSE(dir_at(path).remove_all()) << path;
    EXPECT_EQ(::chdir(home.c_str()), 0);
    // Records write a backslash escaped.
    for (char const* shown : {"", ".", "./", "a/..", "..", "a/../..", "C:\\\\", "C:/a/.."})
        EXPECT_NE(capture.text().find(std::string("|REFUSE TO REMOVE TREE ") + shown + "\n"),
                  std::string::npos)
            << shown << "\n"
            << capture.text();
    EXPECT_EQ(capture.records_with("\tERR|TVK|DIRECTORY|"), 8);
    EXPECT_TRUE(is_file(tmp.file("x/y/a/f")));
    EXPECT_TRUE(dir_at(tmp.file("x/y/C:")).exists());
}

TEST(Directory, WatcherReportsCreatedChangedAndRemovedEntries) {
    TempDir tmp;
    Directory::Watcher watcher(Path(tmp.path().c_str()));
    ASSERT_TRUE(watcher.is_open());
    std::vector<std::string> seen;
    ASSERT_TRUE(write_file(tmp.file("new.txt"), "hello"));
    int changed = await(watcher, seen, "changed:new.txt");
    ASSERT_GE(changed, 0);
    EXPECT_LT(await(watcher, seen, "created:new.txt"), changed);

    seen.clear();
    ASSERT_TRUE(write_file(tmp.file("new.txt"), "again"));
    ASSERT_GE(await(watcher, seen, "changed:new.txt"), 0);
    ASSERT_EQ(::rename(tmp.file("new.txt").c_str(), tmp.file("moved.txt").c_str()), 0);
    ASSERT_GE(await(watcher, seen, "created:moved.txt"), 0);
    EXPECT_GE(await(watcher, seen, "removed:new.txt"), 0);
    ASSERT_EQ(::unlink(tmp.file("moved.txt").c_str()), 0);
    ASSERT_GE(await(watcher, seen, "removed:moved.txt"), 0);
    ASSERT_TRUE(dir_at(tmp.file("sub")).create());
    ASSERT_GE(await(watcher, seen, "created:sub/"), 0);
    EXPECT_EQ(std::count(seen.begin(), seen.end(), "created:new.txt"), 0);  // rewriting is no creation

    ASSERT_TRUE(write_file(tmp.file("sub/deeper"), "x"));  // inside a subdirectory: not reported
    Array<Directory::Change> none;
    EXPECT_EQ(watcher.poll(none, TimePeriod(0, 300, true)), 0);
    EXPECT_TRUE(none.is_empty());
}

TEST(Directory, WatcherFailsOnAMissingDirectoryOnAFileAndOnceItsDirectoryIsRemoved) {
    TempDir tmp;
    ASSERT_TRUE(write_file(tmp.file("plain"), ""));
    ASSERT_TRUE(dir_at(tmp.file("w")).create());
    ASSERT_TRUE(write_file(tmp.file("w/f"), ""));
    Directory::Watcher watcher(Path(tmp.file("w").c_str()));
    StdoutCapture capture;
    Directory::Watcher missing(Path(tmp.file("missing").c_str()));
    Directory::Watcher file(Path(tmp.file("plain").c_str()));
    EXPECT_FALSE(missing.is_open());
    EXPECT_FALSE(file.is_open());
    Array<Directory::Change> changes;
    EXPECT_EQ(missing.poll(changes, TimePeriod()), -1);

    ASSERT_TRUE(dir_at(tmp.file("w")).remove_all());
    std::vector<std::string> seen;
    EXPECT_GE(await(watcher, seen, "removed:f"), 0);
    EXPECT_EQ(await(watcher, seen, "never"), -1);  // ends with the failure, well before the deadline
    EXPECT_EQ(watcher.poll(changes, TimePeriod()), -1);
    EXPECT_EQ(capture.records_with("\tERR|TVK|DIRECTORY|"), 4) << capture.text();
    EXPECT_EQ(capture.records_with("CANNOT WATCH DIRECTORY " + tmp.file("missing") + because(ENOENT)), 1);
    EXPECT_EQ(capture.records_with("CANNOT WATCH DIRECTORY " + tmp.file("plain") + because(ENOTDIR)), 1);
    EXPECT_EQ(capture.records_with("DIRECTORY WATCHER NOT OPEN " + tmp.file("missing")), 1);
    EXPECT_EQ(capture.records_with("WATCHED DIRECTORY " + tmp.file("w") + " IS GONE"), 1);
}

TEST(Directory, WatchersReleaseTheirDescriptors) {
    TempDir tmp;
    Path const path(tmp.path().c_str());
    long const before = open_descriptors();
    {
        Directory::Watcher a(path), b(path);
        EXPECT_EQ(open_descriptors(), before + 4);
        ASSERT_TRUE(b.open(path));  // reopening releases the previous watch
        EXPECT_EQ(open_descriptors(), before + 4);
        a.close();
        EXPECT_EQ(open_descriptors(), before + 2);
    }
    EXPECT_EQ(open_descriptors(), before);
}

// The monitor waits without a time-out: stop() returning at all shows that it wakes the waiting thread.
TEST(Directory, MonitorCallsTheHandlerOnItsOwnThreadUntilStopped) {
    TempDir tmp;
    std::mutex lock;
    std::vector<std::string> seen;
    std::thread::id handler_thread;
    Directory::Monitor monitor;
    ASSERT_TRUE(monitor.start(Path(tmp.path().c_str()), [&](Directory::Change const& c) {
        std::lock_guard<std::mutex> hold(lock);
        handler_thread = std::this_thread::get_id();
        seen.push_back(text(c));
    }));
    EXPECT_TRUE(monitor.is_running());
    ASSERT_TRUE(write_file(tmp.file("one"), "1"));
    auto done = [&] {
        std::lock_guard<std::mutex> hold(lock);
        return seen == std::vector<std::string>{"created:one", "changed:one"};
    };
    EXPECT_TRUE(tarvik::test::eventually(done, 20));
    monitor.stop();
    EXPECT_FALSE(monitor.is_running());
    EXPECT_NE(handler_thread, std::this_thread::get_id());

    StdoutCapture capture;
    EXPECT_FALSE(monitor.start(Path(tmp.file("missing").c_str()), [](Directory::Change const&) {}));
    EXPECT_FALSE(monitor.is_running());
    EXPECT_EQ(capture.records_with("CANNOT WATCH DIRECTORY " + tmp.file("missing")), 1) << capture.text();
}
