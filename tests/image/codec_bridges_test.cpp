// HD Photo through jxrlib, JPEG 2000 through OpenJPEG and DNG through LibRaw: what each makes
// of the formats its encoder writes, reduced decodes, broken headers and files cut short.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "bridge_test_util.h"
#include "bridge_writers.h"
#include "image/decoders.h"
#include "image/format.h"
#include "image/xanimdib.h"
#include "image/xdib.h"
#include "image/xdibio.h"
#include "image_test_util.h"

using bridgetest::NearPixels;
using bridgewrite::J2kComponent;
using bridgewrite::J2kFixture;
using bridgewrite::JxrFormat;
using imgtest::Bytes;
using imgtest::Decode;
using imgtest::Rgba;

namespace {

uint8_t Colour(uint32_t x, uint32_t y, uint32_t c) {
    return uint8_t(x * 29 + y * 13 + c * 80 + 5);
}
Rgba ColourPixel(uint32_t x, uint32_t y) {
    return {Colour(x, y, 0), Colour(x, y, 1), Colour(x, y, 2), 255};
}
// Smooth enough that a reduced decode lands near the pixel it stands for, and never wrapping
// round within a picture of 150 x 97.
uint8_t Smooth(uint32_t x, uint32_t y, uint32_t c) {
    return uint8_t(c == 0 ? x + y : c == 1 ? 250 - x : 2 * y);
}

imgtest::Decoded DecodeNamed(const Bytes& file, const char* name,
                             const XDibScaleRequest* request = nullptr) {
    imgtest::Decoded d;
    CXDibMemIO source(file.data(), int64_t(file.size()));
    d.whole = d.dib.LoadFromIO(source, name, nullptr, request);
    return d;
}

// Every cut of `file` at `steps` places: no crash, and a picture either of the full size or
// none at all.
void ExpectCutsSurvive(const char* what, const Bytes& file, uint32_t width, uint32_t height,
                       const char* name = nullptr, size_t steps = 40) {
    for (size_t i = 0; i < steps; ++i) {
        const size_t cut = file.size() * i / steps;
        const imgtest::Decoded d = DecodeNamed(bridgetest::Cut(file, cut), name);
        EXPECT_FALSE(d.whole && cut < file.size() / 2) << what << " cut at " << cut;
        if (!d.dib.IsEmpty()) {
            EXPECT_EQ(d.dib.nWidth, width) << what << " cut at " << cut;
            EXPECT_EQ(d.dib.nHeight, height) << what << " cut at " << cut;
        }
    }
}

// ---- HD Photo -----------------------------------------------------------------------------

template <class Fn>
Bytes JxrPixels(uint32_t w, uint32_t h, uint32_t channels, Fn value) {
    Bytes b;
    for (uint32_t y = 0; y < h; ++y)
        for (uint32_t x = 0; x < w; ++x)
            for (uint32_t c = 0; c < channels; ++c) b.push_back(uint8_t(value(x, y, c)));
    return b;
}

// ---- JPEG 2000 ----------------------------------------------------------------------------

template <class Fn>
J2kComponent Component(uint32_t w, uint32_t h, uint32_t precision, bool isSigned, Fn value,
                       uint32_t step = 1) {
    J2kComponent c{.precision = precision, .isSigned = isSigned, .dx = step, .dy = step};
    for (uint32_t y = 0; y < (h + step - 1) / step; ++y)
        for (uint32_t x = 0; x < (w + step - 1) / step; ++x) c.samples.push_back(value(x, y));
    return c;
}

constexpr uint32_t kW = 23, kH = 17;

J2kFixture RgbJ2k(bool jp2, uint32_t precision = 8) {
    J2kFixture fixture{.width = kW, .height = kH, .jp2 = jp2};
    for (uint32_t c = 0; c < 3; ++c)
        fixture.components.push_back(Component(
            kW, kH, precision, false,
            [=](uint32_t x, uint32_t y) { return int32_t(Colour(x, y, c)) << (precision - 8); }));
    return fixture;
}

// ---- DNG ----------------------------------------------------------------------------------

// A 64 x 64 Bayer raw image: the left half lit at `bright`, the right half at `dark`.
Bytes Dng(uint16_t bright = 3000, uint16_t dark = 300) {
    std::vector<uint16_t> cfa(64 * 64);
    for (uint32_t y = 0; y < 64; ++y)
        for (uint32_t x = 0; x < 64; ++x) cfa[y * 64 + x] = x < 32 ? bright : dark;
    return bridgewrite::WriteDng(64, 64, cfa, 4095);
}

uint32_t Brightness(const XDib& dib, uint32_t x0, uint32_t x1) {
    uint64_t sum = 0, n = 0;
    for (uint32_t y = 8; y < dib.nHeight - 8; ++y)
        for (uint32_t x = x0; x < x1; ++x) {
            const Rgba p = imgtest::PixelOf(dib, x, y);
            sum += p.r + p.g + p.b, n += 3;
        }
    return uint32_t(sum / n);
}

}  // namespace

