#include "tarvik/Tuple.h"

#include <gtest/gtest.h>

#include <string>

#include "TestSupport.h"
#include "tarvik/IOBStream.h"

using namespace tarvik;
using tarvik::test::str;

namespace {

// What matching the text sets in an empty tuple, in the tuple's text form; "no match" when it fails.
std::string matched(char const* pattern, char const* text, char escape = '\\') {
    Tuple t;
    return t.match(pattern, text, escape) ? str(t.to_string()) : "no match";
}

}  // namespace

TEST(TupleMatch, CaptureStopsAtTheNextPatternCharacterAndTheLastTakesTheRest) {
    EXPECT_EQ(matched("TCPIP:%(address)", "TCPIP:127.0.0.1:5000"), R"({address:as="127.0.0.1:5000"})");
    EXPECT_EQ(matched("%(class):%(name)", "svc:main:extra"), R"({class:as="svc", name:as="main:extra"})");
    EXPECT_EQ(matched("SHM:%(address):%(size)", "SHM:name:65536"), R"({address:as="name", size:as="65536"})");
    EXPECT_EQ(matched("%(class):%(name)@%(address)", "svc:main@TCPIP:host:5000"),
              R"({address:as="TCPIP:host:5000", class:as="svc", name:as="main"})");
    // Bytes from 128 up stop a capture like any other.
    EXPECT_EQ(matched("%(a)\xE9%(b)", "x\xE9y"), R"({a:as="x", b:as="y"})");
}

TEST(TupleMatch, TheWholeTextMustFitTheWholePattern) {
    EXPECT_EQ(matched("%(class):%(name)@%(address)", "svc:main"), "no match");
    EXPECT_EQ(matched("TCPIP:%(address)", "TCP"), "no match");
    EXPECT_EQ(matched("TCPIP:%(address)x", "TCPIP:a"), "no match");  // the capture ran to the end
    EXPECT_EQ(matched("ab", "abc"), "no match");
    EXPECT_EQ(matched("", "x"), "no match");
    EXPECT_EQ(matched("", ""), "{}");
    EXPECT_EQ(matched("a:%(rest)", "a:"), R"({rest:as=""})");
}

TEST(TupleMatch, FailureChangesNothingAndSuccessMergesKeepingTheClassName) {
    Tuple t("endpoint");
    t.set_int(Symbol("address"), 1);
    t.set_astring(Symbol("other"), "kept");
    EXPECT_FALSE(t.match("%(class):%(name)@%(address)", "svc:main"));
    EXPECT_EQ(str(t.to_string()), R"(endpoint{address:i=1, other:as="kept"})");
    EXPECT_TRUE(t.match("TCPIP:%(address)", "TCPIP:host:1"));
    EXPECT_EQ(str(t.to_string()), R"(endpoint{address:as="host:1", other:as="kept"})");
}

TEST(TupleMatch, AnonymousPlaceholdersAreNumberedInPatternOrder) {
    EXPECT_EQ(matched("%i-%i", "12-34"), "{0:i=12, 1:i=34}");
    EXPECT_EQ(matched("%s/%(named)/%d", "a/b/7"), R"({0:as="a", 1:i=7, named:as="b"})");
}

TEST(TupleMatch, TypedPlaceholdersStoreStringsIntegersAndTuplesOrNothing) {
    EXPECT_EQ(matched("%(a:s) %(b:) %(port:i) %(t:t)", "x y 5000 x{a:i=1}"),
              R"({a:as="x", b:as="y", port:i=5000, t:t=x{a:i=1}})");
    // Any other type captures the text and stores nothing.
    EXPECT_EQ(matched("%(n:q)@%(host)", "abc@def"), R"({host:as="def"})");
    EXPECT_EQ(matched("%(n:q)@x", "abc@y"), "no match");
}

TEST(TupleMatch, PercentWithoutAPlaceholderIsAnOrdinaryCharacter) {
    EXPECT_EQ(matched("50%x", "50%x"), "{}");
    EXPECT_EQ(matched("%(open", "%(open"), "{}");
    EXPECT_EQ(matched("100%", "100%"), "{}");
    EXPECT_EQ(matched("%(open", "open"), "no match");
}

TEST(TupleMatch, EscapeTakesTheNextCharacterLiterallyInsideACaptureButNotAtItsStart) {
    EXPECT_EQ(matched("%(a):%(b)", "x\\:y:z"), R"({a:as="x:y", b:as="z"})");
    EXPECT_EQ(matched("%(a):%(b)", "x\\:y:z", 0), R"({a:as="x\\", b:as="y:z"})");
    EXPECT_EQ(matched("%(a) %(b)", "x^ y^^ z", '^'), R"({a:as="x y^", b:as="z"})");
    EXPECT_EQ(matched("%(a):%(b)", "\\:y"), R"({a:as="\\", b:as="y"})");  // first character: ordinary
    EXPECT_EQ(matched("%(a)", "x\\"), R"({a:as="x"})");                   // nothing follows: dropped
}

TEST(TupleMatch, ASpaceMatchesARunOfWhiteSpace) {
    EXPECT_EQ(matched("a b", "a   b"), "{}");
    EXPECT_EQ(matched("a b", "a \t\r\n b"), "{}");
    EXPECT_EQ(matched("a b", "ab"), "no match");
    EXPECT_EQ(matched("a ", "a"), "no match");
    // Two pattern spaces: the first takes exactly one, the second the rest of the run.
    EXPECT_EQ(matched("a  b", "a b"), "no match");
    EXPECT_EQ(matched("a  b", "a \t  b"), "{}");
    // A capture before a space stops at any white space.
    EXPECT_EQ(matched("%(a) %(b)", "x\t\ny"), R"({a:as="x", b:as="y"})");
}

TEST(TupleMatch, StreamFormsReadAndConsumeTheInput) {
    Tuple t;
    IBStream in("svc:main");
    EXPECT_TRUE(t.match("%(class):%(name)", in));
    EXPECT_TRUE(in.eof());
    EXPECT_EQ(str(t.to_string()), R"({class:as="svc", name:as="main"})");
    IBStream raw("x\\:y:z");
    EXPECT_TRUE(t.match("%(a):%(b)", raw, 0));
    EXPECT_EQ(t.get_astring(Symbol("a")), "x\\");
    IBStream longer("abc");
    EXPECT_FALSE(t.match("ab", longer));
}
