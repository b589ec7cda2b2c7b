#include "tarvik/Tuple.h"

#include <gtest/gtest.h>

#include <limits>
#include <set>
#include <sstream>
#include <string>

#include "TestSupport.h"

using namespace tarvik;
using tarvik::test::StdoutCapture;
using tarvik::test::str;

namespace {

// "name:kind" of every value, in chain order.
std::string layout(Tuple const& t) {
    std::string out;
    for (Tuple::ConstValueIterator it(t); it; ++it)
        out += (out.empty() ? "" : " ") + str(it.get_name().get_name()) + ":" + std::to_string(it.get_type());
    return out;
}

std::string text_of(Tuple const& t) {
    return str(t.to_string());
}

Tuple parse(char const* text) {
    Tuple t;
    EXPECT_TRUE(t.from_string(text)) << text;
    return t;
}

// The shared awkward values, and what only the text form carries: every byte and lone surrogates.
Tuple every_kind() {
    Tuple t = tarvik::test::awkward_kinds();
    t.add_astring("las", AString("q\"\\\n\r\t\0\x01\x7f\x80\xff end", 15));
    WChar const units[] = {0, '"', '\\', 0xD800, 'A'};
    t.add_string("ls", String(units, 5));
    return t;
}

}  // namespace

// --- values ---------------------------------------------------------------------------------------------

TEST(TupleValue, HeaderPacksKindFlagsAndNameAndACloneOwnsACopy) {
    Tuple t;
    AString held("ref");
    t.set_cref_astring("hdr", held);
    Tuple::Value* v = t.get_value("hdr");
    EXPECT_EQ(v->get_header(), T_ASTRING | 1u << 8 | 1u << 9 | Symbol("hdr").get_num() << 10);
    EXPECT_EQ(v->get_symbol(), Symbol("hdr"));
    EXPECT_EQ(v->get_pvalue(), &held);  // the referenced object, not the inline place
    EXPECT_EQ(v->is_astring(), &held);
    EXPECT_EQ(v->is_long(), nullptr);
    Tuple::Value* copy = v->clone();
    held = "changed";
    EXPECT_EQ(copy->get_header(), T_ASTRING | Symbol("hdr").get_num() << 10);
    EXPECT_EQ(*copy->is_astring(), "ref");
    copy->destroy();
    Tuple::Value::free(copy);
}

// --- setting and reading --------------------------------------------------------------------------------

TEST(Tuple, AttributesIterateInTextOrderOfTheirNames) {
    Tuple t;
    t.set_int("zeta", 1);
    t.set_double("alpha", 2);
    t.set_astring("mid", "m");
    t.set_bool("Mid", true);
    EXPECT_EQ(layout(t), "Mid:2 alpha:6 mid:7 zeta:3");
}

TEST(Tuple, SettingReplacesAnotherKindOrAReferenceWithAnOwnedValue) {
    Tuple t;
    int constant = 5, variable = 6;
    t.set_double("x", 1.5);
    t.set_cref_int("c", constant);
    t.set_ref_int("v", variable);
    EXPECT_EQ(t.set_int("x", 3), 3);
    t.set_int("c", 9);
    t.set_int("v", 10);
    EXPECT_EQ(layout(t), "c:3 v:3 x:3");
    EXPECT_EQ(t.get_double("x", -1), -1);
    EXPECT_EQ(constant + variable, 11);
    EXPECT_EQ(t.get_value("c")->get_header() & 0x3FFu, 3u);  // neither by reference nor const
    EXPECT_EQ(t.get_value("v")->get_header() & 0x3FFu, 3u);
    EXPECT_EQ(t.get_int("c", 0) + t.get_int("v", 0) + t.get_int("x", 0), 22);
}

TEST(Tuple, SettingWithoutAValueResetsToTheDefault) {
    Tuple t;
    t.set_int("n", 5);
    int& n = t.set_int("n");
    EXPECT_EQ(n, 0);
    EXPECT_EQ(&n, t.get_pint("n"));
    t.set_astring("s", "abc");
    EXPECT_EQ(t.set_astring("s"), "");
    t.set_list_int("l", ListInt{1});
    EXPECT_EQ(t.set_list_int("l").size(), 1u);  // a list of the kind is kept
    t.set_int("l", 3);
    EXPECT_EQ(t.set_list_int("l").size(), 0u);
}

