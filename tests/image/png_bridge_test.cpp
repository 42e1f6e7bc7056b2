// PNG through libpng: the transformations every file gets (expansion, tRNS to alpha, grey to
// RGB, 16 to 8 bits, bKGD composition, the gAMA rule) and files cut short.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "bridge_test_util.h"
#include "bridge_writers.h"
#include "image/format.h"

using bridgetest::Colour;
using bridgetest::ColourPixel;
using bridgetest::NearPixels;
using bridgewrite::PngFixture;
using imgtest::Decode;
using imgtest::Rgba;

namespace {

constexpr uint32_t kW = 7, kH = 5;

// A kW x kH picture of colour type `type` whose sample c of (x, y) is `value(x, y, c)`.
template <class Fn>
PngFixture Png(int type, int depth, Fn value) {
    PngFixture f{.width = kW, .height = kH, .colourType = type, .bitDepth = depth};
    for (uint32_t y = 0; y < kH; ++y)
        for (uint32_t x = 0; x < kW; ++x)
            for (uint32_t c = 0; c < (type == 2 ? 3u : 1u); ++c)
                f.samples.push_back(uint16_t(value(x, y, c)));
    return f;
}

uint32_t Grey(uint32_t x, uint32_t y, uint32_t = 0) {
    return x * 30 + y * 7;  // 30 only at (1, 0)
}
uint32_t Index(uint32_t x, uint32_t y, uint32_t = 0) {
    return (x + 2 * y) % 5;
}
const std::vector<bridgewrite::Rgb> kPalette = {
    {200, 10, 10}, {10, 200, 10}, {10, 10, 200}, {250, 250, 0}, {0, 0, 0}};
Rgba Entry(uint32_t i, uint8_t alpha) {
    return {kPalette[i].r, kPalette[i].g, kPalette[i].b, alpha};
}

}  // namespace

TEST(PngBridge, TransformationsAndTheGammaRuleGiveEightBitBgrOrBgra) {
    PngFixture greyTrns = Png(0, 8, Grey), paletteTrns = Png(3, 4, Index);
    PngFixture composed = Png(3, 8, Index), gammaNear = Png(2, 8, Colour), gammaFar = gammaNear;
    greyTrns.transparent = 30;
    paletteTrns.palette = composed.palette = kPalette;
    paletteTrns.paletteAlpha = {0, 128};
    composed.paletteAlpha = {0};
    composed.backgroundIndex = 2;
    // Corrected when gamma x 2.2 is off 1 by more than 0.05, with the exponent 1 / (gamma x 2.2).
    gammaNear.gamma = 0.47;
    gammaFar.gamma = 0.4;
    const auto corrected = [](uint32_t x, uint32_t y) {
        const auto v = [&](uint32_t c) {
            return uint8_t(std::lround(255 * std::pow(Colour(x, y, c) / 255.0, 1 / 0.88)));
        };
        return Rgba{v(0), v(1), v(2), 255};
    };
    const struct {
        const char* what;
        PngFixture fixture;
        uint32_t bpp;
        bridgetest::Expected expected;
        int tolerance = 0;
    } cases[] = {
        {"RGB 8 bits", Png(2, 8, Colour), 24, ColourPixel},
        {"RGB 16 bits keeps the high byte",
         Png(2, 16, [](uint32_t x, uint32_t y, uint32_t c) { return Colour(x, y, c) << 8 | 0xFF; }),
         24, ColourPixel},
        {"grey with tRNS becomes 32 bits", greyTrns, 32,
         [](uint32_t x, uint32_t y) {
             const uint8_t g = uint8_t(Grey(x, y));
             return Rgba{g, g, g, uint8_t(g == 30 ? 0 : 255)};
         }},
        {"palette 4 bits with tRNS becomes 32 bits", paletteTrns, 32,
         [](uint32_t x, uint32_t y) {
             const uint8_t alpha[] = {0, 128, 255, 255, 255};
             return Entry(Index(x, y), alpha[Index(x, y)]);
         }},
        {"bKGD composes tRNS away on the stated entry", composed, 24,
         [](uint32_t x, uint32_t y) { return Entry(Index(x, y) == 0 ? 2 : Index(x, y), 255); }},
        {"gAMA near 1 / 2.2 is left alone", gammaNear, 24, ColourPixel, 1},
        {"gAMA farther off is corrected", gammaFar, 24, corrected, 1},
    };
    for (const auto& c : cases) {
        const imgtest::Decoded d = Decode(bridgewrite::WritePng(c.fixture));
        EXPECT_TRUE(d.whole) << c.what;
        EXPECT_EQ(d.dib.nBpp, c.bpp) << c.what;
        EXPECT_EQ(d.dib.nFormat, uint32_t(FORMAT_PNG)) << c.what;
        EXPECT_TRUE(NearPixels(d.dib, kW, kH, c.expected, c.tolerance, c.bpp == 32)) << c.what;
    }
}

TEST(PngBridge, CutFileKeepsTheRowsReadSoFar) {
    // libpng reads 8 KB at a time, and a read that runs past the end brings nothing: the
    // picture is large enough for whole reads to come before the cut.
    const uint32_t w = 128, h = 64;
    PngFixture fixture{.width = w, .height = h};
    std::minstd_rand noise;
    for (uint32_t i = 0; i < w * h * 3; ++i) fixture.samples.push_back(uint16_t(noise() & 255));
    const imgtest::Bytes file = bridgewrite::WritePng(fixture);
    const imgtest::Decoded whole = Decode(file);
    ASSERT_TRUE(whole.whole);
    for (size_t cut : {file.size() / 2, file.size() * 3 / 4}) {
        const imgtest::Decoded d = Decode(bridgetest::Cut(file, cut));
        EXPECT_FALSE(d.whole) << cut;
        ASSERT_EQ(d.dib.nHeight, h) << cut;
        // The rows read are what the whole file gives, the rest is cleared.
        uint32_t kept = 0;
        while (kept < h && std::memcmp(d.dib.GetRow(kept), whole.dib.GetRow(kept), w * 3) == 0)
            ++kept;
        EXPECT_GT(kept, 0u) << cut;
        EXPECT_LT(kept, h) << cut;
        for (uint32_t y = kept; y < h; ++y)
            EXPECT_TRUE(std::all_of(d.dib.GetRow(y), d.dib.GetRow(y) + w * 3,
                                    [](uint8_t b) { return b == 0; }))
                << "cut at " << cut << ", row " << y;
    }
}
