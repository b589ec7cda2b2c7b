#include "tarvik/Parser.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "tarvik/IOBStream.h"

using namespace tarvik;
using tarvik::test::StdoutCapture;
using tarvik::test::str;

namespace {

// The XML events of a text, one a line ("<name a=v ...>depth", "</name>", "'text'"), then "done" or
// "error: ...".
std::string xml_events(char const* text) {
    IBStream in(text);
    XmlParser parser(in);
    std::string out;
    for (;;) {
        XmlParser::Event e = parser.next();
        if (e == XmlParser::kStart) {
            out += "<" + str(parser.name());
            for (unsigned int i = 0; i < parser.attribute_count(); ++i)
                out += " " + str(parser.attribute_name(i)) + "=" + str(parser.attribute_value(i));
            out += ">" + std::to_string(parser.depth()) + "\n";
        } else if (e == XmlParser::kEnd) {
            out += "</" + str(parser.name()) + ">\n";
        } else if (e == XmlParser::kText) {
            out += "'" + str(parser.text()) + "'\n";
        } else {
            out += e == XmlParser::kDone ? "done" : "error: " + str(parser.error());
            EXPECT_EQ(parser.next(), e);  // the final event stays
            return out;
        }
    }
}

// A malformed text, and the error it ends with at its line and column.
struct Damage {
    std::string text;
    char const* what;
    int line, column;
};

// The events of each text end with "error: what", logged once as "<kind>: what AT LINE l COLUMN c".
void expect_errors(std::string (*events)(char const*), char const* kind, std::vector<Damage> const& cases) {
    for (Damage const& d : cases) {
        StdoutCapture capture;
        std::string got = events(d.text.c_str());
        EXPECT_TRUE(got.ends_with("error: " + std::string(d.what))) << d.text << "\n" << got;
        std::string at = " AT LINE " + std::to_string(d.line) + " COLUMN " + std::to_string(d.column);
        EXPECT_EQ(capture.errors(kind + (": " + std::string(d.what)) + at), 1) << d.text << "\n"
                                                                                << capture.text();
    }
}

}  // namespace

// --- XmlParser ------------------------------------------------------------------------------------------

TEST(XmlParser, GivesStartTextAndEndEventsWithAttributes) {
    EXPECT_EQ(xml_events("<?xml version=\"1.0\"?>\n<!-- c -->"
                         "<a x=\"1\" y='two \"q\"'>hi<b/><c  z = \"\" >t</c ></a>\n<!-- after -->\n"),
              "'\n'\n<a x=1 y=two \"q\">1\n'hi'\n<b>2\n</b>\n<c z=>2\n't'\n</c>\n</a>\n'\n'\n'\n'\ndone");
}

TEST(XmlParser, DecodesEntitiesReferencesAndCdata) {
    EXPECT_EQ(
        xml_events("<a v=\"&lt;&amp;&gt;&apos;&quot;&#233;\">&#xE9;&#x20AC;&#128512;&#10;&#13;"
                   "<![CDATA[<&x;]]]]>\r\n</a>"),
        "<a v=<&>'\"\xc3\xa9>1\n'\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\n\r'\n'<&x;]]'\n'\r\n'\n</a>\ndone");
}

TEST(XmlParser, NextMarkupSkipsBlankTextAndAttributeFindsByName) {
    IBStream in("<a k='v'>\n  <b/>  x </a>");
    XmlParser parser(in);
    ASSERT_EQ(parser.next_markup(), XmlParser::kStart);
    EXPECT_EQ(str(*parser.attribute("k")), "v");
    EXPECT_EQ(parser.attribute("missing"), nullptr);
    EXPECT_EQ(parser.next_markup(), XmlParser::kStart);  // <b/> and its end
    EXPECT_EQ(parser.next_markup(), XmlParser::kEnd);
    EXPECT_EQ(parser.next_markup(), XmlParser::kText);
    EXPECT_EQ(str(parser.text()), "  x ");
}

TEST(XmlParser, FailFromOutsideLogsOnceWithThePosition) {
    IBStream in("<a>\n<b>");
    XmlParser parser(in);
    parser.next_markup();
    parser.next_markup();
    StdoutCapture capture;
    EXPECT_EQ(parser.fail("WRONG ELEMENT"), XmlParser::kError);
    EXPECT_EQ(parser.fail("AGAIN"), XmlParser::kError);
    EXPECT_EQ(str(parser.error()), "WRONG ELEMENT");
    EXPECT_EQ(parser.next(), XmlParser::kError);
    EXPECT_EQ(capture.errors("XML: WRONG ELEMENT AT LINE 2 COLUMN 4"), 1) << capture.text();
}

TEST(XmlParserDamage, EachMalformedTextFailsWithItsErrorAndPosition) {
    std::string attributes = "<a";
    for (unsigned int i = 0; i <= XmlParser::kMaxAttributes; ++i)
        attributes += " a" + std::to_string(i) + "=''";
    std::string nested;
    for (int i = 0; i < XmlParser::kMaxDepth; ++i) nested = "<a>" + nested + "</a>";
    EXPECT_TRUE(xml_events(nested.c_str()).ends_with("</a>\ndone"));  // up to the limit
    expect_errors(
        xml_events, "XML",
        {{"", "UNEXPECTED END OF TEXT", 1, 1},
         {"<a>\n<b>x</b>", "UNEXPECTED END OF TEXT", 2, 9},
         {"<1a/>", "ELEMENT NAME EXPECTED", 1, 2},
         {"<a b=c>", "ATTRIBUTE VALUE EXPECTED", 1, 7},
         {"<a b='<'/>", "ATTRIBUTE VALUE EXPECTED", 1, 8},
         {"<a>&amp</a>", "BAD REFERENCE", 1, 12},
         {"<a>&#0;</a>", "BAD REFERENCE", 1, 8},
         {"<a>&#x7FFFFFFF;</a>", "BAD REFERENCE", 1, 16},
         {"x<a/>", "TEXT OUTSIDE THE ROOT ELEMENT", 1, 2},
         {"<a><!-- x -></a>", "UNTERMINATED COMMENT", 1, 17},
         {"<a><![CDATA[x]]</a>", "UNTERMINATED CDATA SECTION", 1, 20},
         {"<?xml", "UNTERMINATED DECLARATION", 1, 6},
         {"<" + std::string(5000, 'n') + "/>", "ELEMENT NAME EXPECTED", 1, 1027},  // longer than any
         {attributes + "/>", "TOO MANY ATTRIBUTES", 1, 2 + 10 * 6 + 54 * 7 + 2},
         {"<b>" + nested + "</b>", "NESTING TOO DEEP", 1, 256 * 3 + 2}});
}