TEST(Tuple, AddAppendsToAListOfTheKind) {
    Tuple t;
    t.add_int("l", 1);
    int* second = &t.add_int("l", 2);
    EXPECT_EQ(second, &t.get_plist_int("l")->back());
    EXPECT_EQ(t.get_list_int("l"), (ListInt{1, 2}));
    t.set_int("n", 5);
    t.add_int("n", 7);
    EXPECT_EQ(t.get_list_int("n"), (ListInt{7}));
    ListInt mine{1, 2};
    t.set_cref_list_int("c", mine);
    t.add_int("c", 3);
    EXPECT_EQ(t.get_list_int("c"), (ListInt{1, 2, 3}));
    EXPECT_EQ(mine, (ListInt{1, 2}));
    EXPECT_EQ(t.add_array_int("a", ArrayInt{4, 5}), (ArrayInt{4, 5}));
    // The attribute's own value, added to it: the single value is freed when the list replaces it.
    t.set_astring("s", "a text long enough to live on the heap");
    t.add_astring("s", t.get_astring("s"));
    EXPECT_EQ(t.get_list_astring("s"), (ListAString{"a text long enough to live on the heap"}));
}

TEST(Tuple, MissingOrOtherKindReadsAsDefaultOrSharedEmpty) {
    Tuple t;
    t.set_long("l64", 1);
    EXPECT_EQ(t.get_int("l64", 7), 7);
    EXPECT_FALSE(t.is_set("l64", T_INT));
    EXPECT_EQ(&t.get_list_int("l64"), TypeManager::get(T_LIST_INT)->get_empty());
    EXPECT_EQ(t.get_plist_int("none"), nullptr);
    EXPECT_EQ(&t.get_astring("none"), TypeManager::get(T_ASTRING)->get_empty());
    EXPECT_STREQ(t.get_astring("l64", "def"), "def");
    EXPECT_EQ(t.get_ptuple("none"), nullptr);
}

TEST(Tuple, DuplicateNameAddedBelowTheSetterIsLoggedAndStandsFirst) {
    Tuple t;
    t.set_int("dup", 1);
    StdoutCapture capture;
    *t.add_value("dup", T_LONG)->is_long() = 2;
    EXPECT_EQ(capture.errors("ALLREADY ATT n=dup t=3 r=false", "TUPLE"), 1) << capture.text();
    EXPECT_EQ(layout(t), "dup:4 dup:3");
    EXPECT_EQ(t.get_int("dup", -1), -1);  // only the first value of a name is looked at
    t.clear(Symbol("dup"));
    EXPECT_TRUE(t.is_empty());
}

TEST(Tuple, NameOrKindTheHeaderCannotHoldIsRefusedAndTheTupleUnchanged) {
    // A symbol that names nothing is refused like one whose number does not fit in 22 bits.
    Tuple t;
    t.set_int("keep", 1);
    Symbol unknown(0xFFFFFFFFu);
    StdoutCapture capture;
    EXPECT_EQ(t.set_int(unknown, 5), 5);
    EXPECT_EQ(t.add_value(unknown, T_INT), nullptr);
    EXPECT_EQ(t.set_value("x", static_cast<Types>(33), &t, false, false), nullptr);
    EXPECT_EQ(t.add_value("x", static_cast<Types>(60)), nullptr);
    EXPECT_EQ(capture.errors("ATT NAME IS NOT A SYMBOL", "TUPLE"), 2) << capture.text();
    EXPECT_EQ(capture.errors("INVALID TYPE 33", "TYPEMANAGER"), 1) << capture.text();
    EXPECT_EQ(capture.errors("INVALID TYPE 60", "TUPLE"), 1) << capture.text();
    EXPECT_EQ(layout(t), "keep:3");
}

TEST(Tuple, ReferenceUsesTheCallersObjectAndNeverFreesIt) {
    Tuple t;
    int first = 1, second = 9;
    EXPECT_EQ(&t.set_ref_int("x", first), &first);
    first = 4;
    EXPECT_EQ(t.get_int("x", 0), 4);
    *t.get_pint("x") = 6;
    EXPECT_EQ(first, 6);
    t.set_ref_int("x", second);  // the same kind by reference: kept, the content assigned into `first`
    EXPECT_EQ(first, 9);
    EXPECT_EQ(t.get_value("x")->get_pvalue(), &first);
    AString text("kept");
    ListAString list{"a"};
    Tuple inner("inner");
    inner.set_int("n", 1);
    {
        Tuple refs;
        refs.set_ref_astring("s", text);
        refs.set_cref_list_astring("l", list);
        refs.set_ref_tuple("t", inner);
        refs.set_int("s", 1);
        refs.clear(Symbol("l"));
    }
    EXPECT_EQ(text, "kept");
    EXPECT_EQ(list.size(), 1u);
    EXPECT_EQ(inner.get_int("n", 0), 1);
}

// --- whole-tuple operations -----------------------------------------------------------------------------

