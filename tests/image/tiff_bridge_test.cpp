// TIFF through libtiff: the three roads of a directory (kept depth with a palette, CMYK through
// the colour manager, libtiff's RGBA reader), pages, and files that lie or loop.
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "bridge_test_util.h"
#include "bridge_writers.h"
#include "image/bytes.h"
#include "image/decoders.h"
#include "image/format.h"
#include "image/xanimdib.h"
#include "image/xdib.h"
#include "image/xdibio.h"
#include "image_test_util.h"

using bridgetest::NearPixels;
using bridgewrite::TiffPage;
using imgtest::Bytes;
using imgtest::Decode;
using imgtest::Rgba;

namespace {

constexpr uint32_t kW = 40, kH = 30;

// Rows of `samples` samples a pixel at `bits` bits, each row starting on a byte. With
// `planes`, one plane of one sample a pixel after the other.
template <class Fn>
Bytes Pack(uint32_t w, uint32_t h, uint32_t samples, uint32_t bits, Fn value, bool planes = false) {
    Bytes out;
    const auto row = [&](uint32_t y, uint32_t first, uint32_t count) {
        std::vector<uint32_t> v;
        for (uint32_t x = 0; x < w; ++x)
            for (uint32_t c = first; c < first + count; ++c) v.push_back(value(x, y, c));
        Bytes packed((v.size() * bits + 7) / 8, 0);
        for (size_t i = 0; i < v.size(); ++i) {
            if (bits == 16) {
                packed[2 * i] = uint8_t(v[i]), packed[2 * i + 1] = uint8_t(v[i] >> 8);
                continue;
            }
            const size_t bit = i * bits;
            packed[bit / 8] |= uint8_t(v[i] << (8 - bits - bit % 8));
        }
        out.insert(out.end(), packed.begin(), packed.end());
    };
    if (planes) {
        for (uint32_t c = 0; c < samples; ++c)
            for (uint32_t y = 0; y < h; ++y) row(y, c, 1);
    } else {
        for (uint32_t y = 0; y < h; ++y) row(y, 0, samples);
    }
    return out;
}

uint8_t Colour(uint32_t x, uint32_t y, uint32_t c) {
    return uint8_t(x * 29 + y * 13 + c * 80 + 5);
}
Rgba ColourPixel(uint32_t x, uint32_t y) {
    return {Colour(x, y, 0), Colour(x, y, 1), Colour(x, y, 2), 255};
}
uint32_t Index(uint32_t x, uint32_t y, uint32_t n) {
    return (x * 3 + y * 7) % n;
}

// A palette of `n` entries, each channel 16 bits; entry i is distinct for each seed.
std::vector<uint16_t> ColourMap(uint32_t n, uint32_t seed, bool eightBit = false) {
    std::vector<uint16_t> map(3 * n);
    for (uint32_t i = 0; i < n; ++i)
        for (uint32_t c = 0; c < 3; ++c) {
            const uint8_t v = uint8_t(i * 37 + c * 91 + seed * 53);
            map[c * n + i] = eightBit ? v : uint16_t(v * 257);
        }
    return map;
}
Rgba MapColour(uint32_t i, uint32_t seed) {
    const auto v = [&](uint32_t c) { return uint8_t(i * 37 + c * 91 + seed * 53); };
    return {v(0), v(1), v(2), 255};
}

TiffPage PalettePage(uint32_t seed, uint16_t bits = 8) {
    const uint32_t n = 1u << bits;
    return {.width = kW,
            .height = kH,
            .photometric = 3,
            .bits = bits,
            .rowsPerStrip = 7,
            .colourMap = ColourMap(n, seed),
            .data = Pack(kW, kH, 1, bits,
                         [&](uint32_t x, uint32_t y, uint32_t) { return Index(x, y, n) ^ seed; })};
}
bridgetest::Expected PaletteExpected(uint32_t seed, uint16_t bits = 8) {
    const uint32_t n = 1u << bits;
    return [=](uint32_t x, uint32_t y) { return MapColour(Index(x, y, n) ^ seed, seed); };
}

TiffPage RgbPage() {
    return {.width = kW,
            .height = kH,
            .photometric = 2,
            .samples = 3,
            .rowsPerStrip = 8,
            .data = Pack(kW, kH, 3, 8, Colour)};
}

bool LoadAll(XAnimDib& anim, const Bytes& file) {
    CXDibMemIO io(file.data(), int64_t(file.size()));
    return anim.Load(io);
}

// Offsets of the directories of a little-endian TIFF, in chain order (at most 16).
std::vector<uint32_t> Directories(const Bytes& file) {
    std::vector<uint32_t> found;
    for (uint32_t at = Le32(file.data() + 4); at != 0 && found.size() < 16;) {
        found.push_back(at);
        at = Le32(file.data() + at + 2 + 12 * Le16(file.data() + at));
    }
    return found;
}

void Put32(Bytes& file, uint32_t at, uint32_t value) {
    for (int i = 0; i < 4; ++i) file[at + i] = uint8_t(value >> (8 * i));
}

void SetNext(Bytes& file, uint32_t directory, uint32_t next) {
    Put32(file, directory + 2 + 12 * Le16(file.data() + directory), next);
}

// Sets value `index` of a SHORT or LONG tag of a directory.
void SetTagValue(Bytes& file, uint32_t directory, uint16_t tag, uint32_t index, uint32_t value) {
    for (uint32_t n = Le16(file.data() + directory), e = directory + 2; n-- > 0; e += 12) {
        if (Le16(file.data() + e) != tag) continue;
        const uint32_t size = Le16(file.data() + e + 2) == 3 ? 2 : 4;
        const uint32_t at =
            Le32(file.data() + e + 4) * size <= 4 ? e + 8 : Le32(file.data() + e + 8);
        if (size == 2) {
            file[at + 2 * index] = uint8_t(value), file[at + 2 * index + 1] = uint8_t(value >> 8);
        } else {
            Put32(file, at + 4 * index, value);
        }
        return;
    }
    ADD_FAILURE() << "no tag " << tag;
}

}  // namespace

