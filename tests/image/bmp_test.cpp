// BMP decoder against pictures written by the test writers: every depth, both row orders, the
// header variants, 16-bit channel layouts, and RLE streams both written and made by hand.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "image/format.h"
#include "image/xdib.h"
#include "image_test_util.h"

using namespace imgtest;
using imgwrite::BmpHeader;
using imgwrite::BmpOptions;

namespace {

uint32_t ColoursFor(uint32_t bpp) {
    return bpp == 1 ? 2 : bpp == 4 ? 16 : 200;
}

std::vector<Rgba> TablePalette(uint32_t n) {
    std::vector<Rgba> palette;
    for (uint32_t i = 0; i < n; ++i) palette.push_back(TableColour(i));
    return palette;
}

// A picture given as rows of palette indices, top row first, one hex digit a pixel.
Picture FromIndexRows(const std::vector<std::string>& rows) {
    Picture p(uint32_t(rows[0].size()), uint32_t(rows.size()));
    for (uint32_t y = 0; y < p.height; ++y)
        for (uint32_t x = 0; x < p.width; ++x)
            p.At(x, y) = TableColour(uint32_t(std::stoi(std::string(1, rows[y][x]), nullptr, 16)));
    return p;
}

// What an RLE body holds, by kind of code.
struct RleCodes {
    int runs = 0, absolute = 0, oddAbsolute = 0, deltas = 0, endOfLine = 0, endOfBitmap = 0;
};

RleCodes CountCodes(const Bytes& body, bool nibbles) {
    RleCodes c;
    for (size_t i = 0; i + 1 < body.size();) {
        const uint8_t count = body[i], value = body[i + 1];
        i += 2;
        if (count) {
            ++c.runs;
        } else if (value == 0) {
            ++c.endOfLine;
        } else if (value == 1) {
            ++c.endOfBitmap;
        } else if (value == 2) {
            ++c.deltas;
            i += 2;
        } else {
            ++c.absolute;
            if (value & 1) ++c.oddAbsolute;
            const size_t bytes = nibbles ? (value + 1u) / 2 : value;
            i += (bytes + 1) & ~size_t(1);
        }
    }
    return c;
}

Bytes BodyOf(const Bytes& file) {
    const size_t offset = file[10] | file[11] << 8 | file[12] << 16;
    return Bytes(file.begin() + offset, file.end());
}

void ExpectDecodes(const Bytes& file, const Picture& expected, uint32_t bpp,
                   const std::string& what, bool compareAlpha = false) {
    Decoded d = Decode(file);
    EXPECT_TRUE(d.whole) << what;
    EXPECT_EQ(d.dib.nBpp, bpp) << what;
    EXPECT_EQ(d.dib.nFormat, d.whole ? uint32_t(FORMAT_BMP) : 0u) << what;
    EXPECT_TRUE(SamePixels(d.dib, expected, compareAlpha)) << what;
}

}  // namespace

TEST(BmpDecoder, EveryDepthInBothRowOrders) {
    for (uint32_t bpp : {1u, 4u, 8u, 16u, 24u, 32u}) {
        for (bool topDown : {false, true}) {
            for (uint32_t w : {1u, 2u, 3u, 5u, 8u, 13u, 33u}) {
                const Picture p = Pattern(w, 3, bpp <= 8 ? ColoursFor(bpp) : 0, w);
                const Bytes file = imgwrite::WriteBmp(p, {.bpp = bpp, .topDown = topDown});
                ASSERT_FALSE(file.empty());
                // 16 bits arrive as 5-5-5 widened to 24 bits; 32 bits arrive opaque.
                const Picture expected = bpp == 16 ? Quantised(p, 5, 5, 5) : Opaque(p);
                ExpectDecodes(file, expected, bpp == 16 ? 24 : bpp,
                              std::to_string(bpp) + " bits, width " + std::to_string(w) +
                                  (topDown ? ", top down" : ", bottom up"),
                              bpp == 32);
            }
        }
    }
}