TEST(HdPhotoBridge, PixelFormatsBecomeBgrOrBgra) {
    const uint32_t w = 37, h = 23;  // not a whole number of 16-pixel macroblocks
    const auto grey = [](uint32_t x, uint32_t y) { return uint8_t(x * 5 + y * 3); };
    const struct {
        const char* what;
        JxrFormat format;
        Bytes pixels;
        uint32_t bpp;
        bridgetest::Expected expected;
        int tolerance = 0;
    } cases[] = {
        {"24 bits B, G, R", JxrFormat::kBgr24,
         JxrPixels(w, h, 3, [](uint32_t x, uint32_t y, uint32_t c) { return Colour(x, y, 2 - c); }),
         24, ColourPixel},
        {"32 bits B, G, R, A keeps alpha", JxrFormat::kBgra32,
         JxrPixels(w, h, 4,
                   [](uint32_t x, uint32_t y, uint32_t c) {
                       return c < 3 ? Colour(x, y, 2 - c) : uint8_t(x * 7 + y);
                   }),
         32,
         [](uint32_t x, uint32_t y) {
             return Rgba{Colour(x, y, 0), Colour(x, y, 1), Colour(x, y, 2), uint8_t(x * 7 + y)};
         }},
        {"8-bit grey", JxrFormat::kGrey8,
         JxrPixels(w, h, 1, [&](uint32_t x, uint32_t y, uint32_t) { return grey(x, y); }), 24,
         [&](uint32_t x, uint32_t y) {
             return Rgba{grey(x, y), grey(x, y), grey(x, y), 255};
         }},
        {"48 bits R, G, B", JxrFormat::kRgb48,
         JxrPixels(w, h, 6,
                   [](uint32_t x, uint32_t y, uint32_t c) {
                       return c % 2 ? Colour(x, y, c / 2) : uint8_t(0x80);  // little-endian
                   }),
         24, ColourPixel, 1},
    };
    for (const auto& c : cases) {
        const imgtest::Decoded d = Decode(bridgewrite::WriteJxr(w, h, c.format, c.pixels));
        EXPECT_TRUE(d.whole) << c.what;
        EXPECT_EQ(d.dib.nBpp, c.bpp) << c.what;
        EXPECT_EQ(d.dib.nFormat, uint32_t(FORMAT_HDP)) << c.what;
        EXPECT_EQ(d.dib.bReduced, 0u) << c.what;
        EXPECT_TRUE(NearPixels(d.dib, w, h, c.expected, c.tolerance, c.bpp == 32)) << c.what;
    }
}

