// Helpers of the image tests: test pictures, decoding from memory, and pixel comparison that
// says where and how a decoded picture differs from the picture a file was written from.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
#include <string>

#include "image/xdib.h"
#include "image/xdib_testing.h"
#include "image/xdibio.h"
#include "imgwrite/imgwrite.h"

namespace imgtest {

using imgwrite::Bytes;
using imgwrite::Picture;
using imgwrite::Rgba;

// Colour `k` of a table in which the first 256 colours are all different (37, 89 and 151 are
// odd, so each channel alone is a permutation of 0..255).
inline Rgba TableColour(uint32_t k) {
    return {uint8_t(k * 37 + 11), uint8_t(k * 89 + 3), uint8_t(k * 151 + 7), 255};
}

// A picture of at most `colours` colours (0: unlimited, every channel varies) whose alpha runs
// through 0..255, so that a decoder that keeps, drops or mixes alpha shows it.
inline Picture Pattern(uint32_t w, uint32_t h, uint32_t colours = 0, uint32_t seed = 1) {
    Picture p(w, h);
    for (uint32_t y = 0; y < h; ++y)
        for (uint32_t x = 0; x < w; ++x) {
            Rgba& c = p.At(x, y);
            if (colours) {
                c = TableColour((x * 3 + y * 5 + (x * y + seed) % 7) % colours);
            } else {
                c = {uint8_t(x * 7 + y * 3 + seed), uint8_t(x * y + 5 * seed),
                     uint8_t(255 - x * 11 + y * 13), 255};
            }
            c.a = uint8_t(x * 41 + y * 17 + seed);
        }
    return p;
}

// Long runs, short stretches of distinct colours and spans of colour 0: what run-length coders
// turn into runs, absolute runs and (for index 0) deltas.
inline Picture RunsPattern(uint32_t w, uint32_t h, uint32_t colours) {
    Picture p(w, h, TableColour(0));
    for (uint32_t y = 0; y < h; ++y) {
        if (y % 4 == 3) continue;  // a blank row
        for (uint32_t x = 0; x < w; ++x) {
            uint32_t k;
            const uint32_t band = (x + y) % 24;
            if (band < 9)
                k = 1 + y % (colours - 1);  // a run
            else if (band < 14)
                k = 1 + (x * 5 + y) % (colours - 1);  // distinct neighbours
            else
                k = 0;  // a span of index 0
            p.At(x, y) = TableColour(k);
        }
    }
    // The last rows blank: an end-of-bitmap may stop early.
    for (uint32_t x = 0; x < w; ++x) p.At(x, 0) = TableColour(0);
    return p;
}

// Each channel cut to its top `r`, `g`, `b` bits, low bits zero: 5-5-5 and 5-6-5 as decoders
// widen them (shifted up, not replicated).
inline Picture Quantised(Picture p, int r, int g, int b) {
    for (Rgba& c : p.pixels) {
        c.r = uint8_t(c.r & (0xFF << (8 - r))), c.g = uint8_t(c.g & (0xFF << (8 - g)));
        c.b = uint8_t(c.b & (0xFF << (8 - b)));
    }
    return p;
}

inline Picture Greyed(Picture p) {
    for (Rgba& c : p.pixels) c.r = c.g = c.b = imgwrite::GreyOf(c);
    return p;
}

inline Picture Opaque(Picture p) {
    for (Rgba& c : p.pixels) c.a = 255;
    return p;
}

// A 24- or 32-bit XDib holding `p` (alpha kept at 32 bits).
inline void ToDib(const Picture& p, XDib& dib, uint32_t bpp) {
    ASSERT_TRUE(dib.Create(p.width, p.height, bpp));
    for (uint32_t y = 0; y < p.height; ++y)
        for (uint32_t x = 0; x < p.width; ++x) {
            uint8_t* px = dib.GetPixelPtr(x, y);
            const Rgba& c = p.At(x, y);
            px[0] = c.b, px[1] = c.g, px[2] = c.r;
            if (bpp == 32) px[3] = c.a;
        }
}

// The colour of a pixel of any depth; alpha is 255 below 32 bits.
inline Rgba PixelOf(const XDib& dib, uint32_t x, uint32_t y) {
    const uint8_t* row = dib.GetRow(y);
    const uint8_t* q;
    switch (dib.nBpp) {
        case 1:
            q = dib.GetPalette() + 4 * ((row[x / 8] >> (7 - x % 8)) & 1);
            break;
        case 4:
            q = dib.GetPalette() + 4 * ((row[x / 2] >> (x % 2 ? 0 : 4)) & 15);
            break;
        case 8:
            q = dib.GetPalette() + 4 * row[x];
            break;
        case 16: {  // 5-5-5
            const uint32_t v = row[2 * x] | (row[2 * x + 1] << 8);
            return {uint8_t((v >> 7) & 0xF8), uint8_t((v >> 2) & 0xF8), uint8_t((v << 3) & 0xF8),
                    255};
        }
        default:
            q = row + size_t(x) * dib.nBytesPerPixel;
            return {q[2], q[1], q[0], dib.nBpp == 32 ? q[3] : uint8_t(255)};
    }
    return {q[2], q[1], q[0], 255};
}

inline std::string Describe(const Rgba& c) {
    std::ostringstream s;
    s << "(" << int(c.r) << "," << int(c.g) << "," << int(c.b) << "," << int(c.a) << ")";
    return s.str();
}

// Every pixel of `dib` against `expected`: sizes first, then the first few differences.
inline ::testing::AssertionResult SamePixels(const XDib& dib, const Picture& expected,
                                             bool compareAlpha = false) {
    if (dib.IsEmpty()) return ::testing::AssertionFailure() << "no picture";
    if (dib.nWidth != expected.width || dib.nHeight != expected.height)
        return ::testing::AssertionFailure()
               << "size " << dib.nWidth << "x" << dib.nHeight << ", expected " << expected.width
               << "x" << expected.height;
    std::ostringstream diffs;
    uint32_t count = 0;
    for (uint32_t y = 0; y < expected.height; ++y)
        for (uint32_t x = 0; x < expected.width; ++x) {
            Rgba got = PixelOf(dib, x, y), want = expected.At(x, y);
            if (!compareAlpha) got.a = want.a = 255;
            if (got == want) continue;
            if (count++ < 6)
                diffs << " (" << x << "," << y << "): got " << Describe(got) << " want "
                      << Describe(want) << ";";
        }
    if (count == 0) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << count << " pixel(s) differ:" << diffs.str();
}

// Decodes `bytes` through sniffing and dispatch, as the viewer does for an archive entry.
struct Decoded {
    bool whole = false;
    XDib dib;
};
inline Decoded Decode(const Bytes& bytes) {
    Decoded d;
    CXDibMemIO source(bytes.data(), int64_t(bytes.size()));
    d.whole = d.dib.LoadFromIO(source);
    return d;
}

// Limits picture storage for the lifetime of the object.
class AllocationLimit {
public:
    explicit AllocationLimit(uint64_t bytes) { xdib_testing::SetAllocationLimit(bytes); }
    ~AllocationLimit() { xdib_testing::SetAllocationLimit(0); }
    AllocationLimit(const AllocationLimit&) = delete;
    AllocationLimit& operator=(const AllocationLimit&) = delete;
};

}  // namespace imgtest
