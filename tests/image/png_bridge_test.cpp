// PNG through libpng: the transformations every file gets (expansion, tRNS to alpha, grey to
// RGB, 16 to 8 bits, bKGD composition, the gAMA rule), truncated files and lying headers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "base/crc32.h"
#include "bridge_test_util.h"
#include "bridge_writers.h"
#include "image/decoders.h"
#include "image/format.h"
#include "image/xdib.h"
#include "image/xdibio.h"
#include "image_test_util.h"

using bridgetest::NearPixels;
using bridgewrite::PngFixture;
using imgtest::Bytes;
using imgtest::Decode;
using imgtest::Rgba;

namespace {

constexpr uint32_t kW = 7, kH = 5;

// Samples of a kW x kH picture with `channels` channels, each given by `value(x, y, channel)`.
template <class Fn>
std::vector<uint16_t> Samples(int channels, Fn value) {
    std::vector<uint16_t> s;
    for (uint32_t y = 0; y < kH; ++y)
        for (uint32_t x = 0; x < kW; ++x)
            for (int c = 0; c < channels; ++c) s.push_back(uint16_t(value(x, y, c)));
    return s;
}

uint8_t Colour(uint32_t x, uint32_t y, int c) {
    return uint8_t(x * 31 + y * 17 + c * 70 + 3);
}
uint8_t Alpha(uint32_t x, uint32_t y) {
    return uint8_t((x * 5 + y * 3) % 4 * 85);  // 0, 85, 170, 255
}
uint8_t Index(uint32_t x, uint32_t y) {
    return uint8_t((x + 2 * y) % 5);
}
const std::vector<bridgewrite::Rgb> kPalette = {
    {200, 10, 10}, {10, 200, 10}, {10, 10, 200}, {250, 250, 0}, {0, 0, 0}};

// 255 * (v / 255) ^ exponent, as libpng's gamma tables round it.
uint8_t Gamma(uint8_t v, double exponent) {
    return uint8_t(std::floor(255 * std::pow(v / 255.0, exponent) + 0.5));
}

Bytes Rgb8(double gamma) {
    return bridgewrite::WritePng({.width = kW,
                                  .height = kH,
                                  .colourType = 2,
                                  .samples = Samples(3, Colour),
                                  .gamma = gamma});
}

}  // namespace

TEST(PngBridge, TransformationsGiveEightBitBgrOrBgra) {
    const auto rgb = [](uint32_t x, uint32_t y) {
        return Rgba{Colour(x, y, 0), Colour(x, y, 1), Colour(x, y, 2), 255};
    };
    const auto grey = [](uint32_t x, uint32_t y) { return uint8_t(x * 30 + y * 7); };
    const auto greyPixel = [&](uint32_t x, uint32_t y) {
        const uint8_t g = grey(x, y);
        return Rgba{g, g, g, uint8_t(g == grey(1, 0) ? 0 : 255)};
    };
    const auto palettePixel = [](uint32_t x, uint32_t y) {
        const auto& c = kPalette[Index(x, y)];
        const uint8_t alpha[] = {0, 128, 255, 255, 255};
        return Rgba{c.r, c.g, c.b, alpha[Index(x, y)]};
    };
    const struct {
        const char* what;
        PngFixture fixture;
        uint32_t bpp;
        bridgetest::Expected expected;
    } cases[] = {
        {"RGB 8 bits",
         {.width = kW, .height = kH, .colourType = 2, .samples = Samples(3, Colour)},
         24,
         rgb},
        {"RGB 8 bits interlaced",
         {.width = kW,
          .height = kH,
          .colourType = 2,
          .interlaced = true,
          .samples = Samples(3, Colour)},
         24,
         rgb},
        {"RGBA 8 bits keeps straight alpha",
         {.width = kW,
          .height = kH,
          .colourType = 6,
          .samples = Samples(4, [](uint32_t x, uint32_t y,
                                   int c) { return c < 3 ? Colour(x, y, c) : Alpha(x, y); })},
         32,
         [](uint32_t x, uint32_t y) {
             return Rgba{Colour(x, y, 0), Colour(x, y, 1), Colour(x, y, 2), Alpha(x, y)};
         }},
        {"RGB 16 bits keeps the high byte",
         {.width = kW,
          .height = kH,
          .colourType = 2,
          .bitDepth = 16,
          .samples = Samples(
              3, [](uint32_t x, uint32_t y, int c) { return Colour(x, y, c) << 8 | 0xFF; })},
         24,
         rgb},
        {"grey with tRNS becomes 32 bits",
         {.width = kW,
          .height = kH,
          .colourType = 0,
          .samples = Samples(1, [&](uint32_t x, uint32_t y, int) { return grey(x, y); }),
          .transparent = grey(1, 0)},
         32,
         greyPixel},
        {"grey + alpha",
         {.width = kW,
          .height = kH,
          .colourType = 4,
          .samples = Samples(
              2, [&](uint32_t x, uint32_t y, int c) { return c == 0 ? grey(x, y) : Alpha(x, y); })},
         32,
         [&](uint32_t x, uint32_t y) {
             const uint8_t g = grey(x, y);
             return Rgba{g, g, g, Alpha(x, y)};
         }},
        {"grey 1 bit",
         {.width = kW,
          .height = kH,
          .colourType = 0,
          .bitDepth = 1,
          .samples = Samples(1, [](uint32_t x, uint32_t y, int) { return (x + y) % 2; })},
         24,
         [](uint32_t x, uint32_t y) {
             const uint8_t g = (x + y) % 2 ? 255 : 0;
             return Rgba{g, g, g, 255};
         }},
        {"grey 2 bits",
         {.width = kW,
          .height = kH,
          .colourType = 0,
          .bitDepth = 2,
          .samples = Samples(1, [](uint32_t x, uint32_t y, int) { return (x + y) % 4; })},
         24,
         [](uint32_t x, uint32_t y) {
             const uint8_t g = uint8_t((x + y) % 4 * 85);
             return Rgba{g, g, g, 255};
         }},
        {"palette 8 bits without tRNS",
         {.width = kW,
          .height = kH,
          .colourType = 3,
          .samples = Samples(1, [](uint32_t x, uint32_t y, int) { return Index(x, y); }),
          .palette = kPalette},
         24,
         palettePixel},
        {"palette 4 bits with tRNS",
         {.width = kW,
          .height = kH,
          .colourType = 3,
          .bitDepth = 4,
          .samples = Samples(1, [](uint32_t x, uint32_t y, int) { return Index(x, y); }),
          .palette = kPalette,
          .paletteAlpha = {0, 128}},
         32,
         palettePixel},
    };
    for (const auto& c : cases) {
        const imgtest::Decoded d = Decode(bridgewrite::WritePng(c.fixture));
        EXPECT_TRUE(d.whole) << c.what;
        EXPECT_EQ(d.dib.nBpp, c.bpp) << c.what;
        EXPECT_EQ(d.dib.nFormat, uint32_t(FORMAT_PNG)) << c.what;
        EXPECT_TRUE(NearPixels(d.dib, kW, kH, c.expected, 0, c.bpp == 32)) << c.what;
    }
}

