#include "tarvik/TypeManager.h"

#include <gtest/gtest.h>

#include <limits>

#include <cstring>
#include <string>

#include "TestSupport.h"
#include "tarvik/Tuple.h"

using namespace tarvik;
using tarvik::test::StdoutCapture;

namespace {

struct Kind {
    Types type;
    char const* code;
    unsigned int size;
    bool plain, collection, record;
};

// Every kind with its number, code, payload size and flags, in registration order.
Kind const kKinds[] = {
    {T_BOOL, "b", sizeof(bool), true, false, false},
    {T_INT, "i", sizeof(int), true, false, false},
    {T_LONG, "l", sizeof(std::int64_t), true, false, false},
    {T_FLOAT, "f", sizeof(float), true, false, false},
    {T_DOUBLE, "d", sizeof(double), true, false, false},
    {T_ASTRING, "as", sizeof(AString), false, false, false},
    {T_STRING, "s", sizeof(String), false, false, false},
    {T_STRINGBUFFER, "sb", sizeof(StringBuffer), false, false, false},
    {T_BLOB, "bb", sizeof(Blob), false, false, false},
    {T_TIME_PERIOD, "tp", sizeof(TimePeriod), true, false, false},
    {T_TIME_DATE, "td", sizeof(TimeDate), true, false, false},
    {T_ARRAY_INT, "ai", sizeof(ArrayInt), true, true, false},
    {T_ARRAY_LONG, "al", sizeof(ArrayLong), true, true, false},
    {T_ARRAY_FLOAT, "af", sizeof(ArrayFloat), true, true, false},
    {T_ARRAY_DOUBLE, "ad", sizeof(ArrayDouble), true, true, false},
    {T_SYMBOL, "ss", sizeof(Symbol), false, false, false},
    {T_TUPLE, "t", sizeof(Tuple), false, false, true},
    {T_LIST_BOOL, "lbo", sizeof(ListBool), true, true, false},
    {T_LIST_INT, "li", sizeof(ListInt), true, true, false},
    {T_LIST_LONG, "ll", sizeof(ListLong), true, true, false},
    {T_LIST_FLOAT, "lf", sizeof(ListFloat), true, true, false},
    {T_LIST_DOUBLE, "ld", sizeof(ListDouble), true, true, false},
    {T_LIST_ASTRING, "las", sizeof(ListAString), false, true, false},
    {T_LIST_STRING, "ls", sizeof(ListString), false, true, false},
    {T_LIST_STRINGBUFFER, "lsb", sizeof(ListStringBuffer), false, true, false},
    {T_LIST_TIME_PERIOD, "ltp", sizeof(ListTimePeriod), true, true, false},
    {T_LIST_TIME_DATE, "ltd", sizeof(ListTimeDate), true, true, false},
    {T_LIST_ARRAY_INT, "lai", sizeof(ListArrayInt), true, true, false},
    {T_LIST_ARRAY_LONG, "lal", sizeof(ListArrayLong), true, true, false},
    {T_LIST_ARRAY_FLOAT, "laf", sizeof(ListArrayFloat), true, true, false},
    {T_LIST_ARRAY_DOUBLE, "lad", sizeof(ListArrayDouble), true, true, false},
    {T_LIST_BLOB, "lb", sizeof(ListBlob), false, true, false},
    {T_LIST_SYMBOL, "lss", sizeof(ListSymbol), false, true, false},
    {T_LIST_TUPLE, "lt", sizeof(ListTuple), false, true, false},
};

// The numbers that carry no kind.
bool unassigned(int n) { return n < 2 || (n >= 32 && n <= 40) || (n >= 43 && n <= 46) || n == 49; }

}  // namespace

TEST(TypeManager, EveryKindHasItsNumberCodeSizeAndFlagsAndAllListsThemInRegistrationOrder) {
    static_assert(std::size(kKinds) == 34);
    unsigned int count = 0;
    TypeManager const* const* all = TypeManager::all(count);
    ASSERT_EQ(count, std::size(kKinds));
    for (unsigned int i = 0; i < count; ++i) {
        Kind const& k = kKinds[i];
        SCOPED_TRACE(k.code);
        TypeManager const* m = TypeManager::get(k.type);
        ASSERT_NE(m, nullptr);
        EXPECT_EQ(all[i], m);
        EXPECT_EQ(m->get_type(), k.type);
        EXPECT_STREQ(m->get_code(), k.code);
        EXPECT_EQ(m->get_size(), k.size);
        EXPECT_EQ(m->is_plain(), k.plain);
        EXPECT_EQ(m->is_collection(), k.collection);
        EXPECT_EQ(m->is_record(), k.record);
        EXPECT_EQ(TypeManager::get(k.code), m);
        EXPECT_EQ(TypeManager::find(k.type), m);
    }
}

