#include "tarvik/Blob.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "tarvik/AString.h"
#include "tarvik/IOBStream.h"
#include "tarvik/Path.h"

using namespace tarvik;
using namespace tarvik::test;

namespace {

Blob blob_of(std::string const& bytes) { return Blob(bytes.data(), static_cast<unsigned int>(bytes.size()), 0); }

std::string bytes_of(Blob const& b) { return b.get_size() ? std::string(b.get_content(), b.get_size()) : ""; }

// The base64 text of `bytes`; write_xml must count every character it writes.
std::string base64_of(std::string const& bytes) {
    AString s;
    OBStream out(s);
    long written = blob_of(bytes).write_xml(out);
    EXPECT_EQ(written, static_cast<long>(s.length()));
    return std::string(s.c_str(), s.length());
}

// Decodes `text` over a blob that held other bytes; true when that fails with 0 and leaves it empty.
bool rejects(char const* text) {
    Blob b = blob_of("previous");
    IBStream in(text);
    return b.read_xml(in) == 0 && b.get_size() == 0 && b.get_content() == nullptr && b.get_allocated_size() == 0;
}

// Whether a record with this head ("ERR|TVK|BLOB") ends with `message`. A record wider than the console
// continues on lines indented to the column after the time stamp (16); those are joined again first.
bool logged(StdoutCapture& capture, std::string const& head, std::string const& message) {
    std::string text = capture.text(), wrap = "\n" + std::string(16, ' ');
    for (std::size_t at; (at = text.find(wrap)) != std::string::npos;) text.erase(at, wrap.size());
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        if (line.find("\t" + head + "|") != std::string::npos && line.ends_with("||" + message)) return true;
    return false;
}

}  // namespace

TEST(BlobBase64, ShortBlobsEndInPadding) {
    EXPECT_EQ(base64_of(std::string(1, '\0')), "AA==");
    EXPECT_EQ(base64_of("\xff\xfe"), "//4=");
    EXPECT_EQ(base64_of("Man"), "TWFu");
    EXPECT_EQ(base64_of(""), "");
}

TEST(BlobBase64, LineFeedsFallOnlyBetweenFullLines) {
    EXPECT_EQ(base64_of(std::string(57, '\0')), std::string(76, 'A'));
    EXPECT_EQ(base64_of(std::string(58, '\0')), std::string(76, 'A') + "\nAA==");
    for (unsigned size : {114u, 115u, 1000u}) {
        std::string text = base64_of(std::string(size, 'x'));
        long groups = (size + 2) / 3;
        EXPECT_EQ(static_cast<long>(text.size()), groups * 4 + (groups - 1) / 19) << size;
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), (groups - 1) / 19) << size;
        for (std::size_t at = 76; at < text.size(); at += 77) EXPECT_EQ(text[at], '\n') << size << " at " << at;
    }
}

TEST(BlobBase64, EveryByteValueRoundTrips) {
    std::string all;
    for (int i = 0; i < 256; ++i) all += static_cast<char>(i);
    for (std::size_t n : {254, 255, 256}) {
        Blob back;
        EXPECT_TRUE(back.from_string(base64_of(all.substr(0, n)).c_str()));
        EXPECT_EQ(bytes_of(back), all.substr(0, n));
    }
}

TEST(BlobBase64, WhiteSpaceIsSkippedAndForeignCharacterLeftInStream) {
    Blob b;
    IBStream one("QQ==");
    EXPECT_EQ(b.read_xml(one), 1);
    EXPECT_EQ(bytes_of(b), "A");
    IBStream in("QU\r\nF B\tQUE=</b>");
    EXPECT_EQ(b.read_xml(in), 5);
    EXPECT_EQ(bytes_of(b), "AAAAA");
    EXPECT_EQ(in.peek(), '<');
}