TEST(TiffBridge, EachKindOfDirectoryDecodes) {
    const auto grey = [](uint32_t x, uint32_t y) { return uint8_t(x * 6 + y * 3); };
    const auto greyValue = [&](uint32_t x, uint32_t y, uint32_t) { return grey(x, y); };
    const auto greyPixel = [&](uint32_t x, uint32_t y) {
        return Rgba{grey(x, y), grey(x, y), grey(x, y), 255};
    };
    const auto level = [](uint32_t levels, bool whiteFirst) {
        return [=](uint32_t x, uint32_t y) {
            const uint8_t v = uint8_t(Index(x, y, levels) * 255 / (levels - 1));
            const uint8_t g = whiteFirst ? 255 - v : v;
            return Rgba{g, g, g, 255};
        };
    };
    const auto indices = [](uint32_t levels) {
        return [=](uint32_t x, uint32_t y, uint32_t) { return Index(x, y, levels); };
    };
    const auto cmyk = [](uint32_t x, uint32_t y, uint32_t c) {
        return uint32_t(uint8_t(x * 23 + y * 11 + c * 61));
    };
    const auto bottomFirst = [](uint32_t x, uint32_t y, uint32_t c) {
        return Colour(x, kH - 1 - y, c);
    };
    const struct {
        const char* what;
        TiffPage page;
        uint32_t bpp;
        bridgetest::Expected expected;
        int tolerance = 0;
    } cases[] = {
        {"RGB in strips", RgbPage(), 24, ColourPixel},
        {"RGB in planes",
         {.width = kW,
          .height = kH,
          .photometric = 2,
          .samples = 3,
          .planar = 2,
          .rowsPerStrip = 5,
          .data = Pack(kW, kH, 3, 8, Colour, true)},
         24,
         ColourPixel},
        {"RGB with LZW and predictor",
         {.width = kW,
          .height = kH,
          .photometric = 2,
          .samples = 3,
          .compression = 5,
          .rowsPerStrip = 4,
          .data = Pack(kW, kH, 3, 8, Colour)},
         24,
         ColourPixel},
        {"RGB in 16 x 16 tiles",
         {.width = kW,
          .height = kH,
          .photometric = 2,
          .samples = 3,
          .tileWidth = 16,
          .tileHeight = 16,
          .data = Pack(kW, kH, 3, 8, Colour)},
         24,
         ColourPixel},
        {"RGB in 32 x 16 tiles with deflate",
         {.width = kW,
          .height = kH,
          .photometric = 2,
          .samples = 3,
          .compression = 8,
          .tileWidth = 32,
          .tileHeight = 16,
          .data = Pack(kW, kH, 3, 8, Colour)},
         24,
         ColourPixel},
        {"RGBA drops alpha",
         {.width = kW,
          .height = kH,
          .photometric = 2,
          .samples = 4,
          .extraSamples = 1,
          .data = Pack(
              kW, kH, 4, 8,
              [](uint32_t x, uint32_t y, uint32_t c) { return c < 3 ? Colour(x, y, c) : 255u; })},
         24,
         ColourPixel},
        {"RGB stored bottom first",
         {.width = kW,
          .height = kH,
          .photometric = 2,
          .samples = 3,
          .orientation = 4,
          .rowsPerStrip = 7,
          .data = Pack(kW, kH, 3, 8, bottomFirst)},
         24,
         ColourPixel},
        {"RGB 16 bits",
         {.width = kW,
          .height = kH,
          .photometric = 2,
          .bits = 16,
          .samples = 3,
          .data = Pack(kW, kH, 3, 16,
                       [](uint32_t x, uint32_t y, uint32_t c) { return Colour(x, y, c) * 257u; })},
         24,
         ColourPixel},
        {"CMYK, no colour manager",
         {.width = kW,
          .height = kH,
          .photometric = 5,
          .samples = 4,
          .rowsPerStrip = 3,
          .data = Pack(kW, kH, 4, 8, cmyk)},
         24,
         [&](uint32_t x, uint32_t y) {
             const auto ink = [&](uint32_t c) { return 255 - cmyk(x, y, c); };
             const auto channel = [&](uint32_t c) { return uint8_t((ink(c) * ink(3) + 1) >> 8); };
             return Rgba{channel(0), channel(1), channel(2), 255};
         }},
        {"grey 8 bits, black first",
         {.width = kW,
          .height = kH,
          .photometric = 1,
          .rowsPerStrip = 4,
          .data = Pack(kW, kH, 1, 8, greyValue)},
         8,
         greyPixel},
        {"grey 8 bits, white first",
         {.width = kW, .height = kH, .photometric = 0, .data = Pack(kW, kH, 1, 8, greyValue)},
         8,
         [&](uint32_t x, uint32_t y) {
             const uint8_t g = 255 - grey(x, y);
             return Rgba{g, g, g, 255};
         }},
        {"grey 16 bits",
         {.width = kW,
          .height = kH,
          .photometric = 1,
          .bits = 16,
          .data = Pack(kW, kH, 1, 16,
                       [&](uint32_t x, uint32_t y, uint32_t) { return grey(x, y) * 257u; })},
         24,
         greyPixel},
        {"grey 4 bits in tiles",
         {.width = kW,
          .height = kH,
          .photometric = 1,
          .bits = 4,
          .tileWidth = 16,
          .tileHeight = 16,
          .data = Pack(kW, kH, 1, 4, indices(16))},
         4,
         level(16, false)},
        {"grey 2 bits widened to 4",
         {.width = kW,
          .height = kH,
          .photometric = 1,
          .bits = 2,
          .rowsPerStrip = 9,
          .data = Pack(kW, kH, 1, 2, indices(4))},
         4,
         level(4, false)},
        {"bilevel white first, PackBits",
         {.width = kW,
          .height = kH,
          .photometric = 0,
          .bits = 1,
          .compression = 32773,
          .rowsPerStrip = 6,
          .data = Pack(kW, kH, 1, 1, indices(2))},
         1,
         level(2, true)},
        {"bilevel in tiles",
         {.width = kW,
          .height = kH,
          .photometric = 1,
          .bits = 1,
          .tileWidth = 16,
          .tileHeight = 16,
          .data = Pack(kW, kH, 1, 1, indices(2))},
         1,
         level(2, false)},
        {"palette 8 bits", PalettePage(0), 8, PaletteExpected(0)},
        {"palette 4 bits", PalettePage(3, 4), 4, PaletteExpected(3, 4)},
        {"palette with 8-bit map values",
         {.width = kW,
          .height = kH,
          .photometric = 3,
          .bits = 4,
          .colourMap = ColourMap(16, 1, true),
          .data = Pack(kW, kH, 1, 4, indices(16))},
         4,
         [](uint32_t x, uint32_t y) { return MapColour(Index(x, y, 16), 1); }},
    };
    for (const auto& c : cases) {
        const imgtest::Decoded d = Decode(bridgewrite::WriteTiff({c.page}));
        EXPECT_TRUE(d.whole) << c.what;
        EXPECT_EQ(d.dib.nBpp, c.bpp) << c.what;
        EXPECT_EQ(d.dib.nFormat, uint32_t(FORMAT_TIFF)) << c.what;
        EXPECT_TRUE(NearPixels(d.dib, kW, kH, c.expected, c.tolerance)) << c.what;
    }
}

