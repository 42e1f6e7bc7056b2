// Helpers of the image tests: test pictures, decoding from memory, and pixel comparison that
// says where and how a decoded picture differs from the picture a file was written from.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <sstream>

#include "image/xdib.h"
#include "image/xdib_testing.h"
#include "image/xdibio.h"
#include "imgwrite/imgwrite.h"

namespace imgtest {

using imgwrite::Bytes;
using imgwrite::Picture;
using imgwrite::Rgba;

// Colour `k` of a table whose first 256 colours all differ (each channel is a permutation).
inline Rgba TableColour(uint32_t k) {
    return {uint8_t(k * 37 + 11), uint8_t(k * 89 + 3), uint8_t(k * 151 + 7), 255};
}

// A picture of at most `colours` colours (0: unlimited) whose alpha runs through 0..255, so
// that a decoder that keeps, drops or mixes alpha shows it.
inline Picture Pattern(uint32_t w, uint32_t h, uint32_t colours = 0, uint32_t seed = 1) {
    Picture p(w, h);
    for (uint32_t y = 0; y < h; ++y)
        for (uint32_t x = 0; x < w; ++x) {
            Rgba& c = p.At(x, y);
            if (colours)
                c = TableColour((x * 3 + y * 5 + (x * y + seed) % 7) % colours);
            else
                c = {uint8_t(x * 7 + y * 3 + seed), uint8_t(x * y + 5 * seed),
                     uint8_t(255 - x * 11 + y * 13), 255};
            c.a = uint8_t(x * 41 + y * 17 + seed);
        }
    return p;
}

// Runs, short stretches of distinct colours, spans of colour 0 and blank rows: what run-length
// coders turn into runs, absolute runs, deltas and early ends.
inline Picture RunsPattern(uint32_t w, uint32_t h, uint32_t colours) {
    Picture p(w, h, TableColour(0));
    for (uint32_t y = 1; y < h; ++y) {
        if (y % 4 == 3) continue;
        for (uint32_t x = 0; x < w; ++x) {
            const uint32_t band = (x + y) % 24;
            const uint32_t k = band < 9    ? 1 + y % (colours - 1)
                               : band < 14 ? 1 + (x * 5 + y) % (colours - 1)
                                           : 0;
            p.At(x, y) = TableColour(k);
        }
    }
    return p;
}

// Each channel cut to its top bits, low bits zero: 5-5-5 and 5-6-5 as decoders widen them.
inline Picture Quantised(Picture p, int r, int g, int b) {
    for (Rgba& c : p.pixels)
        c.r &= uint8_t(0xFF << (8 - r)), c.g &= uint8_t(0xFF << (8 - g)),
            c.b &= uint8_t(0xFF << (8 - b));
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

// The colour of a pixel of 1, 4, 8, 24 or 32 bits; alpha is 255 below 32 bits.
inline Rgba PixelOf(const XDib& dib, uint32_t x, uint32_t y) {
    const uint8_t* row = dib.GetRow(y);
    if (dib.nBpp > 8) {
        const uint8_t* q = row + size_t(x) * dib.nBytesPerPixel;
        return {q[2], q[1], q[0], dib.nBpp == 32 ? q[3] : uint8_t(255)};
    }
    const uint32_t index = dib.nBpp == 1   ? (row[x / 8] >> (7 - x % 8)) & 1
                           : dib.nBpp == 4 ? (row[x / 2] >> (x % 2 ? 0 : 4)) & 15
                                           : row[x];
    const uint8_t* q = dib.GetPalette() + 4 * index;
    return {q[2], q[1], q[0], 255};
}

// Every pixel of `dib` against `expected`: sizes first, then the first few differences.
inline ::testing::AssertionResult SamePixels(const XDib& dib, const Picture& expected,
                                             bool compareAlpha = false) {
    if (dib.nWidth != expected.width || dib.nHeight != expected.height || dib.IsEmpty())
        return ::testing::AssertionFailure()
               << "size " << dib.nWidth << "x" << dib.nHeight << ", expected " << expected.width
               << "x" << expected.height;
    std::ostringstream diffs;
    uint32_t count = 0;
    for (uint32_t y = 0; y < expected.height; ++y)
        for (uint32_t x = 0; x < expected.width; ++x) {
            Rgba got = PixelOf(dib, x, y), want = expected.At(x, y);
            if (!compareAlpha) got.a = want.a = 255;
            if (got == want || count++ >= 6) continue;
            diffs << " (" << x << "," << y << "): got";
            for (const Rgba& c : {got, want})
                diffs << " " << int(c.r) << "," << int(c.g) << "," << int(c.b) << "," << int(c.a);
        }
    if (count == 0) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure()
           << count << " pixel(s) differ, got and wanted:" << diffs.str();
}

// Decodes `bytes` through sniffing and dispatch as the viewer does, or by `decoder` alone (for
// hand-made files shorter than sniffing reads, or that sniffing refuses).
struct Decoded {
    bool whole = false;
    XDib dib;
};
inline Decoded Decode(const Bytes& bytes, bool (*decoder)(XDib&, IXDibIO&) = nullptr) {
    Decoded d;
    CXDibMemIO source(bytes.data(), int64_t(bytes.size()));
    d.whole = decoder ? decoder(d.dib, source) : d.dib.LoadFromIO(source);
    return d;
}

// `file` through the viewer's load path: a whole picture of `bpp` bits taken by `format`, whose
// pixels are `expected`.
inline ::testing::AssertionResult DecodesTo(const Bytes& file, const Picture& expected,
                                            uint32_t bpp, uint32_t format,
                                            bool compareAlpha = false) {
    const Decoded d = Decode(file);
    if (!d.whole || d.dib.nBpp != bpp || d.dib.nFormat != format)
        return ::testing::AssertionFailure()
               << "whole " << d.whole << ", " << d.dib.nBpp << " bits, format " << d.dib.nFormat;
    return SamePixels(d.dib, expected, compareAlpha);
}

// Hand-made files for bodies no writer produces: a PackBits PSD of 8 bits (its table of row
// lengths left at zero) and a 24-bit run-length TGA, each followed by `body`.
inline Bytes PackBitsPsd(uint32_t w, uint32_t h, uint8_t channels, uint8_t mode,
                         const Bytes& body) {
    Bytes b = {'8', 'B', 'P', 'S', 0, 1, 0, 0, 0, 0, 0, 0, 0, channels};
    for (uint32_t v : {h, w})
        for (int shift = 24; shift >= 0; shift -= 8) b.push_back(uint8_t(v >> shift));
    b.insert(b.end(), {0, 8, 0, mode});
    b.resize(b.size() + 12 + 2 + size_t(channels) * h * 2);  // sections, compression, table
    b[26 + 12 + 1] = 1;
    b.insert(b.end(), body.begin(), body.end());
    return b;
}
inline Bytes RleTga(uint32_t w, uint32_t h, uint8_t depth, uint8_t descriptor, const Bytes& body) {
    Bytes b(18 + body.size(), 0);
    b[2] = 10, b[12] = uint8_t(w), b[13] = uint8_t(w >> 8), b[14] = uint8_t(h);
    b[15] = uint8_t(h >> 8), b[16] = depth, b[17] = descriptor;
    std::copy(body.begin(), body.end(), b.begin() + 18);
    return b;
}

// Limits picture storage for the lifetime of the object.
class AllocationLimit {
public:
    explicit AllocationLimit(uint64_t bytes) { xdib_testing::SetAllocationLimit(bytes); }
    ~AllocationLimit() { xdib_testing::SetAllocationLimit(0); }
};

}  // namespace imgtest
