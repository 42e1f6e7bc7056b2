// WebP, AVIF, HEIF and JPEG XL: pictures made by the libraries' own encoders, decoded through
// sniffing and dispatch as the viewer loads them.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "base/types.h"
#include "image/decoders.h"
#include "image/exifinfo.h"
#include "image/format.h"
#include "image/jpegmeta.h"
#include "image/xanimdib.h"
#include "image/xdib.h"
#include "image/xdibio.h"
#include "image_test_util.h"
#include "modern_fixtures.h"

using namespace imgtest;
using namespace modernfix;

namespace {

// Smooth colours, so that lossy coders stay close, with alpha from 1 to 255 (lossless coders
// may change the colour under alpha 0, which no one sees).
Picture Gradient(uint32_t w, uint32_t h, bool alpha) {
    Picture p(w, h);
    for (uint32_t y = 0; y < h; ++y)
        for (uint32_t x = 0; x < w; ++x)
            p.At(x, y) = {uint8_t(40 + x * 160 / w), uint8_t(30 + y * 180 / h),
                          uint8_t(200 - (x + y) * 100 / (w + h)),
                          alpha ? uint8_t(1 + (x * 7 + y * 13) % 255) : uint8_t(255)};
    return p;
}

// Every pixel differs from its neighbours: no coder can predict it away, so the body of a file
// spreads over the whole picture and a cut loses rows.
Picture Noise(uint32_t w, uint32_t h, uint32_t seed) {
    Picture p(w, h);
    uint32_t s = seed;
    for (Rgba& c : p.pixels) {
        s = s * 1664525u + 1013904223u;
        c = {uint8_t(s >> 24), uint8_t(s >> 16), uint8_t(s >> 8), 255};
    }
    return p;
}

struct Difference {
    int max = 0;
    double mean = 0;
};
Difference Compare(const XDib& dib, const Picture& want, bool alpha) {
    Difference d;
    uint64_t sum = 0, count = 0;
    for (uint32_t y = 0; y < want.height; ++y)
        for (uint32_t x = 0; x < want.width; ++x) {
            const Rgba got = PixelOf(dib, x, y), w = want.At(x, y);
            const int diffs[] = {got.r - w.r, got.g - w.g, got.b - w.b, alpha ? got.a - w.a : 0};
            for (int v : diffs) d.max = std::max(d.max, std::abs(v)), sum += std::abs(v), ++count;
        }
    d.mean = count ? double(sum) / double(count) : 0;
    return d;
}

// The picture turned as EXIF orientation `o` asks, the way a viewer shows it.
Picture Oriented(const Picture& p, int o) {
    const bool transposed = o >= 5;
    Picture out(transposed ? p.height : p.width, transposed ? p.width : p.height);
    for (uint32_t y = 0; y < out.height; ++y)
        for (uint32_t x = 0; x < out.width; ++x) {
            uint32_t sx = x, sy = y;
            const uint32_t W = out.width - 1, H = out.height - 1;
            switch (o) {
                case 2:
                    sx = W - x;
                    break;
                case 3:
                    sx = W - x, sy = H - y;
                    break;
                case 4:
                    sy = H - y;
                    break;
                case 5:
                    sx = y, sy = x;
                    break;
                case 6:
                    sx = y, sy = W - x;
                    break;
                case 7:
                    sx = H - y, sy = W - x;
                    break;
                case 8:
                    sx = H - y, sy = x;
                    break;
                default:
                    break;
            }
            out.At(x, y) = p.At(sx, sy);
        }
    return out;
}

struct Loaded {
    bool whole = false;
    XDib dib;
    ExifInfo exif{};
};
Loaded Load(const Bytes& file) {
    Loaded l;
    CJPEGMetaData meta(&l.exif);
    CXDibMemIO source(file.data(), int64_t(file.size()));
    l.whole = l.dib.LoadFromIO(source, nullptr, &meta);
    return l;
}

XDibFormat Sniff(const Bytes& b) {
    CXDibMemIO io(b.data(), int64_t(b.size()));
    return SniffFormat(io, nullptr);
}

Bytes Cut(const Bytes& b, size_t size) {
    return Bytes(b.begin(), b.begin() + std::min(size, b.size()));
}

// Skips a test whose encoder isn't in this build.
#define REQUIRE_FILE(bytes, what) \
    if ((bytes).empty()) GTEST_SKIP() << "no encoder for " << (what) << " here"

}  // namespace