TEST(TiffBridge, EveryPageBecomesAFrameOfDelayZero) {
    XAnimDib anim;
    ASSERT_TRUE(
        LoadAll(anim, bridgewrite::WriteTiff({PalettePage(1), PalettePage(2), PalettePage(3)})));
    ASSERT_EQ(anim.GetFrameCount(), 3u);
    for (uint32_t i = 0; i < 3; ++i) {
        EXPECT_EQ(anim.GetDelay(i), 0u);
        EXPECT_EQ(anim.GetFrame(i)->nBpp, 8u);
        EXPECT_EQ(anim.GetFrame(i)->nFormat, uint32_t(FORMAT_TIFF));
        EXPECT_TRUE(NearPixels(*anim.GetFrame(i), kW, kH, PaletteExpected(i + 1))) << "page " << i;
    }
    EXPECT_EQ(anim.pLastDib, anim.GetFrame(2));
}

TEST(TiffBridge, PagesThatFailAreLeftOut) {
    TiffPage broken = RgbPage();
    broken.compression = 8;  // deflate, but the strip is no deflate stream
    broken.rawStrip = Bytes(200, 0x5A);
    TiffPage huge = PalettePage(9);
    huge.width = huge.height = 60000;  // 3.6 GB claimed by a few bytes
    huge.rawStrip = Bytes(64, 1);
    const struct {
        const char* what;
        std::vector<TiffPage> pages;
        std::vector<uint32_t> kept;  // seeds of the pages that remain
    } cases[] = {
        {"broken strip in the middle", {PalettePage(1), broken, PalettePage(3)}, {1, 3}},
        {"huge claim first", {huge, PalettePage(2), PalettePage(3)}, {2, 3}},
        {"broken and huge around a good page", {broken, PalettePage(5), huge}, {5}},
    };
    for (const auto& c : cases) {
        XAnimDib anim;
        EXPECT_TRUE(LoadAll(anim, bridgewrite::WriteTiff(c.pages))) << c.what;
        ASSERT_EQ(anim.GetFrameCount(), c.kept.size()) << c.what;
        for (size_t i = 0; i < c.kept.size(); ++i)
            EXPECT_TRUE(NearPixels(*anim.GetFrame(i), kW, kH, PaletteExpected(c.kept[i])))
                << c.what << ", frame " << i;
    }
    // A directory without ImageLength (its tag renumbered) is no page at all; the next follows.
    Bytes noLength = bridgewrite::WriteTiff({PalettePage(1), PalettePage(2), PalettePage(3)});
    const uint32_t second = Directories(noLength)[1];
    for (uint32_t e = second + 2; e < second + 2 + 12 * Le16(noLength.data() + second); e += 12)
        if (Le16(noLength.data() + e) == 257) noLength[e + 1] = 0x7F;
    XAnimDib skipped;
    EXPECT_TRUE(LoadAll(skipped, noLength));
    ASSERT_EQ(skipped.GetFrameCount(), 2u);
    EXPECT_TRUE(NearPixels(*skipped.GetFrame(1), kW, kH, PaletteExpected(3)));

    XAnimDib none;
    EXPECT_FALSE(LoadAll(none, bridgewrite::WriteTiff({broken, huge})));
    EXPECT_EQ(none.GetFrameCount(), 0u);
}

