// TGA decoder against pictures written by the test writers: every type and depth, colour maps,
// both row orders, mirrored rows, and run-length packets that run over the end of a row.
#include <gtest/gtest.h>

#include <string>

#include "image/decoders.h"
#include "image/format.h"
#include "image/xdib.h"
#include "image/xdibio.h"
#include "image_test_util.h"

using namespace imgtest;

TEST(TgaDecoder, EveryTypeAndDepthInEveryRowOrder) {
    // Type, depth, depth of the colour map.
    const uint8_t kinds[][3] = {{2, 15, 0},  {2, 16, 0},  {2, 24, 0},  {2, 32, 0},
                                {10, 15, 0}, {10, 16, 0}, {10, 24, 0}, {10, 32, 0},
                                {1, 8, 16},  {1, 8, 24},  {1, 8, 32},  {9, 8, 16},
                                {9, 8, 24},  {9, 8, 32},  {3, 8, 0},   {11, 8, 0}};
    for (const auto& [type, depth, mapDepth] : kinds)
        for (bool topFirst : {false, true})
            for (bool rightToLeft : {false, true})
                for (uint32_t w : {3u, 130u}) {
                    const bool mapped = mapDepth != 0, grey = type % 8 == 3;
                    const Picture p = Pattern(w, 5, mapped ? 200 : 0, w + depth);
                    imgwrite::TgaOptions o{.type = type, .depth = depth, .mapDepth = mapDepth};
                    o.topFirst = topFirst, o.rightToLeft = rightToLeft,
                    o.id = w == 3 ? "an id" : "";
                    // 15 and 16 bits are both 5-5-5; the alpha of 32 bits is dropped.
                    const Picture expected = grey ? Greyed(p)
                                             : depth == 15 || depth == 16 || mapDepth == 16
                                                 ? Quantised(p, 5, 5, 5)
                                                 : p;
                    const std::string what =
                        "type " + std::to_string(type) + ", depth " + std::to_string(depth) +
                        ", map " + std::to_string(mapDepth) + (topFirst ? ", top first" : "") +
                        (rightToLeft ? ", right to left" : "") + ", width " + std::to_string(w);
                    // Always 24 bits.
                    EXPECT_TRUE(DecodesTo(imgwrite::WriteTga(p, o), expected, 24, FORMAT_TGA))
                        << what;
                }
    const Picture full = Pattern(16, 16, 256);
    EXPECT_TRUE(DecodesTo(imgwrite::WriteTga(full, {.type = 1, .depth = 8}), full, 24, FORMAT_TGA))
        << "a map of all 256 entries";
}

TEST(TgaDecoder, RlePacketsCrossRowEnds) {
    const auto grey = [](uint8_t v) { return Rgba{v, v, v}; };
    // One run of six pixels covers both rows of a 3 x 2 picture.
    Decoded run = Decode(RleTga(3, 2, 24, 0, {0x85, 10, 20, 30}), DecodeTga);
    EXPECT_TRUE(run.whole);
    EXPECT_TRUE(SamePixels(run.dib, Picture(3, 2, Rgba{30, 20, 10})));
    // Bottom first: four raw pixels fill the bottom row and start the top one, a run of two
    // finishes it.
    Decoded mixed = Decode(
        RleTga(3, 2, 24, 0, {0x03, 1, 1, 1, 2, 2, 2, 3, 3, 3, 4, 4, 4, 0x81, 5, 5, 5}), DecodeTga);
    Picture expected(3, 2);
    expected.At(0, 1) = grey(1), expected.At(1, 1) = grey(2), expected.At(2, 1) = grey(3);
    expected.At(0, 0) = grey(4), expected.At(1, 0) = expected.At(2, 0) = grey(5);
    EXPECT_TRUE(mixed.whole);
    EXPECT_TRUE(SamePixels(mixed.dib, expected));
    // Top first: one pixel, then a run over the rest of three rows.
    Decoded topFirst = Decode(RleTga(2, 3, 24, 0x20, {0x00, 9, 9, 9, 0x84, 7, 7, 7}), DecodeTga);
    Picture third(2, 3, grey(7));
    third.At(0, 0) = grey(9);
    EXPECT_TRUE(topFirst.whole);
    EXPECT_TRUE(SamePixels(topFirst.dib, third));
}