// --- TokenParser ----------------------------------------------------------------------------------------

namespace {

// The tokens of a text: "kind:text@line:column" for each, then "end" or "error: ...".
std::string tokens(char const* text) {
    IBStream in(text);
    TokenParser parser(in);
    std::string out;
    static char const* const kinds[] = {"end", "id", "int", "num", "str", "punct", "error"};
    for (;;) {
        TokenParser::Kind k = parser.next();
        if (k == TokenParser::kEnd) return out + "end";
        if (k == TokenParser::kError) return out + "error: " + str(parser.error());
        out += std::string(kinds[k]) + ":" + str(parser.text()) + "@" + std::to_string(parser.line()) + ":" +
               std::to_string(parser.column()) + " ";
    }
}

}  // namespace

TEST(TokenParser, CutsTextIntoTokensWithTheirPositions) {
    EXPECT_EQ(tokens("name _x.y-z = -12 +3 4.5e-1 1e3 'a\\'' \"\\\"\\\\\\n\\r\\t\\x41\\xfF\";"
                     " # c\n/ // c\n- {x}"),
              "id:name@1:1 id:_x.y-z@1:6 punct:=@1:13 int:-12@1:15 int:+3@1:19 num:4.5e-1@1:22 num:1e3@1:29 "
              "str:a'@1:33 str:\"\\\n\r\tA\xff@1:39 punct:;@1:59 "
              "punct:/@2:1 punct:-@3:1 punct:{@3:3 id:x@3:4 punct:}@3:5 end");
}

TEST(TokenParser, GivesTheValuesOfIntegersAndNumbers) {
    IBStream in("-9223372036854775808 2.5e1 7");
    TokenParser parser(in);
    parser.next();
    EXPECT_EQ(parser.integer(), INT64_MIN);
    EXPECT_EQ(parser.next(), TokenParser::kNumber);
    EXPECT_EQ(parser.number(), 25.0);
    EXPECT_EQ(parser.next(), TokenParser::kInteger);
    EXPECT_EQ(parser.number(), 7.0);  // an integer's value as a number too
}

TEST(TokenParserDamage, EachMalformedTextFailsWithItsErrorAndPosition) {
    expect_errors(tokens, "TOKEN",
                  {{"a\n  \"open", "UNTERMINATED STRING", 2, 8},
                   {"'a\nb'", "UNTERMINATED STRING", 2, 1},  // cut by the line end
                   {"\"a\\q\"", "BAD ESCAPE", 1, 5},
                   {"\"\\x4g\"", "BAD ESCAPE", 1, 6},
                   {"9223372036854775808", "INTEGER OUT OF RANGE", 1, 20},
                   {"-9223372036854775809", "INTEGER OUT OF RANGE", 1, 21},
                   {"1.2.3", "BAD NUMBER", 1, 6},
                   {"a \x01", "CONTROL CHARACTER", 1, 3}});
}

// --- IniParser ------------------------------------------------------------------------------------------

namespace {

// The events of an INI text: "[section]@line", "section.key=<value>@line"; then "done" or "error: ...".
std::string ini(char const* text) {
    IBStream in(text);
    IniParser parser(in);
    std::string out;
    for (;;) {
        IniParser::Event e = parser.next();
        if (e == IniParser::kDone) return out + "done";
        if (e == IniParser::kError) return out + "error: " + str(parser.error());
        if (e == IniParser::kSection)
            out += "[" + str(parser.section()) + "]";
        else
            out += str(parser.section()) + "." + str(parser.key()) + "=<" + str(parser.value()) + ">";
        out += "@" + std::to_string(parser.line()) + " ";
    }
}

}  // namespace

TEST(IniParser, ReadsSectionsAndTrimmedEntries) {
    EXPECT_EQ(
        ini("top = 1\r\n; comment\n\n  # other\n[ main ]\n\tkey\t=  spaced value  \nq = \" kept \"\n"
            "empty =\nhalf = \"x\n[second]\r\nurl = a=b ; not a comment"),
        ".top=<1>@1 [main]@5 main.key=<spaced value>@6 main.q=< kept >@7 main.empty=<>@8 main.half=<\"x>@9 "
        "[second]@10 second.url=<a=b ; not a comment>@11 done");
}

TEST(IniParserDamage, EachMalformedTextFailsWithItsErrorAndPosition) {
    expect_errors(ini, "INI",
                  {{"a=1\n [main", "']' EXPECTED", 2, 7},
                   {"[  ]", "SECTION NAME EXPECTED", 1, 2},
                   {"[a] b", "TEXT AFTER THE SECTION", 1, 4},
                   {"[a]\nkey value", "'=' EXPECTED", 2, 10},
                   {" = v", "KEY EXPECTED", 1, 2}});
}
