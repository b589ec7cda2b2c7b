#include "tarvik/Tuple.h"

#include <gtest/gtest.h>

#include <string>

#include "tarvik/IOBStream.h"

using namespace tarvik;

namespace {

std::string text(Tuple const& t, char const* name) {
    return t.get_astring(Symbol(name), "<unset>");
}

}  // namespace

TEST(TupleMatch, TheLastPlaceholderTakesTheRestOfTheInput) {
    Tuple t;
    EXPECT_TRUE(t.match("TCPIP:%(address)", "TCPIP:127.0.0.1:5000"));
    EXPECT_EQ(text(t, "address"), "127.0.0.1:5000");
    EXPECT_TRUE(t.match("%(class):%(name)", "svc:main:extra"));
    EXPECT_EQ(text(t, "class"), "svc");
    EXPECT_EQ(text(t, "name"), "main:extra");
}

TEST(TupleMatch, CaptureStopsAtTheFirstOccurrenceOfTheNextCharacter) {
    Tuple t;
    EXPECT_TRUE(t.match("SHM:%(address):%(size)", "SHM:name:65536"));
    EXPECT_EQ(text(t, "address"), "name");
    EXPECT_EQ(text(t, "size"), "65536");
    Tuple whole;
    EXPECT_TRUE(whole.match("SHM:%(address)", "SHM:name:65536"));
    EXPECT_EQ(text(whole, "address"), "name:65536");
    EXPECT_FALSE(whole.is_set(Symbol("size")));
    Tuple high;  // bytes from 128 up stop a capture like any other
    EXPECT_TRUE(high.match("%(a)\xE9%(b)", "x\xE9y"));
    EXPECT_EQ(text(high, "a"), "x");
}

TEST(TupleMatch, AFailedLongerPatternLeavesTheTupleForTheShorterOne) {
    Tuple t("spec");
    t.set_int(Symbol("keep"), 3);
    Tuple before(t);
    EXPECT_FALSE(t.match("%(class):%(name)@%(address)", "svc:main"));
    EXPECT_TRUE(t.equal(before));
    EXPECT_TRUE(t.match("%(class):%(name)", "svc:main"));
    EXPECT_EQ(text(t, "name"), "main");
    Tuple full;
    EXPECT_TRUE(full.match("%(class):%(name)@%(address)", "svc:main@TCPIP:host:5000"));
    EXPECT_EQ(text(full, "class"), "svc");
    EXPECT_EQ(text(full, "name"), "main");
    EXPECT_EQ(text(full, "address"), "TCPIP:host:5000");
}

TEST(TupleMatch, TheWholeTextMustFitTheWholePattern) {
    Tuple t;
    t.set_astring(Symbol("address"), "old");
    Tuple before(t);
    EXPECT_FALSE(t.match("TCPIP:%(address)", "TCP"));       // pattern longer than the text
    EXPECT_FALSE(t.match("TCPIP:%(address)x", "TCPIP:a"));  // the capture ran to the end, "x" is missing
    EXPECT_FALSE(t.match("ab", "abc"));                     // text left over
    EXPECT_FALSE(t.match("", "x"));
    EXPECT_TRUE(t.equal(before));
    EXPECT_TRUE(t.match("", ""));
    EXPECT_TRUE(t.match("a:%(rest)", "a:"));
    EXPECT_EQ(text(t, "rest"), "");
}

TEST(TupleMatch, AnonymousPlaceholdersAreNumberedInPatternOrder) {
    Tuple t;
    EXPECT_TRUE(t.match("%i-%i", "12-34"));
    EXPECT_EQ(t.get_int(Symbol("0"), -1), 12);
    EXPECT_EQ(t.get_int(Symbol("1"), -1), 34);
    Tuple mixed;
    EXPECT_TRUE(mixed.match("%s/%(named)/%d", "a/b/7"));
    EXPECT_EQ(text(mixed, "0"), "a");
    EXPECT_EQ(text(mixed, "named"), "b");
    EXPECT_EQ(mixed.get_int(Symbol("1"), -1), 7);
    EXPECT_EQ(mixed.get_count(), 3u);
}