TEST(HdPhotoBridge, ScaleRequestDecodesTheThumbnailSize) {
    // s doubles while the picture divided by 2s still covers the target; sizes round up.
    const uint32_t w = 150, h = 97;
    const Bytes file = bridgewrite::WriteJxr(
        w, h, JxrFormat::kBgr24,
        JxrPixels(w, h, 3, [](uint32_t x, uint32_t y, uint32_t c) { return Smooth(x, y, 2 - c); }));
    const struct {
        XDibScaleRequest request;
        uint32_t s;
    } cases[] = {
        {{.bEnable = 0, .nTargetWidth = 10}, 1},
        {{.bEnable = 1, .nTargetWidth = 100}, 1},
        {{.bEnable = 1, .nTargetWidth = 70}, 2},
        {{.bEnable = 1, .nTargetWidth = 0, .nTargetHeight = 20}, 4},
        {{.bEnable = 1, .nTargetWidth = 1, .nTargetHeight = 1}, 8},
    };
    for (const auto& c : cases) {
        const imgtest::Decoded d = DecodeNamed(file, nullptr, &c.request);
        const uint32_t ow = (w + c.s - 1) / c.s, oh = (h + c.s - 1) / c.s;
        EXPECT_TRUE(d.whole) << "s = " << c.s;
        EXPECT_EQ(d.dib.bReduced, c.s > 1 ? 1u : 0u) << "s = " << c.s;
        if (c.s > 1) {
            EXPECT_EQ(std::pair(d.dib.nOrigWidth, d.dib.nOrigHeight), std::pair(w, h));
        }
        EXPECT_TRUE(NearPixels(
            d.dib, ow, oh,
            [&](uint32_t x, uint32_t y) {
                const uint32_t sx = std::min(x * c.s + c.s / 2, w - 1);
                const uint32_t sy = std::min(y * c.s + c.s / 2, h - 1);
                return Rgba{Smooth(sx, sy, 0), Smooth(sx, sy, 1), Smooth(sx, sy, 2), 255};
            },
            3 * int(c.s) + 4))
            << "s = " << c.s;
    }
}

TEST(HdPhotoBridge, BrokenFilesFailOrShowWhatCame) {
    const uint32_t w = 64, h = 48;
    const Bytes file = bridgewrite::WriteJxr(
        w, h, JxrFormat::kBgr24,
        JxrPixels(w, h, 3, [](uint32_t x, uint32_t y, uint32_t c) { return Colour(x, y, c); }));
    ExpectCutsSurvive("HD Photo", file, w, h);
    // Sizes of 2^31 - 1 in the image header: refused before the codec sizes its buffers.
    Bytes huge = file;
    for (size_t i = 0; i + 4 < huge.size(); ++i)
        if (huge[i] == 'W' && huge[i + 1] == 'M' && huge[i + 2] == 'P' && huge[i + 3] == 'H') {
            for (size_t k = 0; k < 8; ++k) huge[i + 12 + k] = 0xFF;
            break;
        }
    imgtest::AllocationLimit limit(1 << 20);
    EXPECT_TRUE(Decode(huge).dib.IsEmpty());
}

TEST(HdPhotoBridge, CodecCrashCostsOnlyThePicture) {
    // A file the bridges fuzzer made from a valid 20 x 18 picture: jxrlib's entropy decoder
    // reads far outside its tables on it and dies. The decode runs apart, so this process
    // survives and gets what was decoded before, or nothing.
    const char* root = std::getenv("ORLIMO_SOURCE_DIR");
    ASSERT_NE(root, nullptr);
    std::ifstream in(std::string(root) + "/tests/image/data/bridges/damaged-macroblocks.jxr",
                     std::ios::binary);
    const Bytes file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ASSERT_GT(file.size(), 1000u);
    for (int run = 0; run < 2; ++run) {
        const imgtest::Decoded d = Decode(file);
        EXPECT_FALSE(d.whole);
        if (!d.dib.IsEmpty()) {
            EXPECT_EQ(d.dib.nWidth, 20u);
        }
    }
    // The bridge still works afterwards, also in a process that leaves its children to the
    // system (SIGCHLD ignored), where the decoding child can't be waited for.
    const Bytes grey = bridgewrite::WriteJxr(4, 4, JxrFormat::kGrey8, Bytes(16, 77));
    EXPECT_TRUE(Decode(grey).whole);
    const auto previous = std::signal(SIGCHLD, SIG_IGN);
    const imgtest::Decoded reaped = Decode(grey);
    std::signal(SIGCHLD, previous);
    EXPECT_TRUE(reaped.whole);
    EXPECT_TRUE(NearPixels(reaped.dib, 4, 4, [](uint32_t, uint32_t) {
        return Rgba{77, 77, 77, 255};
    }));
}

