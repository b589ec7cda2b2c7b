#include "tarvik/StringBuffer.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utime.h>

#include <cstring>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "tarvik/AString.h"
#include "tarvik/IOBStream.h"
#include "tarvik/Path.h"

using namespace tarvik;
using namespace tarvik::test;

namespace {

std::string text_of(StringBuffer const& b) {
    AString s;
    b.c_str(s);
    return std::string(s.c_str(), s.length());
}

// The used count of every page in chain order; every page must name `b` as its owner.
std::vector<unsigned> pages_of(StringBuffer& b) {
    std::vector<unsigned> used;
    for (StringBuffer::Page* p = b.first_page(); p; p = p->next) {
        EXPECT_EQ(p->owner, &b);
        used.push_back(p->used);
    }
    return used;
}

}  // namespace

TEST(StringBuffer, AppendFillsEachPageBeforeOpeningTheNextAndTheHundredTwentyNinthByteOpensTheSecond) {
    StringBuffer b(0);
    EXPECT_EQ(b.get_page_size(), 128u);
    EXPECT_EQ(b.append(std::string(128, 'x').c_str()), 128u);
    EXPECT_EQ(pages_of(b), (std::vector<unsigned>{128}));
    EXPECT_EQ(b.append('y'), 1u);
    EXPECT_EQ(pages_of(b), (std::vector<unsigned>{128, 1}));
    EXPECT_EQ(b.size(), 129u);
    EXPECT_STREQ(b.last_page()->data(), "y");  // pages are zero-filled, so the payload is terminated

    StringBuffer c("abcdefg", 5);
    EXPECT_EQ(c.append(c), 7u);  // appending itself copies what was there before
    EXPECT_EQ(pages_of(c), (std::vector<unsigned>{5, 5, 4}));
    EXPECT_EQ(std::string(c.cbegin(), c.cend()), "abcdefgabcdefg");
    EXPECT_EQ(c.append(static_cast<char const*>(nullptr)), 0u);
    c += static_cast<StringBuffer const*>(nullptr);
    EXPECT_EQ(c.size(), 14u);
}

TEST(StringBuffer, DirectFillingDeclaresBytesWithAddSize) {
    StringBuffer b(16);
    char* page = b.append();
    EXPECT_EQ(b.append(), page);  // the empty last page is handed out again
    std::memcpy(page, "hello", 5);
    EXPECT_EQ(b.add_size(5), 5u);
    char* second = b.append();  // the last page holds bytes now: a new one
    EXPECT_NE(second, page);
    std::memcpy(second, "world!", 6);
    EXPECT_EQ(b.add_size(6), 11u);
    EXPECT_EQ(b.add_size(3), 8u);  // sets the count, it does not add to it
    EXPECT_EQ(text_of(b), "hellowor");
}

TEST(StringBuffer, AddSizeBeyondFreeRoomLogsAndChangesNothing) {
    StringBuffer b("abc", 0);
    StringBuffer empty;
    StdoutCapture capture;
    EXPECT_EQ(b.add_size(126), 3u);
    EXPECT_EQ(empty.add_size(1), 0u);
    EXPECT_EQ(capture.lines_with("\tERR|TVK|STRINGBUFFER|"), 2);
    EXPECT_EQ(capture.lines_with("||WRONG ADD SIZE 126 [3/128]"), 1);
    EXPECT_EQ(capture.lines_with("||WRONG ADD SIZE 1 [0/128]"), 1);
    EXPECT_EQ(text_of(b), "abc");
    EXPECT_EQ(empty.first_page(), nullptr);
    EXPECT_EQ(b.add_size(125), 125u);  // exactly the free room is accepted
}

TEST(StringBuffer, ComparisonRunsInReverse) {
    EXPECT_EQ(StringBuffer("abc").compare("abd"), 1);
    EXPECT_EQ(StringBuffer("abd").compare(StringBuffer("abc")), -1);
    EXPECT_EQ(StringBuffer("abcd").compare("abc"), -1);
    EXPECT_EQ(StringBuffer("abc").compare("abcd"), 1);
    EXPECT_EQ(StringBuffer().compare(StringBuffer()), 0);
    EXPECT_EQ(StringBuffer("a").compare("\x80"), 0x80 - 'a');  // bytes compare as unsigned
    EXPECT_TRUE(StringBuffer("abcd") < StringBuffer("abc"));
    EXPECT_TRUE(StringBuffer("abcdef", 2) == StringBuffer("abcdef", 4));  // page layout does not matter
    EXPECT_FALSE(StringBuffer("abc") == "ab");
}

