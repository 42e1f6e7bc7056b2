#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <tuple>
#include <vector>

#include "image/format.h"
#include "image/xanimdib.h"
#include "image/xdib.h"
#include "image_test_util.h"
#include "support/scratchfolder.h"

using namespace imgtest;
using V = std::vector<uint8_t>;

namespace {

// A 24- or 32-bit picture holding `p` (alpha kept at 32 bits).
void ToDib(const Picture& p, XDib& dib, uint32_t bpp) {
    ASSERT_TRUE(dib.Create(p.width, p.height, bpp));
    for (uint32_t y = 0; y < p.height; ++y)
        for (uint32_t x = 0; x < p.width; ++x) {
            uint8_t* px = dib.GetPixelPtr(x, y);
            const Rgba& c = p.At(x, y);
            px[0] = c.b, px[1] = c.g, px[2] = c.r;
            if (bpp == 32) px[3] = c.a;
        }
}

// A one-row 24- or 32-bit picture of the given B, G, R(, A) bytes, and its bytes back.
void MakeRow(XDib& dib, uint32_t bpp, const V& bytes) {
    ASSERT_TRUE(dib.Create(uint32_t(bytes.size() * 8 / bpp), 1, bpp));
    std::memcpy(dib.pBits, bytes.data(), bytes.size());
}
V RowOf(const XDib& dib) {
    return V(dib.pBits, dib.pBits + dib.nWidth * dib.nBytesPerPixel);
}

// An indexed picture whose palette holds the first `colours` table colours.
void MakeIndexed(XDib& dib, uint32_t w, uint32_t bpp, uint32_t colours) {
    V palette(size_t(colours) * 4);
    for (uint32_t i = 0; i < colours; ++i) {
        const Rgba c = TableColour(i);
        palette[4 * i] = c.b, palette[4 * i + 1] = c.g, palette[4 * i + 2] = c.r;
    }
    ASSERT_TRUE(dib.Create(w, 2, bpp, colours, palette.data()));
}

}  // namespace

TEST(XDib, RowsArePaddedToWholeWordsAtEveryDepth) {
    // Depth, width, stride, and offset of the last pixel in its row.
    const uint32_t cases[][4] = {
        {1, 3, 4, 0},      {4, 3, 4, 1},       {8, 3, 4, 2},    {16, 3, 8, 4},   {24, 3, 12, 6},
        {32, 3, 12, 8},    {1, 33, 8, 4},      {4, 33, 20, 16}, {8, 33, 36, 32}, {16, 33, 68, 64},
        {24, 33, 100, 96}, {32, 33, 132, 128}, {24, 1, 4, 0}};
    for (const auto& [bpp, width, stride, lastPixel] : cases) {
        XDib dib;
        ASSERT_TRUE(dib.Create(width, 3, bpp)) << bpp << " bits, width " << width;
        EXPECT_EQ(dib.nStride, stride) << bpp << " bits, width " << width;
        EXPECT_EQ(XDibStride(width, bpp), stride);
        EXPECT_EQ(dib.GetPixelPtr(width - 1, 2), dib.pBits + 2 * stride + lastPixel);
        EXPECT_EQ(dib.GetPixelPtr(width, 0), nullptr);
        EXPECT_EQ(dib.GetPixelPtr(0, 3), nullptr);
        EXPECT_EQ(std::count(dib.pBits, dib.pBits + 3 * stride, 0), 3 * stride) << "zeroed";
    }
}

TEST(XDib, CreateRefusesBadSizesDepthsAndOversizedStorage) {
    // The last two: just over the 1 GiB cap, and rows of 8 GiB.
    const uint32_t refused[][3] = {
        {0, 10, 24}, {10, 0, 24},  {0x7FFFFFFF, 1, 8}, {1, 0x7FFFFFFF, 8}, {10, 10, 0},
        {10, 10, 2}, {10, 10, 12}, {10, 10, 64},       {16385, 16384, 32}, {0x7FFFFFFE, 2, 32}};
    for (const auto& [w, h, bpp] : refused) {
        XDib dib;
        ASSERT_TRUE(dib.Create(4, 4, 24));  // a picture to lose
        dib.nFormat = FORMAT_BMP;
        EXPECT_FALSE(dib.Create(w, h, bpp)) << w << "x" << h << "x" << bpp;
        EXPECT_TRUE(dib.IsEmpty());
        EXPECT_EQ(dib.nFormat, 0u);
    }
    // A row just over 512 MiB would get a stride of 1 KiB from a 29-bit formula; the limit keeps
    // the test from really allocating it if it were accepted.
    AllocationLimit limit(1 << 20);
    XDib dib;
    const uint32_t width = (1u << 29) + 1024;
    EXPECT_FALSE(dib.Create(width, 1, 8)) << "stride " << dib.nStride << " for a row of " << width;
}

