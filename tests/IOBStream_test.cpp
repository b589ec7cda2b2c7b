#include "tarvik/IOBStream.h"

#include <gtest/gtest.h>

#include <string>

#include "TestSupport.h"
#include "tarvik/AString.h"
#include "tarvik/Blob.h"
#include "tarvik/Path.h"
#include "tarvik/StringBuffer.h"

using namespace tarvik;
using namespace tarvik::test;

namespace {

// Writes `text` through a file stream opened with the given modes, then closes it.
void write_through(std::string const& path, bool append, bool text_mode, char const* text) {
    OBStream out(Path(path.c_str()), append, text_mode);
    out << text;
}

}  // namespace

// --- output ---------------------------------------------------------------------------------------------

TEST(OBStream, TextModeIndentsLinesAfterTheFirstAndTracksColumns) {
    AString s;
    OBStream out(s, true);
    out.indent(2);
    out << "abc";
    EXPECT_EQ(out.get_current_col(), 3);
    out << "\t";
    EXPECT_EQ(out.get_current_col(), 8);
    out << "\n";
    EXPECT_EQ(out.get_current_col(), -1);
    out << "a\n\nb";
    EXPECT_EQ(out.get_current_col(), 8);
    out.unindent(1);
    out << "\nc";
    // Neither the first line nor an empty one is indented: spaces come only before a character.
    EXPECT_EQ(str(s), "abc\t\n        a\n\n        b\n    c");
}

TEST(OBStream, BinaryModeWritesValuesUnchanged) {
    AString s;
    OBStream out(s);
    out.indent(3);
    out << 42 << "\n"
        << -7L << ' ' << 4294967295u << ' ' << true << ' ' << 1.5 << ' '
        << reinterpret_cast<void const*>(0xab) << ' ' << L"\u00e9" << ' ' << StringBuffer("sb", 1) << ' '
        << Blob("Man", 3, 0);
    EXPECT_EQ(str(s), "42\n-7 4294967295 true 1.5 ab \xc3\xa9 sb TWFu");
}

TEST(OBStream, TextFileStoresCrLfAndAppendWritesAtTheEndOrTruncates) {
    TempDir dir;
    std::string path = dir.file("f.txt");
    ASSERT_TRUE(write_file(path, "old content"));
    write_through(path, false, true, "a\r\nb\n");
    EXPECT_EQ(read_file(path), "a\r\nb\r\n");
    write_through(path, true, false, "+x\n");
    EXPECT_EQ(read_file(path), "a\r\nb\r\n+x\n");
    write_through(dir.file("created.txt"), true, false, "y");
    EXPECT_EQ(read_file(dir.file("created.txt")), "y");
    StdoutCapture capture;
    write_through("", false, true, "x\ny\n");  // the empty path: standard output, plain line feeds
    EXPECT_EQ(capture.text(), "x\ny\n");
}

TEST(OBStream, FileOutputIsWrittenInWholeBuffersAndOnFlush) {
    TempDir dir;
    std::string path = dir.file("big.bin");
    OBStream out(Path(path.c_str()), false, false);
    out.put(std::string(3000, 'q').c_str());
    EXPECT_EQ(read_file(path).size(), 2048u);
    out.flush();
    EXPECT_EQ(read_file(path), std::string(3000, 'q'));
    out << "end";
    out.close();
    EXPECT_EQ(read_file(path).size(), 3003u);
}

// --- input ----------------------------------------------------------------------------------------------

TEST(IBStream, MissingFileLogsAtDebugAndReadsAsEndAndUnopenedOutputIsIgnored) {
    TempDir dir;
    std::string path = dir.file("none.txt");
    StdoutCapture capture;
    IBStream in(Path(path.c_str()), true);
    EXPECT_FALSE(in.is_open());
    EXPECT_EQ(in.get(), -1);
    EXPECT_EQ(in.peek(), -1);
    char buf[4];
    EXPECT_LT(in.get(buf, 4), 1);
    EXPECT_EQ(capture.records_with("\tDEBUG|TVK|IOBSTREAM|"), 1) << capture.text();
    EXPECT_EQ(
        capture.records_with("||CANNOT OPEN FILE '" + path + "' FOR READ [#2.No such file or directory]"), 1)
        << capture.text();
    OBStream nowhere(Path(dir.file("missing/out.txt").c_str()), false, true);
    EXPECT_FALSE(nowhere.is_open());
    nowhere << "ignored" << 5;
    nowhere("%0") << 1;
    nowhere.flush();
}

TEST(IBStream, TextModeSkipsCarriageReturns) {
    TempDir dir;
    std::string path = dir.file("crlf.txt");
    ASSERT_TRUE(write_file(path, "a\r\nb\r\r\n"));
    IBStream text(Path(path.c_str()), true);
    EXPECT_EQ(text.get(), 'a');
    EXPECT_EQ(text.peek(), '\n');
    char buf[8];
    EXPECT_EQ(text.get(buf, 8), 3);
    EXPECT_EQ(std::string(buf, 3), "\nb\n");
    EXPECT_TRUE(text.eof());
    IBStream binary(Path(path.c_str()), false);
    EXPECT_EQ(binary.get(buf, 8), 7);
    EXPECT_EQ(std::string(buf, 7), "a\r\nb\r\r\n");
}