TEST(TupleWhole, AssignKeepsTheClassNameWhileCopyingAndSpliceTakeIt) {
    Tuple source("src");
    int held = 3;
    source.set_cref_int("r", held);
    Tuple target = parse("dst{old:i=1}");
    target.assign(source);
    EXPECT_EQ(text_of(target), "dst{r:i=3}");
    EXPECT_FALSE(target.get_value("r")->get_is_ref());
    target = source;
    EXPECT_EQ(text_of(target), "src{r:i=3}");
    Tuple copy(source);
    *copy.get_pint("r") = 4;
    EXPECT_EQ(held, 3);
    EXPECT_TRUE(copy.is_a("src"));
    target = parse("dst{old:i=1}");
    target.splice(copy);  // takes the chain and empties the other
    EXPECT_EQ(text_of(target), "src{r:i=4}");
    EXPECT_EQ(text_of(copy), "{}");
}

TEST(TupleWhole, ATupleCanTakeOverOneNestedInIt) {
    Tuple t = parse("outer{in:t=in{deeper:t=deeper{n:i=1}, s:as=\"x\"}}");
    t.set_tuple("in", t.get_tuple("in").get_tuple("deeper"));  // kept, and assigned from inside itself
    EXPECT_EQ(text_of(t), "outer{in:t=deeper{n:i=1}}");
    Tuple copy(t);
    copy = copy.get_tuple("in");
    EXPECT_EQ(text_of(copy), "deeper{n:i=1}");
    t.splice(*t.get_ptuple("in"));
    EXPECT_EQ(text_of(t), "deeper{n:i=1}");
}

TEST(TupleWhole, MergeReplacesEveryValueOfTheMergedNamesOrOfTheListedOnes) {
    Tuple t = parse("{a:i=1, b:i=2, c:i=3}");
    t.add_value("b", T_DOUBLE);
    Tuple other = parse("{d:i=4}");
    *other.add_value("b", T_INT)->is_int() = 20;
    *other.add_value("b", T_INT)->is_int() = 21;
    t.merge(other);
    EXPECT_EQ(text_of(t), "{a:i=1, b:i=21, b:i=20, c:i=3, d:i=4}");
    other = parse("{a:i=10, b:i=20, c:i=30}");
    Tuple only = parse("{a:i=1, b:i=2}"), except(only);
    only.merge_only(other, ListSymbol{Symbol("b"), Symbol("c")});
    except.merge_except(other, ListSymbol{Symbol("b")});
    EXPECT_EQ(text_of(only), "{a:i=1, b:i=20, c:i=30}");
    EXPECT_EQ(text_of(except), "{a:i=10, b:i=2, c:i=30}");
}

TEST(TupleWhole, DiffKeepAndClearRemoveValues) {
    Tuple t = parse("{kind:i=3, only:i=4, same:i=1, value:i=2}");
    t.diff(parse("{extra:i=6, kind:l=3, same:i=1, value:i=5}"));  // what the other holds equally
    EXPECT_EQ(text_of(t), "{kind:i=3, only:i=4, value:i=2}");
    t = parse("{a:i=1, b:i=1, c:i=1, d:i=1}");
    t.add_value("b", T_LONG);
    Tuple kept(t);
    kept.keep(ListSymbol{Symbol("b"), Symbol("d"), Symbol("zz")});
    EXPECT_EQ(layout(kept), "b:4 b:3 d:3");
    t.clear(ListSymbol{Symbol("a"), Symbol("b")});
    EXPECT_EQ(layout(t), "c:3 d:3");
}

TEST(TupleWhole, CompareOrdersByClassThenNameKindAndContent) {
    Tuple base = parse("m{n:i=5}");
    EXPECT_TRUE(base.equal(parse("m{n:i=5}")));
    EXPECT_EQ(base.compare(parse("z{a:i=0}")), -1);  // class names first
    EXPECT_EQ(base.compare(parse("m{o:i=0}")), -1);  // then names by text
    EXPECT_EQ(base.compare(parse("m{n:l=0}")), -1);  // then kind numbers
    EXPECT_EQ(base.compare(parse("m{n:i=4}")), 1);   // then content
    EXPECT_TRUE(base < parse("m{n:i=5, p:i=0}"));    // the one that runs out first is less
    EXPECT_TRUE(parse("m{n:i=5, p:i=0}") > base);
    EXPECT_TRUE(base != parse("m{}"));
}

// --- text form ------------------------------------------------------------------------------------------

