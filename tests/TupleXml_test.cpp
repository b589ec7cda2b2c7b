#include "tarvik/Tuple.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <limits>
#include <set>
#include <sstream>
#include <string>
#include <utility>

#include "TestSupport.h"
#include "tarvik/CommBuffer.h"
#include "tarvik/GlobVar.h"
#include "tarvik/IOBStream.h"

using namespace tarvik;
using tarvik::test::StdoutCapture;
using tarvik::test::TempDir;
using tarvik::test::awkward_kinds;
using tarvik::test::str;

namespace {

std::string xml_of(Tuple const& t, bool text_mode = false) {
    AString out;
    {
        OBStream stream(out, text_mode);
        t.write_xml(stream);
    }
    return str(out);
}

Tuple read_back(std::string const& text) {
    Tuple back;
    IBStream in(text.c_str());
    EXPECT_GE(back.read_xml(in), 0) << text;
    return back;
}

// Equal, and alike in what compare() does not tell apart (-0 from 0, nan from nan).
void expect_same(Tuple const& back, Tuple const& t) {
    EXPECT_EQ(back, t);
    EXPECT_EQ(str(back.to_string()), str(t.to_string()));
    EXPECT_TRUE(std::signbit(back.get_array_float("af")[0]));
}

}  // namespace

// --- writing and reading back ---------------------------------------------------------------------------

TEST(TupleXml, WritesTheDocumentedTextAndDatesAndPeriodsComeBackExactly) {
    Tuple small("order");
    small.set_int("id", 7);
    small.add_astring("tags", "a");
    small.add_astring("tags", "");
    small.set_tuple("owner", Tuple("user"));
    EXPECT_EQ(xml_of(small, true),
              "<t n=\"order\">\n    <i a=\"id\">7</i>\n    <t a=\"owner\" n=\"user\"></t>\n"
              "    <las a=\"tags\"><z>a</z><z/></las>\n</t>");

    using L = std::numeric_limits<std::int64_t>;
    Tuple t;
    t.set_astring("as", AString("<&>'\"\n\r\v\f\t\x01\x1f\x7f", 13));
    t.set_time_period("p", TimePeriod(-90, -5, false));
    t.add_time_period("lp", TimePeriod(0, -1, false));
    t.add_time_period("lp", TimePeriod(L::min(), -999999, false));
    t.set_time_date("d", TimeDate(2024, 2, 29, 13, 5, 9, 123456, false));
    t.set_time_date("ms", TimeDate(2024, 2, 29, 13, 5, 9, 123000, false));
    t.add_time_date("ld", TimeDate(2024, 2, 29, 23, 59, 59, 1, false));
    t.add_time_date("ld", TimeDate(std::int64_t{-1}));
    t.add_time_date("ld", TimeDate(L::max() / 4));  // beyond the calendar's years
    t.set_double("x", 0.1);
    t.set_list_float("lf", ListFloat{-std::numeric_limits<float>::infinity(), std::nanf("")});
    t.set_bool("b", false);
    t.set_blob("bb", Blob(std::string(60, '\0').data(), 60, 60));  // two lines of base64
    t.set_list_array_int("lai", ListArrayInt{ArrayInt{1, 2}, ArrayInt{}});
    t.add_tuple("lt", Tuple("c"));
    std::string const text = xml_of(t);
    EXPECT_EQ(text,
              "<t n=\"\">\n<as a=\"as\">&lt;&amp;&gt;&apos;&quot;&#10;&#13;&#11;&#12;\t\x7f</as>\n"
              "<b a=\"b\">false</b>\n<bb a=\"bb\">" +
                  std::string(76, 'A') +
                  "&#10;AAAA</bb>\n"
                  "<td a=\"d\" us=\"123456\">2024:02:29T13:05:09.123</td>\n"
                  "<lai a=\"lai\"><z><z>1</z><z>2</z></z><z/></lai>\n"
                  "<ltd a=\"ld\"><z us=\"1\">2024:02:29T23:59:59.000</z>"
                  "<z>-4714:11:23T23:59:59.000</z><z>@26687997791825:03:52:31.000000</z></ltd>\n"
                  "<lf a=\"lf\"><z>-inf</z><z>nan</z></lf>\n"
                  "<ltp a=\"lp\"><z>-0.000001</z><z>-106751991167300:15:30:08.999999</z></ltp>\n"
                  "<lt a=\"lt\">\n<t n=\"c\"></t>\n</lt>\n<td a=\"ms\">2024:02:29T13:05:09.123</td>\n"
                  "<tp a=\"p\">-01:30.000005</tp>\n<d a=\"x\">0.1</d>\n</t>");
    Tuple back = read_back(text);  // the control characters of "as" are dropped, the rest comes back
    EXPECT_EQ(back.get_list_time_period("lp"), t.get_list_time_period("lp"));
    EXPECT_EQ(back.get_list_time_date("ld"), t.get_list_time_date("ld"));
}

