#include "tarvik/Symbol.h"

#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "tarvik/IOBStream.h"
#include "tarvik/Log.h"

using tarvik::AString;
using tarvik::Symbol;
using tarvik::SymbolEntry;
using tarvik::test::run_together;
using tarvik::test::str;

TEST(Symbol, NewNamesAreNumberedDenselyInOrderOfFirstUse) {
    unsigned int before = Symbol::count();
    Symbol b("order.b");
    Symbol a(AString("order.a"));
    EXPECT_EQ(b.get_num(), before);
    EXPECT_EQ(static_cast<unsigned int>(a), before + 1);
    // Interning again, by either kind of text, finds the same entry and hands out nothing.
    EXPECT_EQ(Symbol(AString("order.b")), b);
    EXPECT_EQ(Symbol("order.a"), a);
    EXPECT_EQ(Symbol(before + 1), a);
    EXPECT_EQ(Symbol::count(), before + 2);
    // Names are whole texts, compared with case: an embedded NUL does not end them.
    EXPECT_NE(Symbol(AString("ab\0c", 4)), Symbol("ab"));
    EXPECT_TRUE(a == "order.a");
    EXPECT_FALSE(a == "Order.a");
}

TEST(Symbol, EmptyNameIsNumberZeroAndAnUnknownNumberGivesANullSymbolEqualToItOnlyByNumber) {
    Symbol none;
    EXPECT_EQ(none, Symbol(""));
    EXPECT_EQ(none, Symbol(static_cast<char const*>(nullptr)));
    EXPECT_EQ(none, Symbol(0u));
    EXPECT_EQ(none.get_num(), 0u);
    EXPECT_FALSE(none.is_null());
    for (Symbol const& s : {Symbol(Symbol::count()), Symbol(0xFFFFFFFFu)}) {
        EXPECT_TRUE(s.is_null());
        EXPECT_STREQ(static_cast<char const*>(s), "");
        EXPECT_EQ(s.get_num(), 0u);
        EXPECT_TRUE(s == none.get_num());
        EXPECT_NE(s, none);
    }
}

TEST(Symbol, OrderIsByTextNotByNumber) {
    Symbol b("sort.b");  // interned first, so the smaller number
    Symbol a("sort.a");
    EXPECT_TRUE(a < b);
    EXPECT_TRUE(b > a);
    EXPECT_LT(a.compare(b), 0);

    tarvik::SymbolList list;
    for (Symbol const& s : {Symbol("sort.c"), b, a, Symbol("sort.B")}) list.push_back(s);
    list.sort();
    AString joined;
    tarvik::Log::append_text(joined, list);
    EXPECT_EQ(str(joined), "sort.B,sort.a,sort.b,sort.c");
}

TEST(Symbol, WriteXmlEscapesAmpersandAndAnglesButNotQuotes) {
    AString out;
    {
        tarvik::OBStream stream(out);
        EXPECT_EQ(Symbol("a&b<c>d\"e'f&&").write_xml(stream), 0);
        EXPECT_EQ(Symbol(0xFFFFFFF0u).write_xml(stream), 0);
    }
    EXPECT_EQ(str(out), "a&amp;b&lt;c&gt;d\"e'f&amp;&amp;");
}

