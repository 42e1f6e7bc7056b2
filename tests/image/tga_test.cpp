// TGA decoder against pictures written by the test writers: every type and depth, colour maps,
// both row orders, mirrored rows, and run-length packets that run over the end of a row.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "image/decoders.h"
#include "image/format.h"
#include "image/xdib.h"
#include "image/xdibio.h"
#include "image_test_util.h"

using namespace imgtest;
using imgwrite::TgaOptions;

namespace {

std::string Describe(const TgaOptions& o, uint32_t w) {
    return "type " + std::to_string(o.type) + ", depth " + std::to_string(o.depth) + ", map " +
           std::to_string(o.mapDepth) + (o.topFirst ? ", top first" : ", bottom first") +
           (o.rightToLeft ? ", right to left" : "") + ", width " + std::to_string(w);
}

void ExpectDecodes(const Picture& p, const TgaOptions& o, const Picture& expected) {
    const Bytes file = imgwrite::WriteTga(p, o);
    ASSERT_FALSE(file.empty()) << Describe(o, p.width);
    Decoded d = Decode(file);
    EXPECT_TRUE(d.whole) << Describe(o, p.width);
    EXPECT_EQ(d.dib.nBpp, 24u) << Describe(o, p.width);  // always 24 bits
    EXPECT_EQ(d.dib.nFormat, d.whole ? uint32_t(FORMAT_TGA) : 0u);
    EXPECT_TRUE(SamePixels(d.dib, expected)) << Describe(o, p.width);
}

// An 18-byte header of a 24-bit true-colour picture, RLE or raw.
Bytes Header(uint8_t type, uint16_t w, uint16_t h, uint8_t descriptor = 0) {
    return {0,          0,
            type,       0,
            0,          0,
            0,          0,
            0,          0,
            0,          0,
            uint8_t(w), uint8_t(w >> 8),
            uint8_t(h), uint8_t(h >> 8),
            24,         descriptor};
}

void Append(Bytes& b, std::initializer_list<uint8_t> bytes) {
    b.insert(b.end(), bytes);
}

// Hand-made files are shorter than what sniffing needs: they go to the decoder directly.
Decoded DecodeTgaBytes(const Bytes& file) {
    Decoded d;
    CXDibMemIO io(file.data(), int64_t(file.size()));
    d.whole = DecodeTga(d.dib, io);
    return d;
}

}  // namespace

TEST(TgaDecoder, TrueColourAtEveryDepthInEveryRowOrder) {
    for (uint8_t type : {2, 10}) {
        for (uint8_t depth : {15, 16, 24, 32}) {
            for (bool topFirst : {false, true}) {
                for (bool rightToLeft : {false, true}) {
                    for (uint32_t w : {1u, 3u, 7u, 130u}) {
                        // Five rows: a 1-pixel-wide file still has the 26 bytes that sniffing
                        // reads.
                        const Picture p = Pattern(w, 5, 0, w + depth);
                        const TgaOptions o{.type = type,
                                           .depth = depth,
                                           .topFirst = topFirst,
                                           .rightToLeft = rightToLeft,
                                           .id = w == 3 ? "an id field" : ""};
                        // 15 and 16 bits are 5-5-5; the alpha of 32 bits is dropped.
                        ExpectDecodes(p, o, depth <= 16 ? Quantised(p, 5, 5, 5) : p);
                    }
                }
            }
        }
    }
}

TEST(TgaDecoder, FifteenBitsDecodeLikeSixteen) {
    const Picture p = Pattern(9, 4);
    Decoded fifteen = Decode(imgwrite::WriteTga(p, {.type = 2, .depth = 15}));
    Decoded sixteen = Decode(imgwrite::WriteTga(p, {.type = 2, .depth = 16}));
    ASSERT_TRUE(fifteen.whole);
    ASSERT_TRUE(sixteen.whole);
    for (uint32_t y = 0; y < 4; ++y)
        EXPECT_EQ(std::memcmp(fifteen.dib.GetRow(y), sixteen.dib.GetRow(y), 9 * 3), 0) << y;
}