TEST(TypeManager, UnassignedNumbersGiveNullAndOnlyGetLogsThem) {
    int slots = 0;
    for (int n = 0; n < T_LAST_TYPE_NUM; ++n) {
        if (!unassigned(n)) continue;
        ++slots;
        {
            StdoutCapture capture;
            EXPECT_EQ(TypeManager::find(n), nullptr);
            EXPECT_EQ(capture.text(), "") << n;
        }
        StdoutCapture capture;
        EXPECT_EQ(TypeManager::get(n), nullptr);
        EXPECT_EQ(capture.records_with("\tERR|TVK|TYPEMANAGER|"), 1) << capture.text();
        EXPECT_TRUE(capture.text().ends_with("||INVALID TYPE " + std::to_string(n) + "\n")) << capture.text();
    }
    EXPECT_EQ(slots, T_LAST_TYPE_NUM - 34);
    EXPECT_EQ(TypeManager::find(-1), nullptr);
    EXPECT_EQ(TypeManager::find(T_LAST_TYPE_NUM), nullptr);
}

TEST(TypeManager, CodesAreMatchedWhole) {
    EXPECT_EQ(TypeManager::get("lb")->get_type(), T_LIST_BLOB);
    EXPECT_EQ(TypeManager::get("lbo")->get_type(), T_LIST_BOOL);
    StdoutCapture capture;
    for (char const* code : {"", "lbox", "l b", "LB", "x", "a"}) EXPECT_EQ(TypeManager::get(code), nullptr) << code;
    EXPECT_EQ(TypeManager::get(static_cast<char const*>(nullptr)), nullptr);
    EXPECT_EQ(capture.text(), "");
}

TEST(TypeManager, CodeBucketIsTheWeightedSumModulo50) {
    EXPECT_EQ(TypeManager::code_bucket(""), 0u);
    EXPECT_EQ(TypeManager::code_bucket("b"), 48u);  // 98
    EXPECT_EQ(TypeManager::code_bucket("lb"), 4u);  // 108 + 98 * 127 = 12554
    EXPECT_EQ(TypeManager::code_bucket("lbo"), 23u);  // 12554 + 111 * 16129 = 1802873
    EXPECT_EQ(TypeManager::code_bucket("\x7f"), 0u);  // 127 % 127
    EXPECT_EQ(TypeManager::code_bucket("\xff"), 45u);  // -1 % 127 = -1, as unsigned 4294967295
    EXPECT_EQ(TypeManager::code_bucket("abcdefgh"), 2u);  // the weight wraps past 127^4
}

// Each manager builds, copies, assigns, orders and destroys its payload in raw storage of its size.
TEST(TypeManager, ManagersBuildCopyAssignOrderAndDestroyTheirPayloadInRawStorage) {
    for (Kind const& k : kKinds) {
        SCOPED_TRACE(k.code);
        TypeManager const* m = TypeManager::get(k.type);
        alignas(16) unsigned char a[256];
        alignas(16) unsigned char b[256];
        ASSERT_LE(m->get_size(), sizeof a);
        std::memset(a, 0xA5, sizeof a);
        m->construct(a, nullptr);
        EXPECT_EQ(m->compare(a, m->get_empty()), 0);
        m->construct(b, a);
        EXPECT_EQ(m->compare(a, b), 0);
        m->assign(b, m->get_empty());
        m->assign(b, b);
        m->destroy(b);
        m->destroy(a);
    }
    // Content, not just empty payloads: a deep copy, then an order by element.
    TypeManager const* m = TypeManager::get(T_LIST_ASTRING);
    ListAString ab{"a", "b"}, ac{"a", "c"};
    alignas(ListAString) unsigned char place[sizeof(ListAString)];
    m->construct(place, &ab);
    auto& copy = *reinterpret_cast<ListAString*>(place);
    EXPECT_EQ(copy, ab);
    EXPECT_NE(&copy.front(), &ab.front());
    EXPECT_EQ(m->compare(place, &ac), -1);
    m->assign(place, &ac);
    EXPECT_EQ(m->compare(&ac, place), 0);
    EXPECT_EQ(m->compare(place, m->get_empty()), 1);
    m->destroy(place);
}

TEST(TypeManager, NotANumberIsEqualOnlyToItselfAndSortsLast) {
    double const nan = std::numeric_limits<double>::quiet_NaN();
    double const one = 1.0;
    TypeManager const* d = TypeManager::get(T_DOUBLE);
    EXPECT_EQ(d->compare(&nan, &nan), 0);
    EXPECT_EQ(d->compare(&nan, &one), 1);
    EXPECT_EQ(d->compare(&one, &nan), -1);
    ListDouble with_nan{1.0, nan}, with_one{1.0, 1.0};
    EXPECT_NE(with_nan, with_one);
    EXPECT_EQ(with_nan, (ListDouble{1.0, nan}));
}
