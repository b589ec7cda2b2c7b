#include "tarvik/Table.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "TestSupport.h"
#include "tarvik/IOBStream.h"

using namespace tarvik;
using tarvik::test::StdoutCapture;
using tarvik::test::TempDir;

namespace {

std::string xml_of(Table const& t, bool text_mode) {
    AString out;
    {
        OBStream stream(out, text_mode);
        t.write_xml(stream);
    }
    return std::string(out.c_str(), out.length());
}

Table orders() {
    Table t("orders & co");
    t.add_column("id");
    t.add_column("price");
    Tuple& first = t.add_line();
    first.set_int("id", 7);
    first.set_double("price", 9.5);
    t.add_line();  // an empty line
    Tuple& third = t.add_line();
    third.set_int("id", 8);
    third.set_astring("note", "<b>\n");  // a value outside the columns
    third.add_tuple("parts", Tuple("part"));
    return t;
}

}  // namespace

TEST(Table, SmallTableHasTheDocumentedText) {
    Table t("orders");
    EXPECT_TRUE(t.add_column("id"));
    EXPECT_FALSE(t.add_column("id"));  // a column is there once
    t.add_line().set_int("id", 7);
    t.add_line();
    EXPECT_EQ(xml_of(t, true),
              "<tbl n=\"orders\">\n    <c>id</c>\n    <l>\n        <i a=\"id\">7</i>\n    </l>\n    <l></l>\n"
              "</tbl>");
}

TEST(Table, ReadsBackIntoAnEqualTableFromTextAndFromAFile) {
    Table t = orders();
    for (bool text_mode : {false, true}) {
        std::string text = xml_of(t, text_mode);
        Table back("previous");
        back.add_column("previous");
        IBStream in(text.c_str());
        EXPECT_EQ(back.read_xml(in), 3);
        EXPECT_TRUE(back == t) << text;
        EXPECT_EQ(back.get_columns().back(), Symbol("price"));
        EXPECT_EQ(back.get_lines().back().get_astring("note"), "<b>\n");
    }
    TempDir dir;
    Table back;
    EXPECT_EQ(t.write_xml(Path(dir.file("t.xml").c_str())), 3);
    std::string bytes = test::read_file(dir.file("t.xml"));
    EXPECT_TRUE(bytes.starts_with("<?xml version=\"1.0\" encoding=\"utf-8\" standalone=\"yes\"?>\r\n<tbl "))
        << bytes;
    EXPECT_EQ(back.read_xml(Path(dir.file("t.xml").c_str())), 3);
    EXPECT_TRUE(back == t);
    EXPECT_EQ(back.read_xml(Path(dir.file("missing.xml").c_str())), -1000002);
    t.add_line();
    EXPECT_FALSE(t == orders());
}

TEST(TableDamage, MalformedTextIsRefusedWithItsRecordAndLeavesTheTable) {
    std::pair<char const*, char const*> const cases[] = {
        {"<t n=\"x\"/>", "MARKUP tbl EXPECTED t"},
        {"<tbl><c>a</c><x/></tbl>", "MARKUP c or l EXPECTED x"},
        {"<tbl>oops</tbl>", "MARKUP c or l EXPECTED text"},
        {"<tbl><l><i>1</i></l></tbl>", "ATT NAME EXPECTED i"},
        {"<tbl/>x", "XML: TEXT OUTSIDE THE ROOT ELEMENT"},
    };
    for (auto const& [text, record] : cases) {
        Table t = orders();
        StdoutCapture capture;
        IBStream in(text);
        EXPECT_EQ(t.read_xml(in), -1) << text;
        EXPECT_EQ(capture.records_with("||" + std::string(record)), 1) << capture.text();
        EXPECT_TRUE(t == orders()) << text;
    }
}