TEST(BlobBase64, IncompleteGroupIsRejected) { EXPECT_TRUE(rejects("QQ=")); }
TEST(BlobBase64, EmptyTextIsRejected) { EXPECT_TRUE(rejects("<x>")); }
TEST(BlobBase64, ForeignCharacterEndsTheText) { EXPECT_TRUE(rejects("QQ!=")); }
TEST(BlobBase64, PadInSecondPositionIsRejected) { EXPECT_TRUE(rejects("Q=QQ")); }
TEST(BlobBase64, PaddedGroupBeforeTheLastIsRejected) { EXPECT_TRUE(rejects("QQ==QUFB")); }
TEST(BlobBase64, ThreePadsAreRejected) { EXPECT_TRUE(rejects("Q===")); }
TEST(BlobBase64, LonePadFollowedByLetterIsRejected) { EXPECT_TRUE(rejects("QU=B")); }
TEST(BlobBase64, NonZeroBitsBeforeOnePadAreRejected) { EXPECT_TRUE(rejects("QUF=")); }
TEST(BlobBase64, NonZeroBitsBeforeTwoPadsAreRejected) { EXPECT_TRUE(rejects("QR==")); }

TEST(Blob, BorrowingCopiesNothingAndFreesNothing) {
    char owner[] = "abc";
    Blob b;
    EXPECT_EQ(b.set(owner, 3, Blob::kBorrowed), owner);
    EXPECT_EQ(b.get_allocated_size(), 0xFFFFFFFFu);
    {
        Blob copy(b);
        EXPECT_EQ(copy.get_content(), owner);
        EXPECT_TRUE(copy.is_borrowing());
        copy.clear();  // freeing a stack array would be caught by the sanitizer builds
    }
    owner[0] = 'X';
    EXPECT_EQ(bytes_of(b), "Xbc");  // still the same memory
    IBStream in("QUJD");            // any other change drops the borrowed array and owns new bytes
    EXPECT_EQ(b.read_xml(in), 3);
    EXPECT_FALSE(b.is_borrowing());
    EXPECT_EQ(bytes_of(b), "ABC");
    EXPECT_STREQ(owner, "Xbc");
}

TEST(Blob, SetThatFitsKeepsTheArray) {
    Blob b(10, 16);
    char* array = b.get_content();
    EXPECT_EQ(b.get_size(), 10u);
    EXPECT_EQ(b.set("xyz", 3, 0), array);
    EXPECT_EQ(b.get_allocated_size(), 16u);
    EXPECT_EQ(bytes_of(b), "xyz");
    EXPECT_EQ(b.set(nullptr, 0, 0), nullptr);  // nothing needed: cleared
    EXPECT_EQ(b.get_allocated_size(), 0u);
}

TEST(Blob, GrowingWithoutDataCarriesOldBytesOver) {
    Blob b("abcd", 4, 4);
    b.set(10, 0);
    EXPECT_EQ(b.get_allocated_size(), 10u);
    EXPECT_EQ(b.get_size(), 10u);
    EXPECT_EQ(std::memcmp(b.get_content(), "abcd", 4), 0);
    b.set_allocated_size(3);  // never below the size
    EXPECT_EQ(b.get_allocated_size(), 10u);
    b.set_allocated_size(32);
    EXPECT_EQ(std::memcmp(b.get_content(), "abcd", 4), 0);
    EXPECT_EQ(b.get_allocated_size(), 32u);
}

// This version keeps the previous array when set() grows a blob with new data. The array stays valid
// (the sanitizer would report a use after free otherwise) and is deliberately never released; the leak
// check is told about it by tests/lsan.supp.
TEST(Blob, GrowingWithDataLeavesPreviousArrayAllocated) {
    Blob b("ab", 2, 2);
    char* previous = b.get_content();
    EXPECT_NE(b.set("abcdefgh", 8, 0), previous);
    EXPECT_EQ(b.get_allocated_size(), 8u);
    EXPECT_EQ(bytes_of(b), "abcdefgh");
    EXPECT_EQ(std::memcmp(previous, "ab", 2), 0);
}

TEST(Blob, CopyOfOwningBlobOwnsItsBytesWithSameCapacity) {
    Blob a("abc", 3, 10);
    Blob b(a);
    EXPECT_NE(b.get_content(), a.get_content());
    EXPECT_EQ(b.get_allocated_size(), 10u);
    Blob c;
    c.splice(b);
    EXPECT_EQ(bytes_of(c), "abc");
    EXPECT_EQ(b.get_content(), nullptr);
    EXPECT_EQ(b.get_allocated_size() + b.get_size(), 0u);
}

