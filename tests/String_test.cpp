#include "tarvik/String.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tarvik/AString.h"
#include "TestSupport.h"
#include "tarvik/IOBStream.h"

using tarvik::AString;
using tarvik::npos;
using tarvik::RawString;
using tarvik::String;
using tarvik::test::str;

namespace {

std::u16string units(String const& s) { return std::u16string(s.c_str(), s.length()); }

// The default allocator with every block counted; release() must never see the shared empty block.
class CountingAllocator : public tarvik::StringAllocator {
public:
    RawString* allocate(unsigned int n) override {
        ++allocated;
        return StringAllocator::allocate(n);
    }
    void release(RawString* raw) override {
        if (raw->capacity == 0) ++nil_released;
        else ++released;
        StringAllocator::release(raw);
    }
    int allocated = 0;
    int released = 0;
    int nil_released = 0;
};

}  // namespace

TEST(String, NarrowTextWidensEachByteToTheSameValueAndUtf32TextBecomesSixteenBitUnits) {
    EXPECT_EQ(units(String("\xE9")), std::u16string(1, char16_t{233}));
    EXPECT_EQ(units(String("a\xFF\x80", 3)), (std::u16string{u'a', 0xFF, 0x80}));
    String s(u"x");
    s.assign("\xC3\xA9");  // two bytes, two units: no UTF-8 decoding
    EXPECT_EQ(units(s), (std::u16string{0xC3, 0xA9}));
    EXPECT_EQ(units(String(L"a\U0001F600b")), (std::u16string{u'a', 0xD83D, 0xDE00, u'b'}));
    wchar_t const bad[] = {static_cast<wchar_t>(0xDC00), static_cast<wchar_t>(0x110000), 0};
    EXPECT_EQ(units(String(bad)), (std::u16string{0xFFFD, 0xFFFD}));
}

TEST(String, AppendingOneByOneReallocatesAtLengthsOneSeventeenAndThirtyThree) {
    String s;
    std::vector<unsigned int> grew_at;
    for (unsigned int n = 1; n <= 47; ++n) {
        tarvik::WChar const* previous = s.c_str();
        s += u'x';
        if (s.c_str() != previous) grew_at.push_back(n);
    }
    EXPECT_EQ(grew_at, (std::vector<unsigned int>{1, 17, 33}));
    EXPECT_EQ(s.capacity(), 48u);
}

TEST(String, AGivenAllocatorServesEveryBlockAndCopiesKeepItWhileOthersShareTheDefault) {
    CountingAllocator counting;
    {
        String s(&counting);
        s = u"hello";
        s += u" world";
        s.append(40u, u'.');
        String copy(s);
        String part = s.substr(1, 3);
        String sum = s + copy;
        EXPECT_EQ(copy.get_allocator(), &counting);
        EXPECT_EQ(part.get_allocator(), &counting);
        EXPECT_EQ(sum.get_allocator(), &counting);
        EXPECT_EQ(s.Replace(u"o", u"0"), 2);
        EXPECT_EQ(s.get_allocator(), &counting);
        tarvik::DecodeFromUTF8(AString("\xC3\xA9"), s);
        EXPECT_EQ(units(s), std::u16string(1, char16_t{0xE9}));
        EXPECT_EQ(s.get_allocator(), &counting);
        String plain;  // without an allocator: the shared default one
        plain = s;     // assignment copies the text into the destination's own allocator
        EXPECT_EQ(plain.get_allocator(), String::default_allocator());
        s = String();
        EXPECT_TRUE(s.is_empty());
    }
    EXPECT_GT(counting.allocated, 5);
    EXPECT_EQ(counting.released, counting.allocated);
    EXPECT_EQ(counting.nil_released, 0);
}