TEST(XDib, StorageOfAFreedPictureComesBackClearedAndWithItsPalette) {
    // Large blocks are kept and handed out again: whatever the last picture left in them,
    // Create must clear rows and palette, and CreateDirty must still clear the palette.
    for (int round = 0; round < 3; ++round) {
        XDib used;
        ASSERT_TRUE(used.Create(1000, 400, 32));
        std::memset(used.pBits, 0xAB, size_t(used.nStride) * used.nHeight);
    }
    XDib fresh;
    ASSERT_TRUE(fresh.Create(1000, 400, 32));
    for (uint32_t y = 0; y < fresh.nHeight; y += 37)
        for (uint32_t x = 0; x < fresh.nStride; x += 13) ASSERT_EQ(fresh.GetRow(y)[x], 0);
    {
        XDib used;
        ASSERT_TRUE(used.Create(2000, 800, 8));
        std::memset(used.GetPalette(), 0xCD, 1024);
    }
    XDib dirty;
    const uint8_t grey[4] = {9, 9, 9, 0};
    ASSERT_TRUE(dirty.CreateDirty(2000, 800, 8, 1, grey));
    EXPECT_EQ(dirty.GetPalette()[0], 9);
    EXPECT_EQ(dirty.GetPalette()[4 * 255 + 2], 0) << "undefined entries must read black";
    std::memset(dirty.pBits, 0x77, size_t(dirty.nStride) * dirty.nHeight);
    dirty.ClearRows(798, 10);  // cut to the picture
    EXPECT_EQ(dirty.GetRow(797)[0], 0x77);
    EXPECT_EQ(dirty.GetRow(798)[0], 0);
    EXPECT_EQ(dirty.GetRow(799)[1999], 0);
}

TEST(XDib, CopyFromReusesStorageOnlyAboveEightBits) {
    XDib source, target;
    ToDib(Pattern(7, 5), source, 24);
    source.rcPage = {1, 2, 6, 4};
    source.nFormat = FORMAT_TGA;
    ASSERT_TRUE(target.Create(7, 5, 24));
    uint8_t* const storage = target.pBits;
    ASSERT_TRUE(target.CopyFrom(source));
    EXPECT_EQ(target.pBits, storage);
    EXPECT_TRUE(SamePixels(target, Pattern(7, 5)));
    EXPECT_EQ(target.rcPage, (XRect{1, 2, 6, 4}));
    EXPECT_EQ(target.nFormat, uint32_t(FORMAT_TGA));
    // At 8 bits the record is rebuilt even when sizes agree, so the palette comes along.
    XDib indexed, indexedTarget;
    MakeIndexed(indexed, 5, 8, 4);
    *indexed.GetPixelPtr(3, 1) = 3;
    ASSERT_TRUE(indexedTarget.Create(5, 2, 8));  // black palette
    ASSERT_TRUE(indexedTarget.CopyFrom(indexed));
    EXPECT_EQ(indexedTarget.nPaletteCount, 4u);
    EXPECT_EQ(PixelOf(indexedTarget, 3, 1), TableColour(3));
    ASSERT_TRUE(target.CopyFrom(XDib()));  // copying an empty picture empties the target
    EXPECT_TRUE(target.IsEmpty());
}

