#include "tarvik/Path.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <iomanip>
#include <sstream>
#include <string>

#include "TestSupport.h"

using tarvik::Path;
using tarvik::test::StdoutCapture;
using tarvik::test::TempDir;

namespace {

// "<number>.<message>" as get_last_system_error_text() writes it after its '#'.
std::string errno_text(int error) { return std::to_string(error) + "." + std::strerror(error); }

struct Parts {
    std::string directory, file_name, base, extension;
    bool operator==(Parts const&) const = default;
};

void PrintTo(Parts const& p, std::ostream* os) {
    *os << "{dir '" << p.directory << "', file '" << p.file_name << "', base '" << p.base << "', ext '"
        << p.extension << "'}";
}

Parts split(char const* text) {
    Path p(text);
    return {p.get_directory().c_str(), p.get_file_name().c_str(), p.get_base().c_str(), p.get_extension().c_str()};
}

}  // namespace

TEST(Path, SplitsDirectoryFileBaseAndExtensionAtEitherSeparator) {
    EXPECT_EQ(split("logs/srv-1.log"), (Parts{"logs", "srv-1.log", "srv-1", "log"}));
    EXPECT_EQ(split("srv.log"), (Parts{"", "srv.log", "srv", "log"}));
    EXPECT_EQ(split("a/b/archive.tar.gz"), (Parts{"a/b", "archive.tar.gz", "archive.tar", "gz"}));
    EXPECT_EQ(split("C:\\data\\run.txt"), (Parts{"C:\\data", "run.txt", "run", "txt"}));
    EXPECT_EQ(split("a/b\\c.txt"), (Parts{"a/b", "c.txt", "c", "txt"}));
    EXPECT_EQ(split("a\\b/c.txt"), (Parts{"a\\b", "c.txt", "c", "txt"}));
    EXPECT_EQ(split(""), (Parts{"", "", "", ""}));
    EXPECT_EQ(split("dir/"), (Parts{"dir", "", "", ""}));  // a trailing separator: empty names
}

TEST(Path, ADotOnlyInTheDirectoryOrAtTheStartIsNoExtension) {
    EXPECT_EQ(split(".profile"), (Parts{"", ".profile", ".profile", ""}));
    EXPECT_EQ(split("home/.bashrc"), (Parts{"home", ".bashrc", ".bashrc", ""}));
    EXPECT_EQ(split("v1.2/README"), (Parts{"v1.2", "README", "README", ""}));
    EXPECT_EQ(split("conf.d\\run"), (Parts{"conf.d", "run", "run", ""}));
    EXPECT_EQ(split("name."), (Parts{"", "name.", "name", ""}));
}

namespace {

struct TextCase {
    char const* in;
    char const* out;
};

template <class F>
void expect_table(std::initializer_list<TextCase> cases, F transform) {
    for (TextCase const& c : cases) EXPECT_EQ(std::string(transform(Path(c.in)).c_str()), c.out) << c.in;
}

}  // namespace

TEST(Path, JoinAddsOneSeparatorAndAnAbsoluteNameReplaces) {
    expect_table({{"dir", "dir/f.txt"},
                  {"dir/", "dir/f.txt"},
                  {"dir\\", "dir\\f.txt"},
                  {"", "f.txt"},
                  {"/", "/f.txt"}},
                 [](Path const& p) { return p.join("f.txt"); });
    expect_table({{"c/d", "a/b/c/d"}, {"../c", "a/b/../c"}, {"", "a/b"}, {"/etc", "/etc"}, {"\\x", "\\x"},
                  {"C:\\data", "C:\\data"}},
                 [](Path const& name) { return Path("a/b").join(name); });
}

TEST(Path, ParentDropsTheLastNameAndStopsAtTheRoot) {
    expect_table({{"a/b/c", "a/b"}, {"a/b/", "a"}, {"a//b", "a"}, {"a\\b", "a"}, {"/a", "/"}, {"/", "/"},
                  {"//", "/"}, {"/a/b//", "/a"}, {"a", ""}, {"", ""}, {"../a", ".."}, {"C:\\a", "C:\\"},
                  {"C:\\", "C:\\"}},
                 [](Path const& p) { return p.get_parent(); });
}

