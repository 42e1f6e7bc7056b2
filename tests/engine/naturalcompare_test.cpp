#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "engine/naturalcompare.h"

namespace {

// Expects `names` to be in strictly ascending natural order, each pair checked both ways round.
void ExpectAscending(const std::vector<std::string>& names) {
    for (size_t i = 0; i < names.size(); ++i) {
        for (size_t j = 0; j < names.size(); ++j) {
            const int expected = i < j ? -1 : (i > j ? 1 : 0);
            EXPECT_EQ(NaturalCompare(names[i], names[j]), expected)
                << "\"" << names[i] << "\" vs \"" << names[j] << "\"";
        }
    }
}

}  // namespace

TEST(NaturalCompare, NumbersCompareByValueAtAnyLength) {
    ExpectAscending({"a9.jpg", "a10.jpg", "a11.jpg", "a100.jpg"});
    // Longer than any machine word, equal up to the last digit, and across 64-bit overflow.
    ExpectAscending({"x18446744073709551615", "x18446744073709551616",
                     "x123456789012345678901234567890", "x123456789012345678901234567891"});
    // The value decides before leading zeros do, wherever in the name it differs.
    ExpectAscending({"v1b1", "v01b2", "v1b3"});
    // Digits stand before letters, after spaces and punctuation below '0'.
    ExpectAscending({"a b", "a-1", "a1", "a9z", "a_", "aa"});
    // Fullwidth digits are digits of the same value: "page２" < "page10".
    ExpectAscending({"page\xEF\xBC\x92", "page10", "page\xEF\xBC\x91\xEF\xBC\x91", "pagex"});
}

TEST(NaturalCompare, TiesBreakByLeadingZerosThenCodePointsSoTheOrderIsTotal) {
    // Same value: fewer leading zeros first; a run of zeros alone counts all of them.
    ExpectAscending({"7.jpg", "07.jpg", "007.jpg"});
    // The first run whose zeros differ decides, not the total count.
    ExpectAscending({"1-001", "01-1"});
    // Case-blind first: only a full tie falls back to the code points.
    ExpectAscending({"Apple", "apple", "Banana", "banana", "cherry"});
    ExpectAscending({"", "page", "page1"});

    // Sorting any mix with a strict order must give the same result from any starting order.
    std::vector<std::string> names = {"b2", "B2", "b02", "b10", "b1x", "B1X", "\xEF\xBC\x91",
                                      "1",  "01", "a",   "A",   "",    "z",   "\xED\x95\x9C",
                                      "b2 "};
    const auto less = [](const std::string& a, const std::string& b) {
        return NaturalCompare(a, b) < 0;
    };
    std::sort(names.begin(), names.end(), less);
    std::vector<std::string> reversed(names.rbegin(), names.rend());
    std::sort(reversed.begin(), reversed.end(), less);
    EXPECT_EQ(reversed, names);
    ExpectAscending(names);
}

TEST(NaturalCompare, OtherScriptsFoldCaseAndOrderByCodePoint) {
    // Hangul syllables in their code-point order, numbered pages inside one title.
    ExpectAscending({"\xEA\xB0\x80 2", "\xEA\xB0\x80 10", "\xEB\x82\x98 1", "\xEB\x8B\xA4"});
    // Cyrillic: lower-case a before capital B, whatever their raw code points say.
    ExpectAscending({"\xD0\xB0", "\xD0\x91", "\xD0\xB2"});
    EXPECT_EQ(NaturalCompare("\xC3\x89t\xC3\xA9", "\xC3\xA9T\xC3\x89"), -1);  // ÉtÉ vs éTÉ, tie
    // Malformed bytes still order deterministically and never equal valid text.
    ExpectAscending({"a\xEF\xBF\xBD", "a\xFF"});
}
