// Helpers shared by the tests of the library bridges.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <sstream>

#include "image_test_util.h"

namespace bridgetest {

using imgtest::Rgba;

// The colour each pixel should have.
using Expected = std::function<Rgba(uint32_t x, uint32_t y)>;

// Every pixel of `dib` against `expected`, each channel within `tolerance`; sizes first, then
// the first few differences.
inline ::testing::AssertionResult NearPixels(const XDib& dib, uint32_t width, uint32_t height,
                                             const Expected& expected, int tolerance = 0,
                                             bool compareAlpha = false) {
    if (dib.IsEmpty() || dib.nWidth != width || dib.nHeight != height)
        return ::testing::AssertionFailure() << "size " << dib.nWidth << "x" << dib.nHeight
                                             << ", expected " << width << "x" << height;
    std::ostringstream diffs;
    uint32_t count = 0;
    for (uint32_t y = 0; y < height; ++y)
        for (uint32_t x = 0; x < width; ++x) {
            const Rgba got = imgtest::PixelOf(dib, x, y), want = expected(x, y);
            const bool near = std::abs(got.r - want.r) <= tolerance &&
                              std::abs(got.g - want.g) <= tolerance &&
                              std::abs(got.b - want.b) <= tolerance &&
                              (!compareAlpha || std::abs(got.a - want.a) <= tolerance);
            if (near || count++ >= 6) continue;
            diffs << " (" << x << "," << y << "): got";
            for (const Rgba& c : {got, want})
                diffs << " " << int(c.r) << "," << int(c.g) << "," << int(c.b) << "," << int(c.a);
        }
    if (count == 0) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure()
           << count << " pixel(s) differ, got and wanted:" << diffs.str();
}

// The first `length` bytes of `file`: a file cut short.
inline imgtest::Bytes Cut(const imgtest::Bytes& file, size_t length) {
    return imgtest::Bytes(file.begin(), file.begin() + std::min(length, file.size()));
}

}  // namespace bridgetest