TEST(Path, NormaliseCollapsesSeparatorsDotsAndNamesBeforeDotDot) {
    expect_table({{"a//b", "a/b"}, {"a/./b", "a/b"}, {"a/x/../b", "a/b"}, {"a\\.\\b", "a/b"}, {"a/b/", "a/b"},
                  {"./a", "a"}, {"/", "/"}, {"//a//", "/a"}, {"/../a", "/a"}, {"/..", "/"},
                  {"../../a/../b", "../../b"}, {"x/../../y", "../y"}, {"a/b/../../..", ".."}, {"a/..", "."},
                  {"./", "."}, {"", ""}, {"C:\\a\\..\\b", "C:/b"}, {"C:\\..", "C:/"}},
                 [](Path const& p) { return p.normalise(); });
}

TEST(Path, AbsoluteMeansALeadingSeparatorOrADriveWithOne) {
    for (char const* yes : {"/x", "\\x", "C:/x", "z:\\"}) EXPECT_TRUE(Path(yes).is_absolute()) << yes;
    for (char const* no : {"C:x", "1:/x", "x/y", ""}) EXPECT_FALSE(Path(no).is_absolute()) << no;
}

TEST(Path, FileQuestionsFollowLinksAndTellFilesFromDirectories) {
    TempDir dir;
    ASSERT_TRUE(tarvik::test::write_file(dir.file("five"), "12345"));
    ASSERT_TRUE(tarvik::test::write_file(dir.file("empty"), ""));
    ASSERT_EQ(::symlink(dir.path().c_str(), dir.file("to-dir").c_str()), 0);
    ASSERT_EQ(::symlink("nowhere", dir.file("dangling").c_str()), 0);
    auto at = [&](char const* name) { return Path(dir.file(name).c_str()); };
    // exists(), is_file(), is_directory() as "efd", '-' for each false
    auto kinds = [](Path const& p) {
        return std::string{"-e"[p.exists()], "-f"[p.is_file()], "-d"[p.is_directory()]};
    };
    EXPECT_EQ(kinds(at("five")), "ef-");
    EXPECT_EQ(kinds(Path(dir.path().c_str())), "e-d");
    EXPECT_EQ(kinds(at("to-dir")), "e-d");
    EXPECT_EQ(kinds(at("missing")), "---");
    EXPECT_EQ(kinds(at("dangling")), "---");
    EXPECT_EQ(at("five").size(), 5);
    EXPECT_EQ(at("empty").size(), 0);

    StdoutCapture capture;
    EXPECT_EQ(Path(dir.path().c_str()).size(), -1);
    EXPECT_EQ(at("missing").size(), -1);
    EXPECT_TRUE(at("missing").get_modified() == tarvik::TimeDate::epoch());
    EXPECT_EQ(capture.records_with("\tERR|TVK|PATH|"), 3) << capture.text();
    EXPECT_EQ(capture.records_with("CANNOT GET SIZE OF " + dir.path() + " [#" + errno_text(EISDIR) + "]"), 1);
    std::string const missing = dir.file("missing") + " [#" + errno_text(ENOENT) + "]";
    EXPECT_EQ(capture.records_with("CANNOT GET SIZE OF " + missing), 1);
    EXPECT_EQ(capture.records_with("CANNOT GET MODIFICATION TIME OF " + missing), 1);
}

TEST(Path, ModificationTimeIsTheLocalTimeToTheMillisecond) {
    TempDir dir;
    std::string const name = dir.file("dated");
    ASSERT_TRUE(tarvik::test::write_file(name, "x"));
    std::tm local{};
    std::istringstream("2021-03-04 05:06:07") >> std::get_time(&local, "%Y-%m-%d %H:%M:%S");
    local.tm_isdst = -1;
    timespec const times[2] = {{0, UTIME_OMIT}, {std::mktime(&local), 890999999}};
    ASSERT_EQ(::utimensat(AT_FDCWD, name.c_str(), times, 0), 0);
    EXPECT_EQ(std::string(Path(name.c_str()).get_modified().to_string().c_str()), "2021-03-04 05:06:07.890");
}