TEST(ModernStill, PicturesDecodeToTheirPixels) {
    const Picture opaque = Gradient(19, 13, false), alpha = Gradient(19, 13, true);
    struct Case {
        const char* what;
        Bytes file;
        XDibFormat format;
        bool hasAlpha;
        int maxDiff;  // 0: exact
    };
    const Case cases[] = {
        {"WebP lossless", EncodeWebp(opaque), FORMAT_WEBP, false, 0},
        {"WebP lossless with alpha", EncodeWebp(alpha, {.alpha = true}), FORMAT_WEBP, true, 0},
        {"WebP lossy", EncodeWebp(opaque, {.lossless = false}), FORMAT_WEBP, false, 24},
        {"WebP lossy with alpha", EncodeWebp(alpha, {.alpha = true, .lossless = false}),
         FORMAT_WEBP, true, 24},
        {"AVIF lossless", EncodeAvif(opaque), FORMAT_AVIF, false, 0},
        {"AVIF lossless with alpha", EncodeAvif(alpha, {.alpha = true}), FORMAT_AVIF, true, 0},
        {"AVIF lossy 4:2:0", EncodeAvif(opaque, {.lossless = false}), FORMAT_AVIF, false, 24},
        {"AVIF sequence, first image", EncodeAvif(opaque, {.sequence = true}), FORMAT_AVIF, false,
         0},
        {"HEIC", EncodeHeif(opaque), FORMAT_HEIF, false, 16},
        {"HEIC with alpha", EncodeHeif(alpha, {.alpha = true}), FORMAT_HEIF, true, 16},
        {"JPEG XL lossless", EncodeJxl(opaque), FORMAT_JXL, false, 0},
        {"JPEG XL lossless with alpha", EncodeJxl(alpha, {.alpha = true}), FORMAT_JXL, true, 0},
        {"JPEG XL in its container", EncodeJxl(opaque, {.container = true}), FORMAT_JXL, false, 0},
        {"JPEG XL lossy", EncodeJxl(opaque, {.lossless = false}), FORMAT_JXL, false, 16},
        {"JPEG XL animation, first frame",
         EncodeJxl(opaque, {.moreFrames = {Noise(19, 13, 1), Noise(19, 13, 2)}}), FORMAT_JXL, false,
         0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        if (c.file.empty()) {
            ADD_FAILURE() << "the encoder wrote nothing";
            continue;
        }
        const Loaded l = Load(c.file);
        ASSERT_TRUE(l.whole);
        EXPECT_EQ(l.dib.nFormat, uint32_t(c.format));
        EXPECT_EQ(l.dib.nBpp, c.hasAlpha ? 32u : 24u);
        const Picture& want = c.hasAlpha ? alpha : opaque;
        if (c.maxDiff == 0) {
            EXPECT_TRUE(SamePixels(l.dib, want, c.hasAlpha));
        } else {
            ASSERT_EQ(l.dib.nWidth, want.width);
            ASSERT_EQ(l.dib.nHeight, want.height);
            const Difference d = Compare(l.dib, want, c.hasAlpha);
            EXPECT_LE(d.max, c.maxDiff);
            EXPECT_LE(d.mean, 4.0);
        }

        // The viewer's load path: one frame, no delay.
        XAnimDib anim;
        CXDibMemIO source(c.file.data(), int64_t(c.file.size()));
        EXPECT_TRUE(anim.Load(source));
        ASSERT_EQ(anim.GetFrameCount(), 1u);
        EXPECT_EQ(anim.GetDelay(0), 0u);
        EXPECT_EQ(anim.GetFrame(0)->nBpp, l.dib.nBpp);
        EXPECT_EQ(anim.GetFrame(0)->nFormat, uint32_t(c.format));
    }
}

// The libraries decode on several threads when the program has them (JPEG XL hands its rows to
// the picture from every thread); the picture must not depend on it.
TEST(ModernStill, SeveralThreadsGiveTheSamePicture) {
    const Picture p = Noise(600, 300, 21);
    const struct {
        const char* what;
        Bytes file;
    } cases[] = {
        {"WebP", EncodeWebp(p, {.lossless = false})},
        {"AVIF", EncodeAvif(p, {.lossless = false})},
        {"HEIF", EncodeHeif(p)},
        {"JPEG XL", EncodeJxl(p, {.lossless = false})},
    };
    const uint32_t saved = nThreadCount;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_FALSE(c.file.empty());
        nThreadCount = 1;
        const Loaded one = Load(c.file);
        nThreadCount = 4;
        const Loaded four = Load(c.file);
        nThreadCount = saved;
        ASSERT_TRUE(one.whole);
        ASSERT_TRUE(four.whole);
        ASSERT_EQ(one.dib.nStride, four.dib.nStride);
        ASSERT_EQ(one.dib.nHeight, four.dib.nHeight);
        for (uint32_t y = 0; y < one.dib.nHeight; ++y)
            ASSERT_EQ(std::memcmp(one.dib.GetRow(y), four.dib.GetRow(y),
                                  size_t(one.dib.nWidth) * one.dib.nBytesPerPixel),
                      0)
                << "row " << y;
    }
}

