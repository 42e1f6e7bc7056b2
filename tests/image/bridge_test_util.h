// Helpers shared by the tests of the library bridges.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <functional>

#include "image_test_util.h"

namespace bridgetest {

using imgtest::Rgba;

// A colour picture whose channels all differ and change with x and y.
inline uint8_t Colour(uint32_t x, uint32_t y, uint32_t c) {
    return uint8_t(x * 29 + y * 13 + c * 80 + 5);
}
inline Rgba ColourPixel(uint32_t x, uint32_t y) {
    return {Colour(x, y, 0), Colour(x, y, 1), Colour(x, y, 2), 255};
}

// The colour each pixel should have.
using Expected = std::function<Rgba(uint32_t x, uint32_t y)>;

// Every pixel of `dib` against `expected`, each channel within `tolerance`; sizes first, then
// the first pixel that differs.
inline ::testing::AssertionResult NearPixels(const XDib& dib, uint32_t width, uint32_t height,
                                             const Expected& expected, int tolerance = 0,
                                             bool compareAlpha = false) {
    if (dib.IsEmpty() || dib.nWidth != width || dib.nHeight != height)
        return ::testing::AssertionFailure() << "size " << dib.nWidth << "x" << dib.nHeight
                                             << ", expected " << width << "x" << height;
    const auto off = [&](uint8_t a, uint8_t b) { return std::abs(a - b) > tolerance; };
    for (uint32_t y = 0; y < height; ++y)
        for (uint32_t x = 0; x < width; ++x) {
            const Rgba got = imgtest::PixelOf(dib, x, y), want = expected(x, y);
            if (off(got.r, want.r) || off(got.g, want.g) || off(got.b, want.b) ||
                (compareAlpha && off(got.a, want.a)))
                return ::testing::AssertionFailure()
                       << "(" << x << "," << y << "): got " << int(got.r) << "," << int(got.g)
                       << "," << int(got.b) << "," << int(got.a) << ", wanted " << int(want.r)
                       << "," << int(want.g) << "," << int(want.b) << "," << int(want.a);
        }
    return ::testing::AssertionSuccess();
}

// The first `length` bytes of `file`: a file cut short.
inline imgtest::Bytes Cut(const imgtest::Bytes& file, size_t length) {
    return imgtest::Bytes(file.begin(), file.begin() + std::min(length, file.size()));
}

}  // namespace bridgetest