TEST(TiffBridge, HostileDirectoriesEndWithoutHangingOrAllocating) {
    imgtest::AllocationLimit limit(16 << 20);
    const Bytes three = bridgewrite::WriteTiff({PalettePage(1), PalettePage(2), PalettePage(3)});
    const std::vector<uint32_t> dirs = Directories(three);
    ASSERT_EQ(dirs.size(), 3u);
    Bytes loopToFirst = three, loopToSelf = three;
    SetNext(loopToFirst, dirs[2], dirs[0]);
    SetNext(loopToSelf, dirs[1], dirs[1]);
    TiffPage tiled = PalettePage(4);
    tiled.tileWidth = tiled.tileHeight = 16;
    Bytes hugeTiles = bridgewrite::WriteTiff({tiled});
    // 65536 x 65536 tiles: 4 GB each for a 40 x 30 picture.
    SetTagValue(hugeTiles, Directories(hugeTiles)[0], 322, 0, 65536);
    SetTagValue(hugeTiles, Directories(hugeTiles)[0], 323, 0, 65536);
    Bytes hugePage = bridgewrite::WriteTiff({PalettePage(1)});
    // 60000 x 60000 pixels over the strips of a 40 x 30 picture.
    SetTagValue(hugePage, Directories(hugePage)[0], 256, 0, 60000);
    SetTagValue(hugePage, Directories(hugePage)[0], 257, 0, 60000);
    const struct {
        const char* what;
        Bytes file;
        size_t maxFrames;
    } cases[] = {
        {"last directory points at the first", loopToFirst, 3},
        {"a directory points at itself", loopToSelf, 2},
        {"tiles of 65536 x 65536", hugeTiles, 0},
        {"60000 x 60000 pixels in a few strips", hugePage, 0},
    };
    for (const auto& c : cases) {
        XAnimDib anim;
        LoadAll(anim, c.file);
        EXPECT_LE(anim.GetFrameCount(), c.maxFrames) << c.what;
        for (size_t i = 0; i < anim.GetFrameCount(); ++i)
            EXPECT_TRUE(NearPixels(*anim.GetFrame(i), kW, kH, PaletteExpected(uint32_t(i) + 1)))
                << c.what;
        const imgtest::Decoded first = Decode(c.file);
        EXPECT_EQ(first.whole, c.maxFrames > 0) << c.what;
    }
}

