#include "base/strhash.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>

namespace {

TEST(XStrHash, GrowsThroughThePrimesWithRemovalsInterleaved) {
    XStrHash<int> table;
    EXPECT_EQ(table.BucketCount(), 17u);
    std::map<std::string, int> expected;
    int* first = nullptr;
    for (int i = 0; i < 3000; ++i) {
        const std::string key = "page" + std::to_string(i) + ".jpg";
        ASSERT_TRUE(table.Insert(key, i));
        expected[key] = i;
        if (i == 0) first = table.Find(key);
        // The first steps: 12 entries fit 17 buckets, the 13th and the 28th make it grow.
        if (table.Count() == 12) {
            EXPECT_EQ(table.BucketCount(), 17u);
        }
        if (table.Count() == 13) {
            EXPECT_EQ(table.BucketCount(), 37u);
        }
        if (table.Count() == 28) {
            EXPECT_EQ(table.BucketCount(), 79u);
        }
        if (i % 3 == 2) {  // drop an older entry now and then
            const std::string old = "page" + std::to_string(i / 2) + ".jpg";
            EXPECT_EQ(table.Remove(old), expected.erase(old) == 1);
        }
        // The load may reach three quarters of the buckets but not pass it.
        ASSERT_LE(table.Count() * 4, table.BucketCount() * 3);
    }
    EXPECT_EQ(table.Count(), expected.size());
    EXPECT_EQ(table.BucketCount(), 2729u);  // ~2000 entries: 1361 * 0.75 is passed, 2729 is not

    for (int i = 0; i < 3000; ++i) {
        const std::string key = "page" + std::to_string(i) + ".jpg";
        const int* value = table.Find(key);
        const auto it = expected.find(key);
        if (it == expected.end()) {
            EXPECT_EQ(value, nullptr) << key;
        } else {
            ASSERT_NE(value, nullptr) << key;
            EXPECT_EQ(*value, it->second);
        }
    }
    // Values do not move when the table grows.
    EXPECT_EQ(table.Find("page0.jpg"), first);

    size_t visited = 0;
    table.ForEach([&](const std::string& key, int& value) {
        ++visited;
        EXPECT_EQ(expected.at(key), value);
    });
    EXPECT_EQ(visited, expected.size());

    table.Clear();
    EXPECT_EQ(table.Count(), 0u);
    EXPECT_EQ(table.BucketCount(), 17u);
    EXPECT_EQ(table.Find("page1.jpg"), nullptr);
}

TEST(XStrHash, KeysAreExactBytesIncludingCaseEmptyAndCollisions) {
    XStrHash<std::string> table;
    EXPECT_TRUE(table.Insert("Page.JPG", "upper"));
    EXPECT_TRUE(table.Insert("page.jpg", "lower"));
    EXPECT_TRUE(table.Insert("", "empty"));
    // "Aa" and "B@" have the same h * 33 + c, so they share a chain.
    EXPECT_TRUE(table.Insert("Aa", "first"));
    EXPECT_TRUE(table.Insert("B@", "second"));
    // Bytes above 0x7F (UTF-8 names) are keys like any other.
    EXPECT_TRUE(table.Insert("\xED\x95\x9C.png", "hangul"));
    EXPECT_EQ(table.Count(), 6u);

    EXPECT_FALSE(table.Insert("page.jpg", "again"));  // the old value stays
    EXPECT_EQ(*table.Find("page.jpg"), "lower");
    EXPECT_EQ(*table.Find("Page.JPG"), "upper");
    EXPECT_EQ(table.Find("PAGE.JPG"), nullptr);
    EXPECT_EQ(*table.Find(""), "empty");
    EXPECT_EQ(*table.Find("\xED\x95\x9C.png"), "hangul");

    EXPECT_EQ(table.Set("Aa", "replaced"), "replaced");
    EXPECT_EQ(table.Set("new", "added"), "added");
    EXPECT_EQ(table.Count(), 7u);
    EXPECT_TRUE(table.Remove("Aa"));
    EXPECT_FALSE(table.Remove("Aa"));
    EXPECT_EQ(*table.Find("B@"), "second");  // its chain neighbour survives
    EXPECT_TRUE(table.Remove(""));
    EXPECT_EQ(table.Find(""), nullptr);
    EXPECT_EQ(table.Count(), 5u);
}

TEST(XStrHash, HoldsMoveOnlyValuesAndMovedFromTablesStayUsable) {
    XStrHash<std::unique_ptr<int>> table;
    for (int i = 0; i < 40; ++i) table.Insert("k" + std::to_string(i), std::make_unique<int>(i));
    XStrHash<std::unique_ptr<int>> moved(std::move(table));
    EXPECT_EQ(moved.Count(), 40u);
    EXPECT_EQ(**moved.Find("k39"), 39);

    EXPECT_EQ(table.Count(), 0u);  // NOLINT(bugprone-use-after-move): defined as empty
    EXPECT_EQ(table.BucketCount(), 17u);
    EXPECT_EQ(table.Find("k1"), nullptr);
    EXPECT_TRUE(table.Insert("k1", std::make_unique<int>(1)));
    EXPECT_EQ(**table.Find("k1"), 1);
}

}  // namespace
