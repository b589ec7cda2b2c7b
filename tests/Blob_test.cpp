#include "tarvik/Blob.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
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

std::string const kNoSuchFile = " [#2.No such file or directory]";

}  // namespace

TEST(BlobBase64, ShortBlobsEndInPaddingAndLineFeedsFallOnlyBetweenFullLines) {
    EXPECT_EQ(base64_of(std::string(1, '\0')), "AA==");
    EXPECT_EQ(base64_of("\xff\xfe"), "//4=");
    EXPECT_EQ(base64_of("Man"), "TWFu");
    EXPECT_EQ(base64_of(""), "");
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

TEST(BlobBase64, EveryByteValueRoundTripsAndWhiteSpaceIsSkipped) {
    std::string all;
    for (int i = 0; i < 256; ++i) all += static_cast<char>(i);
    for (std::size_t n : {254, 255, 256}) {
        Blob back;
        EXPECT_TRUE(back.from_string(base64_of(all.substr(0, n)).c_str()));
        EXPECT_EQ(bytes_of(back), all.substr(0, n));
    }
    // Decoding skips white space and leaves the first foreign character in the stream.
    Blob b;
    IBStream one("QQ==");
    EXPECT_EQ(b.read_xml(one), 1);
    EXPECT_EQ(bytes_of(b), "A");
    IBStream in("QU\r\nF B\tQUE=</b>");
    EXPECT_EQ(b.read_xml(in), 5);
    EXPECT_EQ(bytes_of(b), "AAAAA");
    EXPECT_EQ(in.peek(), '<');
}

// An incomplete group, no text, a foreign character inside a group, a pad in second position, a padded
// group before the last, three pads, a lone pad before a letter, non-zero bits before one or two pads.
TEST(BlobBase64, MalformedTextFailsWithZeroAndEmptiesTheBlob) {
    for (char const* text : {"QQ=", "<x>", "QQ!=", "Q=QQ", "QQ==QUFB", "Q===", "QU=B", "QUF=", "QR=="}) {
        Blob b = blob_of("previous");
        IBStream in(text);
        EXPECT_EQ(b.read_xml(in), 0) << text;
        EXPECT_EQ(b.get_content(), nullptr) << text;
        EXPECT_EQ(b.get_size() + b.get_allocated_size(), 0u) << text;
    }
}

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

// Growing with new data keeps the previous array in this version: it stays valid (the sanitizer would
// report a use after free otherwise) and is deliberately never released; tests/lsan.supp tells the leak
// check about it.
TEST(Blob, SetKeepsAnArrayThatFitsCarriesBytesOverAndLeavesThePreviousArrayAllocated) {
    Blob b(10, 16);
    char* array = b.get_content();
    EXPECT_EQ(b.set("xyz", 3, 0), array);
    EXPECT_EQ(b.get_allocated_size(), 16u);
    EXPECT_EQ(bytes_of(b), "xyz");

    b.set(20, 0);  // growing without data carries the old bytes over
    EXPECT_EQ(b.get_size(), 20u);
    b.set_allocated_size(3);  // never below the size
    EXPECT_EQ(b.get_allocated_size(), 20u);
    b.set_allocated_size(32);
    EXPECT_EQ(b.get_allocated_size(), 32u);
    EXPECT_EQ(std::memcmp(b.get_content(), "xyz", 3), 0);

    char* previous = b.get_content();
    std::string const longer(40, 'q');
    EXPECT_NE(b.set(longer.data(), 40, 0), previous);
    EXPECT_EQ(b.get_allocated_size(), 40u);
    EXPECT_EQ(bytes_of(b), longer);
    EXPECT_EQ(std::memcmp(previous, "xyz", 3), 0);
    EXPECT_EQ(b.set(nullptr, 0, 0), nullptr);  // nothing needed: cleared
    EXPECT_EQ(b.get_allocated_size(), 0u);
}

TEST(Blob, CopyOwnsItsBytesWithSameCapacityAndSpliceEmptiesTheSource) {
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

TEST(BlobFile, WriteOfABlobOrListReturnsOnePlusSizeAndReadRestoresBytes) {
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

    BlobList list;
    for (char const* piece : {"ab", "", "cde"}) list.push_back(blob_of(piece));
    EXPECT_EQ(tarvik::write(list, Path(path.c_str())), 6);
    EXPECT_EQ(read_file(path), "abcde");
}

// Writing into a missing directory returns 1 without a record; reading a missing file fails with -1, an
// emptied blob or list and its record.
TEST(BlobFile, MissingDirectoryWritesNothingSilentlyAndMissingFileReadFailsWithItsRecord) {
    TempDir dir;
    std::string path = dir.file("missing.bin");
    BlobList list;
    list.push_back(blob_of("ab"));
    StdoutCapture quiet;
    EXPECT_EQ(blob_of("abc").write(Path(dir.file("missing/x.bin").c_str())), 1);
    EXPECT_EQ(tarvik::write(list, Path(dir.file("missing/list.bin").c_str())), 1);
    EXPECT_EQ(quiet.text(), "");

    Blob b = blob_of("abc");
    StdoutCapture capture;
    EXPECT_EQ(b.read(Path(path.c_str())), -1);
    EXPECT_EQ(tarvik::read(list, Path(path.c_str())), -1);
    EXPECT_EQ(b.get_size(), 0u);
    EXPECT_EQ(list.size(), 0u);
    EXPECT_EQ(capture.records_with("\tERR|TVK|BLOB|"), 2) << capture.text();
    EXPECT_EQ(capture.records_with("||CANNOT OPEN(R) FILE '" + path + "'" + kNoSuchFile), 1);
    EXPECT_EQ(capture.records_with("||LIST BLOB: CANNOT OPEN(R) FILE '" + path + "'" + kNoSuchFile), 1);
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

// A file over the limit is refused before anything is allocated (a sparse file: it takes no disk).
TEST(BlobFile, FileOverTheSizeLimitFailsWithItsRecordAndReadsNothing) {
    TempDir dir;
    std::string path = dir.file("huge.bin");
    ASSERT_TRUE(write_file(path, ""));
    ASSERT_EQ(::truncate(path.c_str(), Blob::kMaxFileSize + 1LL), 0);
    Blob b = blob_of("abc");
    BlobList list;
    list.push_back(blob_of("ab"));
    StdoutCapture capture;
    EXPECT_EQ(b.read(Path(path.c_str())), -1);
    EXPECT_EQ(tarvik::read(list, Path(path.c_str())), -1);
    EXPECT_EQ(b.get_size(), 0u);
    EXPECT_EQ(b.get_content(), nullptr);
    EXPECT_EQ(list.size(), 0u);
    std::string const sizes = "SIZE 1073741825 OVER LIMIT 1073741824";
    EXPECT_EQ(capture.records_with("\tERR|TVK|BLOB|"), 2) << capture.text();
    EXPECT_EQ(capture.records_with("||CANNOT READ(R) FILE '" + path + "': " + sizes), 1) << capture.text();
    EXPECT_EQ(capture.records_with("||LIST BLOB: FILE '" + path + "' " + sizes), 1) << capture.text();
}
