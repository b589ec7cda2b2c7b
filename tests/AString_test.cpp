#include "tarvik/AString.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "tarvik/IOBStream.h"

using tarvik::AString;
using tarvik::npos;

using tarvik::test::str;

namespace {

AString from(std::string const& b) { return AString(b.data(), static_cast<unsigned int>(b.size())); }

}  // namespace

TEST(AString, CapacityIsTheLengthRoundedUpStrictlyToSixteenAndSetBufferKeepsContent) {
    AString s;
    EXPECT_EQ(s.capacity(), 0u);
    EXPECT_EQ(AString(1, 'x').capacity(), 16u);
    EXPECT_EQ(AString(15, 'x').capacity(), 16u);
    EXPECT_EQ(AString(16, 'x').capacity(), 32u);
    EXPECT_EQ(AString(100, 'x').capacity(), 112u);
    s.reserve(16);
    EXPECT_EQ(s.capacity(), 32u);
    AString t;
    t.set_buffer(0);  // a request for no character still gets a block of 16
    EXPECT_EQ(t.capacity(), 16u);

    t = "ab";
    t.set_buffer(20)[2] = 'c';  // keeps the content
    EXPECT_EQ(t.capacity(), 32u);
    t.size(3);
    t.size(33);  // beyond the capacity: ignored
    EXPECT_EQ(str(t), "abc");
}

TEST(AString, AppendingOneByOneReallocatesAtLengthsOneSeventeenAndThirtyThree) {
    AString s;
    std::vector<unsigned int> grew_at;
    for (unsigned int n = 1; n <= 47; ++n) {
        char const* previous = s.c_str();
        s += 'x';
        if (s.c_str() != previous) grew_at.push_back(n);
    }
    EXPECT_EQ(grew_at, (std::vector<unsigned int>{1, 17, 33}));
    EXPECT_EQ(s.capacity(), 48u);
}

TEST(AString, ShrinkingKeepsTheBlockAndAnEmptySourceReturnsToNil) {
    AString s(100, 'x');
    char const* block = s.c_str();
    s.erase(10);
    EXPECT_EQ(s.c_str(), block);
    EXPECT_EQ(s.capacity(), 112u);
    AString copy(s);
    EXPECT_NE(copy.c_str(), block);  // no sharing
    s = AString();
    EXPECT_EQ(s.c_str(), AString::nil_data());
    copy.resize(0);
    EXPECT_EQ(copy.capacity(), 0u);
    EXPECT_TRUE(AString(npos, 'x').is_empty());
}

TEST(AString, CompareReturnsLengthDifferenceForAPrefixTreatsBytesAsSignedAndIcompareFoldsCase) {
    EXPECT_EQ(AString("abc").compare("abcde"), -2);
    EXPECT_EQ(AString("abcde").compare(AString("abc")), 2);
    EXPECT_EQ(AString("b").compare("a"), 1);
    EXPECT_EQ(AString("abd").compare("abcde"), 1);  // the first difference decides, not the length
    EXPECT_EQ(AString("xxabc").compare(2, npos, "ab"), 1);
    EXPECT_EQ(AString("xxabc").compare(9, 2, ""), 0);
    EXPECT_EQ(AString("\xC8").compare("A"), -1);
    EXPECT_TRUE(AString("\xC8") < AString("A"));
    EXPECT_TRUE(AString::lt('\xC8', 'A'));
    EXPECT_TRUE(AString::ilt('a', 'B'));
    EXPECT_EQ(AString("Hello").icompare("hELLO"), 0);
    EXPECT_EQ(AString("abc").icompare("ABD"), -1);
    EXPECT_EQ(AString("ABCD").CompareNoCase("ab"), 2);
    EXPECT_FALSE(from(std::string("a\0b", 3)) == AString("a"));
}

TEST(AString, SearchesFindPositionsAndNposFromAtOrBeyondTheEnd) {
    using Found = std::vector<unsigned int>;
    AString s("abcabc");
    EXPECT_EQ((Found{s.find("bc"), s.find(AString("bc"), 2), s.find("bcd"), s.rfind("bc"), s.rfind("bc", 3),
                     s.rfind('a'), s.rfind('a', 2), s.find_first_of("cb", 3), s.find_first_not_of("ab"),
                     s.find_first_not_of("abc"), s.find_last_of("ab", 2), s.find_last_not_of('c'),
                     s.find_last_not_of("c", 2), AString().rfind('a')}),
              (Found{1, 4, npos, 4, 1, 3, 0, 4, 2, npos, 1, 4, 1, npos}));
    for (unsigned int start : {6u, 10u})
        EXPECT_EQ((Found{s.find('a', start), s.rfind("a", start), s.find_first_not_of("x", start),
                         s.find_last_of("abc", start)}),
                  Found(4, npos))
            << start;
}

