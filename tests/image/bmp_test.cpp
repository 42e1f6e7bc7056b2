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

namespace {

// A picture given as rows of palette indices, top row first, rows split by '|', one hex digit a
// pixel.
Picture FromIndexRows(const std::string& rows) {
    const uint32_t w = uint32_t(rows.find('|') == std::string::npos ? rows.size() : rows.find('|'));
    Picture p(w, uint32_t(rows.size() + 1) / (w + 1));
    for (uint32_t i = 0; i < p.pixels.size(); ++i)
        p.pixels[i] = TableColour(uint32_t(std::stoi(rows.substr(i + i / w, 1), nullptr, 16)));
    return p;
}

// A whole BMP showing `expected` opaque (alpha never shows); refused when `expected` is empty.
void ExpectDecodes(const Bytes& file, const Picture& expected, uint32_t bpp,
                   const std::string& what) {
    if (expected.width) {
        EXPECT_TRUE(DecodesTo(file, Opaque(expected), bpp, FORMAT_BMP, true)) << what;
    } else {
        Decoded d = Decode(file);
        EXPECT_TRUE(!d.whole && d.dib.IsEmpty()) << what;
    }
}

Bytes Patched(Bytes file, size_t at, uint8_t value) {
    file[at] = value;
    return file;
}

}  // namespace

TEST(BmpDecoder, EveryDepthInBothRowOrdersAndRunLengthCoded) {
    for (uint32_t bpp : {1u, 4u, 8u, 16u, 24u, 32u})
        for (int order : {0, 1, 2, 3})  // bottom up, top down, RLE, RLE with deltas
            for (uint32_t w : {1u, 6u, 13u, 300u}) {
                const bool rle = order >= 2;
                if (rle && bpp != 4 && bpp != 8) continue;
                const uint32_t colours = bpp == 1 ? 2 : bpp == 4 ? 16 : bpp == 8 ? 200 : 0;
                const Picture p = rle ? RunsPattern(w, 10, colours) : Pattern(w, 10, colours);
                const Bytes file = imgwrite::WriteBmp(
                    p, {.bpp = bpp, .topDown = order == 1, .rle = rle, .rleDelta = order == 3});
                ASSERT_FALSE(file.empty());
                if (order == 1) {
                    ASSERT_EQ(file[22] | file[23] << 8 | file[24] << 16, 0xFFFFF6);  // -10 rows
                }
                // 16 bits arrive as 5-5-5 widened to 24 bits.
                ExpectDecodes(file, bpp == 16 ? Quantised(p, 5, 5, 5) : p, bpp == 16 ? 24 : bpp,
                              std::to_string(bpp) + " bits, order " + std::to_string(order) +
                                  ", width " + std::to_string(w));
            }
}

