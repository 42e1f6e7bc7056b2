#include "engine/naturalcompare.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

TEST(NaturalCompare, NumbersByValueCaseBlindInEveryScriptThenLeadingZeros) {
    // Expects `names` in strictly ascending order, each pair checked both ways round.
    const auto expectAscending = [](const std::vector<std::string>& names) {
        for (size_t i = 0; i < names.size(); ++i) {
            for (size_t j = 0; j < names.size(); ++j) {
                EXPECT_EQ(NaturalCompare(names[i], names[j]), i < j ? -1 : (i > j ? 1 : 0))
                    << "\"" << names[i] << "\" vs \"" << names[j] << "\"";
            }
        }
    };
    const std::vector<std::vector<std::string>> orders = {
        {"a9.jpg", "a10.jpg", "a11.jpg", "a100.jpg"},
        // Longer than any machine word, equal up to the last digit, and across 64-bit overflow.
        {"x18446744073709551615", "x18446744073709551616", "x123456789012345678901234567890",
         "x123456789012345678901234567891"},
        // The value decides before leading zeros do, wherever in the name it differs; on a tie
        // fewer zeros come first, at the first run where the counts differ.
        {"1-001", "01-1", "7.jpg", "07.jpg", "007.jpg", "v1b1", "v01b2", "v1b3"},
        // Digits stand after spaces and punctuation below '0', before letters.
        {"a b", "a-1", "a1", "a9z", "a_", "aa"},
        // Fullwidth digits are digits of the same value.
        {"page\xEF\xBC\x92", "page10", "page\xEF\xBC\x91\xEF\xBC\x91", "pagex"},
        // Case-blind first, beyond ASCII too; only a full tie falls back to the code points.
        {"", "Apple", "apple", "Banana", "banana", "cherry", "cherry1"},
        {"\xD0\xB0", "\xD0\x91", "\xD0\xB2"},        // Cyrillic a, B, v
        {"\xC3\x89t\xC3\xA9", "\xC3\xA9T\xC3\x89"},  // ÉtÉ and éTÉ tie until code points
        {"\xEA\xB0\x80 2", "\xEA\xB0\x80 10", "\xEB\x82\x98 1", "\xEB\x8B\xA4"},  // Hangul titles
        // Malformed bytes still order deterministically and never equal valid text.
        {"a\xEF\xBF\xBD", "a\xFF"},
    };
    for (const std::vector<std::string>& names : orders) expectAscending(names);

    // Any mix sorts into an order that holds between every pair, so the order is total.
    std::vector<std::string> mix = {"b2", "B2", "b02", "b10", "b1x", "B1X", "\xEF\xBC\x91", "1",
                                    "01", "a",  "A",   "",    "z",   "b2 ", "\xED\x95\x9C"};
    std::sort(mix.begin(), mix.end(),
              [](const std::string& a, const std::string& b) { return NaturalCompare(a, b) < 0; });
    expectAscending(mix);
}
