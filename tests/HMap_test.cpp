#include "tarvik/HMap.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "tarvik/AString.h"

using tarvik::AString;
using tarvik::HMap;
using tarvik::TextKey;

TEST(HMap, GrowsTo2nPlus1BucketsWhenAnInsertWouldExceedTheMaximumLoad) {
    HMap<int, int> m;
    EXPECT_EQ(m.bucket_count(), 203u);
    EXPECT_FLOAT_EQ(m.max_load_factor(), 0.75f);
    for (int i = 0; i < 152; ++i) m.insert(i, i);  // 152 / 203 = 0.7488
    m.insert(5, 0);                                // present already: no growth
    EXPECT_EQ(m.bucket_count(), 203u);
    m.insert(152, 152);
    EXPECT_EQ(m.bucket_count(), 407u);
    for (int i = 153; i < 305; ++i) m.insert(i, i);  // 305 / 407 = 0.7494
    EXPECT_EQ(m.bucket_count(), 407u);
    m.insert(305, 305);
    EXPECT_EQ(m.bucket_count(), 815u);
    ASSERT_EQ(m.size(), 306u);
    for (int i = 0; i < 306; ++i) EXPECT_EQ(*m.find(i), i);

    HMap<int, int> small(4, 0.5f);
    small.insert(1, 1);
    small.insert(2, 2);  // exactly at the maximum
    EXPECT_EQ(small.bucket_count(), 4u);
    small.insert(3, 3);
    EXPECT_EQ(small.bucket_count(), 9u);
}

TEST(HMap, InsertOfAPresentKeyReturnsTheExistingEntry) {
    HMap<AString, int> m;
    auto [first, added] = m.insert("alpha", 1);
    EXPECT_TRUE(added);
    auto [again, added_again] = m.insert("alpha", 2);
    EXPECT_FALSE(added_again);
    EXPECT_EQ(again, first);
    EXPECT_EQ(*again, 1);
    EXPECT_EQ(m["beta"], 0);  // inserted value-initialised
    m["beta"] = 5;
    EXPECT_EQ(*m.find("beta"), 5);
    EXPECT_EQ(&m["alpha"], first);
    EXPECT_EQ(m.size(), 2u);
}

TEST(HMap, TextKeysAreFoundAndErasedByCharPointerAndByTextKey) {
    HMap<AString, int> m;
    m.insert(AString("socket"), 1);
    m.insert(AString("sock"), 2);
    m.insert(AString(""), 3);
    EXPECT_EQ(*m.find("socket"), 1);
    EXPECT_EQ(*m.find(static_cast<char const*>(nullptr)), 3);  // null reads as ""
    EXPECT_EQ(m.find("Socket"), nullptr);

    char const buffer[] = "socketry";
    EXPECT_EQ(*m.find(TextKey{buffer, 6}), 1);
    EXPECT_EQ(*m.find(TextKey{buffer, 4}), 2);
    EXPECT_EQ(*m.find(TextKey{buffer, 0}), 3);
    EXPECT_EQ(m.find(TextKey{buffer, 5}), nullptr);
    EXPECT_EQ(m.find(TextKey{buffer, 8}), nullptr);

    EXPECT_TRUE(m.erase(TextKey{buffer, 4}));
    EXPECT_FALSE(m.erase("sock"));
    EXPECT_TRUE(m.erase(""));
    EXPECT_EQ(m.size(), 1u);
    EXPECT_EQ(*m.find("socket"), 1);
    EXPECT_TRUE(m.insert("sock", 20).second);
    EXPECT_EQ(*m.find(AString("sock")), 20);
    m.clear();
    EXPECT_EQ(m.find("socket"), nullptr);
    EXPECT_EQ(m.begin(), m.end());
}

TEST(HMap, IterationVisitsEveryEntryOnce) {
    HMap<long long, int> m(3);
    std::map<long long, int> expected;
    for (int i = -200; i < 300; i += 3) expected[i * 1000003LL] = i;
    for (auto const& [k, v] : expected) m.insert(k, v);
    m.erase(-200 * 1000003LL);
    expected.erase(-200 * 1000003LL);

    std::map<long long, int> seen;
    for (auto& e : m) EXPECT_TRUE(seen.emplace(e.key, e.value++).second) << "visited twice: " << e.key;
    EXPECT_EQ(seen, expected);
    HMap<long long, int> const copy(m);
    seen.clear();
    for (auto const& e : copy) seen.emplace(e.key, e.value - 1);
    EXPECT_EQ(seen, expected);
}

TEST(HMap, EntriesStayAtTheirAddressAcrossGrowth) {
    HMap<AString, AString> m(2);
    std::vector<AString*> where;
    for (int i = 0; i < 400; ++i)
        where.push_back(m.insert(std::to_string(i).c_str(), ("v" + std::to_string(i)).c_str()).first);
    EXPECT_GT(m.bucket_count(), 400u);
    for (int i = 0; i < 400; ++i) {
        EXPECT_EQ(m.find(std::to_string(i).c_str()), where[i]);
        EXPECT_EQ(*where[i], ("v" + std::to_string(i)).c_str());
    }
}
