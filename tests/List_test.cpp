#include "tarvik/List.h"

#include <gtest/gtest.h>

#include <iterator>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "tarvik/AString.h"
#include "tarvik/Array.h"
#include "tarvik/Symbol.h"

using tarvik::Array;
using tarvik::AString;
using tarvik::List;
using tarvik::Symbol;
using tarvik::test::Tracked;

namespace {

// Ordered by key only, so that sorting shows whether equal keys keep their order.
struct Keyed {
    int key;
    int seq;
    bool operator<(Keyed const& o) const { return key < o.key; }
};

template <class T>
std::vector<T> forwards(List<T> const& l) {
    return {l.begin(), l.end()};
}
template <class T>
std::vector<T> backwards(List<T> const& l) {
    std::vector<T> out;
    for (auto it = l.end(); it != l.begin();) out.push_back(*--it);
    return out;
}
std::vector<int> values(List<Tracked> const& l) {
    std::vector<int> out;
    for (Tracked const& t : l) out.push_back(t.value);
    return out;
}

}  // namespace

TEST(List, AddsAtBothEndsAndBeforeAPositionAndEraseReturnsTheNext) {
    List<int> l;
    EXPECT_EQ(l.begin(), l.end());
    int& two = l.push_back(2);
    l.push_front(1);
    l.push_back(4);
    l.emplace_front() = 0;
    EXPECT_EQ(*l.insert(l.find(4), 3), 3);
    l.insert(l.end(), 5);
    EXPECT_EQ(&two, &*std::next(l.begin(), 2));
    EXPECT_EQ(forwards(l), (std::vector<int>{0, 1, 2, 3, 4, 5}));
    EXPECT_EQ(backwards(l), (std::vector<int>{5, 4, 3, 2, 1, 0}));

    EXPECT_EQ(*l.erase(l.find(3)), 4);
    EXPECT_EQ(l.erase(l.find(5)), l.end());
    EXPECT_EQ(l.erase(l.end()), l.end());
    l.pop_front();
    l.pop_back();
    EXPECT_EQ(forwards(l), (std::vector<int>{1, 2}));
    EXPECT_EQ(l.find(3), l.end());
    l.pop_back();
    l.pop_back();
    EXPECT_TRUE(l.is_empty());
    l.push_back(6);  // reuses a released node
    EXPECT_EQ(backwards(l), (std::vector<int>{6}));
}

TEST(List, ElementsNeverMoveWhileOthersComeAndGo) {
    List<AString> l;
    AString& kept = l.push_back("kept");
    std::vector<AString*> others;
    for (int i = 0; i < 600; ++i) others.push_back(&l.push_back(std::to_string(i).c_str()));
    for (int i = 0; i < 600; ++i) ASSERT_EQ(*others[i], std::to_string(i).c_str()) << i;
    for (auto it = ++l.begin(); it != l.end();) it = l.erase(it);
    for (int i = 0; i < 600; ++i) l.push_front("x");
    EXPECT_EQ(&l.back(), &kept);
    EXPECT_EQ(kept, "kept");
}

TEST(List, ReservedNodesComeFromOneBlockThatAMovedListKeepsWithItsReleasedNodes) {
    List<long long> a;
    a.reserve(8);
    std::vector<char const*> at;
    for (int i = 0; i < 6; ++i) at.push_back(reinterpret_cast<char const*>(&a.push_back(i)));
    std::ptrdiff_t const stride = at[1] - at[0];
    ASSERT_GT(stride, 0);
    for (int i = 1; i < 6; ++i) EXPECT_EQ(at[i] - at[i - 1], stride) << i;

    a.erase(a.begin());
    List<long long> b(static_cast<List<long long>&&>(a));
    // 5 elements and 3 nodes to spare (2 never used, 1 released): 3 more fit in the same block.
    for (int i = 6; i < 9; ++i) b.push_back(i);
    for (long long const& v : b) {
        auto offset = reinterpret_cast<char const*>(&v) - at[0];
        EXPECT_TRUE(offset >= 0 && offset < 8 * stride) << v;
    }
    EXPECT_EQ(b.size(), 8u);
    EXPECT_EQ(b.front(), 1);
    EXPECT_EQ(b.back(), 8);
}

TEST(List, AppendFromLinksElementsMadeInPlaceUntilTheFillerStops) {
    int next = 4;
    auto up_to_ten = [&next](int& out) { return next <= 10 ? (out = next++, true) : false; };
    List<int> l{1, 2, 3};
    l.erase(l.begin());  // a released node comes first in the pool
    EXPECT_EQ(l.append_from(3, up_to_ten), 3u);
    EXPECT_EQ(l.append_from(100, up_to_ten), 4u);  // from a fresh block, stopped early
    EXPECT_EQ(l.append_from(5, up_to_ten), 0u);
    EXPECT_EQ(l.size(), 9u);
    EXPECT_EQ(forwards(l), (std::vector<int>{2, 3, 4, 5, 6, 7, 8, 9, 10}));
    EXPECT_EQ(backwards(l), (std::vector<int>{10, 9, 8, 7, 6, 5, 4, 3, 2}));
    l.push_back(11);  // the nodes the filler did not take are still in the pool
    EXPECT_EQ(l.back(), 11);
    ASSERT_EQ(Tracked::live, 0);
    {
        List<Tracked> tracked;
        int made = 0;
        tracked.append_from(3, [&made](Tracked& t) { return ++made < 3 ? (t.value = made, true) : false; });
        EXPECT_EQ(values(tracked), (std::vector<int>{1, 2}));
        EXPECT_EQ(Tracked::live, 2);  // the refused element was destroyed again
    }
    EXPECT_EQ(Tracked::live, 0);
    Array<int> array;
    array.push_back(1);
    next = 4;
    EXPECT_EQ(array.append_from(10, up_to_ten), 7u);
    EXPECT_EQ(std::vector<int>(array.begin(), array.end()), (std::vector<int>{1, 4, 5, 6, 7, 8, 9, 10}));
}