TEST(BmpDecoder, NegativeHeightMeansTenRowsTopFirst) {
    const Picture p = Pattern(4, 10);
    const Bytes file = imgwrite::WriteBmp(p, {.bpp = 24, .topDown = true});
    EXPECT_EQ(int32_t(file[22] | file[23] << 8 | file[24] << 16 | file[25] << 24), -10);
    Decoded d = Decode(file);
    ASSERT_TRUE(d.whole);
    EXPECT_EQ(d.dib.nHeight, 10u);
    EXPECT_TRUE(SamePixels(d.dib, p));
}

TEST(BmpDecoder, ThirtyTwoBitsShowOpaqueEvenWithAlphaZero) {
    Picture p = Pattern(6, 4);
    for (Rgba& c : p.pixels) c.a = 0;
    Decoded d = Decode(imgwrite::WriteBmp(p, {.bpp = 32}));
    ASSERT_TRUE(d.whole);
    EXPECT_TRUE(SamePixels(d.dib, Opaque(p), true));
    // Also behind a V5 header, which states an alpha mask.
    Decoded v5 = Decode(imgwrite::WriteBmp(p, {.bpp = 32, .header = BmpHeader::V5}));
    ASSERT_TRUE(v5.whole);
    EXPECT_TRUE(SamePixels(v5.dib, Opaque(p), true));
}

TEST(BmpDecoder, SixteenBitLayoutsByMasks) {
    const Picture p = Pattern(7, 5);
    ExpectDecodes(imgwrite::WriteBmp(p, {.bpp = 16}), Quantised(p, 5, 5, 5), 24, "plain 5-5-5");
    ExpectDecodes(imgwrite::WriteBmp(p, {.bpp = 16, .bitfields = 555}), Quantised(p, 5, 5, 5), 24,
                  "bitfields 5-5-5");
    ExpectDecodes(imgwrite::WriteBmp(p, {.bpp = 16, .bitfields = 565}), Quantised(p, 5, 6, 5), 24,
                  "bitfields 5-6-5");
    ExpectDecodes(imgwrite::WriteBmp(p, {.bpp = 16, .topDown = true, .bitfields = 565}),
                  Quantised(p, 5, 6, 5), 24, "bitfields 5-6-5, top down");
    ExpectDecodes(imgwrite::WriteBmp(p, {.bpp = 16, .header = BmpHeader::V5, .bitfields = 565}),
                  Quantised(p, 5, 6, 5), 24, "5-6-5 masks inside a V5 header");
    ExpectDecodes(imgwrite::WriteBmp(p, {.bpp = 16, .header = BmpHeader::V4}),
                  Quantised(p, 5, 5, 5), 24, "5-5-5 behind a V4 header");
}