TEST(TgaDecoder, ColourMapsOfSixteenTwentyFourAndThirtyTwoBits) {
    for (uint8_t type : {1, 9}) {
        for (uint8_t mapDepth : {16, 24, 32}) {
            for (bool topFirst : {false, true}) {
                const Picture p = Pattern(11, 5, 200);
                const TgaOptions o{
                    .type = type, .depth = 8, .mapDepth = mapDepth, .topFirst = topFirst};
                ExpectDecodes(p, o, mapDepth == 16 ? Quantised(p, 5, 5, 5) : p);
            }
        }
    }
    // A map of all 256 entries.
    const Picture full = Pattern(16, 16, 256);
    ExpectDecodes(full, {.type = 1, .depth = 8, .mapDepth = 24}, full);
}

TEST(TgaDecoder, GreyPicturesUseAGreyRamp) {
    for (uint8_t type : {3, 11}) {
        for (bool topFirst : {false, true}) {
            const Picture p = Pattern(13, 6);
            ExpectDecodes(p, {.type = type, .depth = 8, .topFirst = topFirst}, Greyed(p));
        }
    }
}

TEST(TgaDecoder, RlePacketsCrossingRowEnds) {
    // One run packet of six pixels covers both rows of a 3 x 2 picture.
    Bytes run = Header(10, 3, 2);
    Append(run, {0x85, 10, 20, 30});
    Decoded d = DecodeTgaBytes(run);
    EXPECT_TRUE(d.whole);
    EXPECT_TRUE(SamePixels(d.dib, Picture(3, 2, Rgba{30, 20, 10, 255})));

    // Bottom first: a raw packet of four pixels fills the bottom row and the first pixel of the
    // top row, then a run of two finishes the top row.
    Bytes mixed = Header(10, 3, 2);
    Append(mixed, {0x03, 1, 1, 1, 2, 2, 2, 3, 3, 3, 4, 4, 4, 0x81, 5, 5, 5});
    Picture expected(3, 2);
    expected.At(0, 1) = {1, 1, 1, 255}, expected.At(1, 1) = {2, 2, 2, 255};
    expected.At(2, 1) = {3, 3, 3, 255}, expected.At(0, 0) = {4, 4, 4, 255};
    expected.At(1, 0) = {5, 5, 5, 255}, expected.At(2, 0) = {5, 5, 5, 255};
    Decoded m = DecodeTgaBytes(mixed);
    EXPECT_TRUE(m.whole);
    EXPECT_TRUE(SamePixels(m.dib, expected));

    // A run over three rows of a top-first picture, after a pixel of another colour.
    Bytes topFirst = Header(10, 2, 3, 0x20);
    Append(topFirst, {0x00, 9, 9, 9, 0x84, 7, 7, 7});
    Picture third(2, 3, Rgba{7, 7, 7, 255});
    third.At(0, 0) = {9, 9, 9, 255};
    Decoded t = DecodeTgaBytes(topFirst);
    EXPECT_TRUE(t.whole);
    EXPECT_TRUE(SamePixels(t.dib, third));

    // The writer's packets that run over row ends give the same picture as packets per row.
    const Picture p = Pattern(5, 6, 3);
    const Bytes crossing = imgwrite::WriteTga(p, {.type = 10, .packetsCrossRows = true});
    const Bytes perRow = imgwrite::WriteTga(p, {.type = 10, .packetsCrossRows = false});
    EXPECT_LT(crossing.size(), perRow.size());  // some packets really do cross
    ExpectDecodes(p, {.type = 10, .packetsCrossRows = true}, p);
    ExpectDecodes(p, {.type = 10, .packetsCrossRows = false}, p);
}

TEST(TgaDecoder, RefusesImpossibleHeaders) {
    const Bytes good = imgwrite::WriteTga(Pattern(4, 4), {.type = 2, .depth = 24});
    struct Patch {
        size_t at;
        uint8_t value;
        const char* what;
    };
    for (const Patch& patch :
         {Patch{2, 4, "type 4"}, Patch{2, 0, "type 0"}, Patch{16, 12, "depth 12"},
          Patch{16, 0, "depth 0"}, Patch{12, 0, "width 0"}, Patch{14, 0, "height 0"},
          Patch{6, 2, "a map of 512 entries"}}) {
        Bytes file = good;
        file[patch.at] = patch.value;
        Decoded d = DecodeTgaBytes(file);
        EXPECT_FALSE(d.whole) << patch.what;
        EXPECT_TRUE(d.dib.IsEmpty()) << patch.what;
    }
}