TEST(String, EncodeToUtf8WritesEachUnitOnItsOwnAndDecodingMakesSurrogatePairs) {
    AString out("previous");
    tarvik::EncodeToUTF8(String(u"A\u00e9\u20ac"), out);
    EXPECT_EQ(str(out), "A\xC3\xA9\xE2\x82\xAC");
    tarvik::EncodeToUTF8(u"\u007f\u0080\u07ff\u0800\uffff", out);
    EXPECT_EQ(str(out), "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF");
    // U+1F600 arrives as UTF-32 and becomes the pair D83D DE00, each unit encoded as three bytes.
    tarvik::EncodeToUTF8(L"\U0001F600", out);
    EXPECT_EQ(str(out), "\xED\xA0\xBD\xED\xB8\x80");

    String text(u"previous");
    tarvik::DecodeFromUTF8(AString("A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"), text);
    EXPECT_EQ(units(text), (std::u16string{u'A', 0xE9, 0x20AC, 0xD83D, 0xDE00}));
    tarvik::DecodeFromUTF8(AString("\x80z\xF7\xBF\xBF\xBF"), text);  // stray byte; beyond U+10FFFF
    EXPECT_EQ(units(text), (std::u16string{0x80, u'z', 0xFFFD}));
    tarvik::DecodeFromUTF8(AString("ok\xF0\x9F\x98"), text);  // cut short
    EXPECT_EQ(units(text), u"ok");
}

// Each row: UTF-8 bytes; the units DecodeFromUTF8 makes of them and those units encoded back; the bytes
// AString's folding decoder makes; what the strict conversion through wide text gives ("" when it refuses
// the text, with a record).
TEST(String, CodePointsAtTheUtf16BoundariesConvertTheSameWayInEveryConversion) {
    struct Row {
        char const* utf8;
        std::u16string units;
        char const* reencoded;
        std::string folded;
        std::string strict;
    };
    using S = std::string;
    Row const rows[] = {
        {"\xEF\xBF\xBF", {0xFFFF}, "\xEF\xBF\xBF", "\xFF", S("\xEF\xBF\xBF\0", 4)},                  // U+FFFF
        {"\xF0\x90\x80\x80", {0xD800, 0xDC00}, "\xED\xA0\x80\xED\xB0\x80", "\x01\x01",                 // U+10000
         S("\xF0\x90\x80\x80\0", 5)},
        {"\xF4\x8F\xBF\xBF", {0xDBFF, 0xDFFF}, "\xED\xAF\xBF\xED\xBF\xBF", "\x11\x10",                 // U+10FFFF
         S("\xF4\x8F\xBF\xBF\0", 5)},
        {"\xF4\x90\x80\x80", {0xFFFD}, "\xEF\xBF\xBD", "\x11\x11", ""},                                // U+110000
        {"\xED\xA0\x80", {0xD800}, "\xED\xA0\x80", S("\0", 1), ""},                                    // lone high
        {"\xED\xBF\xBF", {0xDFFF}, "\xED\xBF\xBF", "\xFF", ""},                                        // lone low
        {"\xED\xA0\xBD\xED\xB8\x80", {0xD83D, 0xDE00}, "\xED\xA0\xBD\xED\xB8\x80", S("=\0", 2), ""},   // pair, 3+3
        {"\xC0\xAF", {u'/'}, "/", "/", ""},                                                             // overlong
        {"\xE0\x80\xAF", {u'/'}, "/", "/", ""},
        {"\xF0\x8F\xBF\xBF", {0xFFFF}, "\xEF\xBF\xBF", "\xFF", ""},
        {"a\xF0\x90\x80", {u'a'}, "a", "a", ""},                                                       // cut short
        {"\xC2", {}, "", "", ""},
    };
    for (Row const& row : rows) {
        SCOPED_TRACE(testing::PrintToString(std::string(row.utf8)));
        String text(u"previous");
        tarvik::DecodeFromUTF8(AString(row.utf8), text);
        EXPECT_EQ(units(text), row.units);
        AString out("previous");
        tarvik::EncodeToUTF8(text, out);
        EXPECT_EQ(str(out), row.reencoded);
        tarvik::DecodeFromUTF8(AString(row.utf8), out);
        EXPECT_EQ(str(out), row.folded);
        tarvik::test::StdoutCapture capture;
        tarvik::DecodeFromUTF8(row.utf8, out);
        EXPECT_EQ(str(out), row.strict);
        EXPECT_EQ(capture.lines_with("|cannot convert String to AString: err=84"), row.strict.empty() ? 1 : 0);
    }
}

TEST(String, WriteXmlEscapesAndWritesUtf8) {
    String text(u"<\u00e9>&'\"\u0007\t\u20ac");
    AString out;
    {
        tarvik::OBStream stream(out);
        EXPECT_EQ(text.write_xml(stream), 0);
    }
    EXPECT_EQ(str(out), "&lt;\xC3\xA9&gt;&amp;&apos;&quot;\t\xE2\x82\xAC");
}

