// Text helpers. Text inside the program is UTF-8 in std::string; these convert at the edges
// (UTF-16 files, the toolkit) and give the code-point view that limits and comparisons need.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace utf {

inline constexpr char32_t kReplacement = 0xFFFD;

// Decodes the code point at `pos` and advances `pos` past it. Malformed sequences (overlong
// forms, surrogates, values above U+10FFFF, cut sequences) yield U+FFFD and advance by one byte.
char32_t Decode(std::string_view s, size_t& pos);

// Appends the UTF-8 form of `cp`; surrogates and values beyond U+10FFFF append U+FFFD.
void Append(std::string& out, char32_t cp);

bool IsValid(std::string_view s);
size_t CodePointCount(std::string_view s);

// Cuts `s` after at most `maxCodePoints` code points, never inside a sequence.
void Truncate(std::string& s, size_t maxCodePoints);

// UTF-16 <-> UTF-8. Unpaired surrogates and malformed input become U+FFFD.
std::u16string ToUtf16(std::string_view s);
std::string FromUtf16(std::u16string_view s);

// Simple case folding (one code point to one code point) for case-blind comparison,
// covering every script that has case, not only ASCII.
char32_t FoldCase(char32_t cp);

// Case-blind equality over code points.
bool EqualsIgnoreCase(std::string_view a, std::string_view b);

// ASCII lower-casing, for extensions and other program-defined tokens.
std::string AsciiLower(std::string_view s);

}  // namespace utf