TEST(Blob, ComparisonIsReversedForDifferentSizes) {
    Blob longer("abc", 3, 0), shorter("ab", 2, 0);
    EXPECT_EQ(longer.compare(shorter), -1);
    EXPECT_EQ(shorter.compare(blob_of("abcde")), 3);
    EXPECT_TRUE(longer < shorter);
    EXPECT_TRUE(shorter > longer);
    EXPECT_LT(longer.compare(blob_of("abd")), 0);  // equal sizes: the contents in memcmp order
    EXPECT_TRUE(Blob() == Blob());
}

TEST(BlobFile, WriteReturnsOnePlusSizeAndReadRestoresBytes) {
    TempDir dir;
    std::string path = dir.file("data.bin"), bytes;
    for (int i = 0; i < 5000; ++i) bytes += static_cast<char>(i * 7);
    ASSERT_TRUE(write_file(path, std::string(9000, 'z')));
    EXPECT_EQ(blob_of(bytes).write(Path(path.c_str())), 5001);
    EXPECT_EQ(read_file(path), bytes);  // truncated, not overwritten in place
    Blob back = blob_of("old");
    EXPECT_EQ(back.read(Path(path.c_str())), 1);
    EXPECT_EQ(bytes_of(back), bytes);
    EXPECT_EQ(Blob().write(Path(path.c_str())), 1);
    EXPECT_EQ(back.read(Path(path.c_str())), 1);
    EXPECT_EQ(back.get_size(), 0u);
}

TEST(BlobFile, WriteIntoMissingDirectoryReturnsOneSilently) {
    TempDir dir;
    StdoutCapture capture;
    EXPECT_EQ(blob_of("abc").write(Path(dir.file("missing/x.bin").c_str())), 1);
    EXPECT_EQ(capture.text(), "");
}

TEST(BlobFile, ReadOfMissingFileLogsAndFails) {
    TempDir dir;
    std::string path = dir.file("missing.bin");
    Blob b = blob_of("abc");
    StdoutCapture capture;
    EXPECT_EQ(b.read(Path(path.c_str())), -1);
    EXPECT_EQ(b.get_size(), 0u);
    EXPECT_TRUE(logged(capture, "ERR|TVK|BLOB", "CANNOT OPEN(R) FILE '" + path + "' [#2.No such file or directory]"))
        << capture.text();
}

TEST(BlobList, WriteConcatenatesContents) {
    TempDir dir;
    std::string path = dir.file("list.bin");
    BlobList list;
    list.push_back(blob_of("ab"));
    list.push_back(Blob());
    list.push_back(blob_of("cde"));
    EXPECT_EQ(tarvik::write(list, Path(path.c_str())), 6);
    EXPECT_EQ(read_file(path), "abcde");
    EXPECT_EQ(tarvik::write(list, Path(dir.file("missing/list.bin").c_str())), 1);
}

TEST(BlobList, TenThousandByteFileReadsAsPiecesOfFourKiB) {
    TempDir dir;
    std::string path = dir.file("big.bin"), bytes, joined;
    for (int i = 0; i < 10000; ++i) bytes += static_cast<char>(i % 251);
    ASSERT_TRUE(write_file(path, bytes));
    BlobList list;
    list.push_back(blob_of("stale"));
    EXPECT_EQ(tarvik::read(list, Path(path.c_str())), 1);
    std::vector<unsigned> sizes;
    for (Blob const& b : list) {
        sizes.push_back(b.get_size());
        joined += bytes_of(b);
    }
    EXPECT_EQ(sizes, (std::vector<unsigned>{4096, 4096, 1808}));
    EXPECT_EQ(joined, bytes);
}

TEST(BlobList, ReadOfMissingFileLogsAndEmptiesTheList) {
    TempDir dir;
    std::string path = dir.file("missing.bin");
    BlobList list;
    list.push_back(blob_of("stale"));
    StdoutCapture capture;
    EXPECT_EQ(tarvik::read(list, Path(path.c_str())), -1);
    EXPECT_EQ(list.size(), 0u);
    EXPECT_TRUE(logged(capture, "ERR|TVK|BLOB",
                       "LIST BLOB: CANNOT OPEN(R) FILE '" + path + "' [#2.No such file or directory]"))
        << capture.text();
}