// 65536 + a few names: the second page opens at number 256, and number 65536 needs a directory of 512
// page slots instead of 256.
TEST(Symbol, NumbersAcrossPageAndDirectoryBoundariesLookUpTheirNames) {
    unsigned int const before = Symbol::count();
    ASSERT_LE(before, 255u);
    EXPECT_TRUE(Symbol(256u).is_null());    // page 1 not allocated yet
    EXPECT_TRUE(Symbol(65536u).is_null());  // beyond the directory

    unsigned int const last = 65536 + 300;
    std::vector<std::string> names;
    names.reserve(last + 1 - before);
    int misnumbered = 0;
    for (unsigned int n = before; n <= last; ++n) {
        names.push_back("page." + std::to_string(n));
        if (Symbol(names.back().c_str()).get_num() != n) ++misnumbered;
    }
    EXPECT_EQ(misnumbered, 0);
    ASSERT_EQ(Symbol::count(), last + 1);

    for (unsigned int n : {255u, 256u, 257u, 511u, 512u, 65535u, 65536u, 65537u, last}) {
        Symbol by_num(n);
        ASSERT_FALSE(by_num.is_null()) << n;
        EXPECT_EQ(by_num.get_num(), n);
        EXPECT_EQ(str(by_num.get_name()), names[n - before]);
        EXPECT_EQ(by_num, Symbol(names[n - before].c_str()));
    }
    EXPECT_TRUE(Symbol(last + 1).is_null());     // empty slot of an allocated page
    EXPECT_TRUE(Symbol(last + 256).is_null());   // page not allocated
    EXPECT_TRUE(Symbol(512u * 256u).is_null());  // first number beyond the grown directory
}

// Threads intern overlapping ranges of new names at once, half of them walking backwards so that they
// meet in the middle. Each distinct name must get one entry, seen identically by every thread, and the
// numbers handed out must be exactly the next `distinct` numbers.
TEST(Symbol, ConcurrentInterningGivesOneDenseNumberPerDistinctName) {
    constexpr int kThreads = 8;
    constexpr int kPerThread = 3000;
    constexpr int kStride = 750;
    constexpr unsigned int kDistinct = kStride * (kThreads - 1) + kPerThread;
    unsigned int const before = Symbol::count();

    std::vector<std::vector<SymbolEntry const*>> got(kThreads, std::vector<SymbolEntry const*>(kPerThread));
    run_together(kThreads, [&](int t) {
        for (int k = 0; k < kPerThread; ++k) {
            int i = (t % 2) ? kPerThread - 1 - k : k;
            std::string name = "conc." + std::to_string(t * kStride + i);
            Symbol s(name.c_str());
            // Looked up by number at once, racing with the others' interning.
            got[t][i] = Symbol(s.get_num()) == s ? s.get_entry() : nullptr;
        }
    });

    EXPECT_EQ(Symbol::count() - before, kDistinct);

    // Every thread saw the same entry for a name, with that name, and the distinct entries hold exactly
    // the next kDistinct numbers.
    std::vector<SymbolEntry const*> by_name(kDistinct, nullptr);
    std::set<unsigned int> numbers;
    int bad = 0;
    for (int t = 0; t < kThreads; ++t) {
        for (int i = 0; i < kPerThread; ++i) {
            int const idx = t * kStride + i;
            SymbolEntry const* e = got[t][i];
            if (!e || (by_name[idx] && by_name[idx] != e)) ++bad;
            if (!e || by_name[idx]) continue;
            by_name[idx] = e;
            numbers.insert(e->num);
            if (str(e->name) != "conc." + std::to_string(idx)) ++bad;
        }
    }
    EXPECT_EQ(bad, 0);
    ASSERT_EQ(numbers.size(), kDistinct);
    EXPECT_EQ(*numbers.begin(), before);
    EXPECT_EQ(*numbers.rbegin(), before + kDistinct - 1);
}

// A thread_local object made before the thread first interns is destroyed after the thread's name cache:
// interning from its destructor must still work (without the cache).
TEST(Symbol, InterningWorksFromThreadExitCodeAfterTheThreadsCacheIsGone) {
    static std::atomic<unsigned int> number_at_exit{0};
    struct AtExit {
        ~AtExit() { number_at_exit = Symbol("symbol.test.exit").get_num(); }
    };
    std::thread([] {
        thread_local AtExit at_exit;
        (void)&at_exit;
        Symbol("symbol.test.exit");  // makes the cache, after at_exit
    }).join();
    EXPECT_EQ(number_at_exit.load(), Symbol("symbol.test.exit").get_num());
    EXPECT_NE(number_at_exit.load(), 0u);
}
