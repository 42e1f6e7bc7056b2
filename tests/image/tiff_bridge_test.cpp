// TIFF through libtiff: the three roads of a directory (kept depth with a palette, CMYK, the
// RGBA reader), pages, and files that lie, loop or end early.
#include <gtest/gtest.h>

#include <tuple>
#include <vector>

#include "bridge_test_util.h"
#include "bridge_writers.h"
#include "image/bytes.h"
#include "image/format.h"
#include "image/xanimdib.h"

using bridgetest::Colour;
using bridgetest::ColourPixel;
using bridgetest::NearPixels;
using bridgewrite::TiffPage;
using imgtest::Bytes;
using imgtest::Decode;
using imgtest::Rgba;

namespace {

constexpr uint32_t kW = 40, kH = 30;

// kW x kH pixels of `samples` samples at `bits` bits, each row starting on a byte.
template <class Fn>
Bytes Pack(uint32_t samples, uint32_t bits, Fn value) {
    Bytes out;
    for (uint32_t y = 0; y < kH; ++y) {
        Bytes row((kW * samples * bits + 7) / 8, 0);
        for (uint32_t i = 0; i < kW * samples; ++i)
            row[i * bits / 8] |=
                uint8_t(value(i / samples, y, i % samples) << (8 - bits - i * bits % 8));
        out.insert(out.end(), row.begin(), row.end());
    }
    return out;
}

uint32_t Index(uint32_t x, uint32_t y, uint32_t bits) {
    return (x * 3 + y * 7) % (1u << bits);
}

// Rows of 7 pixels a strip, or tiles of `tile` x `tile`, with Index() at `bits` bits unless
// `data` is given.
TiffPage Page(uint16_t photometric, uint16_t bits, uint16_t samples = 1, Bytes data = {},
              uint32_t tile = 0) {
    TiffPage p{.width = kW, .height = kH, .photometric = photometric, .bits = bits};
    p.samples = samples, p.rowsPerStrip = 7, p.tileWidth = p.tileHeight = tile;
    p.data = std::move(data);
    if (p.data.empty())
        p.data = Pack(1, bits, [&](uint32_t x, uint32_t y, uint32_t) { return Index(x, y, bits); });
    return p;
}

// Value c of entry i of the palette of page `seed`. The map holds it in the high byte and
// something else in the low one, unless it is written with 8-bit values.
uint8_t MapValue(uint32_t i, uint32_t c, uint32_t seed) {
    return uint8_t(i * 37 + c * 91 + seed * 53);
}
TiffPage PalettePage(uint32_t seed, uint16_t bits = 8, bool eightBitMap = false) {
    TiffPage page = Page(3, bits);
    for (uint32_t k = 0; k < 3u << bits; ++k) {
        const uint8_t v = MapValue(k % (1u << bits), k >> bits, seed);
        page.colourMap.push_back(eightBitMap ? v : uint16_t(v << 8 | 0x5A));
    }
    return page;
}
Rgba Entry(uint32_t i, uint32_t seed) {
    return {MapValue(i, 0, seed), MapValue(i, 1, seed), MapValue(i, 2, seed), 255};
}
bridgetest::Expected PaletteExpected(uint32_t seed, uint16_t bits = 8) {
    return [=](uint32_t x, uint32_t y) { return Entry(Index(x, y, bits), seed); };
}

bool LoadAll(XAnimDib& anim, const Bytes& file) {
    CXDibMemIO io(file.data(), int64_t(file.size()));
    return anim.Load(io);
}

void Put(Bytes& file, uint32_t at, uint32_t size, uint32_t value) {
    for (uint32_t i = 0; i < size; ++i) file[at + i] = uint8_t(value >> 8 * i);
}

// Sets value `index` of a SHORT or LONG tag of the first directory.
void SetTag(Bytes& file, uint16_t tag, uint32_t index, uint32_t value) {
    const uint32_t dir = Le32(file.data() + 4);
    for (uint32_t n = Le16(file.data() + dir), e = dir + 2; n-- > 0; e += 12) {
        if (Le16(file.data() + e) != tag) continue;
        const uint32_t size = Le16(file.data() + e + 2) == 3 ? 2 : 4;
        const bool inside = Le32(file.data() + e + 4) * size <= 4;
        return Put(file, (inside ? e + 8 : Le32(file.data() + e + 8)) + size * index, size, value);
    }
    ADD_FAILURE() << "no tag " << tag;
}

}  // namespace