TEST(Jpeg2000Bridge, SamplesAreBroughtToEightBits) {
    const auto grey = [](uint32_t x, uint32_t y) { return uint8_t(x * 9 + y * 4); };
    const auto greyPixel = [&](uint32_t x, uint32_t y) {
        return Rgba{grey(x, y), grey(x, y), grey(x, y), 255};
    };
    J2kFixture rgba = RgbJ2k(true);
    rgba.components.push_back(
        Component(kW, kH, 8, false, [](uint32_t x, uint32_t) { return int32_t(x * 11); }));
    J2kFixture ycc{.width = kW, .height = kH, .jp2 = true, .sycc = true};
    const auto y = [](uint32_t x, uint32_t yy) { return int32_t(60 + x * 3 + yy * 2); };
    ycc.components = {Component(kW, kH, 8, false, y),
                      Component(
                          kW, kH, 8, false, [](uint32_t, uint32_t) { return 100; }, 2),
                      Component(
                          kW, kH, 8, false, [](uint32_t, uint32_t) { return 170; }, 2)};
    const struct {
        const char* what;
        J2kFixture fixture;
        bridgetest::Expected expected;
        int tolerance = 0;
    } cases[] = {
        {"JP2, RGB 8 bits", RgbJ2k(true), ColourPixel},
        {"codestream, RGB 8 bits", RgbJ2k(false), ColourPixel},
        {"JP2, RGB 16 bits shifted down", RgbJ2k(true, 16), ColourPixel},
        {"JP2, RGBA drops alpha", rgba, ColourPixel},
        {"codestream, grey 12 bits",
         {.width = kW,
          .height = kH,
          .jp2 = false,
          .components = {Component(
              kW, kH, 12, false,
              [&](uint32_t x, uint32_t yy) { return int32_t(grey(x, yy)) << 4 | 0xF; })}},
         greyPixel},
        {"codestream, signed grey 8 bits",
         {.width = kW,
          .height = kH,
          .jp2 = false,
          .components = {Component(
              kW, kH, 8, true,
              [&](uint32_t x, uint32_t yy) { return int32_t(grey(x, yy)) - 128; })}},
         greyPixel},
        {"JP2, grey 4 bits scaled up",
         {.width = kW,
          .height = kH,
          .components = {Component(
              kW, kH, 4, false, [](uint32_t x, uint32_t yy) { return int32_t((x + yy) % 16); })}},
         [](uint32_t x, uint32_t yy) {
             const uint8_t g = uint8_t((x + yy) % 16 * 17);
             return Rgba{g, g, g, 255};
         }},
        {"JP2, sYCC with chroma at half resolution", ycc,
         [&](uint32_t x, uint32_t yy) {
             const double l = y(x, yy), cb = 100 - 128, cr = 170 - 128;
             const auto c8 = [](double v) { return uint8_t(std::clamp(v + 0.5, 0.0, 255.0)); };
             return Rgba{c8(l + 1.402 * cr), c8(l - 0.344136 * cb - 0.714136 * cr),
                         c8(l + 1.772 * cb), 255};
         },
         1},
    };
    for (const auto& c : cases) {
        const imgtest::Decoded d = Decode(bridgewrite::WriteJ2k(c.fixture));
        EXPECT_TRUE(d.whole) << c.what;
        EXPECT_EQ(d.dib.nBpp, 24u) << c.what;
        EXPECT_EQ(d.dib.nFormat, uint32_t(c.fixture.jp2 ? FORMAT_JP2 : FORMAT_J2K)) << c.what;
        EXPECT_TRUE(NearPixels(d.dib, kW, kH, c.expected, c.tolerance)) << c.what;
    }
}