TEST(AString, PositionsAndCountsBeyondTheEndAreClamped) {
    AString s("hello");
    EXPECT_EQ(str(s.substr(1, 100)), "ello");
    EXPECT_TRUE(s.substr(6, 2).is_empty());
    EXPECT_EQ(str(AString(s).erase(10)), "hello");
    EXPECT_EQ(str(AString(s).erase(1, 100)), "h");
    EXPECT_EQ(AString(s).Delete(0), 4u);
    EXPECT_EQ(str(AString(s).replace(1, 100, "XY")), "hXY");
    EXPECT_EQ(str(AString(s).replace(9, 1, "X")), "hello");
    EXPECT_EQ(str(AString(s).replace(1, 3, 2u, '-')), "h--o");
    EXPECT_EQ(str(AString(s).insert(5, "!")), "hello!");
    EXPECT_EQ(str(AString(s).insert(6, "!")), "hello");
    EXPECT_EQ(str(AString("x").append(s, 3, npos)), "xlo");
    char buf[8] = "-------";
    EXPECT_EQ(s.copy(buf, 10, 3), 2u);
    EXPECT_EQ(std::string(buf), "lo-----");
    EXPECT_EQ(s.copy(buf, 2, 7), 0u);
}

TEST(AString, EditsTakingTheirOwnTextAreSafe) {
    AString s("0123456789");
    s.append(s);  // grows past the capacity while reading itself
    EXPECT_EQ(str(s), "01234567890123456789");
    s = "abc";
    s.insert(1, s);
    EXPECT_EQ(str(s), "aabcbc");
    s = "0123456789";
    s.replace(0, 2, s, 5, 5);
    EXPECT_EQ(str(s), "5678923456789");
    s.assign(s, 2, 3);
    EXPECT_EQ(str(s), "789");
    s.append(s.c_str() + 1);
    EXPECT_EQ(str(s), "78989");
}

TEST(AString, ReplaceAllCountsHitsIgnoresCaseOnRequestAndNeverRescans) {
    struct {
        char const *text, *from, *to;
        bool case_sensitive;
        int hits;
        char const* result;
    } const cases[] = {{"aXa xa", "xa", "y", true, 1, "aXa y"}, {"aXa xa", "xa", "y", false, 2, "ay y"},
                       {"aaa", "a", "aa", true, 3, "aaaaaa"},   {"abc", "", "x", true, 0, "abc"},
                       {"abc", "abcd", "x", true, 0, "abc"}};
    for (auto const& c : cases) {
        AString s(c.text);
        EXPECT_EQ(s.Replace(c.from, c.to, c.case_sensitive), c.hits) << c.text << " " << c.from;
        EXPECT_EQ(str(s), c.result) << c.text << " " << c.from;
    }
}

TEST(AString, WriteXmlEscapesFiveCharactersAndDropsControlsButWhiteSpace) {
    AString text = from(std::string("a<b>&'\"\a\t\n\r\v\f\x01\xE9z\0!", 18));
    AString out;
    {
        tarvik::OBStream stream(out);
        EXPECT_EQ(text.write_xml(stream), 0);
        EXPECT_EQ(tarvik::write_xml(AString("&"), stream), 0);
    }
    EXPECT_EQ(str(out), "a&lt;b&gt;&amp;&apos;&quot;\t\n\r\v\f\xE9z!&amp;");
}

TEST(AString, WideTextConvertsToUtf8KeepingTheTerminatorOrGivesEmptyWithARecord) {
    AString ab(L"ab");
    EXPECT_EQ(ab.length(), 3u);
    EXPECT_EQ(str(ab), std::string("ab\0", 3));
    EXPECT_NE(ab, AString("ab"));
    EXPECT_EQ(str(AString(L"\u00e9\U0001F600")), std::string("\xC3\xA9\xF0\x9F\x98\x80\0", 7));
    EXPECT_EQ(str(AString(u"a\U0001F600")), std::string("a\xF0\x9F\x98\x80\0", 6));
    EXPECT_TRUE(AString(static_cast<wchar_t const*>(nullptr)).is_empty());

    wchar_t const lone[] = {L'a', static_cast<wchar_t>(0xD800), 0};
    char16_t const unpaired[] = {u'a', 0xDC00, 0};
    tarvik::test::StdoutCapture capture;
    AString a(lone);
    AString b(unpaired);
    EXPECT_TRUE(a.is_empty());
    EXPECT_TRUE(b.is_empty());
    EXPECT_EQ(capture.lines_with("\tERR|TVK|ASTRING|"), 2) << capture.text();
    EXPECT_EQ(capture.lines_with("|cannot convert String to AString: err=84"), 2) << capture.text();
}