TEST(StringBuffer, SpliceTakesPagesAndLeavesOtherEmptyWithItsPageSize) {
    StringBuffer from("abcdefg", 3);
    StringBuffer to("old", 10);
    StringBuffer::Page* first = from.first_page();
    to.splice(from);
    EXPECT_EQ(to.first_page(), first);
    EXPECT_EQ(to.get_page_size(), 3u);
    EXPECT_EQ(pages_of(to), (std::vector<unsigned>{3, 3, 1}));  // owners re-pointed
    EXPECT_EQ(from.size(), 0u);
    EXPECT_EQ(from.first_page(), nullptr);
    EXPECT_EQ(from.get_page_size(), 3u);
    StringBuffer copy(to, 5);
    EXPECT_EQ(pages_of(copy), (std::vector<unsigned>{5, 2}));
    EXPECT_TRUE(copy == to);
}

TEST(StringBuffer, CStrTruncatesAndAlwaysTerminates) {
    StringBuffer b("abcdefgh", 3);
    char dest[10];
    std::memset(dest, '#', sizeof dest);
    EXPECT_EQ(b.c_str(dest, 4), dest);
    EXPECT_STREQ(dest, "abcd");
    EXPECT_EQ(dest[5], '#');
    EXPECT_STREQ(b.c_str(dest, 9), "abcdefgh");
}

TEST(StringBuffer, QuotedWriteEscapesOnlyTheQuoteAndQuotedReadUnescapesBetweenQuotes) {
    StringBuffer b("say \"hi\\\"", 3);
    AString s;
    OBStream out(s);
    EXPECT_EQ(b.write(out, "\""), 11);
    EXPECT_STREQ(s.c_str(), "say \\\"hi\\\\\"");
    EXPECT_EQ(b.write(out, nullptr), 9);

    IBStream in("junk 'a\\'b\\\\c' tail");  // reading skips to the opening quote and leaves the closing one
    StringBuffer read;
    EXPECT_EQ(read.read(in, "'"), 5);
    EXPECT_EQ(text_of(read), "a'b\\c");
    EXPECT_EQ(in.peek(), '\'');
    IBStream none("no quote here");
    EXPECT_EQ(read.read(none, "\""), 0);
    IBStream plain("a 'b'");
    EXPECT_EQ(read.read(plain, ""), 5);  // no quote character: everything
}

TEST(StringBuffer, XmlTextEscapesMarkupAndDropsControlBytes) {
    StringBuffer b("a<b>&\"c\x01\td\n\x7f\xe9", 4);
    AString s;
    OBStream out(s);
    EXPECT_EQ(b.write_xml(out), 13);
    EXPECT_STREQ(s.c_str(), "a&lt;b&gt;&amp;\"c\td\n\x7f\xe9");
}

TEST(StringBuffer, FileStoresCrLfReadsBackEqualAndIsLeftAloneWhenUnchanged) {
    TempDir dir;
    std::string path = dir.file("text.txt");
    EXPECT_EQ(StringBuffer("one\ntwo\r\nthree", 4).write(Path(path.c_str()), false), 14);
    EXPECT_EQ(read_file(path), "one\r\ntwo\r\nthree");
    StringBuffer back("head:");
    EXPECT_EQ(back.read(Path(path.c_str())), 13);
    EXPECT_EQ(text_of(back), "head:one\ntwo\nthree");

    // Only if changed: an unchanged file is left alone.
    ASSERT_TRUE(write_file(path, "a\r\nb"));
    struct utimbuf old_times {1000000000, 1000000000};
    ASSERT_EQ(::utime(path.c_str(), &old_times), 0);
    struct stat st {};
    EXPECT_EQ(StringBuffer("a\nb").write(Path(path.c_str()), true), 2);
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mtime, 1000000000);
    EXPECT_EQ(StringBuffer("a\nbc").write(Path(path.c_str()), true), 4);
    EXPECT_EQ(read_file(path), "a\r\nbc");
}

TEST(StringBuffer, FilesThatCannotBeOpenedGiveCannotOpenCode) {
    TempDir dir;
    std::string missing = dir.file("no/such.txt");
    StringBuffer b("keep");
    EXPECT_EQ(b.write(Path(missing.c_str()), false), -1000002);
    EXPECT_EQ(b.write(Path(missing.c_str()), true), -1000002);
    EXPECT_EQ(b.read(Path(missing.c_str())), -1000002);
    EXPECT_EQ(b.read(Path(dir.path().c_str())), -1000002);  // a directory is not a readable file
    EXPECT_EQ(text_of(b), "keep");
}