TEST(String, CompareAndSearchFollowTheSharedRules) {
    EXPECT_EQ(String(u"abc").compare(u"abcde"), -2);
    EXPECT_EQ(String(u"\u00e9").compare(u"A"), 1);  // 16-bit units compare unsigned
    EXPECT_EQ(String(u"ABC").icompare(u"abc"), 0);
    String s(u"abcabc");
    EXPECT_EQ(s.find(u"bc", 2), 4u);
    EXPECT_EQ(s.find(u'a', 6), npos);
    EXPECT_EQ(s.rfind(u'c', 6), npos);
    EXPECT_EQ(s.find_last_not_of(u"bc"), 3u);
    // Ranges clamp as AString's do: a start beyond the end compares nothing, a long count stops at the end.
    struct {
        unsigned int pos, count, clamped;
        char16_t const* other;
        int compared;
    } const ranges[] = {{1, 2, 2, u"bc", 0}, {4, npos, 2, u"bc", 0}, {7, 3, 0, u"", 0}, {3, 1, 1, u"abc", -2}};
    for (auto const& r : ranges) {
        unsigned int count = r.count;
        EXPECT_EQ(s.validate_range(r.pos, count), r.clamped) << r.pos;
        EXPECT_EQ(count, r.clamped) << r.pos;
        EXPECT_EQ(s.compare(r.pos, r.count, r.other), r.compared) << r.pos;
    }
}

TEST(String, RangesAreClampedAndSelfEditsAreSafe) {
    String s(u"hello");
    EXPECT_EQ(units(s.substr(1, 100)), u"ello");
    EXPECT_EQ(units(String(s).erase(10)), u"hello");
    EXPECT_EQ(units(String(s).replace(3, 100, u"p!")), u"help!");
    EXPECT_EQ(s[5], 0);
    s.insert(1, s);
    EXPECT_EQ(units(s), u"hhelloello");
    s.append(s);
    EXPECT_EQ(units(s), u"hhelloellohhelloello");
    EXPECT_EQ(s.Replace(u"HELLO", u"-", false), 2);
    EXPECT_EQ(units(s), u"h-elloh-ello");
}

TEST(String, MatchCapturesSixteenBitUnitsAndComparesSetRangesUnsigned) {
    String a(u"keep"), b;
    EXPECT_TRUE(String(u"k\u20ac=a,b,\u00e9").match(u"k?=*,*", &a, &b));
    EXPECT_EQ(units(a), u"a");
    EXPECT_EQ(units(b), u"b,\u00e9");
    a = u"keep";
    EXPECT_FALSE(String(u"key=a").match(u"key=*,*", &a, &b));  // outputs untouched
    EXPECT_EQ(units(a), u"keep");
    struct {
        char16_t const* text;
        char16_t const* pattern;
        bool matches;
    } const cases[] = {{u"\u00e9x", u"[\u00e0-\u00ff]x", true}, {u"ax", u"[\u00e0-\u00ff]x", false},
                       {u"\uff00", u"[!a-z]", true},             {u"*\u20ac", u"\\*?", true},
                       {u"\u20ac", u"\u00ac", false}};  // the low 8 bits alone do not match
    for (auto const& c : cases)
        EXPECT_EQ(String(c.text).match(c.pattern), c.matches) << static_cast<int>(c.pattern[0]);
}

TEST(String, FormatWritesWideTextAndEmptiesOnFailure) {
    String s(u"previous");
    EXPECT_EQ(&s.Format(L"%ls=%04d %s", L"\u00e9\U0001F600", 7, "n"), &s);
    EXPECT_EQ(units(s), u"\u00e9\U0001F600=0007 n");
    std::wstring const longer(1000, L'w');
    s.Format(L"<%ls>", longer.c_str());  // beyond the first room
    EXPECT_EQ(s.length(), 1002u);
    EXPECT_EQ(s[1001], u'>');
    s.Format(nullptr);
    EXPECT_TRUE(s.is_empty());
}

TEST(String, PerUnitTestsCompareUnsignedAndFoldCase) {
    EXPECT_TRUE(String::lt(u'A', u'\u00e9'));  // 16-bit units are unsigned
    EXPECT_FALSE(String::lt(u'\uff00', u'a'));
    EXPECT_TRUE(String::ieq(u'a', u'A') && String::ine(u'a', u'b') && String::ne(u'a', u'A'));
    EXPECT_TRUE(String::ilt(u'a', u'B') && !String::lt(u'a', u'B') && String::eq(u'x', u'x'));
}