// Each case against a pixel-by-pixel reference: a source pixel of the requested rectangle lands
// when it lies in the source, in the target and in the target's page rect.
TEST(XDib, BlitClipsAgainstBothPicturesAndThePageRect) {
    XDib source;
    ToDib(Pattern(5, 4), source, 24);
    const Rgba fill{0xEF, 0xCD, 0xAB};
    // Target x, y, source x, y, width, height.
    const int32_t cases[][6] = {{0, 0, 0, 0, -1, -1}, {-2, -3, 0, 0, -1, -1}, {3, 2, 0, 0, -1, -1},
                                {1, 1, -2, -1, 9, 9}, {2, 0, 3, 2, 2, 9},     {-6, 0, 0, 0, -1, -1},
                                {6, 5, 0, 0, -1, -1}, {0, 0, 2, 1, -1, 2}};
    for (bool pageRect : {false, true})
        for (const auto& [tx, ty, sx, sy, cw, ch] : cases) {
            XDib target;
            ASSERT_TRUE(target.Create(6, 5, 24));
            target.Fill(0x00ABCDEF);
            if (pageRect) target.bHasPageRect = 1, target.rcPage = {1, 2, 5, 4};
            ASSERT_TRUE(source.Blit(target, tx, ty, sx, sy, cw, ch));
            const int32_t w = cw < 0 ? 5 - sx : cw, h = ch < 0 ? 4 - sy : ch;
            for (int32_t y = 0; y < 5; ++y)
                for (int32_t x = 0; x < 6; ++x) {
                    const int32_t px = x - tx + sx, py = y - ty + sy;
                    const bool lands = px >= std::max(sx, 0) && px < std::min(sx + w, 5) &&
                                       py >= std::max(sy, 0) && py < std::min(sy + h, 4) &&
                                       (!pageRect || (x >= 1 && x < 5 && y >= 2 && y < 4));
                    EXPECT_EQ(PixelOf(target, x, y),
                              lands ? Opaque(Pattern(5, 4)).At(px, py) : fill)
                        << "(" << x << "," << y << ") of a blit at " << tx << "," << ty << " from "
                        << sx << "," << sy << (pageRect ? ", page rect" : "");
                }
        }
}

TEST(XDib, BlitBetweenDepthsFollowsTheTable) {
    for (uint32_t from : {1u, 4u, 8u, 16u, 24u, 32u})
        for (uint32_t to : {1u, 4u, 8u, 16u, 24u, 32u}) {
            const bool supported =
                (from == 32 && to == 24) || (from == 24 && to == 32) || (from == to && from >= 8);
            XDib a, b;
            ASSERT_TRUE(a.Create(3, 2, from));
            std::memset(a.pBits, 0x5A, a.nStride * 2);
            ASSERT_TRUE(b.Create(3, 2, to));
            EXPECT_EQ(a.Blit(b, 0, 0), supported) << from << " onto " << to;
            if (!supported) {
                EXPECT_EQ(b.pBits[0], 0) << "a refused blit drew";
            } else if (from == to && from > 8) {
                EXPECT_EQ(RowOf(a), RowOf(b)) << from;
            }
        }
    XDib rgb, rgba;
    ToDib(Pattern(3, 2), rgb, 24);
    EXPECT_FALSE(rgb.Blit(rgba, 0, 0));  // onto an empty picture
    ASSERT_TRUE(rgba.Create(3, 2, 32));  // 24 onto 32 makes the pixels opaque
    ASSERT_TRUE(rgb.Blit(rgba, 0, 0));
    EXPECT_TRUE(SamePixels(rgba, Opaque(Pattern(3, 2)), true));

    // 32 onto 24 blends by the source's alpha: 255 copies, 0 keeps, 128 mixes.
    XDib source, target;
    MakeRow(source, 32, {200, 100, 50, 255, 200, 100, 50, 0, 200, 100, 50, 128});
    MakeRow(target, 24, {20, 60, 80, 20, 60, 80, 20, 60, 80});
    ASSERT_TRUE(source.Blit(target, 0, 0));
    EXPECT_EQ(RowOf(target), (V{200, 100, 50, 20, 60, 80, 109, 79, 64}));
    // 32 onto 32: the same blend with useAlpha, keeping the target's alpha; else a plain copy.
    MakeRow(target, 32, {20, 60, 80, 99, 20, 60, 80, 99, 20, 60, 80, 99});
    ASSERT_TRUE(source.Blit(target, 0, 0, 0, 0, -1, -1, true));
    EXPECT_EQ(RowOf(target), (V{200, 100, 50, 99, 20, 60, 80, 99, 109, 79, 64, 99}));
    ASSERT_TRUE(source.Blit(target, 0, 0));
    EXPECT_EQ(RowOf(target), RowOf(source));
}