TEST(TupleXml, EveryKindReadsBackIntoAnEqualTuple) {
    Tuple t = awkward_kinds(), outer("outer");
    std::set<int> kinds;
    for (Tuple::ConstValueIterator it(t); it.more(); it.next()) kinds.insert(it.get_type());
    EXPECT_EQ(kinds.size(), 34u);
    Tuple back("previous");
    back.set_int("previous", 1);
    std::string text = xml_of(t);
    IBStream in(text.c_str());
    StdoutCapture capture;
    EXPECT_EQ(back.read_xml(in), static_cast<long>(t.get_count()));
    EXPECT_EQ(capture.text(), "");
    expect_same(back, t);

    // A text-mode stream indents nested elements but never the inside of a value.
    outer.set_tuple("nested", t);
    outer.add_tuple("list", t);
    text = xml_of(outer, true);
    EXPECT_NE(text.find("\n            <as a=\"as\">"), std::string::npos) << text;  // three levels deep
    back = read_back(text);
    expect_same(back.get_tuple("nested"), t);
    expect_same(back.get_list_tuple("list").front(), t);
}

TEST(TupleXml, FileOpensWithTheDeclarationAndStoresCrLf) {
    TempDir dir;
    Path path(dir.file("t.xml").c_str());
    Tuple t = awkward_kinds(), back;
    EXPECT_EQ(t.write_xml(path), static_cast<long>(t.get_count()));
    std::string bytes = test::read_file(dir.file("t.xml"));
    EXPECT_TRUE(bytes.starts_with("<?xml version=\"1.0\" encoding=\"utf-8\" standalone=\"yes\"?>\r\n<t "));
    for (std::size_t at = bytes.find('\n'); at != std::string::npos; at = bytes.find('\n', at + 1))
        ASSERT_EQ(bytes[at - 1], '\r') << at;
    EXPECT_EQ(back.read_xml(path), static_cast<long>(t.get_count()));
    expect_same(back, t);
    EXPECT_EQ(back.read_xml(Path(dir.file("missing.xml").c_str())), -1000002);
    EXPECT_EQ(t.write_xml(Path(dir.file("no/dir.xml").c_str())), -1000002);
}

TEST(TupleXml, AsciiCommBufferCarriesTheXmlText) {
    Tuple t = awkward_kinds(), back, received;
    CommBuffer buffer(64);  // the text spans many pages
    buffer.set_is_ascii(true);
    EXPECT_EQ(t.write(buffer), static_cast<long>(t.get_count()));
    for (CommBuffer::PageIterator it(buffer); it.hasNext();)
        EXPECT_EQ(std::string(it.next()->flags, 4), "axxx");
    EXPECT_EQ(back.read(buffer), static_cast<long>(t.get_count()));
    expect_same(back, t);
    // On the wire: the receiver learns from the flags that the buffer is text.
    AString text = buffer.to_string();
    EXPECT_TRUE(str(text).starts_with("TVK01/axxx0/00000040/<t n=\"every kind\">\n    <")) << str(text);
    CommBuffer wire;
    IBStream in(text.c_str());
    ASSERT_EQ(wire.read(in), static_cast<long>(text.length()));
    EXPECT_TRUE(wire.is_ascii());
    EXPECT_EQ(received.read(wire), static_cast<long>(t.get_count()));
    expect_same(received, t);
}

TEST(TupleXml, ControlCharactersOtherThanWhiteSpaceAreDropped) {
    Tuple t("c\x01lass");
    t.set_astring("n\x02", AString("a\x01\x02\x08\x0e\x1f\x7f\t\n\r\v\fb", 14));
    t.add_string("ls", String(u"x\u0001\u001by"));
    EXPECT_EQ(str(read_back(xml_of(t)).to_string()),
              "class{ls:ls=[\"xy\"], n:as=\"a\\x7F\\t\\n\\r\\x0B\\x0Cb\"}");
}

// --- damage ---------------------------------------------------------------------------------------------

namespace {

// read_xml refuses the text with the record, fails, and leaves the tuple as it was.
void refused(std::string const& text, std::string const& record) {
    Tuple t("kept");
    t.set_int("k", 1);
    StdoutCapture capture;
    IBStream in(text.c_str());
    EXPECT_EQ(t.read_xml(in), -1) << text.substr(0, 100);
    std::istringstream lines(capture.text());
    int n = 0;
    for (std::string line; std::getline(lines, line);) n += line.ends_with("||" + record);
    EXPECT_EQ(n, 1) << capture.text();
    EXPECT_EQ(str(t.to_string()), "kept{k:i=1}");
}

}  // namespace