TEST(List, SpliceMovesEveryElementAndLeavesTheOtherEmptyAndUsable) {
    ASSERT_EQ(Tracked::live, 0);
    {
        List<Tracked> a;
        a.push_back(Tracked(1));
        Tracked* moved;
        {
            List<Tracked> b;
            for (int i = 2; i <= 6; ++i) b.push_back(Tracked(i));
            b.pop_front();  // leaves a free node behind, which travels too
            moved = &b.back();
            a.splice(b);
            EXPECT_EQ(Tracked::live, 5);  // nothing copied or destroyed
            EXPECT_TRUE(b.is_empty());
            b.push_back(Tracked(7));
            b.splice(b);
            EXPECT_EQ(b.size(), 1u);
        }  // b dies; a owns the spliced nodes
        EXPECT_EQ(&a.back(), moved);
        EXPECT_EQ(values(a), (std::vector<int>{1, 3, 4, 5, 6}));

        List<Tracked> other;
        a.splice(other);
        other.splice(a);
        EXPECT_EQ(other.size(), 5u);
        EXPECT_TRUE(a.is_empty());
        for (int i = 0; i < 10; ++i) other.push_back(Tracked(i));
        other.erase(other.begin());
        EXPECT_EQ(Tracked::live, 14);
    }
    EXPECT_EQ(Tracked::live, 0);
}

TEST(List, CopiesAndMovesDestroyEveryElementExactlyOnce) {
    ASSERT_EQ(Tracked::live, 0);
    {
        List<Tracked> l;
        for (int i = 0; i < 6; ++i) l.push_back(Tracked(i));
        List<Tracked> copy(l);
        copy = l;
        List<Tracked> moved(static_cast<List<Tracked>&&>(copy));
        EXPECT_TRUE(copy.is_empty());
        l.clear();
        l.emplace_back();
        EXPECT_EQ(Tracked::live, 7);
        l = static_cast<List<Tracked>&&>(moved);
        EXPECT_EQ(Tracked::live, 6);
        EXPECT_EQ(values(l), (std::vector<int>{0, 1, 2, 3, 4, 5}));
    }
    EXPECT_EQ(Tracked::live, 0);
}

TEST(List, SortIsStableAndRelinksTheNodes) {
    List<Keyed> l;
    for (int i = 0; i < 101; ++i) l.push_back(Keyed{(i * 7) % 5, i});
    Keyed const* first = &l.front();  // {0, 0}
    l.sort();
    Keyed prev{-1, -1};
    for (Keyed const& k : l) {
        ASSERT_LE(prev.key, k.key);
        if (prev.key == k.key) {
            EXPECT_LT(prev.seq, k.seq) << "key " << k.key;
        }
        prev = k;
    }
    EXPECT_EQ(&l.front(), first);
    EXPECT_EQ(l.size(), 101u);
}

TEST(List, SortAndFindUseTheAllocatorsComparator) {
    List<AString> s{"pear", "apple", "Apple", "fig", "apples"};
    s.sort();
    std::vector<std::string> got;
    for (AString const& a : s) got.push_back(a.c_str());
    EXPECT_EQ(got, (std::vector<std::string>{"Apple", "apple", "apples", "fig", "pear"}));

    // Symbols are numbered in order of first use; the list orders them by name.
    List<Symbol> syms{Symbol("list.sort.zeta"), Symbol("list.sort.alpha"), Symbol("list.sort.mid")};
    ASSERT_LT(syms.front().get_num(), syms.back().get_num());
    syms.sort();
    got.clear();
    for (Symbol const& sym : syms) got.push_back(sym.c_str());
    EXPECT_EQ(got, (std::vector<std::string>{"list.sort.alpha", "list.sort.mid", "list.sort.zeta"}));
    EXPECT_EQ(syms.find(Symbol("list.sort.mid")), ++syms.begin());
}

TEST(List, ComparesElementByElementAndCopiesDeep) {
    List<int> a{1, 2}, b{1, 2, 3}, c{1, 3};
    EXPECT_LT(a.compare(b), 0);
    EXPECT_GT(c.compare(b), 0);
    EXPECT_FALSE(a == b);
    EXPECT_TRUE(List<int>() < a);

    List<List<int>> lists{{1, 2}, {}, {3}};
    List<List<int>> lists_copy(lists);
    EXPECT_TRUE(lists_copy == lists);
    lists_copy.front().push_back(9);
    EXPECT_EQ(forwards(lists.front()), (std::vector<int>{1, 2}));
    EXPECT_TRUE(lists < lists_copy);  // {1, 2} is a prefix of {1, 2, 9}

    List<Array<int>> arrays{Array<int>{1, 2, 3}, Array<int>{}};
    List<Array<int>> arrays_copy;
    arrays_copy = arrays;
    arrays_copy.front()[0] = 7;
    EXPECT_EQ(arrays.front()[0], 1);
    EXPECT_EQ(arrays_copy.back().size(), 0u);
}