// AVIF's irot turns anticlockwise by quarter turns and imir mirrors after it; libavif leaves
// both to the decoder. A picture wider than high shows every mix-up of the axes.
TEST(ModernStill, AvifRotationAndMirrorAreApplied) {
    const Picture p = Noise(5, 3, 7);
    // irot, imir (-1: none) and the EXIF orientation that shows the same.
    const struct {
        int irot, imir, orientation;
    } cases[] = {
        {-1, -1, 1}, {0, -1, 1}, {1, -1, 8}, {2, -1, 3}, {3, -1, 6}, {-1, 0, 4},
        {-1, 1, 2},  {1, 0, 5},  {1, 1, 7},  {3, 0, 7},  {3, 1, 5},  {2, 1, 4},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("irot " + std::to_string(c.irot) + " imir " + std::to_string(c.imir));
        const Bytes file = EncodeAvif(p, {.irot = c.irot, .imir = c.imir});
        REQUIRE_FILE(file, "AVIF");
        const Loaded l = Load(file);
        ASSERT_TRUE(l.whole);
        EXPECT_TRUE(SamePixels(l.dib, Oriented(p, c.orientation)));
    }
}

// HEIF's irot/imir are applied by libheif, JPEG XL's codestream orientation by libjxl.
TEST(ModernStill, HeifAndJxlDeliverThePictureTurned) {
    const Picture p = Gradient(24, 16, false);
    for (int orientation : {2, 3, 6, 8}) {
        SCOPED_TRACE("orientation " + std::to_string(orientation));
        const Picture want = Oriented(p, orientation);
        const Bytes heif = EncodeHeif(p, {.orientation = orientation});
        REQUIRE_FILE(heif, "HEIF");
        const Loaded h = Load(heif);
        ASSERT_TRUE(h.whole);
        ASSERT_EQ(h.dib.nWidth, want.width);
        ASSERT_EQ(h.dib.nHeight, want.height);
        EXPECT_LE(Compare(h.dib, want, false).mean, 4.0);
        const Loaded j = Load(EncodeJxl(p, {.orientation = orientation}));
        ASSERT_TRUE(j.whole);
        EXPECT_TRUE(SamePixels(j.dib, want));
    }
}