TEST(XDib, EightBitBlitMapsPalettesToTheNearestFirstEntry) {
    // Source entries: pure red, a grey exactly between two target greys, and blue.
    const uint8_t sourcePalette[] = {0, 0, 255, 0, 100, 100, 100, 0, 250, 0, 0, 0};
    // Target: black, grey 90, grey 110, red twice (the first of equals wins), a blue; the
    // entries beyond are black, farther from grey 100 than grey 90 is.
    const uint8_t targetPalette[] = {0, 0, 0,   0, 90, 90, 90,  0, 110, 110, 110, 0,
                                     0, 0, 255, 0, 0,  0,  255, 0, 255, 30,  30,  0};
    XDib source, target;
    ASSERT_TRUE(source.Create(3, 1, 8, 3, sourcePalette));
    for (uint8_t i = 0; i < 3; ++i) source.pBits[i] = i;
    ASSERT_TRUE(target.Create(5, 1, 8, 256, nullptr));
    std::memcpy(target.GetPalette(), targetPalette, sizeof(targetPalette));
    std::memset(target.pBits, 9, 5);
    ASSERT_TRUE(source.Blit(target, 1, 0));
    EXPECT_EQ(RowOf(target), (V{9, 3, 1, 5, 9}));
}

TEST(XDib, TranslucentBlitByTableAndByFoldedAlpha) {
    XDib source, target;
    MakeRow(source, 24, {255, 0, 100, 10, 20, 30});
    // The table may round either way.
    const auto blend = [&](uint32_t level, const std::vector<int>& want) {
        MakeRow(target, 24, {200, 100, 50, 200, 100, 50});
        EXPECT_TRUE(source.TranslucentBlit(target, 0, 0, 0, 0, -1, -1, level));
        for (size_t i = 0; i < 6; ++i)
            EXPECT_NEAR(target.pBits[i], want[i], 1) << level << ", " << i;
    };
    blend(0, {200, 100, 50, 200, 100, 50});
    blend(255, {255, 0, 100, 10, 20, 30});
    blend(128, {228, 50, 75, 105, 60, 40});
    blend(51, {211, 80, 60, 162, 84, 46});  // the shared table is rebuilt, not reused

    // A 32-bit source folds its alpha into the level: a = alpha * 128 >> 8.
    MakeRow(source, 32, {255, 0, 100, 255, 255, 0, 100, 0, 255, 0, 100, 200});
    MakeRow(target, 24, {200, 100, 50, 200, 100, 50, 200, 100, 50});
    EXPECT_TRUE(source.TranslucentBlit(target, 0, 0, 0, 0, -1, -1, 128));
    EXPECT_EQ(RowOf(target), (V{226, 50, 74, 200, 100, 50, 220, 60, 69}));
}

TEST(XDib, ConvertBppExpandsPalettesInBitOrderAndRefusesOtherPairs) {
    for (uint32_t to : {24u, 32u}) {
        // 1 bit: the first pixel is the high bit of the first byte; 4 bits: the high nibble.
        XDib one, four, eight;
        MakeIndexed(one, 10, 1, 2);
        one.pBits[0] = 0xB1, one.pBits[1] = 0x80;
        ASSERT_TRUE(one.ConvertBpp(to));
        for (uint32_t x = 0; x < 10; ++x)
            EXPECT_EQ(PixelOf(one, x, 0), TableColour("1011000110"[x] - '0')) << to << ", " << x;
        MakeIndexed(four, 3, 4, 16);
        four.pBits[0] = 0x2F, four.pBits[1] = 0x70;
        ASSERT_TRUE(four.ConvertBpp(to));
        for (uint32_t x = 0; x < 3; ++x)
            EXPECT_EQ(PixelOf(four, x, 0), TableColour(V{2, 15, 7}[x]));
        MakeIndexed(eight, 2, 8, 200);
        eight.pBits[1] = 199;
        ASSERT_TRUE(eight.ConvertBpp(to));
        EXPECT_EQ(PixelOf(eight, 1, 0), TableColour(199));
    }
    // 24 to 32 makes every pixel opaque, 32 to 24 drops alpha.
    XDib rgb, rgba;
    ToDib(Pattern(5, 3), rgb, 24);
    ASSERT_TRUE(rgb.ConvertBpp(32));
    EXPECT_TRUE(SamePixels(rgb, Opaque(Pattern(5, 3)), true));
    ToDib(Pattern(5, 3), rgba, 32);
    ASSERT_TRUE(rgba.ConvertBpp(24));
    EXPECT_TRUE(SamePixels(rgba, Pattern(5, 3)));
    uint8_t* const bits = rgba.pBits;
    EXPECT_TRUE(rgba.ConvertBpp(24) && rgba.pBits == bits) << "the same depth is no work";
    const uint32_t refused[][2] = {{16, 24}, {16, 32}, {24, 8}, {24, 16}, {32, 8},
                                   {8, 4},   {4, 8},   {1, 8},  {8, 16}};
    for (const auto& [from, to] : refused) {
        XDib dib;
        ASSERT_TRUE(dib.Create(3, 3, from));
        EXPECT_FALSE(dib.ConvertBpp(to)) << from << " to " << to;
        EXPECT_EQ(dib.nBpp, from);
    }
    EXPECT_FALSE(XDib().ConvertBpp(24));
}