TEST(TupleXmlDamage, MalformedDocumentIsRefusedWithItsRecord) {
    std::string nested = "<t n='c'>";
    for (int i = 0; i < 100000; ++i) nested += "<t a='a' n='c'>";
    std::pair<std::string, std::string> const cases[] = {
        {"<t n='c'><i a='k'>1</i>", "XML: UNEXPECTED END OF TEXT AT LINE 1 COLUMN 24"},
        {"<t>\n<i a='k'>1</i></t>", "CLASS NAME EXPECTED t line 1 column 4"},
        {"<t n=''><t a=''/></t>", "CLASS NAME EXPECTED t line 1 column 18"},
        {"<t n=''><i>1</i></t>", "ATT NAME EXPECTED i line 1 column 12"},
        {"<tbl n='c'/>", "MARKUP t EXPECTED tbl"},
        {"<t n=''><li a=''><y/></li></t>", "MARKUP z EXPECTED y"},
        {"<t n=''><lt a=''><z/></lt></t>", "MARKUP t EXPECTED z"},
        {"<t n=''>oops</t>", "MARKUP value element EXPECTED text"},
        {"<t n='c' n='d'/>", "XML: ATTRIBUTE REPEATED AT LINE 1 COLUMN 11"},
        {"<t n='c'/>\nx", "XML: TEXT OUTSIDE THE ROOT ELEMENT AT LINE 2 COLUMN 2"},
        {"<t n='c'/><t n='d'/>", "XML: TEXT AFTER THE ROOT ELEMENT AT LINE 1 COLUMN 12"},
        {"<!DOCTYPE t [<!ENTITY a 'aaaaaaaa'><!ENTITY b '&a;&a;&a;&a;&a;&a;&a;&a;'>]><t n='&b;'/>",
         "XML: DOCUMENT TYPE DECLARATIONS ARE NOT SUPPORTED AT LINE 1 COLUMN 3"},
        {nested, "XML: NESTING TOO DEEP AT LINE 1 COLUMN " + std::to_string(256 * 15 - 4)},
    };
    for (auto const& [text, record] : cases) refused(text, record);
}

TEST(TupleXmlDamage, MalformedValueIsRefusedWithTheParsersRecord) {
    struct {
        char const* value;
        char const* what;
        int column;
    } const cases[] = {
        {"<i a='k'>1</l>", "END TAG DOES NOT MATCH", 24},
        {"<q a='k'>1</q>", "UNKNOWN KIND q", 19},
        {"<i a='k'>12x</i>", "BAD NUMBER", 26},
        {"<i a='k'>2147483648</i>", "BAD NUMBER", 33},
        {"<b a='k'>yes</b>", "BAD BOOLEAN", 26},
        {"<bb a='k'>A@==</bb>", "BAD BASE64", 29},
        {"<td a='k'>2024-02-29</td>", "BAD TIME DATE", 35},
        {"<td a='k'>2024:02:29T00:00:00 x</td>", "BAD TIME DATE", 46},
        {"<td a='k' us='1000000'>2024:02:29T00:00:00</td>", "BAD TIME DATE", 33},
        {"<tp a='k'>1 s</tp>", "BAD TIME PERIOD", 28},
        {"<tp a='k'>106751991167300:15:30:08</tp>", "BAD TIME PERIOD", 49},  // beyond its range
        {"<as a='k'>&nbsp;</as>", "BAD REFERENCE", 26},                      // undefined entity
        {"<as a='k'>&#99999999999999999999;</as>", "BAD REFERENCE", 35},
    };
    for (auto const& c : cases)
        refused("<t n='c'>" + std::string(c.value) + "</t>",
                "XML: " + std::string(c.what) + " AT LINE 1 COLUMN " + std::to_string(c.column));
}

// --- debug dumps ----------------------------------------------------------------------------------------

TEST(TupleXmlDebugDump, AsciiWritesAndReadsAreSavedWhileSwitchedOn) {
    TempDir dir;
    std::string cwd = std::filesystem::current_path().string();
    ASSERT_EQ(::chdir(dir.path().c_str()), 0);
    int previous = GlobVarInt::set(Symbol("TVK.COMM"), Symbol("REQUESTS.XML.SAVE"), 1);
    Tuple t("req"), back;
    t.set_int("n", 1);
    CommBuffer buffers[4];
    for (CommBuffer& b : buffers) b.set_is_ascii(true);
    for (int i = 0; i < 3; ++i) t.write(buffers[i]);
    EXPECT_EQ(back.read(buffers[1]), 1);
    GlobVarInt::set(Symbol("TVK.COMM"), Symbol("REQUESTS.XML.SAVE"), 0);
    t.write(buffers[3]);
    back.read(buffers[3]);
    GlobVarInt::set(Symbol("TVK.COMM"), Symbol("REQUESTS.XML.SAVE"), previous);
    ASSERT_EQ(::chdir(cwd.c_str()), 0);

    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(test::read_file(dir.file(("debug-req-0000" + std::to_string(i) + "-write.txt").c_str())),
                  str(buffers[i].to_string()));
    EXPECT_EQ(test::read_file(dir.file("debug-req-00001-write.txt")),
              "TVK01/axxx1/00000038/<t n=\"req\">\n    <i a=\"n\">1</i>\n</t>");
    EXPECT_EQ(test::read_file(dir.file("debug-req-00003-read.txt")), str(buffers[1].to_string()));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 4);
}