// The cache turns a page by its EXIF orientation. A container that has turned the picture
// itself reports 1, with every other EXIF field kept; WebP has no turn of its own, so its EXIF
// orientation stands.
TEST(ModernStill, ExifOrientationIsReportedAsTheContainerLeavesThePicture) {
    {
        ExifInfo info{};
        CJPEGMetaData meta(&info);
        const Bytes block = TiffExif(6, "Orlimo");
        if (!meta.ParseTiffExif(block.data(), block.size()) || info.nOrientation != 6)
            GTEST_SKIP() << "the EXIF parser isn't in this build";
    }
    const Picture p = Gradient(12, 8, false);
    const Bytes exif = TiffExif(6, "Orlimo");
    Bytes prefixed = {'E', 'x', 'i', 'f', 0, 0};  // the TIFF header behind a 6-byte offset
    prefixed.insert(prefixed.end(), exif.begin(), exif.end());
    const Picture second = Noise(12, 8, 3);
    const struct {
        const char* what;
        Bytes file;
        int orientation;
    } cases[] = {
        {"WebP", EncodeWebp(p, {.exif = exif}), 6},
        {"WebP animation", EncodeWebpAnimation({{p, 100}, {second, 100}}, 0, exif), 6},
        {"AVIF", EncodeAvif(p, {.irot = 3, .exif = exif}), 1},
        {"AVIF, offset to the TIFF header", EncodeAvif(p, {.irot = 3, .exif = prefixed}), 1},
        {"HEIF, offset to the TIFF header", EncodeHeif(p, {.orientation = 6, .exif = prefixed}), 1},
        {"JPEG XL", EncodeJxl(p, {.orientation = 6, .exif = exif}), 1},
        {"JPEG XL, offset to the TIFF header", EncodeJxl(p, {.orientation = 6, .exif = prefixed}),
         1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_FALSE(c.file.empty());
        const Loaded l = Load(c.file);
        ASSERT_TRUE(l.whole);
        EXPECT_TRUE(l.exif.bIsExif);
        EXPECT_EQ(l.exif.nOrientation, c.orientation);
        EXPECT_STREQ(l.exif.szCameraMake, "Orlimo");
        // Turned pictures arrive upright: 8 x 12.
        EXPECT_EQ(l.dib.nWidth, c.orientation == 1 ? 8u : 12u);

        // The same through the viewer's load path.
        ExifInfo info{};
        CJPEGMetaData meta(&info);
        XAnimDib anim;
        CXDibMemIO source(c.file.data(), int64_t(c.file.size()));
        EXPECT_TRUE(anim.Load(source, nullptr, &meta));
        EXPECT_EQ(info.nOrientation, c.orientation);
    }
}

TEST(ModernAnimation, WebpFramesAreWholeCanvasesWithTheirDelays) {
    // Each frame changes a part of the one before, so the encoder stores sub-rectangles and
    // blends; the decoder must give back every canvas whole. Transparent areas show through.
    std::vector<Picture> canvases;
    Picture canvas = Gradient(16, 12, true);
    for (uint32_t i = 0; i < 4; ++i) {
        for (uint32_t y = 2 + i; y < 6 + i; ++y)
            for (uint32_t x = 3 * i; x < 3 * i + 5; ++x)
                canvas.At(x, y) = {uint8_t(60 * i), 200, uint8_t(255 - 50 * i),
                                   uint8_t(i ? 255 : 0)};
        canvases.push_back(canvas);
    }
    const int durations[] = {70, 0, 250, 40};
    std::vector<WebpFrame> frames;
    for (int i = 0; i < 4; ++i) frames.push_back({canvases[i], durations[i]});
    const Bytes file = EncodeWebpAnimation(frames, 0x80112233);  // A 80, R 11, G 22, B 33
    ASSERT_FALSE(file.empty());
    ASSERT_EQ(Sniff(file), FORMAT_WEBP);

    XAnimDib anim;
    CXDibMemIO source(file.data(), int64_t(file.size()));
    ASSERT_TRUE(anim.Load(source));
    ASSERT_EQ(anim.GetFrameCount(), 4u);
    const uint32_t delays[] = {70, 100, 250, 40};  // a duration of 0 plays as 100 ms
    for (uint32_t i = 0; i < 4; ++i) {
        SCOPED_TRACE("frame " + std::to_string(i));
        const XDib& frame = *anim.GetFrame(i);
        EXPECT_EQ(anim.GetDelay(i), delays[i]);
        EXPECT_EQ(frame.nBpp, 32u);
        EXPECT_EQ(frame.nFormat, uint32_t(FORMAT_WEBP));
        EXPECT_EQ(frame.clrBackground, 0x332211u);
        EXPECT_TRUE(SamePixels(frame, canvases[i], true));
    }
    EXPECT_EQ(anim.pLastDib, anim.GetFrame(3));

    // A single picture of an animation is its first frame.
    const Loaded first = Load(file);
    EXPECT_TRUE(first.whole);
    EXPECT_TRUE(SamePixels(first.dib, canvases[0], true));

    // Cut in the last frame: the whole frames are kept and the load reports a partial sequence;
    // the first frame alone is still whole.
    const Bytes cut = Cut(file, file.size() - 20);
    XAnimDib partial;
    CXDibMemIO cutSource(cut.data(), int64_t(cut.size()));
    EXPECT_FALSE(partial.Load(cutSource));
    ASSERT_EQ(partial.GetFrameCount(), 3u);
    for (uint32_t i = 0; i < 3; ++i)
        EXPECT_TRUE(SamePixels(*partial.GetFrame(i), canvases[i], true));
    EXPECT_TRUE(Load(cut).whole);
}

// Storage that runs out ends the sequence; the first picture is made before the library spends
// anything on the canvas.
TEST(ModernAnimation, WebpAnimationWithoutStorageFailsCleanly) {
    std::vector<WebpFrame> frames;
    for (uint32_t i = 0; i < 3; ++i) frames.push_back({Noise(64, 64, i), 50});
    const Bytes file = EncodeWebpAnimation(frames);
    ASSERT_FALSE(file.empty());
    const AllocationLimit limit(64 * 64 * 4 - 1);
    XAnimDib anim;
    CXDibMemIO source(file.data(), int64_t(file.size()));
    EXPECT_FALSE(anim.Load(source));
    EXPECT_EQ(anim.GetFrameCount(), 0u);
    const Loaded first = Load(file);
    EXPECT_FALSE(first.whole);
    EXPECT_TRUE(first.dib.IsEmpty());
}

TEST(ModernSniffing, RealFilesOfEachKind) {
    const Picture p = Gradient(9, 7, true);
    const struct {
        const char* what;
        Bytes file;
        XDibFormat format;
    } cases[] = {
        {"WebP lossless (VP8L)", EncodeWebp(p), FORMAT_WEBP},
        {"WebP lossy (VP8)", EncodeWebp(p, {.lossless = false}), FORMAT_WEBP},
        {"WebP extended (VP8X)", EncodeWebp(p, {.exif = TiffExif(1, "x")}), FORMAT_WEBP},
        {"WebP animation", EncodeWebpAnimation({{p, 10}, {Noise(9, 7, 1), 10}}), FORMAT_WEBP},
        {"AVIF", EncodeAvif(p), FORMAT_AVIF},
        {"AVIF with alpha", EncodeAvif(p, {.alpha = true}), FORMAT_AVIF},
        {"AVIF sequence (avis)", EncodeAvif(p, {.sequence = true}), FORMAT_AVIF},
        {"HEIC", EncodeHeif(p), FORMAT_HEIF},
        {"JPEG XL codestream", EncodeJxl(p), FORMAT_JXL},
        {"JPEG XL container", EncodeJxl(p, {.container = true}), FORMAT_JXL},
    };
    for (const auto& c : cases) {
        ASSERT_FALSE(c.file.empty()) << c.what;
        EXPECT_EQ(Sniff(c.file), c.format) << c.what;
    }
    // A bare JPEG XL codestream has no signature beyond FF 0A, and the TGA test comes first: its
    // size header must never make a plausible TGA header, at any small size.
    for (uint32_t w = 1; w <= 40; ++w)
        for (uint32_t h : {1u, 8u, 16u, 33u}) {
            const Bytes file = EncodeJxl(Picture(w, h, {9, 9, 9, 255}));
            if (file.size() >= kSniffBytes) {
                EXPECT_EQ(Sniff(file), FORMAT_JXL) << w << " x " << h;
            }
        }
}

// The newer formats are tested after the first eleven: headers of the earlier formats that
// carry a newer signature further on keep their old result.
TEST(ModernSniffing, EarlierResultsAreUnchanged) {
    const auto header = [](std::initializer_list<uint8_t> start, size_t at,
                           std::initializer_list<uint8_t> later) {
        Bytes b(26, 0);
        std::copy(start.begin(), start.end(), b.begin());
        std::copy(later.begin(), later.end(), b.begin() + at);
        return b;
    };
    const struct {
        const char* what;
        Bytes bytes;
        XDibFormat format;
    } cases[] = {
        {"BMP with WEBP at 8", header({'B', 'M'}, 8, {'W', 'E', 'B', 'P'}), FORMAT_BMP},
        {"JPEG with ftypavif at 4",
         header({0xFF, 0xD8, 0xFF}, 4, {'f', 't', 'y', 'p', 'a', 'v', 'i', 'f'}), FORMAT_JPEG},
        {"TIFF with ftypheic at 4",
         header({'I', 'I', 0x2A, 0}, 4, {'f', 't', 'y', 'p', 'h', 'e', 'i', 'c'}), FORMAT_TIFF},
        {"JP2 signature box",
         header({0, 0, 0, 12, 'j', 'P', ' ', ' '}, 8, {0x0D, 0x0A, 0x87, 0x0A}), FORMAT_JP2},
        {"TGA of type 2", header({0, 0, 2}, 12, {4, 0, 4, 0, 24}), FORMAT_TGA},
        {"RIFF of another kind", header({'R', 'I', 'F', 'F'}, 8, {'A', 'V', 'I', ' '}),
         FORMAT_UNKNOWN},
        {"ISO media of another brand",
         header({0, 0, 0, 24}, 4, {'f', 't', 'y', 'p', 'm', 'p', '4', '2'}), FORMAT_UNKNOWN},
        {"mif1 naming avif second",
         header({0, 0, 0, 24}, 4, {'f', 't', 'y', 'p', 'm', 'i', 'f', '1', 0,   0,
                                   0,   0,   'm', 'i', 'f', '1', 'a', 'v', 'i', 'f'}),
         FORMAT_AVIF},
        {"mif1 without avif",
         header({0, 0, 0, 24}, 4, {'f', 't', 'y', 'p', 'm', 'i', 'f', '1', 0,   0,
                                   0,   0,   'm', 'i', 'f', '1', 'h', 'e', 'i', 'c'}),
         FORMAT_HEIF},
    };
    for (const auto& c : cases) EXPECT_EQ(Sniff(c.bytes), c.format) << c.what;
}

// A file cut anywhere gives a picture of the size its header states, or nothing. WebP keeps
// the rows that arrived and clears the rest; JPEG XL shows what its decoder can flush; AV1 and
// HEVC pictures come whole or not at all.
TEST(ModernHostile, TruncatedFilesGivePartOfThePictureOrNothing) {
    const Picture big = Noise(64, 96, 11);
    enum Outcome { kNothing, kTopRows, kSomePicture };
    const struct {
        const char* what;
        Bytes file;
        Outcome atThreeQuarters;
    } cases[] = {
        {"WebP lossless", EncodeWebp(big), kTopRows},
        {"WebP lossy", EncodeWebp(big, {.lossless = false}), kTopRows},
        {"AVIF", EncodeAvif(big), kNothing},
        {"HEIF", EncodeHeif(big), kNothing},
        {"JPEG XL lossless", EncodeJxl(Noise(300, 600, 5)), kSomePicture},
        {"JPEG XL lossy", EncodeJxl(Noise(300, 600, 5), {.lossless = false}), kSomePicture},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_FALSE(c.file.empty());
        const Loaded whole = Load(c.file);
        ASSERT_TRUE(whole.whole);
        for (size_t size :
             {size_t(30), size_t(60), c.file.size() / 4, c.file.size() / 2, c.file.size() - 1}) {
            SCOPED_TRACE("cut at " + std::to_string(size));
            const Loaded l = Load(Cut(c.file, size));
            if (l.dib.IsEmpty()) continue;
            EXPECT_EQ(l.dib.nWidth, whole.dib.nWidth);
            EXPECT_EQ(l.dib.nHeight, whole.dib.nHeight);
            EXPECT_EQ(l.dib.nBpp, whole.dib.nBpp);
        }
        const Loaded cut = Load(Cut(c.file, c.file.size() * 3 / 4));
        EXPECT_FALSE(cut.whole);
        EXPECT_EQ(cut.dib.IsEmpty(), c.atThreeQuarters == kNothing);
        if (c.atThreeQuarters != kTopRows || cut.dib.IsEmpty()) continue;
        // The first row comes out as in the whole picture, the last row is cleared.
        const XDib& full = whole.dib;
        const size_t rowBytes = size_t(full.nWidth) * full.nBytesPerPixel;
        EXPECT_EQ(std::memcmp(cut.dib.GetRow(0), full.GetRow(0), rowBytes), 0);
        const Bytes zero(rowBytes, 0);
        EXPECT_EQ(std::memcmp(cut.dib.GetRow(full.nHeight - 1), zero.data(), rowBytes), 0);
    }
}

namespace {

// A JPEG XL codestream that states only its size: the size header with 30-bit dimensions and
// all-default metadata, bits written from the low end of each byte.
Bytes JxlSizeOnly(uint32_t width, uint32_t height) {
    Bytes b = {0xFF, 0x0A};
    uint64_t bits = 0;
    int count = 0;
    const auto put = [&](uint64_t value, int n) {
        bits |= value << count, count += n;
        while (count >= 8) b.push_back(uint8_t(bits)), bits >>= 8, count -= 8;
    };
    put(0, 1);                       // not a multiple of 8
    put(3, 2), put(height - 1, 30);  // the 30-bit form
    put(0, 3);                       // no aspect ratio: the width follows
    put(3, 2), put(width - 1, 30);
    put(1, 1);  // all-default metadata
    put(0, 7);
    b.resize(64, 0);
    return b;
}

// The first box of type `box` in an ISO media file, at its size field; npos when absent.
size_t FindBox(const Bytes& file, const char* box) {
    for (size_t i = 4; i + 4 <= file.size(); ++i)
        if (std::memcmp(file.data() + i, box, 4) == 0) return i - 4;
    return std::string::npos;
}

void PutBe32(Bytes& b, size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) b[at + i] = uint8_t(v >> (24 - 8 * i));
}

}  // namespace