TEST(TupleText, ValuesAreWrittenInTheirDocumentedForms) {
    Tuple t;
    t.set_bool("", true);
    t.set_astring("a", AString("q\"\\\n\t\x01\x7f\xc3", 8));
    t.set_blob("b", Blob("\x00\x01", 2, 2));
    t.set_double("d", -0.0);
    t.set_float("f", 0.1f);
    t.set_time_period("p", TimePeriod(0, -1, false));
    WChar const units[] = {0xE9, '"', 'x'};
    t.set_string("s", String(units, 3));
    t.set_time_date("t", TimeDate(2024, 2, 29, 13, 5, 9, 123456, false));
    t.set_symbol("two words", Symbol("x:y"));
    t.add_astring("z", "a");
    t.add_astring("z", "b");
    EXPECT_EQ(
        text_of(t),
        "{\"\":b=true, a:as=\"q\\\"\\\\\\n\\t\\x01\\x7F\xc3\", b:bb=<AAE=>, d:d=-0, f:f=0.1, p:tp=-0.000001, "
        "s:s=\"\\u00E9\\u0022x\", t:td=2024-02-29T13:05:09.123456, \"two words\":ss=\"x:y\", z:las=[\"a\", "
        "\"b\"]}");
    t = parse("order{id:i=7, tags:las=[\"a\", \"b\"]}");
    EXPECT_EQ(parse(" order {\n tags : las = [ \"a\" , \"b\" ] , id:i= 7 } "),
              t);  // white space between tokens
}

TEST(TupleText, EveryKindReadsBackIntoAnEqualTuple) {
    Tuple t = every_kind();
    std::set<int> kinds;
    for (Tuple::ConstValueIterator it(t); it.more(); it.next()) kinds.insert(it.get_type());
    EXPECT_EQ(kinds.size(), 34u);

    std::string text = text_of(t);
    EXPECT_EQ(text.find('\n'), std::string::npos) << text;   // one line, long blobs included
    EXPECT_NE(text.find(", @"), std::string::npos) << text;  // the date beyond the calendar form
    Tuple back = parse("previous{previous:i=1}");
    StdoutCapture capture;
    ASSERT_TRUE(back.from_string(text.c_str())) << capture.text();
    EXPECT_EQ(capture.text(), "");
    EXPECT_EQ(back, t);
    EXPECT_EQ(text_of(back), text);  // also tells -0 from 0 and nan from numbers, which compare equal
}

TEST(TupleText, NestingUpTo128IsRead) {
    auto nested = [](int depth) {
        std::string text;
        for (int i = 1; i < depth; ++i) text += "{a:t=";
        return text + "{}" + std::string(depth - 1, '}');
    };
    Tuple t;
    EXPECT_TRUE(t.from_string(nested(128).c_str()));
    StdoutCapture capture;
    EXPECT_FALSE(t.from_string(nested(129).c_str()));
    EXPECT_EQ(capture.records_with("||TUPLE TEXT: NESTING TOO DEEP AT 640 IN '"), 1) << capture.text();
    EXPECT_EQ(t.to_string().length(), nested(128).length());
}

TEST(TupleTextDamage, MalformedTextIsRefusedWithItsErrorAndPositionAndTheTupleKept) {
    struct {
        char const* text;
        char const* error;
        int position;
    } const cases[] = {
        {"{a:li=[1,", "VALUE EXPECTED", 9},  // truncated
        {"{a:as=\"ab", "UNTERMINATED STRING", 9},
        {"{a:zz=1}", "UNKNOWN KIND CODE", 6},
        {"{a:i=12x}", "BAD NUMBER", 8},
        {"{a:i=2147483648}", "BAD NUMBER", 15},
        {"{a:as=\"\\q\"}", "BAD ESCAPE", 9},
        {"{a:as=\"\\u0041\"}", "BAD ESCAPE", 9},  // wide escape in a byte string
        {"{a:bb=<A@==>}", "BAD BASE64", 12},
        {"{a:td=2024-02-30}", "BAD TIME DATE", 16},
        {"{a:td=2024-02-29T13:05:09.5}", "BAD TIME DATE", 27},  // fraction not six digits
        {"a:i=1}", "EXPECTED '{'", 1},
        {"{a:i=1", "EXPECTED '}'", 6},
        {"{} {}", "TEXT AFTER THE TUPLE", 3},
        {"", "NAME EXPECTED", 0},
    };
    for (auto const& c : cases) {
        Tuple t("kept");
        t.set_int("k", 1);
        StdoutCapture capture;
        EXPECT_FALSE(t.from_string(c.text)) << c.text;
        std::string shown;  // the record doubles backslashes
        for (char const* p = c.text; *p; ++p) shown += *p == '\\' ? "\\\\" : std::string(1, *p);
        std::string message = "TUPLE TEXT: " + std::string(c.error) + " AT " + std::to_string(c.position) +
                              " IN '" + shown + "'";
        EXPECT_EQ(capture.errors(message, "TUPLE"), 1) << capture.text();
        EXPECT_EQ(text_of(t), "kept{k:i=1}");
    }
}

// --- format ---------------------------------------------------------------------------------------------

TEST(TupleFormat, PlaceholdersComeFromTheUnnamedListOfStrings) {
    Tuple t;
    t.add_astring("", "x");
    t.add_astring("", "y");
    EXPECT_EQ(t.format("%1 then %0"), "y then x");
    Tuple without;
    without.set_astring("", "not a list");
    EXPECT_EQ(without.format("a %0 b %1"), "a %0 b %1");
}