TEST(BmpDecoder, HeaderVariants) {
    const Picture rgb = Pattern(9, 4);
    const Picture indexed = Opaque(Pattern(9, 4, 200));
    ExpectDecodes(imgwrite::WriteBmp(rgb, {.bpp = 24, .header = BmpHeader::Os2Core12}), rgb, 24,
                  "OS/2 core header, 24 bits");
    ExpectDecodes(imgwrite::WriteBmp(indexed, {.bpp = 8, .header = BmpHeader::Os2Core12}), indexed,
                  8, "OS/2 core header, 3-byte palette entries");
    ExpectDecodes(imgwrite::WriteBmp(rgb, {.bpp = 24, .header = BmpHeader::V4}), rgb, 24, "V4");
    ExpectDecodes(imgwrite::WriteBmp(rgb, {.bpp = 24, .header = BmpHeader::V5}), rgb, 24, "V5");
    ExpectDecodes(imgwrite::WriteBmp(indexed, {.bpp = 8, .header = BmpHeader::V5}), indexed, 8,
                  "V5 with a full palette and a stated count of 0");
    ExpectDecodes(imgwrite::WriteBmp(indexed, {.bpp = 8, .compactPalette = true}), indexed, 8,
                  "a palette shorter than 256 entries");
    const Picture sixteen = Opaque(Pattern(9, 4, 16));
    ExpectDecodes(imgwrite::WriteBmp(sixteen, {.bpp = 4, .compactPalette = true}), sixteen, 4,
                  "4 bits with a stated palette count");

    // Pixels start where the file header says, past a gap; an offset past the end is ignored.
    Bytes gap = imgwrite::WriteBmp(rgb, {.bpp = 24});
    gap.insert(gap.begin() + 54, 10, 0xEE);
    gap[10] += 10;
    ExpectDecodes(gap, rgb, 24, "a gap before the pixels");
    Bytes beyond = imgwrite::WriteBmp(rgb, {.bpp = 24});
    beyond[12] = 0x7F;
    ExpectDecodes(beyond, rgb, 24, "a pixel offset past the end of the file");

    // Larger headers are taken only for plain pictures: one stating a palette count is refused.
    Decoded stated = Decode(
        imgwrite::WriteBmp(indexed, {.bpp = 8, .header = BmpHeader::V4, .compactPalette = true}));
    EXPECT_FALSE(stated.whole);
    EXPECT_TRUE(stated.dib.IsEmpty());
}

TEST(BmpDecoder, SixtyFourByteHeaderSkipsItsExtraBytes) {
    const Picture p = Pattern(5, 3);
    Bytes file = imgwrite::WriteBmp(p, {.bpp = 24});
    // Grow the 40-byte info header to 64 bytes, as OS/2 2.x writes it.
    file.insert(file.begin() + 54, 24, 0xEE);
    file[14] = 64;
    file[10] += 24;
    ExpectDecodes(file, p, 24, "64-byte header");
}

TEST(BmpDecoder, RefusesWhatItCannotDescribe) {
    const Bytes good = imgwrite::WriteBmp(Pattern(4, 4), {.bpp = 24});
    struct Patch {
        size_t at;
        uint8_t value;
        const char* what;
    };
    for (const Patch& patch :
         {Patch{14, 30, "info header of 30 bytes"}, Patch{28, 2, "2 bits per pixel"},
          Patch{28, 0, "0 bits per pixel"}, Patch{30, 1, "RLE8 on a 24-bit picture"},
          Patch{30, 4, "JPEG inside a BMP"}, Patch{18, 0, "width 0"}, Patch{22, 0, "height 0"}}) {
        Bytes file = good;
        file[patch.at] = patch.value;
        Decoded d = Decode(file);
        EXPECT_FALSE(d.whole) << patch.what;
        EXPECT_TRUE(d.dib.IsEmpty()) << patch.what;
    }
    // A negative width.
    Bytes negative = good;
    negative[21] = 0xFF;
    EXPECT_FALSE(Decode(negative).whole);
}

TEST(BmpDecoder, WrittenRleStreamsWithRunsAbsoluteRunsAndDeltas) {
    RleCodes seen8, seen4;
    for (bool delta : {false, true}) {
        for (uint32_t w : {1u, 2u, 5u, 6u, 17u, 40u, 300u}) {
            for (uint32_t bpp : {8u, 4u}) {
                const Picture p = RunsPattern(w, 9, bpp == 8 ? 200 : 16);
                const Bytes file =
                    imgwrite::WriteBmp(p, {.bpp = bpp, .rle = true, .rleDelta = delta});
                ASSERT_FALSE(file.empty());
                const RleCodes c = CountCodes(BodyOf(file), bpp == 4);
                RleCodes& seen = bpp == 8 ? seen8 : seen4;
                seen.runs += c.runs, seen.absolute += c.absolute;
                seen.oddAbsolute += c.oddAbsolute, seen.deltas += c.deltas;
                seen.endOfLine += c.endOfLine, seen.endOfBitmap += c.endOfBitmap;
                ExpectDecodes(file, Opaque(p), bpp,
                              "RLE" + std::to_string(bpp) + ", width " + std::to_string(w) +
                                  (delta ? ", with deltas" : ""));
            }
        }
    }
    // The pictures really made the writer use every kind of code.
    for (const RleCodes* seen : {&seen8, &seen4}) {
        EXPECT_GT(seen->runs, 0);
        EXPECT_GT(seen->oddAbsolute, 0);
        EXPECT_GT(seen->absolute, seen->oddAbsolute);
        EXPECT_GT(seen->deltas, 0);
        EXPECT_GT(seen->endOfLine, 0);
        EXPECT_GT(seen->endOfBitmap, 0);
    }
}