TEST(TiffBridge, EachKindOfDirectoryDecodes) {
    // Pure inks: each of C, M, Y, K is either none or full.
    const auto ink = [](uint32_t x, uint32_t y, uint32_t c) {
        return ((x * 3 + y * 5) >> c & 1) ? 255u : 0u;
    };
    const auto cmyk = [&](uint32_t x, uint32_t y) {
        const auto v = [&](uint32_t c) { return uint8_t(ink(x, y, c) | ink(x, y, 3) ? 0 : 255); };
        return Rgba{v(0), v(1), v(2), 255};
    };
    const auto ramp = [](uint32_t bits, bool whiteFirst) {
        return [=](uint32_t x, uint32_t y) {
            const uint8_t v = uint8_t(Index(x, y, bits) * 255 / ((1u << bits) - 1));
            const uint8_t g = whiteFirst ? 255 - v : v;
            return Rgba{g, g, g, 255};
        };
    };
    const struct {
        const char* what;
        TiffPage page;
        uint32_t bpp;
        bridgetest::Expected expected;
        int tolerance = 0;
    } cases[] = {
        {"RGB in strips", Page(2, 8, 3, Pack(3, 8, Colour)), 24, ColourPixel},
        {"RGB in tiles", Page(2, 8, 3, Pack(3, 8, Colour), 16), 24, ColourPixel},
        {"CMYK, no colour manager", Page(5, 8, 4, Pack(4, 8, ink)), 24, cmyk, 1},
        {"grey 8 bits, black first", Page(1, 8), 8, ramp(8, false)},
        {"grey 8 bits, white first", Page(0, 8), 8, ramp(8, true)},
        {"grey 4 bits in tiles", Page(1, 4, 1, {}, 16), 4, ramp(4, false)},
        {"grey 2 bits widened to 4", Page(1, 2), 4, ramp(2, false)},
        {"bilevel, white first", Page(0, 1), 1, ramp(1, true)},
        {"palette 8 bits", PalettePage(0), 8, PaletteExpected(0)},
        {"palette 4 bits, map of 8-bit values", PalettePage(1, 4, true), 4, PaletteExpected(1, 4)},
    };
    for (const auto& c : cases) {
        const imgtest::Decoded d = Decode(bridgewrite::WriteTiff({c.page}));
        EXPECT_TRUE(d.whole) << c.what;
        EXPECT_EQ(d.dib.nBpp, c.bpp) << c.what;
        EXPECT_EQ(d.dib.nFormat, uint32_t(FORMAT_TIFF)) << c.what;
        EXPECT_TRUE(NearPixels(d.dib, kW, kH, c.expected, c.tolerance)) << c.what;
    }
}

