#include "tarvik/Array.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "TestSupport.h"
#include "tarvik/AString.h"

using tarvik::Array;
using tarvik::AString;
using tarvik::test::Tracked;

namespace {

struct Unordered {
    int x;
};

std::vector<int> values(Array<int> const& a) { return {a.begin(), a.end()}; }
std::vector<int> values(Array<Tracked> const& a) {
    std::vector<int> out;
    for (Tracked const& t : a) out.push_back(t.value);
    return out;
}

}  // namespace

TEST(Array, CapacityDoublesFromTwoWhileReserveAndResizeAreExact) {
    Array<int> a;
    std::vector<unsigned int> seen{a.capacity()};
    for (int i = 0; i < 9; ++i) seen.push_back((a.push_back(i), a.capacity()));
    EXPECT_EQ(seen, (std::vector<unsigned int>{0, 2, 2, 4, 4, 8, 8, 8, 8, 16}));

    Array<int> b;
    b.reserve(5);
    b.reserve(3);  // never shrinks
    EXPECT_EQ(b.capacity(), 5u);
    for (int i = 0; i < 6; ++i) b.push_back(i + 1);
    EXPECT_EQ(b.capacity(), 10u);  // doubling goes on from the reserved size
    b.resize(13);
    EXPECT_EQ(b.capacity(), 13u);
    EXPECT_EQ(values(b), (std::vector<int>{1, 2, 3, 4, 5, 6, 0, 0, 0, 0, 0, 0, 0}));
    b.resize(2);
    EXPECT_EQ(values(b), (std::vector<int>{1, 2}));
    EXPECT_EQ(b.capacity(), 13u);
}

TEST(Array, InsertAndEraseShiftTheOtherElements) {
    Array<int> a{1, 2, 3, 4};
    auto it = a.insert(a.begin() + 2, 9);
    EXPECT_EQ(it - a.begin(), 2);
    a.insert(a.end(), 5);
    a.insert(a.begin(), 0);
    EXPECT_EQ(values(a), (std::vector<int>{0, 1, 2, 9, 3, 4, 5}));
    EXPECT_EQ(*a.erase(a.begin() + 3), 3);
    EXPECT_EQ(*a.erase(a.begin() + 1, a.begin() + 3), 3);
    it = a.erase(a.end() - 1);
    EXPECT_EQ(it, a.end());
    EXPECT_EQ(*a.erase(a.begin() + 1, a.begin() + 1), 3);  // empty range
    EXPECT_EQ(values(a), (std::vector<int>{0, 3, 4}));
}

TEST(Array, ClassElementsAreDestroyedExactlyOnce) {
    ASSERT_EQ(Tracked::live, 0);
    {
        Array<Tracked> a;
        for (int i = 0; i < 5; ++i) a.push_back(Tracked(i));  // grows twice, relocating
        a.insert(a.begin() + 2, Tracked(20));
        a.insert(a.begin(), Tracked(10));
        EXPECT_EQ(values(a), (std::vector<int>{10, 0, 1, 20, 2, 3, 4}));
        EXPECT_EQ(Tracked::live, 7);
        a.erase(a.begin() + 3);
        a.erase(a.begin(), a.begin() + 2);
        a.pop_back();
        EXPECT_EQ(values(a), (std::vector<int>{1, 2, 3}));
        EXPECT_EQ(a[1].text, "2");
        EXPECT_EQ(Tracked::live, 3);

        Array<Tracked> copy(a);
        a.resize(6);
        EXPECT_EQ(a[5].value, -1);
        EXPECT_EQ(Tracked::live, 9);
        a.resize(1);
        copy = a;
        EXPECT_EQ(Tracked::live, 2);
        Array<Tracked> moved(static_cast<Array<Tracked>&&>(copy));
        a.clear();
        EXPECT_EQ(Tracked::live, 1);
        EXPECT_EQ(moved[0].text, "1");
    }
    EXPECT_EQ(Tracked::live, 0);
}

TEST(Array, AddingAnOwnElementSurvivesGrowth) {
    Array<AString> s{"first", "second"};
    ASSERT_EQ(s.capacity(), 2u);
    s.push_back(s[0]);
    s.push_back(s[2]);
    s.push_back(s.back());  // full again: 4 of 4
    s.insert(s.begin(), s[1]);
    ASSERT_EQ(s.size(), 6u);
    for (unsigned int i : {1u, 3u, 4u, 5u}) EXPECT_EQ(s[i], "first") << i;
    EXPECT_EQ(s[0], "second");
    EXPECT_EQ(s[2], "second");
}

TEST(Array, CopiesAreDeepAndMovesEmptyTheSource) {
    Array<Array<int>> a{{1, 2}, {3}};
    Array<Array<int>> b(a);
    b[0].push_back(9);
    EXPECT_EQ(a[0].size(), 2u);
    Array<Array<int>>& same = b;
    b = same;  // self-assignment keeps the content
    EXPECT_TRUE(a < b);
    b = a;
    EXPECT_TRUE(b == a);

    Array<Array<int>> c(static_cast<Array<Array<int>>&&>(b));
    EXPECT_TRUE(b.is_empty());
    EXPECT_EQ(b.capacity(), 0u);
    EXPECT_EQ(c[1][0], 3);
    b.push_back(Array<int>{4});  // a moved-from array is usable
    EXPECT_EQ(b[0][0], 4);
}

TEST(Array, ComparesElementByElementWithShorterPrefixLess) {
    Array<int> a{1, 2}, b{1, 2, 3}, c{1, 3};
    EXPECT_LT(a.compare(b), 0);
    EXPECT_GT(b.compare(a), 0);
    EXPECT_GT(c.compare(b), 0);
    EXPECT_TRUE(Array<int>() < a);
    EXPECT_TRUE((Array<AString>{"abc", "b"} < Array<AString>{"abd"}));

    Array<Unordered> u1, u2;  // no order: equal when the sizes are
    u1.push_back(Unordered{1});
    u2.push_back(Unordered{2});
    EXPECT_TRUE(u1 == u2);
    u2.push_back(Unordered{3});
    EXPECT_TRUE(u1 < u2);
}