TEST(AString, DecodeFromUtf8FoldsCodePointsIntoBytesAndTextRoundTripsThroughWideTextOrFails) {
    AString out("previous");
    tarvik::DecodeFromUTF8(AString("A\xC3\xA9\xE2\x82\xAC"), out);
    EXPECT_EQ(str(out), "A\xE9\xAC");
    // U+20041 is 2 * 65535 + 67: two characters, 2 and 'C'.
    tarvik::DecodeFromUTF8(AString("\xF0\xA0\x81\x81"), out);
    EXPECT_EQ(str(out), (std::string{'\x02', 'C'}));
    // U+200000 (five bytes) is 32 * 65535 + 32.
    tarvik::DecodeFromUTF8(AString("\xF8\x88\x80\x80\x80"), out);
    EXPECT_EQ(str(out), "  ");
    tarvik::DecodeFromUTF8(AString("\x80x\xFF"), out);
    EXPECT_EQ(str(out), "\x80x\xFF");
    tarvik::DecodeFromUTF8(AString("ab\xE2\x82"), out);
    EXPECT_EQ(str(out), "ab");

    // Plain text goes through wide text, which keeps the terminator and fails on invalid UTF-8.
    tarvik::DecodeFromUTF8("h\xC3\xA9", out);
    EXPECT_EQ(str(out), std::string("h\xC3\xA9\0", 4));
    tarvik::test::StdoutCapture capture;
    tarvik::DecodeFromUTF8("bad\xFF", out);
    EXPECT_TRUE(out.is_empty());
    EXPECT_EQ(capture.lines_with("|cannot convert String to AString: err=84"), 1) << capture.text();
}

TEST(AString, MatchCapturesStarsLazilyExceptTheLast) {
    AString a, b;
    EXPECT_TRUE(AString("key=a,b,c").match("key=*,*", &a, &b));
    EXPECT_EQ(str(a), "a");
    EXPECT_EQ(str(b), "b,c");
    EXPECT_TRUE(AString("aab").match("*ab", &a));
    EXPECT_EQ(str(a), "a");
    EXPECT_TRUE(AString("ab").match("**", &a, &b));
    EXPECT_EQ(str(a), "");
    EXPECT_EQ(str(b), "ab");
    EXPECT_TRUE(AString("x=1").match("*=*", nullptr, &b));
    EXPECT_EQ(str(b), "1");

    AString out[9];
    EXPECT_TRUE(AString("1-2-3-4-5-6-7-8-9-10").match("*-*-*-*-*-*-*-*-*-*", &out[0], &out[1], &out[2], &out[3],
                                                      &out[4], &out[5], &out[6], &out[7], &out[8]));
    EXPECT_EQ(str(out[0]), "1");
    EXPECT_EQ(str(out[8]), "9");

    a = "keep";  // a failed match leaves the outputs untouched
    EXPECT_FALSE(AString("key=a").match("key=*,*", &a, &b));
    EXPECT_EQ(str(a), "keep");
}

TEST(AString, MatchElementsQuestionMarkSetsAndEscapes) {
    struct {
        char const* text;
        char const* pattern;
        bool matches;
    } const cases[] = {{"abc", "?b?", true},   {"abc", "ab", false},    {"Abc", "a*", false},
                       {"bx", "[a-c]x", true}, {"dx", "[a-c]x", false}, {"-", "[a-]", true},
                       {"ax", "[!a]x", false}, {"bx", "[^a]x", true},   {"]", "[]]", true},
                       {"*a", "\\*a", true},   {"ba", "\\*a", false},   {"ab", "a\\?", false},
                       {"a\\", "a\\", true}};
    for (auto const& c : cases)
        EXPECT_EQ(AString(c.text).match(c.pattern), c.matches) << c.text << " " << c.pattern;
}

TEST(AString, FormatReplacesContentAndMayReadItsOwnText) {
    AString s("old");
    EXPECT_EQ(&s.Format("%s=%04d", "x", 7), &s);
    EXPECT_EQ(str(s), "x=0007");
    s = "0123456789";
    s.Format("[%s]%s", s.c_str(), s.c_str());
    EXPECT_EQ(str(s), "[0123456789]0123456789");
    s.Format("%s", "");
    EXPECT_TRUE(s.is_empty());
}

TEST(AString, IndexOutOfRangeReadsNulAndWritesNowhere) {
    AString s("abc");
    AString const& cs = s;
    EXPECT_EQ(cs[1], 'b');
    EXPECT_EQ(cs[3], '\0');
    EXPECT_EQ(cs[-1], '\0');
    s[10] = 'x';
    s[-2LL] = 'y';
    s.put_at(3, 'z');
    s.put_at(1, 'B');
    EXPECT_EQ(str(s), "aBc");
    EXPECT_EQ(str('<' + s + ">" + AString("!")), "<aBc>!");
}

// String blocks are recycled per thread: blocks made on one thread and freed on another, and freed on a
// thread whose own cache is already gone, must each be freed once (the sanitizer builds check it).
TEST(AString, StringsMadeOnOneThreadDieOnAnother) {
    std::vector<AString> made;
    std::thread maker([&made] {
        for (int i = 0; i < 500; ++i) made.push_back(AString(static_cast<unsigned int>(i % 300), 'm'));
    });
    maker.join();
    std::thread taker([&made] {
        std::vector<AString> mine;
        mine.swap(made);
        for (int i = 0; i < 500; ++i) ASSERT_EQ(mine[i].length(), static_cast<unsigned int>(i % 300));
        // Constructed empty before this thread's first block, so it is destroyed after the block cache.
        static thread_local struct Late {
            AString text;
        } late;
        late.text = "freed after the thread's block cache is gone";
        EXPECT_GT(late.text.length(), 0u);
    });
    taker.join();
    EXPECT_TRUE(made.empty());
}