TEST(XDib, RotateTurnsANonSquarePictureAllThreeWays) {
    // A B C       clockwise:  D A    anticlockwise:  C F    half turn:  F E D
    // D E F                   E B                    B E                C B A
    //                         F C                    A D
    const auto labelled = [](uint32_t w, const char* letters) {
        Picture p(w, 6 / w);
        for (uint32_t i = 0; i < 6; ++i) p.pixels[i] = TableColour(uint32_t(letters[i]));
        return p;
    };
    const std::pair<uint32_t, const char*> turns[] = {{2, "DAEBFC"}, {2, "CFBEAD"}, {3, "FEDCBA"}};
    for (uint32_t bpp : {24u, 32u})
        for (int direction : {0, 1, 2}) {
            XDib dib;
            ToDib(labelled(3, "ABCDEF"), dib, bpp);
            ASSERT_TRUE(dib.Rotate(direction));
            const auto& [w, letters] = turns[direction];
            EXPECT_TRUE(SamePixels(dib, labelled(w, letters))) << direction << ", " << bpp;
            EXPECT_FALSE(dib.Rotate(3));
        }
    XDib indexed;
    ASSERT_TRUE(indexed.Create(3, 2, 8));
    EXPECT_FALSE(indexed.Rotate(0));
}

TEST(XDib, GrowKeepsLargerPicturesAndHalvesUnderMemoryPressure) {
    XDib big;
    ToDib(Pattern(40, 30), big, 24);
    uint8_t* const bits = big.pBits;
    EXPECT_TRUE(big.Grow(40, 10));
    EXPECT_EQ(big.pBits, bits);
    EXPECT_TRUE(big.Grow(20, 50));  // each side the larger of old and new; the depth stays
    EXPECT_EQ(std::tuple(big.nWidth, big.nHeight, big.nBpp), std::tuple(40u, 50u, 24u));
    {
        AllocationLimit limit(200 * 200 * 4);  // 400 x 400 doesn't fit, 200 x 200 does
        XDib low;
        EXPECT_TRUE(low.Grow(400, 400));
        EXPECT_EQ(std::pair(low.nWidth, low.nHeight), std::pair(200u, 200u));
    }
    // Nothing fits: 100x100, 50x50, then 25x25 is under 1000 pixels and the grow fails,
    // leaving the old picture.
    AllocationLimit limit(16);
    XDib kept;
    ASSERT_TRUE(kept.Create(2, 2, 24));
    EXPECT_FALSE(kept.Grow(100, 100));
    EXPECT_EQ(kept.nWidth, 2u);
}

TEST(XDib, SaveBmpWritesAFileThatLoadsBack) {
    ScratchFolder dir;
    XDib dib;
    XAnimDib loaded;
    ToDib(Pattern(5, 3), dib, 24);
    ASSERT_TRUE(dib.SaveBmp((dir / "saved.bmp").c_str()));
    ASSERT_TRUE(loaded.LoadFile((dir / "saved.bmp").c_str()));
    EXPECT_EQ(loaded.GetFrame(0)->nFormat, uint32_t(FORMAT_BMP));
    EXPECT_TRUE(SamePixels(*loaded.GetFrame(0), Pattern(5, 3)));
    ASSERT_TRUE(dib.ConvertBpp(32));  // only 24-bit pictures are saved
    EXPECT_FALSE(dib.SaveBmp((dir / "rgba.bmp").c_str()));
    EXPECT_FALSE(XDib().SaveBmp((dir / "empty.bmp").c_str()));
}