TEST(TiffBridge, StripsPastTheEndLeaveAPartialPicture) {
    // libtiff writes the directory behind the pixels, so a file cut short loses it; a file
    // whose directory survives but whose last strips are gone is pointed past its end instead.
    for (const TiffPage& page : {RgbPage(), PalettePage(2)}) {
        Bytes file = bridgewrite::WriteTiff({page});
        const uint32_t strips = (kH + page.rowsPerStrip - 1) / page.rowsPerStrip;
        for (uint32_t s = 2; s < strips; ++s)
            SetTagValue(file, Directories(file)[0], 273, s, uint32_t(file.size() + 1000));
        const imgtest::Decoded d = Decode(file);
        EXPECT_FALSE(d.whole) << page.photometric;
        const uint32_t kept = 2 * page.rowsPerStrip;
        const bridgetest::Expected whole =
            page.photometric == 2 ? bridgetest::Expected(ColourPixel) : PaletteExpected(2);
        EXPECT_TRUE(NearPixels(d.dib, kW, kH, [&](uint32_t x, uint32_t y) {
            if (y < kept) return whole(x, y);
            // Missing strips read as zeros: black, or palette entry 0.
            return page.photometric == 2 ? Rgba{0, 0, 0, 255} : MapColour(0, 2);
        })) << page.photometric;
        XAnimDib anim;
        EXPECT_FALSE(LoadAll(anim, file)) << "a page that isn't whole is left out";
    }
}

TEST(TiffBridge, FilesCutAnywhereGiveAPartialPictureOrNothing) {
    const struct {
        const char* what;
        Bytes file;
    } samples[] = {
        {"RGB strips", bridgewrite::WriteTiff({RgbPage()})},
        {"palette pages", bridgewrite::WriteTiff({PalettePage(1), PalettePage(2)})},
        {"grey tiles",
         bridgewrite::WriteTiff(
             {{.width = kW,
               .height = kH,
               .photometric = 1,
               .tileWidth = 16,
               .tileHeight = 16,
               .data =
                   Pack(kW, kH, 1, 8, [](uint32_t x, uint32_t y, uint32_t) { return x + y; })}})},
    };
    for (const auto& s : samples) {
        for (size_t cut = 0; cut < s.file.size(); cut += std::max<size_t>(1, s.file.size() / 60)) {
            const imgtest::Decoded d = Decode(bridgetest::Cut(s.file, cut));
            if (!d.dib.IsEmpty()) {
                EXPECT_EQ(d.dib.nWidth, kW) << s.what << " cut at " << cut;
            }
            XAnimDib anim;
            LoadAll(anim, bridgetest::Cut(s.file, cut));
            for (size_t i = 0; i < anim.GetFrameCount(); ++i)
                EXPECT_EQ(anim.GetFrame(i)->nHeight, kH) << s.what << " cut at " << cut;
        }
    }
}
