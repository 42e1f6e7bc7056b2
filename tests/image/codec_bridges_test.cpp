// HD Photo through jxrlib, JPEG 2000 through OpenJPEG and DNG through LibRaw: what each makes
// of the formats its encoder writes, and reduced decodes. Then, for every bridge, headers that
// lie about the size and files cut short.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "base/crc32.h"
#include "bridge_test_util.h"
#include "bridge_writers.h"
#include "image/format.h"
#include "image/xanimdib.h"

using bridgetest::Colour;
using bridgetest::ColourPixel;
using bridgetest::NearPixels;
using bridgewrite::J2kComponent;
using bridgewrite::J2kFixture;
using bridgewrite::JxrFormat;
using imgtest::Bytes;
using imgtest::Decode;
using imgtest::Rgba;

namespace {

constexpr uint32_t kW = 37, kH = 23;  // not a whole number of 16-pixel macroblocks

imgtest::Decoded DecodeNamed(const Bytes& file, const char* name,
                             const XDibScaleRequest* request = nullptr) {
    imgtest::Decoded d;
    CXDibMemIO source(file.data(), int64_t(file.size()));
    d.whole = d.dib.LoadFromIO(source, name, nullptr, request);
    return d;
}

// Rows of w x h pixels of `channels` bytes each.
template <class Fn>
Bytes JxrPixels(uint32_t w, uint32_t h, uint32_t channels, Fn value) {
    Bytes b;
    for (uint32_t i = 0; i < w * h * channels; ++i)
        b.push_back(uint8_t(value(i / channels % w, i / channels / w, i % channels)));
    return b;
}

// A component of a kW x kH picture, sampled every `step` pixels each way.
template <class Fn>
J2kComponent Component(uint32_t precision, bool isSigned, Fn value, uint32_t step = 1) {
    J2kComponent c{.precision = precision, .isSigned = isSigned, .dx = step, .dy = step};
    for (uint32_t y = 0; y < (kH + step - 1) / step; ++y)
        for (uint32_t x = 0; x < (kW + step - 1) / step; ++x) c.samples.push_back(value(x, y));
    return c;
}
// Colour() at `precision` bits, the bits below the top 8 all set.
J2kFixture RgbJ2k(bool jp2, uint32_t precision = 8) {
    J2kFixture fixture{.width = kW, .height = kH, .jp2 = jp2};
    for (uint32_t c = 0; c < 3; ++c)
        fixture.components.push_back(Component(precision, false, [=](uint32_t x, uint32_t y) {
            return int32_t(Colour(x, y, c)) << (precision - 8) | ((1 << (precision - 8)) - 1);
        }));
    return fixture;
}

// A 64 x 64 Bayer raw image: the left half lit at 3000, the right half at 300.
Bytes Dng(bool dngVersion = true) {
    std::vector<uint16_t> cfa(64 * 64);
    for (uint32_t i = 0; i < cfa.size(); ++i) cfa[i] = i % 64 < 32 ? 3000 : 300;
    return bridgewrite::WriteDng(64, 64, cfa, 4095, dngVersion);
}

}  // namespace

