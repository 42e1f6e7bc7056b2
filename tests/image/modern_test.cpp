// WebP, AVIF, HEIF and JPEG XL: pictures made by the libraries' own encoders, decoded through
// sniffing and dispatch as the viewer loads them.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "base/types.h"
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
    for (Rgba& c : p.pixels) {
        seed = seed * 1664525u + 1013904223u;
        c = {uint8_t(seed >> 24), uint8_t(seed >> 16), uint8_t(seed >> 8), 255};
    }
    return p;
}

// The largest difference of any channel, alpha included; 999 for a picture of another size.
int MaxDiff(const XDib& dib, const Picture& want) {
    if (dib.nWidth != want.width || dib.nHeight != want.height) return 999;
    int max = 0;
    for (uint32_t y = 0; y < want.height; ++y)
        for (uint32_t x = 0; x < want.width; ++x) {
            const Rgba a = PixelOf(dib, x, y), b = want.At(x, y);
            for (int d : {a.r - b.r, a.g - b.g, a.b - b.b, a.a - b.a}) max = std::max(max, abs(d));
        }
    return max;
}

// The picture turned as EXIF orientation `o` asks, the way a viewer shows it: mirrored left to
// right and/or top to bottom, then for 5 to 8 transposed.
Picture Oriented(const Picture& p, int o) {
    const bool transposed = o >= 5, flipX = o == 2 || o == 3 || o == 6 || o == 7,
               flipY = o == 3 || o == 4 || o == 7 || o == 8;
    Picture out(transposed ? p.height : p.width, transposed ? p.width : p.height);
    for (uint32_t y = 0; y < out.height; ++y)
        for (uint32_t x = 0; x < out.width; ++x) {
            const uint32_t u = flipX ? out.width - 1 - x : x, v = flipY ? out.height - 1 - y : y;
            out.At(x, y) = transposed ? p.At(v, u) : p.At(u, v);
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
// Through the viewer's load path, as frames.
bool LoadFrames(const Bytes& file, XAnimDib& anim, CJPEGMetaData* meta = nullptr) {
    CXDibMemIO source(file.data(), int64_t(file.size()));
    return anim.Load(source, nullptr, meta);
}

XDibFormat Sniff(const Bytes& b) {
    CXDibMemIO io(b.data(), int64_t(b.size()));
    return SniffFormat(io, nullptr);
}

}  // namespace

TEST(ModernStill, PicturesDecodeToTheirPixels) {
    const Picture opaque = Gradient(19, 13, false), alpha = Gradient(19, 13, true);
    const struct {
        const char* what;
        Bytes file;
        XDibFormat format;
        bool hasAlpha;
        int maxDiff;  // 0: exact
    } cases[] = {
        {"WebP lossless", EncodeWebp(opaque), FORMAT_WEBP, false, 0},
        {"WebP lossless with alpha", EncodeWebp(alpha, {.alpha = true}), FORMAT_WEBP, true, 0},
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
        {"JPEG XL lossy", EncodeJxl(opaque, {.lossless = false}), FORMAT_JXL, false, 16},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const Loaded l = Load(c.file);
        ASSERT_TRUE(l.whole);
        EXPECT_EQ(l.dib.nFormat, uint32_t(c.format));
        EXPECT_EQ(l.dib.nBpp, c.hasAlpha ? 32u : 24u);
        EXPECT_LE(MaxDiff(l.dib, c.hasAlpha ? alpha : opaque), c.maxDiff);
        // As frames: one, without a delay.
        XAnimDib anim;
        EXPECT_TRUE(LoadFrames(c.file, anim));
        ASSERT_EQ(anim.GetFrameCount(), 1u);
        EXPECT_EQ(anim.GetDelay(0), 0u);
        EXPECT_EQ(anim.GetFrame(0)->nFormat, uint32_t(c.format));
    }
}

// libjxl hands its rows to the picture from every thread it has; the picture must not depend on
// how many (a few groups of 256 x 256 here).
TEST(ModernStill, JxlGivesTheSamePictureOnSeveralThreads) {
    const Bytes file = EncodeJxl(Noise(520, 260, 21), {.lossless = false});
    const uint32_t saved = nThreadCount;
    nThreadCount = 1;
    const Loaded one = Load(file);
    nThreadCount = 4;
    const Loaded four = Load(file);
    nThreadCount = saved;
    ASSERT_TRUE(one.whole && four.whole && one.dib.nHeight == four.dib.nHeight);
    for (uint32_t y = 0; y < one.dib.nHeight; ++y)
        ASSERT_EQ(std::memcmp(one.dib.GetRow(y), four.dib.GetRow(y), one.dib.nWidth * 3u), 0)
            << "row " << y;
}

// AVIF's irot turns anticlockwise by quarter turns and imir mirrors after it; libavif leaves
// both to the decoder. libheif and libjxl turn HEIF and JPEG XL pictures themselves. The cache
// then turns a page by its EXIF orientation: a container that has turned the picture reports 1,
// with every other EXIF field kept; WebP has no turn of its own, so its EXIF orientation stands.
TEST(ModernStill, TurnedPicturesArriveUprightWithTheirExifOrientation) {
    const Picture p = Gradient(12, 8, false);
    const Bytes exif = TiffExif(6, "Orlimo");
    // The TIFF header behind "Exif\0\0" as JPEG stores it, and behind two bytes that only the
    // item's offset field passes over.
    Bytes prefixed = {'E', 'x', 'i', 'f', 0, 0}, padded = {'x', 'y'};
    prefixed.insert(prefixed.end(), exif.begin(), exif.end());
    padded.insert(padded.end(), exif.begin(), exif.end());
    const struct {
        const char* what;
        Bytes file;
        int shown;     // the EXIF orientation that shows the picture as decoded
        int reported;  // the EXIF orientation reported; 0 without EXIF
        int maxDiff;
    } cases[] = {
        {"WebP", EncodeWebp(p, {.exif = exif}), 1, 6, 0},
        {"AVIF irot 1", EncodeAvif(p, {.irot = 1}), 8, 0, 0},
        {"AVIF imir 1", EncodeAvif(p, {.imir = 1}), 2, 0, 0},
        {"AVIF irot 3, imir 0", EncodeAvif(p, {.irot = 3, .imir = 0, .exif = prefixed}), 7, 1, 0},
        {"HEIF", EncodeHeif(p, {.orientation = 6, .exif = padded}), 6, 1, 16},
        {"JPEG XL", EncodeJxl(p, {.orientation = 6, .exif = padded}), 6, 1, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const Loaded l = Load(c.file);
        ASSERT_TRUE(l.whole);
        EXPECT_LE(MaxDiff(l.dib, Oriented(p, c.shown)), c.maxDiff);
        EXPECT_EQ(l.exif.nOrientation, c.reported);
        if (!c.reported) continue;
        EXPECT_STREQ(l.exif.szCameraMake, "Orlimo");
        // The same as frames.
        ExifInfo info{};
        CJPEGMetaData meta(&info);
        XAnimDib anim;
        EXPECT_TRUE(LoadFrames(c.file, anim, &meta));
        EXPECT_EQ(info.nOrientation, c.reported);
    }
}

TEST(ModernAnimation, WebpFramesAreWholeCanvasesWithTheirDelays) {
    // Each frame changes a part of the one before, so the encoder stores sub-rectangles and
    // blends; the decoder must give back every canvas whole. Transparent areas show through.
    std::vector<WebpFrame> frames;
    Picture canvas = Gradient(16, 12, true);
    const int durations[] = {70, 0, 250, 40};
    for (uint32_t i = 0; i < 4; ++i) {
        for (uint32_t y = 2 + i; y < 6 + i; ++y)
            for (uint32_t x = 3 * i; x < 3 * i + 5; ++x)
                canvas.At(x, y) = {uint8_t(60 * i), 200, uint8_t(255 - 50 * i),
                                   uint8_t(i ? 255 : 0)};
        frames.push_back({canvas, durations[i]});
    }
    const Bytes file = EncodeWebpAnimation(frames, 0x80112233);  // A 80, R 11, G 22, B 33
    ASSERT_EQ(Sniff(file), FORMAT_WEBP);
    XAnimDib anim;
    ASSERT_TRUE(LoadFrames(file, anim));
    ASSERT_EQ(anim.GetFrameCount(), 4u);
    const uint32_t delays[] = {70, 100, 250, 40};  // a duration of 0 plays as 100 ms
    for (uint32_t i = 0; i < 4; ++i) {
        SCOPED_TRACE("frame " + std::to_string(i));
        const XDib& frame = *anim.GetFrame(i);
        EXPECT_EQ(anim.GetDelay(i), delays[i]);
        EXPECT_EQ(frame.nFormat, uint32_t(FORMAT_WEBP));
        EXPECT_EQ(frame.clrBackground, 0x332211u);
        EXPECT_TRUE(SamePixels(frame, frames[i].picture, true));
    }
    EXPECT_EQ(anim.pLastDib, anim.GetFrame(3));
    // A single picture of an animation is its first frame.
    EXPECT_TRUE(SamePixels(Load(file).dib, frames[0].picture, true));

    // Cut in the last frame: the whole frames are kept and the load reports a partial sequence;
    // the first frame alone is still whole.
    const Bytes cut(file.begin(), file.end() - 20);
    EXPECT_FALSE(LoadFrames(cut, anim));
    ASSERT_EQ(anim.GetFrameCount(), 3u);
    for (uint32_t i = 0; i < 3; ++i)
        EXPECT_TRUE(SamePixels(*anim.GetFrame(i), frames[i].picture, true));
    EXPECT_TRUE(Load(cut).whole);

    // Storage that runs out before the first picture: no frame, no picture.
    const AllocationLimit limit(16 * 12 * 4 - 1);
    EXPECT_FALSE(LoadFrames(file, anim));
    EXPECT_EQ(anim.GetFrameCount(), 0u);
    const Loaded first = Load(file);
    EXPECT_FALSE(first.whole);
    EXPECT_TRUE(first.dib.IsEmpty());
}

// The newer formats are tested after the first eleven: headers of the earlier formats that
// carry a newer signature further on keep their old result.
TEST(ModernSniffing, EarlierResultsAreUnchanged) {
    const struct {
        std::string start;  // the first bytes of a header that sniffing reads in full
        XDibFormat format;
    } cases[] = {
        {{"BM\0\0\0\0\0\0WEBP", 12}, FORMAT_BMP},
        {{"\xFF\xD8\xFF\0ftypavif", 12}, FORMAT_JPEG},
        {{"II*\0ftypheic", 12}, FORMAT_TIFF},
        // Signatures of the newer formats in other files.
        {{"RIFF\0\0\0\0AVI ", 12}, FORMAT_UNKNOWN},
        {{"\0\0\0\030ftypmp42", 12}, FORMAT_UNKNOWN},
        {{"\0\0\0\030ftypmif1\0\0\0\0mif1avif", 24}, FORMAT_AVIF},
        {{"\0\0\0\030ftypmif1\0\0\0\0mif1heic", 24}, FORMAT_HEIF},
    };
    for (const auto& c : cases) {
        Bytes header(c.start.begin(), c.start.end());
        header.resize(kSniffBytes, 0);
        EXPECT_EQ(Sniff(header), c.format) << c.start.substr(4);
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

// A file cut short gives a picture of the size its header states, or nothing. WebP keeps the
// rows that arrived and clears the rest; JPEG XL shows what its decoder can flush; AV1 and HEVC
// pictures come whole or not at all.
TEST(ModernHostile, TruncatedFilesGivePartOfThePictureOrNothing) {
    const Picture big = Noise(64, 96, 11);
    enum Outcome { kNothing, kTopRows, kSomePicture };
    const struct {
        const char* what;
        Bytes file;
        Outcome outcome;
    } cases[] = {
        {"WebP", EncodeWebp(big), kTopRows},
        {"AVIF", EncodeAvif(big), kNothing},
        {"HEIF", EncodeHeif(big), kNothing},
        {"JPEG XL", EncodeJxl(Noise(300, 600, 5)), kSomePicture},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const Loaded whole = Load(c.file);
        ASSERT_TRUE(whole.whole);
        for (size_t size : {size_t(60), c.file.size() / 2, c.file.size() - 1}) {
            const Loaded l = Load(Bytes(c.file.begin(), c.file.begin() + size));
            EXPECT_TRUE(l.dib.IsEmpty() ||
                        (l.dib.nWidth == whole.dib.nWidth && l.dib.nHeight == whole.dib.nHeight))
                << "cut at " << size;
        }
        const Loaded cut = Load(Bytes(c.file.begin(), c.file.begin() + c.file.size() * 3 / 4));
        EXPECT_FALSE(cut.whole);
        EXPECT_EQ(cut.dib.IsEmpty(), c.outcome == kNothing);
        if (c.outcome != kTopRows || cut.dib.IsEmpty()) continue;
        // The first row comes out as in the whole picture, the last row is cleared.
        const size_t rowBytes = size_t(whole.dib.nWidth) * whole.dib.nBytesPerPixel;
        EXPECT_EQ(std::memcmp(cut.dib.GetRow(0), whole.dib.GetRow(0), rowBytes), 0);
        const Bytes zero(rowBytes, 0);
        EXPECT_EQ(std::memcmp(cut.dib.GetRow(whole.dib.nHeight - 1), zero.data(), rowBytes), 0);
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
    put(0, 3);                       // no ratio code: the width follows
    put(3, 2), put(width - 1, 30);
    put(1, 1);  // all-default metadata
    put(0, 7);
    b.resize(64, 0);
    return b;
}

// Sets the width and height of the first ispe box of an ISO media file.
bool SetIspe(Bytes& file, uint32_t width, uint32_t height) {
    for (size_t i = 4; i + 16 <= file.size(); ++i)
        if (std::memcmp(file.data() + i, "ispe", 4) == 0) {
            for (int k = 0; k < 4; ++k) {
                file[i + 8 + k] = uint8_t(width >> (24 - 8 * k));
                file[i + 12 + k] = uint8_t(height >> (24 - 8 * k));
            }
            return true;
        }
    return false;
}

}  // namespace

// Headers that claim pictures beyond the program's cap are refused before the picture is made.
TEST(ModernHostile, LyingHeadersAreRefused) {
    Bytes avif = EncodeAvif(Noise(32, 24, 9)), heif = EncodeHeif(Noise(32, 24, 9));
    ASSERT_TRUE(SetIspe(avif, 60000, 60000));  // 3.6 gigapixels
    ASSERT_TRUE(SetIspe(heif, 60000, 60000));
    for (const Bytes& file :
         {JxlSizeOnly(1u << 30, 1u << 30), JxlSizeOnly(100000, 100000), avif, heif}) {
        const Loaded l = Load(file);
        EXPECT_FALSE(l.whole);
        EXPECT_TRUE(l.dib.IsEmpty());
    }

    // A WebP of 16383 x 16383, the format's largest, fits the cap; with little storage left it
    // fails cleanly instead.
    Bytes webp = EncodeWebp(Picture(16, 16, {1, 2, 3, 255}));
    ASSERT_EQ(std::memcmp(webp.data() + 12, "VP8L", 4), 0);
    const uint32_t dims = (16383 - 1) | ((16383 - 1) << 14);  // 14 bits each after the 0x2F
    for (int i = 0; i < 4; ++i) webp[21 + i] = uint8_t(dims >> (8 * i));
    const AllocationLimit limit(64 << 20);
    const Loaded l = Load(webp);
    EXPECT_FALSE(l.whole);
    EXPECT_TRUE(l.dib.IsEmpty());
}