TEST(BmpDecoder, Rle8HandMadeStreams) {
    const std::vector<Rgba> palette = TablePalette(16);
    struct Case {
        const char* what;
        uint32_t width;
        Bytes body;
        std::vector<std::string> expected;  // top row first
    };
    const Case cases[] = {
        {"run over the row end, odd absolute run, delta, end of bitmap",
         6,
         {10, 5, 1, 7, 0, 0, 0, 3, 1, 2, 3, 0, 0, 2, 1, 1, 2, 9, 0, 1},
         {"000099", "123000", "555555"}},
        {"absolute run longer than the row keeps its padding in step",
         4,
         {0, 7, 1, 2, 3, 4, 5, 6, 7, 0, 0, 0, 2, 8, 0, 1},
         {"8800", "1234"}},
        {"delta out of the picture ends the stream",
         3,
         {1, 4, 0, 2, 200, 200, 3, 6},
         {"000", "400"}},
        {"delta past the row end drops the rest of the row",
         3,
         {0, 2, 250, 0, 2, 5, 0, 0, 3, 6},
         {"666", "000"}},
        {"end of bitmap leaves the remaining rows at index 0",
         2,
         {2, 3, 0, 1, 2, 4},
         {"00", "00", "33"}},
        {"stream that simply runs out", 3, {3, 4, 0}, {"000", "444"}},
        {"empty body", 2, {}, {"00"}},
    };
    for (const Case& c : cases) {
        const Picture expected = FromIndexRows(c.expected);
        const Bytes file = imgwrite::BmpFromBody(int32_t(c.width), int32_t(expected.height), 8, 1,
                                                 palette, c.body);
        Decoded d = Decode(file);
        EXPECT_TRUE(d.whole) << c.what;
        EXPECT_TRUE(SamePixels(d.dib, expected)) << c.what;
    }
}

TEST(BmpDecoder, Rle4HandMadeStreams) {
    const std::vector<Rgba> palette = TablePalette(16);
    // Runs alternate their two nibbles; absolute runs of 3 and 5 nibbles take 2 and 3 bytes,
    // padded to 2 and 4.
    const Bytes body = {5, 0x12, 0,    3,    0x34, 0x50, 0, 0,            // bottom row
                        0, 5,    0x67, 0x89, 0xA0, 0x00, 4, 0xBC, 0, 1};  // top row
    const Picture expected = FromIndexRows({"6789ABCBC", "121213450"});
    Decoded d = Decode(imgwrite::BmpFromBody(9, 2, 4, 2, palette, body));
    EXPECT_TRUE(d.whole);
    EXPECT_EQ(d.dib.nBpp, 4u);
    EXPECT_TRUE(SamePixels(d.dib, expected));

    // A run over the end of a 3-pixel row stops at the row's end.
    Decoded overrun = Decode(imgwrite::BmpFromBody(3, 2, 4, 2, palette, {9, 0x12, 0, 0, 1, 0x30}));
    EXPECT_TRUE(overrun.whole);
    EXPECT_TRUE(SamePixels(overrun.dib, FromIndexRows({"300", "121"})));
}
