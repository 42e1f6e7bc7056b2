#include <gtest/gtest.h>

#include "base/utf.h"

TEST(Utf, SequencesSurrogatePairsTruncationAndCaseFolding) {
    const std::string text = "a\xC3\xA9\xED\x95\x9C\xF0\x9F\x98\x80";  // a, e-acute, Hangul, emoji
    const std::u16string wide = utf::ToUtf16(text);
    EXPECT_EQ(wide, u"a\u00E9\uD55C\U0001F600");  // the emoji takes a surrogate pair
    EXPECT_EQ(utf::FromUtf16(wide), text);
    EXPECT_EQ(utf::CodePointCount(text), 4u);

    // Overlong slash, an encoded surrogate, a cut sequence and a stray continuation byte.
    for (const char* bad : {"\xC0\xAF", "\xED\xA0\x80", "\xE2\x82", "\x80"}) {
        EXPECT_FALSE(utf::IsValid(bad)) << bad;
        size_t pos = 0;
        EXPECT_EQ(utf::Decode(bad, pos), utf::kReplacement);
        EXPECT_EQ(pos, 1u);
    }
    // A lone surrogate in UTF-16 becomes U+FFFD, not a broken UTF-8 sequence.
    EXPECT_EQ(utf::FromUtf16(u"x\xD800y"), "x\xEF\xBF\xBDy");

    // Truncation counts code points and never cuts inside a sequence.
    std::string s = "\xED\x95\x9C\xED\x95\x9C\xED\x95\x9C";  // three Hangul syllables
    utf::Truncate(s, 2);
    EXPECT_EQ(s, "\xED\x95\x9C\xED\x95\x9C");
    utf::Truncate(s, 10);
    EXPECT_EQ(s, "\xED\x95\x9C\xED\x95\x9C");

    EXPECT_TRUE(utf::EqualsIgnoreCase("\xC3\x89T\xC3\x89", "\xC3\xA9t\xC3\xA9"));  // ÉTÉ / été
    EXPECT_TRUE(utf::EqualsIgnoreCase("\xD0\x9A\xD0\x9D", "\xD0\xBA\xD0\xBD"));    // Cyrillic
    EXPECT_FALSE(utf::EqualsIgnoreCase("page", "pages"));
}