TEST(TupleMatch, TypedPlaceholdersStoreStringsIntegersAndTuplesOrNothing) {
    Tuple t;
    EXPECT_TRUE(t.match("%(a:s) %(b:) %(port:i) %(t:t)", "x y 5000 x{a:i=1}"));
    EXPECT_EQ(text(t, "a"), "x");
    EXPECT_EQ(text(t, "b"), "y");
    EXPECT_EQ(t.get_int(Symbol("port"), -1), 5000);
    Tuple const* nested = t.get_ptuple(Symbol("t"));
    ASSERT_NE(nested, nullptr);
    EXPECT_EQ(nested->get_class_name(), "x");
    EXPECT_EQ(nested->get_int(Symbol("a"), -1), 1);
    // Any other type captures the text and stores nothing.
    EXPECT_TRUE(t.match("%(n:q)@%(host)", "abc@def"));
    EXPECT_FALSE(t.is_set(Symbol("n")));
    EXPECT_EQ(text(t, "host"), "def");
    EXPECT_FALSE(t.match("%(n:q)@x", "abc@y"));
}

TEST(TupleMatch, PercentWithoutAPlaceholderIsAnOrdinaryCharacter) {
    Tuple t;
    EXPECT_TRUE(t.match("50%x", "50%x"));
    EXPECT_TRUE(t.match("%(open", "%(open"));
    EXPECT_TRUE(t.match("100%", "100%"));
    EXPECT_FALSE(t.match("%(open", "open"));
    EXPECT_TRUE(t.is_empty());
}

TEST(TupleMatch, EscapeTakesTheNextCharacterLiterallyInsideACaptureButNotAtItsStart) {
    Tuple t;
    EXPECT_TRUE(t.match("%(a):%(b)", "x\\:y:z"));
    EXPECT_EQ(text(t, "a"), "x:y");
    EXPECT_EQ(text(t, "b"), "z");
    EXPECT_TRUE(t.match("%(a):%(b)", "x\\:y:z", 0));
    EXPECT_EQ(text(t, "a"), "x\\");
    EXPECT_EQ(text(t, "b"), "y:z");
    EXPECT_TRUE(t.match("%(a) %(b)", "x^ y^^ z", '^'));
    EXPECT_EQ(text(t, "a"), "x y^");
    EXPECT_EQ(text(t, "b"), "z");
    EXPECT_TRUE(t.match("%(a):%(b)", "\\:y"));  // first character of a capture: ordinary
    EXPECT_EQ(text(t, "a"), "\\");
    EXPECT_EQ(text(t, "b"), "y");
    EXPECT_TRUE(t.match("%(a)", "x\\"));  // nothing follows: the escape is dropped
    EXPECT_EQ(text(t, "a"), "x");
}

TEST(TupleMatch, ASpaceMatchesARunOfWhiteSpace) {
    Tuple t;
    EXPECT_TRUE(t.match("a b", "a   b"));
    EXPECT_TRUE(t.match("a b", "a\tb"));
    EXPECT_TRUE(t.match("a b", "a \t\r\n b"));
    EXPECT_FALSE(t.match("a b", "ab"));
    EXPECT_FALSE(t.match("a ", "a"));
    // Two pattern spaces: the first takes exactly one, the second the rest of the run.
    EXPECT_FALSE(t.match("a  b", "a b"));
    EXPECT_TRUE(t.match("a  b", "a  b"));
    EXPECT_TRUE(t.match("a  b", "a \t  b"));
    // A capture before a space stops at any white space.
    EXPECT_TRUE(t.match("%(a) %(b)", "x\t\ny"));
    EXPECT_EQ(text(t, "a"), "x");
    EXPECT_EQ(text(t, "b"), "y");
}

TEST(TupleMatch, SuccessMergesIntoHeldAttributesAndKeepsTheClassName) {
    Tuple t("endpoint");
    t.set_int(Symbol("address"), 1);
    t.set_astring(Symbol("other"), "kept");
    EXPECT_TRUE(t.match("TCPIP:%(address)", "TCPIP:host:1"));
    EXPECT_EQ(t.get_class_name(), "endpoint");
    EXPECT_EQ(text(t, "address"), "host:1");
    EXPECT_EQ(text(t, "other"), "kept");
    EXPECT_EQ(t.get_count(), 2u);
}

TEST(TupleMatch, StreamFormsReadAndConsumeTheInput) {
    Tuple t;
    IBStream in("svc:main");
    EXPECT_TRUE(t.match("%(class):%(name)", in));
    EXPECT_TRUE(in.eof());
    EXPECT_EQ(text(t, "name"), "main");
    IBStream raw("x\\:y:z");
    EXPECT_TRUE(t.match("%(a):%(b)", raw, 0));
    EXPECT_EQ(text(t, "a"), "x\\");
    IBStream longer("abc");
    EXPECT_FALSE(t.match("ab", longer));
}
