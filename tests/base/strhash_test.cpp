#include "base/strhash.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

TEST(XStrHash, GrowsThroughThePrimesWithRemovalsInterleaved) {
    XStrHash<int> table;
    std::map<std::string, int> expected;
    using Steps = std::vector<std::pair<size_t, size_t>>;
    Steps growth;  // (count, new bucket count) at each growth
    int* first = nullptr;
    for (int i = 0; i < 3000; ++i) {
        const std::string key = "page" + std::to_string(i) + ".jpg";
        const size_t buckets = table.BucketCount();
        ASSERT_TRUE(table.Insert(key, i));
        expected[key] = i;
        if (i == 0) first = table.Find(key);
        if (table.BucketCount() != buckets) growth.emplace_back(table.Count(), table.BucketCount());
        if (i % 3 == 2) {  // drop an older entry now and then
            const std::string old = "page" + std::to_string(i / 2) + ".jpg";
            EXPECT_EQ(table.Remove(old), expected.erase(old) == 1);
        }
    }
    // Growth comes as the entries pass three quarters of the buckets, never earlier.
    EXPECT_EQ(
        growth,
        (Steps{{13, 37}, {28, 79}, {60, 163}, {123, 331}, {249, 673}, {505, 1361}, {1021, 2729}}));
    // Keys are exact bytes; a present key keeps its value on Insert and takes the new one on Set.
    EXPECT_EQ(table.Find("PAGE0.JPG"), nullptr);
    EXPECT_FALSE(table.Insert("page0.jpg", -5));
    EXPECT_EQ(table.Set("page3.jpg", 33), 33);
    expected["page3.jpg"] = 33;
    // Removal from the chains kept every neighbour, and nothing removed is left.
    for (const auto& [key, value] : expected) {
        EXPECT_EQ(table.Find(key) ? *table.Find(key) : -1, value) << key;
    }
    EXPECT_EQ(table.Find("page0.jpg"), first);  // values don't move when the table grows
    std::map<std::string, int> visited;
    table.ForEach([&](const std::string& key, int& value) { visited.emplace(key, value); });
    EXPECT_EQ(visited, expected);

    // "Aa" and "B@" have the same h * 33 + c: the key, not the hash, tells them apart.
    EXPECT_TRUE(table.Insert("Aa", 1));
    EXPECT_TRUE(table.Insert("B@", 2));
    EXPECT_TRUE(table.Remove("Aa"));
    EXPECT_EQ(table.Find("Aa"), nullptr);
    EXPECT_EQ(*table.Find("B@"), 2);

    table.Clear();
    EXPECT_EQ(table.BucketCount(), 17u);
    EXPECT_EQ(table.Find("page0.jpg"), nullptr);
}

TEST(XStrHash, HoldsMoveOnlyValuesAndAMovedFromTableStaysUsable) {
    XStrHash<std::unique_ptr<int>> table;
    // The key is built by appending: GCC 12 at -O3 warns falsely about "k" + std::to_string(i).
    for (int i = 0; i < 40; ++i) {
        std::string key = "k";
        key += std::to_string(i);
        table.Insert(key, std::make_unique<int>(i));
    }
    XStrHash<std::unique_ptr<int>> moved(std::move(table));
    EXPECT_EQ(**moved.Find("k39"), 39);
    // NOLINTNEXTLINE(bugprone-use-after-move): a moved-from table is defined as empty
    EXPECT_EQ(table.Find("k1"), nullptr);
    EXPECT_EQ(table.BucketCount(), 17u);
    EXPECT_TRUE(table.Insert("k1", std::make_unique<int>(1)));
    EXPECT_EQ(**table.Find("k1"), 1);
}
