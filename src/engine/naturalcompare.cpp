#include "engine/naturalcompare.h"

#include <cstddef>

#include "base/utf.h"

namespace {

// The next code point; names are mostly ASCII, which is taken here without a call.
inline char32_t Next(std::string_view s, size_t& pos) {
    const auto c = static_cast<unsigned char>(s[pos]);
    if (c < 0x80) {
        ++pos;
        return c;
    }
    return utf::Decode(s, pos);
}

// The value of a digit code point, or -1 for anything else.
int DigitValue(char32_t cp) {
    if (cp >= U'0' && cp <= U'9') return static_cast<int>(cp - U'0');
    if (cp >= 0xFF10 && cp <= 0xFF19) return static_cast<int>(cp - 0xFF10);  // fullwidth
    return -1;
}

struct DigitRun {
    size_t significant = 0;  // byte position of the first digit that isn't a leading zero
    size_t end = 0;          // byte position behind the run
    size_t nLeadingZeros = 0;
    size_t nDigits = 0;  // significant digits: 0 for a run of zeros
};

// Measures the run of digits starting at `pos`, which holds a digit.
DigitRun ScanRun(std::string_view s, size_t pos) {
    DigitRun run;
    bool leading = true;
    while (pos < s.size()) {
        size_t next = pos;
        const int value = DigitValue(Next(s, next));
        if (value < 0) break;
        if (leading && value == 0) {
            ++run.nLeadingZeros;
        } else {
            if (leading) run.significant = pos;
            leading = false;
            ++run.nDigits;
        }
        pos = next;
    }
    run.end = pos;
    if (leading) run.significant = pos;
    return run;
}

// Compares the values of two runs without converting them, so no length overflows.
int CompareRuns(std::string_view a, const DigitRun& ra, std::string_view b, const DigitRun& rb) {
    if (ra.nDigits != rb.nDigits) return ra.nDigits < rb.nDigits ? -1 : 1;
    size_t pa = ra.significant;
    size_t pb = rb.significant;
    for (size_t i = 0; i < ra.nDigits; ++i) {
        const int da = DigitValue(Next(a, pa));
        const int db = DigitValue(Next(b, pb));
        if (da != db) return da < db ? -1 : 1;
    }
    return 0;
}

// A digit met alone (the other text has a letter there) ranks as an ASCII digit, so fullwidth
// and ASCII digits stand at the same place among the letters.
char32_t Rank(char32_t cp, int digit) {
    if (digit >= 0) return U'0' + static_cast<char32_t>(digit);
    if (cp < 0x80) return cp >= U'A' && cp <= U'Z' ? cp + 32 : cp;
    return utf::FoldCase(cp);
}

}  // namespace

int NaturalCompare(std::string_view a, std::string_view b) {
    size_t pa = 0;
    size_t pb = 0;
    int zeroTie = 0;  // the first difference in leading zeros, used only when all else ties
    while (pa < a.size() && pb < b.size()) {
        size_t na = pa;
        size_t nb = pb;
        const char32_t ca = Next(a, na);
        const char32_t cb = Next(b, nb);
        const int da = DigitValue(ca);
        const int db = DigitValue(cb);
        if (da >= 0 && db >= 0) {
            const DigitRun ra = ScanRun(a, pa);
            const DigitRun rb = ScanRun(b, pb);
            if (const int c = CompareRuns(a, ra, b, rb); c != 0) return c;
            if (zeroTie == 0 && ra.nLeadingZeros != rb.nLeadingZeros) {
                zeroTie = ra.nLeadingZeros < rb.nLeadingZeros ? -1 : 1;
            }
            pa = ra.end;
            pb = rb.end;
            continue;
        }
        const char32_t ka = Rank(ca, da);
        const char32_t kb = Rank(cb, db);
        if (ka != kb) return ka < kb ? -1 : 1;
        pa = na;
        pb = nb;
    }
    if (pa < a.size()) return 1;
    if (pb < b.size()) return -1;
    if (zeroTie != 0) return zeroTie;
    // UTF-8 bytes order as their code points do.
    const int c = a.compare(b);
    return c < 0 ? -1 : (c > 0 ? 1 : 0);
}