TEST(TiffBridge, EveryPageIsAFrameOfDelayZeroAndFailingPagesAreLeftOut) {
    imgtest::AllocationLimit limit(16 << 20);
    TiffPage broken = PalettePage(7), huge = PalettePage(9);
    broken.compression = 8;  // deflate, but the strip is no deflate stream
    broken.rawStrip = Bytes(200, 0x5A);
    huge.width = huge.height = 60000;  // 3.6 GB claimed by a few bytes
    huge.rawStrip = Bytes(64, 1);
    const struct {
        const char* what;
        std::vector<TiffPage> pages;
        std::vector<uint32_t> kept;  // seeds of the pages that remain
    } cases[] = {
        {"three pages", {PalettePage(1), PalettePage(2), PalettePage(3)}, {1, 2, 3}},
        {"broken strip in the middle", {PalettePage(1), broken, PalettePage(3)}, {1, 3}},
        {"huge claim first", {huge, PalettePage(2), PalettePage(3)}, {2, 3}},
        {"nothing good", {broken, huge}, {}},
    };
    for (const auto& c : cases) {
        XAnimDib anim;
        EXPECT_EQ(LoadAll(anim, bridgewrite::WriteTiff(c.pages)), !c.kept.empty()) << c.what;
        ASSERT_EQ(anim.GetFrameCount(), c.kept.size()) << c.what;
        for (size_t i = 0; i < c.kept.size(); ++i) {
            EXPECT_EQ(anim.GetDelay(i), 0u) << c.what;
            EXPECT_EQ(anim.GetFrame(i)->nFormat, uint32_t(FORMAT_TIFF)) << c.what;
            EXPECT_TRUE(NearPixels(*anim.GetFrame(i), kW, kH, PaletteExpected(c.kept[i])))
                << c.what << ", frame " << i;
        }
        EXPECT_EQ(anim.pLastDib, c.kept.empty() ? nullptr : anim.GetFrame(c.kept.size() - 1));
    }
}

TEST(TiffBridge, HostileDirectoriesEndWithoutHangingOrAllocating) {
    imgtest::AllocationLimit limit(16 << 20);
    const Bytes three = bridgewrite::WriteTiff({PalettePage(1), PalettePage(2), PalettePage(3)});
    // Where a directory keeps the offset of the next one.
    const auto next = [&](uint32_t dir) { return dir + 2 + 12 * Le16(three.data() + dir); };
    const uint32_t first = Le32(three.data() + 4), second = Le32(three.data() + next(first));
    const uint32_t third = Le32(three.data() + next(second));
    Bytes loopToFirst = three, loopToSelf = three;
    Put(loopToFirst, next(third), 4, first);
    Put(loopToSelf, next(second), 4, second);
    // Tiles of 65520 x 65520, 4 GB each, for a picture of 40 x 30.
    Bytes hugeTiles = bridgewrite::WriteTiff({Page(1, 8, 1, {}, 16)});
    SetTag(hugeTiles, 322, 0, 65520);
    SetTag(hugeTiles, 323, 0, 65520);
    for (const auto& [what, file, maxFrames] :
         {std::tuple("last directory points at the first", loopToFirst, 3u),
          std::tuple("a directory points at itself", loopToSelf, 2u),
          std::tuple("tiles of 65520 x 65520", hugeTiles, 0u)}) {
        XAnimDib anim;
        LoadAll(anim, file);
        EXPECT_LE(anim.GetFrameCount(), maxFrames) << what;
        EXPECT_EQ(Decode(file).whole, maxFrames > 0) << what;
    }
}

TEST(TiffBridge, StripsPastTheEndLeaveAPartialPicture) {
    // libtiff writes the directory behind the pixels, so a file cut short loses it; a file
    // whose directory survives but whose last strips are gone is pointed past its end instead.
    for (const TiffPage& page : {Page(2, 8, 3, Pack(3, 8, Colour)), PalettePage(2)}) {
        const bool rgb = page.photometric == 2;
        Bytes file = bridgewrite::WriteTiff({page});
        for (uint32_t s = 2; s < 5; ++s) SetTag(file, 273, s, uint32_t(file.size() + 1000));
        const imgtest::Decoded d = Decode(file);
        EXPECT_FALSE(d.whole) << rgb;
        // Missing strips read as zeros: black, or palette entry 0.
        const auto expected = [&](uint32_t x, uint32_t y) {
            if (rgb) return y < 14 ? ColourPixel(x, y) : Rgba{0, 0, 0, 255};
            return y < 14 ? PaletteExpected(2)(x, y) : Entry(0, 2);
        };
        EXPECT_TRUE(NearPixels(d.dib, kW, kH, expected)) << rgb;
        XAnimDib anim;
        EXPECT_FALSE(LoadAll(anim, file)) << "a page that isn't whole is left out";
    }
}