TEST(IBStream, FileLongerThanOneBufferReadsCompletely) {
    TempDir dir;
    std::string path = dir.file("long.txt"), bytes;
    for (int i = 0; i < 5000; ++i) bytes += static_cast<char>('a' + i % 26);
    ASSERT_TRUE(write_file(path, bytes));
    for (bool text : {false, true}) {
        IBStream in(Path(path.c_str()), text);
        StringBuffer all(100);
        EXPECT_EQ(all.read(in), 5000);
        AString s;
        EXPECT_EQ(std::string(all.c_str(s)), bytes);
    }
}

TEST(IBStream, StringBufferStreamCrossesPageBoundaries) {
    StringBuffer b("abcdefghij", 3);
    b.append();  // a trailing page with no bytes declared
    IBStream in(b);
    EXPECT_EQ(in.get(), 'a');
    EXPECT_EQ(in.peek(), 'b');
    char buf[16];
    EXPECT_EQ(in.get(buf, 5), 5);
    EXPECT_EQ(std::string(buf, 5), "bcdef");
    EXPECT_EQ(str(in.dump()), "ghij");
    EXPECT_EQ(in.get(buf, 16), 4);
    EXPECT_EQ(std::string(buf, 4), "ghij");
    EXPECT_EQ(in.peek(), -1);
    EXPECT_LT(in.get(buf, 1), 1);
}

TEST(IBStream, ReadsNumbersAndWordsSeparatedByWhiteSpace) {
    IBStream in("  42 -7\t3.5e2 word\nnext 12abc");
    int a = 0, b = 0, c = 0;
    double d = 0;
    AString w1, w2, w3;
    in >> a >> b >> d >> w1 >> w2 >> c >> w3;
    EXPECT_EQ(std::to_string(a) + "|" + std::to_string(b) + "|" + std::to_string(c), "42|-7|12");
    EXPECT_EQ(d, 350.0);
    EXPECT_EQ(str(w1) + "|" + str(w2) + "|" + str(w3), "word|next|abc");
    in >> a >> w1;  // nothing left: both stay as they were
    EXPECT_EQ(a, 42);
    EXPECT_EQ(str(w1), "word");
    IBStream word("x1");
    word >> a;
    EXPECT_EQ(a, 42);
    EXPECT_EQ(word.peek(), 'x');
}

// --- formatting -----------------------------------------------------------------------------------------

namespace {

// What out(format) << args... writes; the text is produced when the statement ends.
template <class... A>
std::string formatted(char const* format, A const&... args) {
    AString text;
    OBStream out(text);
    (out(format) << ... << args);
    return str(text);
}

}  // namespace

TEST(OBStreamFormat, PositionsPickArgumentsAndWhatMatchesNoneIsWrittenBack) {
    EXPECT_EQ(formatted("A %1 B %0", 5, "x"), "A x B 5");
    EXPECT_EQ(formatted("%2", "a", 7), "%2a7");  // unused arguments follow the text
    EXPECT_EQ(formatted("%[04]7|%{12}"), "%7|%{12}");
    EXPECT_EQ(formatted("%{12}|%{13}", 'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 'i', 'j', 'k', 'l', 'm'),
              "m|%{13}abcdefghijkl");
    EXPECT_EQ(formatted("x%{12 y%{}", 5), "x%{12 y%{}5");  // unclosed brace
    EXPECT_EQ(formatted("100%% %x %[04]y 50%", 1), "100%% %x %[04]y 50%1");
}

TEST(OBStreamFormat, BracketGivesPrintfFlagsToNumbersOnlyAndWithinThreeDigits) {
    EXPECT_EQ(formatted("%[04]0|%[-4]1|%[+]2|%[05]3", 7, 7u, 7, -5LL), "0007|7   |+7|-0005");
    EXPECT_EQ(formatted("%[04]0|%[4s]1|%[*]2|%[l]3", "ab", 7, 7, 7), "ab|7|7|7");
    // Widths and precisions above three digits would let one placeholder print megabytes.
    EXPECT_EQ(formatted("%[999999999]0|%[.5000]1|%[12.5]2", 7, 8, 9), "7|8|       00009");
    EXPECT_EQ(formatted("%[999]0", 1), std::string(998, ' ') + "1");
}

TEST(OBStreamFormat, OtherKindsHaveFixedTexts) {
    StringBuffer b("abcdefg", 2);
    EXPECT_EQ(formatted("%0 %1 %2 %3 %4 %5 %6", true, false, 'c', reinterpret_cast<void const*>(0x1f),
                        L'\u0141', L"\u00e9", b),
              "true false c 1f A \xc3\xa9 abcdefg");  // a wide character is cut to 8 bits
    // The unsigned maximum prints as -1; long is 64 bits wide here and formatted as a 64-bit integer.
    EXPECT_EQ(formatted("%0 %1 %2", 4294967295u, 4294967295L, 4294967295UL), "-1 4294967295 4294967295");
}

TEST(OBStreamFormat, TextArgumentsAreCopiedWhenAdded) {
    AString text;
    OBStream out(text);
    {
        OBStreamFormat f(&out, "[%0|%1]");
        std::string temporary = "temp";
        f << temporary.c_str() << AString("str");
        temporary.assign("XXXX");
        f.clear();  // drops both
        f << temporary.c_str() << AString("str");
        temporary.assign("YYYY");
    }
    EXPECT_EQ(str(text), "[XXXX|str]");
}
