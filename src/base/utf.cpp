#include "base/utf.h"

#include <locale.h>
#include <wctype.h>

namespace utf {

char32_t Decode(std::string_view s, size_t& pos) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(s[i]); };
    const unsigned char b0 = byte(pos);
    if (b0 < 0x80) {
        ++pos;
        return b0;
    }
    size_t len;
    char32_t cp;
    char32_t min;
    if ((b0 & 0xE0) == 0xC0) {
        len = 2, cp = b0 & 0x1F, min = 0x80;
    } else if ((b0 & 0xF0) == 0xE0) {
        len = 3, cp = b0 & 0x0F, min = 0x800;
    } else if ((b0 & 0xF8) == 0xF0) {
        len = 4, cp = b0 & 0x07, min = 0x10000;
    } else {
        ++pos;
        return kReplacement;
    }
    if (pos + len > s.size()) {
        ++pos;
        return kReplacement;
    }
    for (size_t i = 1; i < len; ++i) {
        const unsigned char b = byte(pos + i);
        if ((b & 0xC0) != 0x80) {
            ++pos;
            return kReplacement;
        }
        cp = (cp << 6) | (b & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
        ++pos;
        return kReplacement;
    }
    pos += len;
    return cp;
}

void Append(std::string& out, char32_t cp) {
    if (cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) cp = kReplacement;
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

bool IsValid(std::string_view s) {
    size_t pos = 0;
    while (pos < s.size()) {
        const size_t start = pos;
        // A literal U+FFFD in the text is valid; only a one-byte step marks an error.
        if (Decode(s, pos) == kReplacement && pos == start + 1) return false;
    }
    return true;
}

size_t CodePointCount(std::string_view s) {
    size_t n = 0;
    for (size_t pos = 0; pos < s.size(); ++n) Decode(s, pos);
    return n;
}

void Truncate(std::string& s, size_t maxCodePoints) {
    size_t pos = 0;
    for (size_t n = 0; n < maxCodePoints && pos < s.size(); ++n) Decode(s, pos);
    if (pos < s.size()) s.resize(pos);
}

std::u16string ToUtf16(std::string_view s) {
    std::u16string out;
    out.reserve(s.size());
    for (size_t pos = 0; pos < s.size();) {
        const char32_t cp = Decode(s, pos);
        if (cp >= 0x10000) {
            out.push_back(static_cast<char16_t>(0xD800 + ((cp - 0x10000) >> 10)));
            out.push_back(static_cast<char16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF)));
        } else {
            out.push_back(static_cast<char16_t>(cp));
        }
    }
    return out;
}

std::string FromUtf16(std::u16string_view s) {
    std::string out;
    out.reserve(s.size());
    for (size_t i = 0; i < s.size(); ++i) {
        char32_t cp = s[i];
        if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < s.size() && s[i + 1] >= 0xDC00 &&
            s[i + 1] <= 0xDFFF) {
            cp = 0x10000 + ((cp - 0xD800) << 10) + (s[i + 1] - 0xDC00);
            ++i;
        }
        Append(out, cp);  // a lone surrogate becomes U+FFFD here
    }
    return out;
}

namespace {

// The C.UTF-8 locale carries the Unicode case tables; it is opened once and never freed.
locale_t CaseLocale() {
    static const locale_t loc = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(0));
    return loc;
}

}  // namespace

char32_t FoldCase(char32_t cp) {
    if (cp < 0x80) return (cp >= 'A' && cp <= 'Z') ? cp + 32 : cp;
    const locale_t loc = CaseLocale();
    if (loc == static_cast<locale_t>(0)) return cp;
    return static_cast<char32_t>(towlower_l(static_cast<wint_t>(cp), loc));
}

bool EqualsIgnoreCase(std::string_view a, std::string_view b) {
    size_t pa = 0, pb = 0;
    while (pa < a.size() && pb < b.size()) {
        if (FoldCase(Decode(a, pa)) != FoldCase(Decode(b, pb))) return false;
    }
    return pa == a.size() && pb == b.size();
}

std::string AsciiLower(std::string_view s) {
    std::string out(s);
    for (char& c : out) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
    }
    return out;
}

}  // namespace utf