TEST(PngBridge, BackgroundChunkComposesAlphaAway) {
    const bridgewrite::PngBackground background{.index = 2, .red = 10, .green = 200, .blue = 30};
    const auto mix = [](uint8_t fg, uint8_t bg, uint8_t a) {
        return uint8_t((fg * a + bg * (255 - a) + 127) / 255);
    };
    const struct {
        const char* what;
        PngFixture fixture;
        bridgetest::Expected expected;
    } cases[] = {
        {"RGBA on the stated colour",
         {.width = kW,
          .height = kH,
          .colourType = 6,
          .samples = Samples(4, [](uint32_t x, uint32_t y,
                                   int c) { return c < 3 ? Colour(x, y, c) : Alpha(x, y); }),
          .background = background},
         [&](uint32_t x, uint32_t y) {
             const uint8_t a = Alpha(x, y);
             return Rgba{mix(Colour(x, y, 0), 10, a), mix(Colour(x, y, 1), 200, a),
                         mix(Colour(x, y, 2), 30, a), 255};
         }},
        {"palette with tRNS on the stated entry",
         {.width = kW,
          .height = kH,
          .colourType = 3,
          .samples = Samples(1, [](uint32_t x, uint32_t y, int) { return Index(x, y); }),
          .palette = kPalette,
          .paletteAlpha = {0},
          .background = background},
         [](uint32_t x, uint32_t y) {
             const auto& c = kPalette[Index(x, y) == 0 ? 2 : Index(x, y)];
             return Rgba{c.r, c.g, c.b, 255};
         }},
    };
    for (const auto& c : cases) {
        const imgtest::Decoded d = Decode(bridgewrite::WritePng(c.fixture));
        EXPECT_TRUE(d.whole) << c.what;
        EXPECT_EQ(d.dib.nBpp, 24u) << c.what << ": composed pictures have no alpha left";
        EXPECT_TRUE(NearPixels(d.dib, kW, kH, c.expected, 1)) << c.what;
    }
}