TEST(HdPhotoBridge, PixelFormatsBecomeBgrOrBgra) {
    const auto alpha = [](uint32_t x, uint32_t y) { return uint8_t(x * 7 + y); };
    for (const auto& [format, channels] :
         {std::pair(JxrFormat::kBgra32, 4u), std::pair(JxrFormat::kGrey8, 1u),
          std::pair(JxrFormat::kRgb48, 6u)}) {
        const bool bgra = format == JxrFormat::kBgra32, grey = format == JxrFormat::kGrey8;
        // B, G, R, A; grey (Colour's red); R, G, B of 16 bits, little-endian.
        const auto sample = [&](uint32_t x, uint32_t y, uint32_t c) {
            if (bgra) return c < 3 ? Colour(x, y, 2 - c) : alpha(x, y);
            return grey ? Colour(x, y, 0) : c % 2 ? Colour(x, y, c / 2) : uint8_t(0x80);
        };
        const imgtest::Decoded d =
            Decode(bridgewrite::WriteJxr(kW, kH, format, JxrPixels(kW, kH, channels, sample)));
        EXPECT_TRUE(d.whole) << channels;
        EXPECT_EQ(d.dib.nBpp, bgra ? 32u : 24u) << channels;
        EXPECT_EQ(d.dib.nFormat, uint32_t(FORMAT_HDP)) << channels;
        const auto expected = [&](uint32_t x, uint32_t y) {
            const uint8_t r = Colour(x, y, 0);
            if (grey) return Rgba{r, r, r, 255};
            return Rgba{r, Colour(x, y, 1), Colour(x, y, 2), bgra ? alpha(x, y) : uint8_t(255)};
        };
        EXPECT_TRUE(NearPixels(d.dib, kW, kH, expected, grey || bgra ? 0 : 1, bgra)) << channels;
    }
}

TEST(HdPhotoBridge, ScaleRequestDecodesTheThumbnailSizeRoundedUp) {
    // Smooth, so that a reduced decode lands near the pixel it stands for.
    const auto smooth = [](uint32_t x, uint32_t y, uint32_t c) {
        return uint8_t(c == 0 ? x + y : c == 1 ? 250 - x : 2 * y);
    };
    const uint32_t w = 150, h = 97;
    const Bytes file = bridgewrite::WriteJxr(
        w, h, JxrFormat::kBgr24, JxrPixels(w, h, 3, [&](uint32_t x, uint32_t y, uint32_t c) {
            return smooth(x, y, 2 - c);
        }));
    // s doubles while the picture divided by 2s still covers the target.
    for (const auto& [request, scale] :
         {std::pair(XDibScaleRequest{.bEnable = 0, .nTargetWidth = 10}, 1u),
          std::pair(XDibScaleRequest{.bEnable = 1, .nTargetWidth = 70}, 2u),
          std::pair(XDibScaleRequest{.bEnable = 1, .nTargetWidth = 0, .nTargetHeight = 20}, 4u),
          std::pair(XDibScaleRequest{.bEnable = 1, .nTargetWidth = 1, .nTargetHeight = 1}, 8u)}) {
        const uint32_t s = scale;  // a copy, for the lambda below
        const imgtest::Decoded d = DecodeNamed(file, nullptr, &request);
        EXPECT_TRUE(d.whole) << s;
        EXPECT_EQ(d.dib.bReduced, s > 1 ? 1u : 0u) << s;
        EXPECT_TRUE(s == 1 || (d.dib.nOrigWidth == w && d.dib.nOrigHeight == h)) << s;
        const auto expected = [&](uint32_t x, uint32_t y) {
            const uint32_t sx = std::min(x * s + s / 2, w - 1), sy = std::min(y * s + s / 2, h - 1);
            return Rgba{smooth(sx, sy, 0), smooth(sx, sy, 1), smooth(sx, sy, 2), 255};
        };
        EXPECT_TRUE(NearPixels(d.dib, (w + s - 1) / s, (h + s - 1) / s, expected, 3 * int(s) + 4))
            << s;
    }
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
    const imgtest::Decoded d = Decode(file);
    EXPECT_FALSE(d.whole);
    EXPECT_TRUE(d.dib.IsEmpty() || d.dib.nWidth == 20u);
    // The bridge still works afterwards, also in a process that leaves its children to the
    // system (SIGCHLD ignored), where the decoding child can't be waited for.
    const auto previous = std::signal(SIGCHLD, SIG_IGN);
    const imgtest::Decoded grey =
        Decode(bridgewrite::WriteJxr(4, 4, JxrFormat::kGrey8, Bytes(16, 77)));
    std::signal(SIGCHLD, previous);
    EXPECT_TRUE(grey.whole);
    EXPECT_TRUE(NearPixels(grey.dib, 4, 4, [](uint32_t, uint32_t) {
        return Rgba{77, 77, 77, 255};
    }));
}

