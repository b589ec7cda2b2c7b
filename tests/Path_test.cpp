#include "tarvik/Path.h"

#include <gtest/gtest.h>

#include <string>

using tarvik::Path;

namespace {

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

TEST(Path, SplitsDirectoryFileBaseAndExtension) {
    EXPECT_EQ(split("logs/srv-1.log"), (Parts{"logs", "srv-1.log", "srv-1", "log"}));
    EXPECT_EQ(split("srv.log"), (Parts{"", "srv.log", "srv", "log"}));
    EXPECT_EQ(split("a/b/archive.tar.gz"), (Parts{"a/b", "archive.tar.gz", "archive.tar", "gz"}));
}

TEST(Path, BothSeparatorsSplitTheSameWay) {
    EXPECT_EQ(split("C:\\data\\run.txt"), (Parts{"C:\\data", "run.txt", "run", "txt"}));
    EXPECT_EQ(split("a/b\\c.txt"), (Parts{"a/b", "c.txt", "c", "txt"}));
    EXPECT_EQ(split("a\\b/c.txt"), (Parts{"a\\b", "c.txt", "c", "txt"}));
}

TEST(Path, ADotOnlyInTheDirectoryOrAtTheStartIsNoExtension) {
    EXPECT_EQ(split(".profile"), (Parts{"", ".profile", ".profile", ""}));
    EXPECT_EQ(split("home/.bashrc"), (Parts{"home", ".bashrc", ".bashrc", ""}));
    EXPECT_EQ(split("v1.2/README"), (Parts{"v1.2", "README", "README", ""}));
    EXPECT_EQ(split("conf.d\\run"), (Parts{"conf.d", "run", "run", ""}));
    EXPECT_EQ(split("name."), (Parts{"", "name.", "name", ""}));
}

TEST(Path, EmptyPathsAndTrailingSeparatorsGiveEmptyNames) {
    EXPECT_EQ(split(""), (Parts{"", "", "", ""}));
    EXPECT_EQ(split("dir/"), (Parts{"dir", "", "", ""}));
    EXPECT_TRUE(Path().is_empty());
    EXPECT_TRUE(Path("a/b") == Path(tarvik::AString("a/b")));
}