TEST(BmpDecoder, HeaderVariantsAndRefusals) {
    const Picture rgb = Pattern(9, 4), indexed = Pattern(9, 4, 200), none;
    const Picture p555 = Quantised(rgb, 5, 5, 5), p565 = Quantised(rgb, 5, 6, 5);
    const auto write = [&](const imgwrite::BmpOptions& o) {
        return imgwrite::WriteBmp(o.bpp <= 8 ? indexed : rgb, o);
    };
    const Bytes plain = write({}), v4 = write({.header = BmpHeader::V4});
    Bytes transparent =
        imgwrite::WriteBmp(Picture(9, 4, Rgba{1, 2, 3, 0}), {.bpp = 32, .header = BmpHeader::V5});
    Bytes gap = plain, wide = plain;
    gap.insert(gap.begin() + 54, 10, 0xEE);
    gap[10] += 10;
    wide.insert(wide.begin() + 54, 24, 0xEE);  // the 64-byte header of OS/2 2.x
    wide[14] = 64, wide[10] += 24;
    struct Case {
        const char* what;
        Bytes file;
        Picture expected;
        uint32_t bpp = 24;
    };
    const Case cases[] = {
        {"bitfields 5-6-5", write({.bpp = 16, .bitfields = 565}), p565},
        {"5-6-5 masks in a V5 header",
         write({.bpp = 16, .header = BmpHeader::V5, .bitfields = 565}), p565},
        {"5-5-5 behind a V4 header", write({.bpp = 16, .header = BmpHeader::V4}), p555},
        {"V5 32 bits of alpha 0", transparent, Picture(9, 4, Rgba{1, 2, 3}), 32},
        {"OS/2 core, 24 bits", write({.header = BmpHeader::Os2Core12}), rgb},
        {"OS/2 core, 3-byte palette entries", write({.bpp = 8, .header = BmpHeader::Os2Core12}),
         indexed, 8},
        {"V4", v4, rgb},
        {"V5 with a full palette", write({.bpp = 8, .header = BmpHeader::V5}), indexed, 8},
        {"a short palette", write({.bpp = 8, .compactPalette = true}), indexed, 8},
        {"a gap before the pixels", gap, rgb},
        {"a pixel offset past the end", Patched(plain, 12, 0x7F), rgb},
        {"64-byte header", wide, rgb},
        // Larger headers are taken only for plain, consistent pictures.
        {"V4 stating a palette count",
         write({.bpp = 8, .header = BmpHeader::V4, .compactPalette = true}), none},
        {"V4 with a short image size", Patched(v4, 34, 0), none},
        {"V4 of 2 planes", Patched(v4, 26, 2), none},
        {"info header of 30 bytes", Patched(plain, 14, 30), none},
        {"2 bits per pixel", Patched(plain, 28, 2), none},
        {"RLE8 on a 24-bit picture", Patched(plain, 30, 1), none},
        {"height 0", Patched(plain, 22, 0), none},
        {"negative width", Patched(plain, 21, 0xFF), none},
    };
    for (const Case& c : cases) ExpectDecodes(c.file, c.expected, c.bpp, c.what);
}

TEST(BmpDecoder, HandMadeRleStreams) {
    std::vector<Rgba> palette;
    for (uint32_t i = 0; i < 16; ++i) palette.push_back(TableColour(i));
    struct Case {
        uint16_t bpp;
        const char* expected;
        Bytes body;
    };
    const Case cases[] = {
        // RLE8: a run over the row end, an odd absolute run, a delta, end of bitmap.
        {8, "000099|123000|555555", {10, 5, 1, 7, 0, 0, 0, 3, 1, 2, 3, 0, 0, 2, 1, 1, 2, 9, 0, 1}},
        // An absolute run longer than the row keeps its padding in step.
        {8, "8800|1234", {0, 7, 1, 2, 3, 4, 5, 6, 7, 0, 0, 0, 2, 8, 0, 1}},
        // A delta out of the picture ends the stream; one past the row end drops the rest of
        // the row; end of bitmap leaves the remaining rows at 0.
        {8, "000|400", {1, 4, 0, 2, 200, 200, 3, 6}},
        {8, "666|000", {0, 2, 250, 0, 2, 5, 0, 0, 3, 6}},
        {8, "00|00|33", {2, 3, 0, 1, 2, 4}},
        // RLE4: runs alternate their two nibbles; absolute runs of 3 and 5 nibbles take 2 and 3
        // bytes, padded to 2 and 4; a run stops at the row end.
        {4,
         "6789ABCBC|121213450",
         {5, 0x12, 0, 3, 0x34, 0x50, 0, 0, 0, 5, 0x67, 0x89, 0xA0, 0x00, 4, 0xBC, 0, 1}},
        {4, "300|121", {9, 0x12, 0, 0, 1, 0x30}},
    };
    for (const Case& c : cases) {
        const Picture expected = FromIndexRows(c.expected);
        Decoded d = Decode(imgwrite::BmpFromBody(int32_t(expected.width), int32_t(expected.height),
                                                 c.bpp, c.bpp == 8 ? 1 : 2, palette, c.body));
        EXPECT_TRUE(d.whole) << c.expected;
        EXPECT_EQ(d.dib.nBpp, c.bpp) << c.expected;
        EXPECT_TRUE(SamePixels(d.dib, expected)) << c.expected;
    }
}