TEST(Jpeg2000Bridge, SamplesAreBroughtToEightBits) {
    const auto luma = [](uint32_t x, uint32_t y) { return int32_t(60 + x * 3 + y * 2); };
    const auto cb = [](uint32_t x, uint32_t) { return int32_t(100 + x * 3); };
    const auto cr = [](uint32_t, uint32_t y) { return int32_t(170 - y * 5); };
    J2kFixture ycc{.width = kW, .height = kH, .sycc = true}, grey = RgbJ2k(false);
    ycc.components = {Component(8, false, luma), Component(8, false, cb, 2),
                      Component(8, false, cr, 2)};
    grey.components = {
        Component(4, true, [](uint32_t x, uint32_t y) { return int32_t((x + y) % 16) - 8; })};
    const struct {
        const char* what;
        J2kFixture fixture;
        bridgetest::Expected expected;
        int tolerance = 0;
    } cases[] = {
        {"JP2, RGB 8 bits", RgbJ2k(true), ColourPixel},
        {"codestream, RGB 12 bits shifted down", RgbJ2k(false, 12), ColourPixel},
        {"codestream, signed grey 4 bits scaled up", grey,
         [](uint32_t x, uint32_t y) {
             const uint8_t g = uint8_t((x + y) % 16 * 17);
             return Rgba{g, g, g, 255};
         }},
        {"JP2, sYCC with chroma at half resolution", ycc,
         [&](uint32_t x, uint32_t y) {
             const double l = luma(x, y), b = cb(x / 2, y / 2) - 128, r = cr(x / 2, y / 2) - 128;
             const auto c8 = [](double v) { return uint8_t(std::clamp(v + 0.5, 0.0, 255.0)); };
             return Rgba{c8(l + 1.402 * r), c8(l - 0.344136 * b - 0.714136 * r), c8(l + 1.772 * b),
                         255};
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

TEST(DngBridge, DevelopsDngAndRefusesOtherTiffs) {
    testing::internal::CaptureStderr();
    const imgtest::Decoded d = DecodeNamed(Dng(), "photo.dng");
    const std::string console = testing::internal::GetCapturedStderr();
    ASSERT_TRUE(d.whole);
    EXPECT_EQ(d.dib.nFormat, uint32_t(FORMAT_DNG));
    EXPECT_EQ(std::pair(d.dib.nWidth, d.dib.nHeight), std::pair(64u, 64u));
    // The lit half is brighter, and a neutral scene stays near grey.
    const Rgba lit = imgtest::PixelOf(d.dib, 16, 32), dark = imgtest::PixelOf(d.dib, 48, 32);
    EXPECT_GT(lit.g, dark.g + 40);
    EXPECT_LT(std::max({lit.r, lit.g, lit.b}) - std::min({lit.r, lit.g, lit.b}), 40);
    for (const char* stage :
         {"Raw image read time: ", "Linearization time: ", "Interpolate time: "})
        EXPECT_NE(console.find(stage), std::string::npos) << console;

    // A plain TIFF named x.dng goes to the DNG path and fails there; named x.tif it is a TIFF.
    // So does a camera raw TIFF that LibRaw could develop but that isn't a DNG.
    const Bytes tiff =
        bridgewrite::WriteTiff({{.width = 64, .height = 64, .data = Bytes(4096, 0x80)}});
    EXPECT_TRUE(DecodeNamed(tiff, "x.dng").dib.IsEmpty());
    EXPECT_TRUE(DecodeNamed(Dng(false), "x.dng").dib.IsEmpty());
    XAnimDib anim;
    CXDibMemIO io(tiff.data(), int64_t(tiff.size()));
    EXPECT_FALSE(anim.Load(io, "x.dng"));
    EXPECT_TRUE(DecodeNamed(tiff, "x.tif").whole);
}

TEST(Bridges, HugeSizesInTheHeaderFailBeforeAllocating) {
    // PNG: IHDR's width at 16, height at 20, its CRC at 29 over bytes 12..28.
    const auto png = [](uint32_t w, uint32_t h) {
        Bytes b =
            bridgewrite::WritePng({.width = 2, .height = 2, .samples = std::vector<uint16_t>(12)});
        for (int i = 0; i < 4; ++i)
            b[16 + i] = uint8_t(w >> (24 - 8 * i)), b[20 + i] = uint8_t(h >> (24 - 8 * i));
        const uint32_t crc = Crc32(b.data() + 12, 17);
        for (int i = 0; i < 4; ++i) b[29 + i] = uint8_t(crc >> (24 - 8 * i));
        return b;
    };
    // HD Photo: 2^31 - 1 each way in the image header behind "WMPHOTO".
    Bytes hdp = bridgewrite::WriteJxr(kW, kH, JxrFormat::kGrey8, Bytes(kW * kH));
    const auto wmph = std::search(hdp.begin(), hdp.end(), std::begin("WMPH"), std::end("WMPH") - 1);
    ASSERT_NE(wmph, hdp.end());
    std::fill_n(wmph + 12, 8, 0xFF);
    // JPEG 2000: the codestream's SIZ marker claims 2^31 - 1 pixels each way.
    Bytes j2k = bridgewrite::WriteJ2k(RgbJ2k(false));
    for (size_t k = 0; k < 8; ++k) j2k[8 + k] = k % 4 == 0 ? 0x7F : 0xFF;
    imgtest::AllocationLimit limit(1 << 20);
    for (const auto& [what, file] : {std::pair("PNG of 100000 x 100000", png(100000, 100000)),
                                     std::pair("PNG of 2^31 - 1 x 1", png(0x7FFFFFFF, 1)),
                                     std::pair("HD Photo", hdp), std::pair("JPEG 2000", j2k)}) {
        const imgtest::Decoded d = Decode(file);
        EXPECT_FALSE(d.whole) << what;
        EXPECT_TRUE(d.dib.IsEmpty()) << what;
    }
}

TEST(Bridges, FilesCutAnywhereGiveAFullSizedPictureOrNone) {
    std::minstd_rand random;
    std::vector<uint16_t> noise(kW * kH * 3);
    for (uint16_t& v : noise) v = uint16_t(random() & 255);
    const Bytes bytes(noise.begin(), noise.end());
    testing::internal::CaptureStderr();  // LibRaw's stage times
    for (const auto& [name, file] :
         {std::pair("x.png", bridgewrite::WritePng({.width = kW, .height = kH, .samples = noise})),
          std::pair("x.tif", bridgewrite::WriteTiff(
                                 {{.width = kW, .height = kH, .rowsPerStrip = 5, .data = bytes}})),
          std::pair("x.wdp", bridgewrite::WriteJxr(kW, kH, JxrFormat::kBgr24, bytes)),
          std::pair("x.jp2", bridgewrite::WriteJ2k(RgbJ2k(true))),
          std::pair("x.j2k", bridgewrite::WriteJ2k(RgbJ2k(false))), std::pair("x.dng", Dng())}) {
        const imgtest::Decoded whole = DecodeNamed(file, name);
        EXPECT_TRUE(whole.whole) << name;
        for (size_t cut = 0; cut < file.size(); cut += file.size() / 32 + 1) {
            const imgtest::Decoded d = DecodeNamed(bridgetest::Cut(file, cut), name);
            EXPECT_FALSE(d.whole && cut < file.size() / 2) << name << " cut at " << cut;
            EXPECT_TRUE(d.dib.IsEmpty() ||
                        (d.dib.nWidth == whole.dib.nWidth && d.dib.nHeight == whole.dib.nHeight))
                << name << " cut at " << cut;
        }
    }
    testing::internal::GetCapturedStderr();
}