TEST(PngBridge, GammaIsCorrectedForAScreenOf2Point2) {
    // Correction happens when gamma x 2.2 is off 1 by more than 0.05, with the exponent
    // 1 / (gamma x 2.2). Palette and alpha pictures ask for it in every case, but libpng 1.6
    // itself skips corrections within its own threshold of 0.05: they come out the same.
    const auto rgba = [](double gamma) {
        return bridgewrite::WritePng(
            {.width = kW,
             .height = kH,
             .colourType = 6,
             .samples = Samples(
                 4, [](uint32_t x, uint32_t y, int c) { return c < 3 ? Colour(x, y, c) : 255; }),
             .gamma = gamma});
    };
    const auto palette = [](double gamma) {
        return bridgewrite::WritePng(
            {.width = kW,
             .height = kH,
             .colourType = 3,
             .samples = Samples(1, [](uint32_t x, uint32_t y, int) { return Index(x, y); }),
             .palette = kPalette,
             .gamma = gamma});
    };
    const struct {
        const char* what;
        Bytes file;
        double exponent;  // 1: unchanged
        bool fromPalette;
    } cases[] = {
        {"RGB without gAMA", Rgb8(0), 1, false},
        {"RGB at 1/2.2", Rgb8(1 / 2.2), 1, false},
        {"RGB at 0.47 is within 0.05", Rgb8(0.47), 1, false},
        {"RGB at 1.0", Rgb8(1.0), 1 / 2.2, false},
        {"RGB at 0.4 is off by 0.12", Rgb8(0.4), 1 / 0.88, false},
        {"RGBA at 0.47", rgba(0.47), 1, false},
        {"RGBA at 1.0", rgba(1.0), 1 / 2.2, false},
        {"palette at 0.47", palette(0.47), 1, true},
        {"palette at 0.6", palette(0.6), 1 / (0.6 * 2.2), true},
    };
    for (const auto& c : cases) {
        const imgtest::Decoded d = Decode(c.file);
        EXPECT_TRUE(d.whole) << c.what;
        const auto expected = [&](uint32_t x, uint32_t y) {
            Rgba v{Colour(x, y, 0), Colour(x, y, 1), Colour(x, y, 2), 255};
            if (c.fromPalette) {
                const auto& p = kPalette[Index(x, y)];
                v = {p.r, p.g, p.b, 255};
            }
            if (c.exponent == 1) return v;
            return Rgba{Gamma(v.r, c.exponent), Gamma(v.g, c.exponent), Gamma(v.b, c.exponent),
                        255};
        };
        EXPECT_TRUE(NearPixels(d.dib, kW, kH, expected, 1)) << c.what;
    }
}

TEST(PngBridge, TruncatedFileKeepsTheRowsReadSoFar) {
    const uint32_t w = 64, h = 48;
    std::vector<uint16_t> samples;
    for (uint32_t y = 0; y < h; ++y)
        for (uint32_t x = 0; x < w * 3; ++x)
            samples.push_back(uint16_t((x * 7 + y * 13) * 2654435761u >> 24));
    for (bool interlaced : {false, true}) {
        const Bytes file = bridgewrite::WritePng({.width = w,
                                                  .height = h,
                                                  .colourType = 2,
                                                  .interlaced = interlaced,
                                                  .samples = samples});
        const imgtest::Decoded whole = Decode(file);
        ASSERT_TRUE(whole.whole);
        for (size_t cut = 30; cut < file.size(); cut += file.size() / 11) {
            const imgtest::Decoded d = Decode(bridgetest::Cut(file, cut));
            EXPECT_FALSE(d.whole) << "cut at " << cut;
            if (d.dib.IsEmpty()) continue;  // cut inside the header
            ASSERT_EQ(d.dib.nWidth, w);
            if (interlaced) continue;
            // Rows are either what the whole file gives or cleared, and cleared rows come last.
            bool cleared = false;
            for (uint32_t y = 0; y < h; ++y) {
                const bool same = std::memcmp(d.dib.GetRow(y), whole.dib.GetRow(y), w * 3) == 0;
                const bool zero = std::all_of(d.dib.GetRow(y), d.dib.GetRow(y) + w * 3,
                                              [](uint8_t b) { return b == 0; });
                EXPECT_TRUE(cleared ? zero : same || zero) << "cut at " << cut << ", row " << y;
                cleared = cleared || (zero && !same);
            }
        }
    }
}

TEST(PngBridge, HugeHeaderFailsBeforeAllocating) {
    imgtest::AllocationLimit limit(1 << 16);
    const Bytes small = Rgb8(0);
    // IHDR: width at 16, height at 20, its CRC at 29 over bytes 12..28.
    const auto withSize = [&](uint32_t w, uint32_t h) {
        Bytes b = small;
        for (int i = 0; i < 4; ++i) b[16 + i] = uint8_t(w >> (24 - 8 * i));
        for (int i = 0; i < 4; ++i) b[20 + i] = uint8_t(h >> (24 - 8 * i));
        const uint32_t crc = Crc32(b.data() + 12, 17);
        for (int i = 0; i < 4; ++i) b[29 + i] = uint8_t(crc >> (24 - 8 * i));
        return b;
    };
    for (const auto& [w, h] : {std::pair(100000u, 100000u), std::pair(0x7FFFFFFFu, 1u),
                               std::pair(1u << 24, 2u), std::pair(20000u, 20000u)}) {
        const imgtest::Decoded d = Decode(withSize(w, h));
        EXPECT_FALSE(d.whole) << w << "x" << h;
        EXPECT_TRUE(d.dib.IsEmpty()) << w << "x" << h;
    }
}