// Headers that claim pictures beyond the program's cap are refused before the picture is made;
// noise behind a valid signature and damaged bodies fail or give a picture, and never crash.
TEST(ModernHostile, LyingHeadersAndDamagedBodies) {
    const Picture p = Noise(32, 24, 9);
    Bytes avif = EncodeAvif(p), heif = EncodeHeif(p);
    ASSERT_FALSE(avif.empty());
    ASSERT_FALSE(heif.empty());
    const size_t avifIspe = FindBox(avif, "ispe"), heifIspe = FindBox(heif, "ispe");
    ASSERT_NE(avifIspe, std::string::npos);
    ASSERT_NE(heifIspe, std::string::npos);
    Bytes hugeAvif = avif, hugeHeif = heif;
    for (Bytes* b : {&hugeAvif, &hugeHeif}) {
        const size_t at = b == &hugeAvif ? avifIspe : heifIspe;
        PutBe32(*b, at + 12, 60000), PutBe32(*b, at + 16, 60000);  // 3.6 gigapixels
    }
    const struct {
        const char* what;
        Bytes file;
    } lies[] = {
        {"JPEG XL of 2^30 x 2^30", JxlSizeOnly(1u << 30, 1u << 30)},
        {"JPEG XL of 100000 x 100000", JxlSizeOnly(100000, 100000)},
        {"AVIF whose ispe claims 60000 x 60000", hugeAvif},
        {"HEIF whose ispe claims 60000 x 60000", hugeHeif},
    };
    for (const auto& c : lies) {
        const Loaded l = Load(c.file);
        EXPECT_FALSE(l.whole) << c.what;
        EXPECT_TRUE(l.dib.IsEmpty()) << c.what;
    }

    // A WebP of 16383 x 16383, the format's largest, fits the cap; with little storage left it
    // fails cleanly instead.
    Bytes webp = EncodeWebp(Picture(16, 16, {1, 2, 3, 255}));
    ASSERT_FALSE(webp.empty());
    ASSERT_EQ(std::memcmp(webp.data() + 12, "VP8L", 4), 0);
    const uint32_t dims = (16383 - 1) | ((16383 - 1) << 14);  // 14 bits each after the 0x2F
    for (int i = 0; i < 4; ++i) webp[21 + i] = uint8_t(dims >> (8 * i));
    {
        const AllocationLimit limit(64 << 20);
        const Loaded l = Load(webp);
        EXPECT_FALSE(l.whole);
        EXPECT_TRUE(l.dib.IsEmpty());
    }

    // Noise behind each signature, and every valid file with a run of bytes flipped.
    const Bytes valid[] = {EncodeWebp(p),
                           EncodeWebp(p, {.lossless = false}),
                           EncodeWebpAnimation({{p, 10}, {Noise(32, 24, 2), 10}}),
                           avif,
                           heif,
                           EncodeJxl(p),
                           EncodeJxl(p, {.exif = TiffExif(6, "x")})};
    uint32_t seed = 1;
    const auto next = [&] { return seed = seed * 1103515245u + 12345u; };
    for (const Bytes& file : valid) {
        ASSERT_FALSE(file.empty());
        for (int round = 0; round < 24; ++round) {
            Bytes damaged = file;
            const size_t from = round < 12 ? 32 : next() % damaged.size();
            for (size_t i = from; i < damaged.size() && i < from + 1 + next() % 64; ++i)
                damaged[i] = uint8_t(round < 12 ? next() : damaged[i] ^ 0xFF);
            const Loaded l = Load(damaged);
            if (!l.dib.IsEmpty()) {
                EXPECT_GT(l.dib.nWidth, 0u);
                EXPECT_GT(l.dib.nHeight, 0u);
            }
            XAnimDib anim;
            CXDibMemIO source(damaged.data(), int64_t(damaged.size()));
            anim.Load(source);
        }
    }
}