TEST(Jpeg2000Bridge, BrokenHeadersAndCutFilesAreCaught) {
    const Bytes jp2 = bridgewrite::WriteJ2k(RgbJ2k(true));
    const Bytes j2k = bridgewrite::WriteJ2k(RgbJ2k(false));
    // The image header box: "ihdr", then height, width (4 bytes each), components.
    const auto ihdr = std::search(jp2.begin(), jp2.end(), std::begin("ihdr"), std::end("ihdr") - 1);
    ASSERT_NE(ihdr, jp2.end());
    const size_t at = size_t(ihdr - jp2.begin()) + 4;
    Bytes zeroSize = jp2, hugeSize = jp2, noComponents = jp2, badBox = jp2;
    std::fill_n(zeroSize.begin() + long(at), 8, 0);
    std::fill_n(hugeSize.begin() + long(at), 8, 0x7F);
    noComponents[at + 8] = noComponents[at + 9] = 0;
    badBox[at - 8] = 0x7F;  // the box's length runs far past the file
    // The codestream's SIZ marker: Xsiz and Ysiz claim 2^31 - 1 pixels each way.
    Bytes hugeSiz = j2k;
    for (size_t k = 0; k < 8; ++k) hugeSiz[8 + k] = k % 4 == 0 ? 0x7F : 0xFF;
    imgtest::AllocationLimit limit(1 << 20);
    for (const auto& [what, file] :
         {std::pair("zero size", zeroSize), std::pair("huge size", hugeSize),
          std::pair("no components", noComponents), std::pair("box past the end", badBox),
          std::pair("codestream of 2^31 - 1 squared", hugeSiz)}) {
        const imgtest::Decoded d = Decode(file);
        EXPECT_FALSE(d.whole) << what;
        if (!d.dib.IsEmpty()) {
            EXPECT_EQ(d.dib.nWidth, kW) << what;
        }
    }
    ExpectCutsSurvive("JP2", jp2, kW, kH);
    ExpectCutsSurvive("J2K", j2k, kW, kH);
}

TEST(DngBridge, DevelopsDngAndRefusesOtherTiffs) {
    const Bytes dng = Dng();
    testing::internal::CaptureStderr();
    const imgtest::Decoded d = DecodeNamed(dng, "photo.dng");
    const std::string console = testing::internal::GetCapturedStderr();
    ASSERT_TRUE(d.whole);
    EXPECT_EQ(d.dib.nBpp, 24u);
    EXPECT_EQ(d.dib.nFormat, uint32_t(FORMAT_DNG));
    EXPECT_EQ(std::pair(d.dib.nWidth, d.dib.nHeight), std::pair(64u, 64u));
    // The lit half is brighter, and a neutral scene stays near grey.
    EXPECT_GT(Brightness(d.dib, 4, 28), Brightness(d.dib, 36, 60) + 40);
    const Rgba mid = imgtest::PixelOf(d.dib, 16, 32);
    EXPECT_LT(std::max({mid.r, mid.g, mid.b}) - std::min({mid.r, mid.g, mid.b}), 40)
        << int(mid.r) << "," << int(mid.g) << "," << int(mid.b);
    for (const char* stage :
         {"Raw image read time: ", "Linearization time: ", "Interpolate time: "})
        EXPECT_NE(console.find(stage), std::string::npos) << console;
    EXPECT_NE(console.find(" sec\n"), std::string::npos) << console;

    // A plain TIFF named x.dng goes to the DNG path and fails there.
    const Bytes tiff = bridgewrite::WriteTiff(
        {{.width = 64, .height = 64, .photometric = 1, .data = Bytes(64 * 64, 0x80)}});
    const imgtest::Decoded plain = DecodeNamed(tiff, "x.dng");
    EXPECT_FALSE(plain.whole);
    EXPECT_TRUE(plain.dib.IsEmpty());
    XAnimDib anim;
    CXDibMemIO io(tiff.data(), int64_t(tiff.size()));
    EXPECT_FALSE(anim.Load(io, "x.dng"));
    // The same bytes under another name are a TIFF.
    EXPECT_TRUE(DecodeNamed(tiff, "x.tif").whole);

    testing::internal::CaptureStderr();
    ExpectCutsSurvive("DNG", dng, 64, 64, "cut.dng", 24);
    testing::internal::GetCapturedStderr();
}
