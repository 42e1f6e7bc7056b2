#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <vector>

#include "image/format.h"
#include "image/xanimdib.h"
#include "image/xdib.h"
#include "image_test_util.h"
#include "support/scratchfolder.h"

using namespace imgtest;

namespace {

// Sets the B, G, R(, A) of a pixel of a 24- or 32-bit picture.
void Put(XDib& dib, uint32_t x, uint32_t y, uint8_t b, uint8_t g, uint8_t r, uint8_t a = 255) {
    uint8_t* p = dib.GetPixelPtr(x, y);
    p[0] = b, p[1] = g, p[2] = r;
    if (dib.nBpp == 32) p[3] = a;
}

std::vector<uint8_t> Bgra(const XDib& dib, uint32_t x, uint32_t y) {
    const uint8_t* p = dib.GetPixelPtr(x, y);
    return std::vector<uint8_t>(p, p + dib.nBytesPerPixel);
}

// An 8-bit picture with `colours` palette entries from TableColour, pixels cycling through them.
void MakeIndexed(XDib& dib, uint32_t w, uint32_t h, uint32_t bpp, uint32_t colours) {
    std::vector<uint8_t> palette(size_t(colours) * 4);
    for (uint32_t i = 0; i < colours; ++i) {
        const Rgba c = TableColour(i);
        palette[4 * i] = c.b, palette[4 * i + 1] = c.g, palette[4 * i + 2] = c.r;
    }
    ASSERT_TRUE(dib.Create(w, h, bpp, colours, palette.data()));
}

}  // namespace

TEST(XDib, StrideAndPaddingForEveryDepthAndSmallWidths) {
    for (uint32_t bpp : {1u, 4u, 8u, 16u, 24u, 32u}) {
        for (uint32_t w = 1; w <= 9; ++w) {
            XDib dib;
            ASSERT_TRUE(dib.Create(w, 3, bpp)) << bpp << " bits, width " << w;
            // Whole 32-bit words per row, never fewer bytes than the row's bits need.
            const uint32_t expected = (w * bpp + 31) / 32 * 4;
            EXPECT_EQ(dib.nStride, expected) << bpp << " bits, width " << w;
            EXPECT_EQ(dib.nStride % 4, 0u);
            EXPECT_EQ(dib.nBytesPerPixel, bpp <= 8 ? 1u : bpp / 8);
            EXPECT_EQ(dib.GetPaletteSize(), bpp <= 8 ? 1u << bpp : 0u);
            // Rows are laid out top first, one stride apart.
            EXPECT_EQ(dib.GetRow(2), dib.pBits + 2 * expected);
            // New storage is zeroed, padding included.
            for (uint32_t i = 0; i < dib.nStride * 3; ++i) ASSERT_EQ(dib.pBits[i], 0);
        }
    }
    EXPECT_EQ(XDibStride(3, 24), 12u);
    EXPECT_EQ(XDibStride(33, 1), 8u);
}

TEST(XDib, CreateRefusesBadSizesDepthsAndOversizedStorage) {
    struct Case {
        uint32_t w, h, bpp;
    };
    const Case refused[] = {
        {0, 10, 24},         {10, 0, 24},  {0x7FFFFFFF, 1, 8}, {1, 0x7FFFFFFF, 8},
        {0xFFFFFFFF, 1, 1},  {10, 10, 0},  {10, 10, 2},        {10, 10, 3},
        {10, 10, 12},        {10, 10, 64}, {16385, 16384, 32},  // just over 1 GiB
        {0x7FFFFFFE, 2, 32},  // rows of 8 GiB, whose stride doesn't fit the 29-bit formula
    };
    for (const Case& c : refused) {
        XDib dib;
        ASSERT_TRUE(dib.Create(4, 4, 24));  // a picture to lose
        dib.nFormat = FORMAT_BMP;
        dib.clrTransparent = 0x123456;
        EXPECT_FALSE(dib.Create(c.w, c.h, c.bpp)) << c.w << "x" << c.h << "x" << c.bpp;
        // The record is clean after a refusal.
        EXPECT_TRUE(dib.IsEmpty());
        EXPECT_EQ(dib.pBits, nullptr);
        EXPECT_EQ(dib.nWidth, 0u);
        EXPECT_EQ(dib.nStride, 0u);
        EXPECT_EQ(dib.nFormat, 0u);
        EXPECT_EQ(dib.clrTransparent, XDib::kDefaultTransparent);
    }
    // A row just over 512 MiB: the stride formula masks it down to 1 KiB. Such a picture must
    // not come out with a stride shorter than its row (the limit keeps the test from really
    // allocating half a gigabyte if the picture is accepted as it should not be).
    {
        AllocationLimit limit(1 << 20);
        XDib dib;
        const uint32_t width = (1u << 29) + 1024;
        if (dib.Create(width, 1, 8)) {
            EXPECT_GE(dib.nStride, width);
        }
        EXPECT_TRUE(dib.IsEmpty()) << "stride " << dib.nStride << " for a row of " << width;
    }
}

TEST(XDib, CreateKeepsTheGivenPaletteAndNoPaletteReadsBlack) {
    const uint8_t palette[8] = {1, 2, 3, 0, 4, 5, 6, 0};
    XDib dib;
    ASSERT_TRUE(dib.Create(3, 3, 4, 2, palette));
    EXPECT_EQ(dib.nPaletteCount, 2u);
    EXPECT_EQ(std::memcmp(dib.GetPalette(), palette, 8), 0);
    for (uint32_t i = 8; i < 64; ++i) EXPECT_EQ(dib.GetPalette()[i], 0) << i;
    ASSERT_TRUE(dib.Create(3, 3, 8, 5, nullptr));
    EXPECT_EQ(dib.nPaletteCount, 0u);
    ASSERT_TRUE(dib.Create(3, 3, 24, 2, palette));
    EXPECT_EQ(dib.GetPalette(), nullptr);
}

TEST(XDib, GetPixelPtrAtTheEdgesOfEachDepth) {
    XDib empty;
    EXPECT_EQ(empty.GetPixelPtr(0, 0), nullptr);
    struct Case {
        uint32_t bpp, x;
        size_t offset;  // of pixel x in its row
    };
    for (const Case& c : {Case{1, 9, 1}, Case{1, 7, 0}, Case{4, 5, 2}, Case{4, 8, 4}, Case{8, 9, 9},
                          Case{24, 9, 27}}) {
        XDib dib;
        ASSERT_TRUE(dib.Create(10, 4, c.bpp));
        EXPECT_EQ(dib.GetPixelPtr(c.x, 3), dib.GetRow(3) + c.offset) << c.bpp << " bits";
        EXPECT_EQ(dib.GetPixelPtr(0, 0), dib.pBits);
        EXPECT_EQ(dib.GetPixelPtr(10, 0), nullptr) << c.bpp;  // x = width
        EXPECT_EQ(dib.GetPixelPtr(0, 4), nullptr) << c.bpp;   // y = height
        EXPECT_EQ(dib.GetPixelPtr(0xFFFFFFFF, 0), nullptr);
    }
}

TEST(XDib, CopyFromReusesStorageAboveEightBitsAndCopiesThePictureFacts) {
    XDib source;
    ToDib(Pattern(7, 5), source, 24);
    source.clrTransparent = 0x010203;
    source.bHasPageRect = 1;
    source.rcPage = {1, 2, 6, 4};
    source.bReduced = 1;
    source.nOrigWidth = 70;
    source.nOrigHeight = 50;
    source.nFormat = FORMAT_TGA;
    source.clrBackground = 0x00AABBCC;

    XDib target;
    ASSERT_TRUE(target.Create(7, 5, 24));
    uint8_t* const storage = target.pBits;
    ASSERT_TRUE(target.CopyFrom(source));
    EXPECT_EQ(target.pBits, storage);  // same size and depth: the bytes are copied in place
    EXPECT_TRUE(SamePixels(target, Pattern(7, 5)));
    EXPECT_EQ(target.clrTransparent, 0x010203u);
    EXPECT_EQ(target.bHasPageRect, 1u);
    EXPECT_EQ(target.rcPage, (XRect{1, 2, 6, 4}));
    EXPECT_EQ(target.bReduced, 1u);
    EXPECT_EQ(target.nOrigWidth, 70u);
    EXPECT_EQ(target.nOrigHeight, 50u);
    EXPECT_EQ(target.nFormat, uint32_t(FORMAT_TGA));
    EXPECT_EQ(target.clrBackground, 0x00AABBCCu);

    // Another size or depth rebuilds the record.
    XDib other;
    ASSERT_TRUE(other.Create(3, 3, 32));
    ASSERT_TRUE(other.CopyFrom(source));
    EXPECT_EQ(other.nBpp, 24u);
    EXPECT_EQ(other.nWidth, 7u);
    EXPECT_TRUE(SamePixels(other, Pattern(7, 5)));

    // At 8 bits the record is rebuilt even when sizes agree, so the palette comes along.
    XDib indexed, indexedTarget;
    MakeIndexed(indexed, 5, 2, 8, 4);
    for (uint32_t x = 0; x < 5; ++x) *indexed.GetPixelPtr(x, 1) = uint8_t(x % 4);
    ASSERT_TRUE(indexedTarget.Create(5, 2, 8));  // black palette
    ASSERT_TRUE(indexedTarget.CopyFrom(indexed));
    EXPECT_EQ(std::memcmp(indexedTarget.GetPalette(), indexed.GetPalette(), 256 * 4), 0);
    EXPECT_EQ(indexedTarget.nPaletteCount, 4u);
    EXPECT_EQ(PixelOf(indexedTarget, 3, 1), TableColour(3));

    // Copying an empty picture empties the target.
    XDib empty;
    ASSERT_TRUE(target.CopyFrom(empty));
    EXPECT_TRUE(target.IsEmpty());
    EXPECT_EQ(target.nFormat, 0u);
}

TEST(XDib, SwapExchangesStorageAndThePageRectOnlyWhenAsked) {
    XDib a, b;
    ToDib(Pattern(4, 3, 0, 1), a, 24);
    ToDib(Pattern(6, 2, 0, 2), b, 32);
    a.clrTransparent = 1, b.clrTransparent = 2;
    a.bHasPageRect = 1, a.rcPage = {0, 0, 4, 3};
    a.nFormat = FORMAT_BMP, b.nFormat = FORMAT_PSD;
    uint8_t* const bitsA = a.pBits;

    a.Swap(b, false);
    EXPECT_EQ(b.pBits, bitsA);
    EXPECT_EQ(a.nWidth, 6u);
    EXPECT_EQ(a.nBpp, 32u);
    EXPECT_EQ(a.nStride, 24u);
    EXPECT_EQ(a.nBytesPerPixel, 4u);
    EXPECT_EQ(a.clrTransparent, 2u);
    EXPECT_TRUE(SamePixels(a, Pattern(6, 2, 0, 2), true));
    EXPECT_TRUE(SamePixels(b, Pattern(4, 3, 0, 1)));
    // Without the rectangle flag the page rectangle stays; the format is never exchanged.
    EXPECT_EQ(a.bHasPageRect, 1u);
    EXPECT_EQ(b.bHasPageRect, 0u);
    EXPECT_EQ(a.nFormat, uint32_t(FORMAT_BMP));

    a.Swap(b, true);
    EXPECT_EQ(a.pBits, bitsA);
    EXPECT_EQ(a.bHasPageRect, 0u);
    EXPECT_EQ(b.bHasPageRect, 1u);
    EXPECT_EQ(b.rcPage, (XRect{0, 0, 4, 3}));
}

TEST(XDib, FillPaintsTwentyFourAndThirtyTwoBitsOnly) {
    XDib rgb;
    ASSERT_TRUE(rgb.Create(3, 4, 24));  // 9 bytes of pixels, 3 of padding per row
    rgb.Fill(0x00332211);               // 0x00BBGGRR
    for (uint32_t y = 0; y < 4; ++y) {
        for (uint32_t x = 0; x < 3; ++x)
            EXPECT_EQ(Bgra(rgb, x, y), (std::vector<uint8_t>{0x33, 0x22, 0x11}));
        for (uint32_t i = 9; i < 12; ++i) EXPECT_EQ(rgb.GetRow(y)[i], 0) << "padding";
    }
    XDib rgba;
    ASSERT_TRUE(rgba.Create(5, 2, 32));
    rgba.Fill(0x00CCBBAA, 77);
    for (uint32_t y = 0; y < 2; ++y)
        for (uint32_t x = 0; x < 5; ++x)
            EXPECT_EQ(Bgra(rgba, x, y), (std::vector<uint8_t>{0xCC, 0xBB, 0xAA, 77}));
    XDib indexed;
    ASSERT_TRUE(indexed.Create(4, 4, 8));
    indexed.Fill(0xFFFFFF);
    for (uint32_t i = 0; i < indexed.nStride * 4; ++i) EXPECT_EQ(indexed.pBits[i], 0);
}

// The pixels a blit should touch, worked out one pixel at a time: every source pixel of the
// requested rectangle that lies in the source and lands in the target (and its page rect).
TEST(XDib, BlitClipsLikeAPixelByPixelReference) {
    XDib source;
    ToDib(Pattern(5, 4), source, 24);
    const int32_t offsets[] = {-6, -2, 0, 1, 3, 7};
    const int32_t sourceOffsets[] = {-2, 0, 2};
    const int32_t sizes[] = {-1, 2, 9};
    int cases = 0;
    for (bool pageRect : {false, true})
        for (int32_t tx : offsets)
            for (int32_t ty : offsets)
                for (int32_t sx : sourceOffsets)
                    for (int32_t sy : sourceOffsets)
                        for (int32_t w : sizes)
                            for (int32_t h : sizes) {
                                XDib target;
                                ASSERT_TRUE(target.Create(6, 5, 24));
                                target.Fill(0x00ABCDEF);
                                if (pageRect) target.bHasPageRect = 1, target.rcPage = {1, 2, 5, 4};
                                ASSERT_TRUE(source.Blit(target, tx, ty, sx, sy, w, h));
                                const int32_t rw = w < 0 ? 5 - sx : w, rh = h < 0 ? 4 - sy : h;
                                for (int32_t y = 0; y < 5; ++y)
                                    for (int32_t x = 0; x < 6; ++x) {
                                        const int32_t px = x - tx + sx, py = y - ty + sy;
                                        const bool inRect =
                                            px >= sx && px < sx + rw && py >= sy && py < sy + rh;
                                        const bool inSource =
                                            px >= 0 && px < 5 && py >= 0 && py < 4;
                                        const bool inPage =
                                            !pageRect || (x >= 1 && x < 5 && y >= 2 && y < 4);
                                        const Rgba want = inRect && inSource && inPage
                                                              ? Opaque(Pattern(5, 4)).At(px, py)
                                                              : Rgba{0xEF, 0xCD, 0xAB, 255};
                                        ASSERT_EQ(PixelOf(target, x, y), want)
                                            << "target (" << x << "," << y << ") blit at " << tx
                                            << "," << ty << " from " << sx << "," << sy << " size "
                                            << w << "x" << h << (pageRect ? " page rect" : "");
                                    }
                                ++cases;
                            }
    EXPECT_EQ(cases, 2 * 6 * 6 * 3 * 3 * 3 * 3);
}

TEST(XDib, BlitBlendsThirtyTwoBitSourcesByTheirAlpha) {
    XDib source;
    ASSERT_TRUE(source.Create(4, 1, 32));
    Put(source, 0, 0, 200, 100, 50, 255);  // opaque: copied
    Put(source, 1, 0, 200, 100, 50, 0);    // transparent: target stays
    Put(source, 2, 0, 200, 100, 50, 128);  // (t * 127 + s * 128) >> 8
    Put(source, 3, 0, 255, 0, 10, 1);

    XDib rgb;
    ASSERT_TRUE(rgb.Create(4, 1, 24));
    rgb.Fill(0x00143C50);  // B 0x14, G 0x3C, R 0x50
    ASSERT_TRUE(source.Blit(rgb, 0, 0));
    EXPECT_EQ(Bgra(rgb, 0, 0), (std::vector<uint8_t>{200, 100, 50}));
    EXPECT_EQ(Bgra(rgb, 1, 0), (std::vector<uint8_t>{0x14, 0x3C, 0x50}));
    EXPECT_EQ(Bgra(rgb, 2, 0), (std::vector<uint8_t>{uint8_t((20 * 127 + 200 * 128) >> 8),
                                                     uint8_t((60 * 127 + 100 * 128) >> 8),
                                                     uint8_t((80 * 127 + 50 * 128) >> 8)}));
    EXPECT_EQ(Bgra(rgb, 3, 0),
              (std::vector<uint8_t>{uint8_t((20 * 254 + 255) >> 8), uint8_t((60 * 254) >> 8),
                                    uint8_t((80 * 254 + 10) >> 8)}));

    // 32 onto 32 with useAlpha: the same blend, the target's alpha stays.
    XDib rgba;
    ASSERT_TRUE(rgba.Create(4, 1, 32));
    rgba.Fill(0x00143C50, 99);
    ASSERT_TRUE(source.Blit(rgba, 0, 0, 0, 0, -1, -1, true));
    EXPECT_EQ(Bgra(rgba, 0, 0), (std::vector<uint8_t>{200, 100, 50, 99}));
    EXPECT_EQ(Bgra(rgba, 1, 0), (std::vector<uint8_t>{0x14, 0x3C, 0x50, 99}));
    EXPECT_EQ(Bgra(rgba, 2, 0)[0], uint8_t((20 * 127 + 200 * 128) >> 8));
    EXPECT_EQ(Bgra(rgba, 2, 0)[3], 99);
    // Without useAlpha it is a plain copy, alpha included.
    ASSERT_TRUE(source.Blit(rgba, 0, 0));
    EXPECT_EQ(Bgra(rgba, 1, 0), (std::vector<uint8_t>{200, 100, 50, 0}));
    EXPECT_EQ(Bgra(rgba, 2, 0), (std::vector<uint8_t>{200, 100, 50, 128}));
}

TEST(XDib, BlitBetweenDepthsFollowsTheTable) {
    // 24 onto 32 copies and makes the pixels opaque.
    XDib rgb, rgba;
    ToDib(Pattern(3, 2), rgb, 24);
    ASSERT_TRUE(rgba.Create(3, 2, 32));
    ASSERT_TRUE(rgb.Blit(rgba, 0, 0));
    EXPECT_TRUE(SamePixels(rgba, Opaque(Pattern(3, 2)), true));

    // Same depth 16, 24, 32: a copy.
    for (uint32_t bpp : {16u, 24u, 32u}) {
        XDib a, b;
        ASSERT_TRUE(a.Create(3, 2, bpp));
        for (uint32_t i = 0; i < a.nStride * 2; ++i) a.pBits[i] = uint8_t(i * 7 + 1);
        ASSERT_TRUE(b.Create(3, 2, bpp));
        ASSERT_TRUE(a.Blit(b, 0, 0));
        for (uint32_t y = 0; y < 2; ++y)
            EXPECT_EQ(std::memcmp(a.GetRow(y), b.GetRow(y), 3 * a.nBytesPerPixel), 0) << bpp;
    }

    // Everything else refuses and leaves the target alone.
    struct Pair {
        uint32_t from, to;
    };
    for (const Pair& p : {Pair{8, 24}, Pair{24, 8}, Pair{16, 24}, Pair{24, 16}, Pair{32, 16},
                          Pair{1, 1}, Pair{4, 4}, Pair{4, 8}, Pair{8, 32}}) {
        XDib a, b;
        ASSERT_TRUE(a.Create(2, 2, p.from));
        std::memset(a.pBits, 0x5A, a.nStride * 2);
        ASSERT_TRUE(b.Create(2, 2, p.to));
        EXPECT_FALSE(a.Blit(b, 0, 0)) << p.from << " onto " << p.to;
        for (uint32_t i = 0; i < b.nStride * 2; ++i) ASSERT_EQ(b.pBits[i], 0);
    }
    XDib empty;
    EXPECT_FALSE(empty.Blit(rgb, 0, 0));
    EXPECT_FALSE(rgb.Blit(empty, 0, 0));
}

TEST(XDib, EightBitBlitMapsPalettesToTheNearestFirstEntry) {
    // Source entries: pure red, a grey exactly between two target greys, and blue.
    const uint8_t sourcePalette[] = {0, 0, 255, 0, 100, 100, 100, 0, 250, 0, 0, 0};
    // Target: black, grey 90, grey 110, red twice (the first of equals wins), a blue.
    const uint8_t targetPalette[] = {0, 0, 0,   0, 90, 90, 90,  0, 110, 110, 110, 0,
                                     0, 0, 255, 0, 0,  0,  255, 0, 255, 30,  30,  0};
    XDib source, target;
    ASSERT_TRUE(source.Create(3, 1, 8, 3, sourcePalette));
    for (uint8_t i = 0; i < 3; ++i) *source.GetPixelPtr(i, 0) = i;
    ASSERT_TRUE(target.Create(5, 1, 8, 256, nullptr));
    std::memcpy(target.GetPalette(), targetPalette, sizeof(targetPalette));
    // Entries beyond the six are black; black is farther than grey 90 from grey 100.
    std::memset(target.pBits, 9, 5);
    ASSERT_TRUE(source.Blit(target, 1, 0));
    EXPECT_EQ(target.pBits[0], 9);  // outside the blit
    EXPECT_EQ(target.pBits[1], 3);  // red: the first of the two reds
    EXPECT_EQ(target.pBits[2], 1);  // grey 100: 90 and 110 tie, the first wins
    EXPECT_EQ(target.pBits[3], 5);  // blue 250: the blue (255, 30, 30) beats black
    EXPECT_EQ(target.pBits[4], 9);
}

TEST(XDib, TranslucentBlitLevels) {
    XDib source, target;
    ASSERT_TRUE(source.Create(2, 1, 24));
    Put(source, 0, 0, 255, 0, 100);
    Put(source, 1, 0, 10, 20, 30);
    const auto fresh = [&]() {
        ASSERT_TRUE(target.Create(2, 1, 24));
        target.Fill(0x00C86432);  // B 200, G 100, R 50
    };
    // Level 0 does nothing, and says so with success.
    fresh();
    EXPECT_TRUE(source.TranslucentBlit(target, 0, 0, 0, 0, -1, -1, 0));
    EXPECT_EQ(Bgra(target, 0, 0), (std::vector<uint8_t>{200, 100, 50}));
    // Level 255 is a plain blit.
    fresh();
    EXPECT_TRUE(source.TranslucentBlit(target, 0, 0, 0, 0, -1, -1, 255));
    EXPECT_EQ(Bgra(target, 0, 0), (std::vector<uint8_t>{255, 0, 100}));
    // Level 128 mixes about half and half (the table may round either way).
    fresh();
    EXPECT_TRUE(source.TranslucentBlit(target, 0, 0, 0, 0, -1, -1, 128));
    const uint8_t s[2][3] = {{255, 0, 100}, {10, 20, 30}}, t[3] = {200, 100, 50};
    for (uint32_t x = 0; x < 2; ++x)
        for (int c = 0; c < 3; ++c) {
            const double want = (s[x][c] * 128 + t[c] * 127) / 255.0;
            EXPECT_NEAR(Bgra(target, x, 0)[c], want, 1.0) << x << "," << c;
        }
    // Another level after it: the shared table is rebuilt, not reused.
    fresh();
    EXPECT_TRUE(source.TranslucentBlit(target, 0, 0, 0, 0, -1, -1, 51));
    EXPECT_NEAR(Bgra(target, 0, 0)[0], (255 * 51 + 200 * 204) / 255.0, 1.0);

    // A 32-bit source folds its alpha into the level: a = (alpha * level) >> 8.
    XDib rgba;
    ASSERT_TRUE(rgba.Create(3, 1, 32));
    Put(rgba, 0, 0, 255, 0, 100, 255);
    Put(rgba, 1, 0, 255, 0, 100, 0);
    Put(rgba, 2, 0, 255, 0, 100, 200);
    ASSERT_TRUE(target.Create(3, 1, 24));
    target.Fill(0x00C86432);
    EXPECT_TRUE(rgba.TranslucentBlit(target, 0, 0, 0, 0, -1, -1, 128));
    const uint32_t a0 = (255 * 128) >> 8, a2 = (200 * 128) >> 8;
    EXPECT_EQ(Bgra(target, 0, 0),
              (std::vector<uint8_t>{uint8_t((200 * (255 - a0) + 255 * a0) >> 8),
                                    uint8_t((100 * (255 - a0)) >> 8),
                                    uint8_t((50 * (255 - a0) + 100 * a0) >> 8)}));
    EXPECT_EQ(Bgra(target, 1, 0), (std::vector<uint8_t>{200, 100, 50}));
    EXPECT_EQ(Bgra(target, 2, 0)[0], uint8_t((200 * (255 - a2) + 255 * a2) >> 8));
}

TEST(XDib, ConvertBppExpandsPalettesInBitOrderAndPacksBack) {
    // 1 bit: the first pixel is the high bit of the first byte.
    const uint8_t two[] = {10, 20, 30, 0, 200, 210, 220, 0};
    for (uint32_t to : {24u, 32u}) {
        XDib dib;
        ASSERT_TRUE(dib.Create(10, 2, 1, 2, two));
        dib.pBits[0] = 0xB1;  // 1011 0001
        dib.pBits[1] = 0x80;  // pixel 8 set, pixel 9 clear
        dib.nFormat = FORMAT_BMP;
        ASSERT_TRUE(dib.ConvertBpp(to));
        EXPECT_EQ(dib.nBpp, to);
        EXPECT_EQ(dib.nFormat, uint32_t(FORMAT_BMP));  // the picture's facts stay
        const int bits[10] = {1, 0, 1, 1, 0, 0, 0, 1, 1, 0};
        for (uint32_t x = 0; x < 10; ++x) {
            const Rgba want = bits[x] ? Rgba{220, 210, 200, 255} : Rgba{30, 20, 10, 255};
            EXPECT_EQ(PixelOf(dib, x, 0), want) << "1 bit to " << to << ", pixel " << x;
        }
        EXPECT_EQ(PixelOf(dib, 0, 1), (Rgba{30, 20, 10, 255}));
    }
    // 4 bits: the first pixel is the high nibble.
    XDib four;
    MakeIndexed(four, 3, 1, 4, 16);
    four.pBits[0] = 0x2F, four.pBits[1] = 0x70;
    ASSERT_TRUE(four.ConvertBpp(32));
    EXPECT_EQ(PixelOf(four, 0, 0), TableColour(2));
    EXPECT_EQ(PixelOf(four, 1, 0), TableColour(15));
    EXPECT_EQ(PixelOf(four, 2, 0), TableColour(7));
    XDib four24;
    MakeIndexed(four24, 3, 1, 4, 16);
    four24.pBits[0] = 0x2F, four24.pBits[1] = 0x70;
    ASSERT_TRUE(four24.ConvertBpp(24));
    EXPECT_EQ(PixelOf(four24, 2, 0), TableColour(7));
    // 8 bits to 24 and 32.
    for (uint32_t to : {24u, 32u}) {
        XDib eight;
        MakeIndexed(eight, 5, 2, 8, 200);
        for (uint32_t x = 0; x < 5; ++x) *eight.GetPixelPtr(x, 1) = uint8_t(190 + x);
        ASSERT_TRUE(eight.ConvertBpp(to));
        for (uint32_t x = 0; x < 5; ++x) EXPECT_EQ(PixelOf(eight, x, 1), TableColour(190 + x));
        EXPECT_EQ(PixelOf(eight, 0, 0), TableColour(0));
    }
    // 24 to 32 makes every pixel opaque, 32 to 24 drops alpha.
    XDib rgb;
    ToDib(Pattern(5, 3), rgb, 24);
    ASSERT_TRUE(rgb.ConvertBpp(32));
    EXPECT_EQ(rgb.nStride, 20u);
    EXPECT_TRUE(SamePixels(rgb, Opaque(Pattern(5, 3)), true));
    XDib rgba;
    ToDib(Pattern(5, 3), rgba, 32);
    ASSERT_TRUE(rgba.ConvertBpp(24));
    EXPECT_EQ(rgba.nStride, 16u);
    EXPECT_TRUE(SamePixels(rgba, Pattern(5, 3)));
}

TEST(XDib, ConvertBppToTheSameDepthIsANoOpAndOtherPairsFail) {
    XDib rgb;
    ToDib(Pattern(4, 4), rgb, 24);
    uint8_t* const bits = rgb.pBits;
    EXPECT_TRUE(rgb.ConvertBpp(24));
    EXPECT_EQ(rgb.pBits, bits);
    EXPECT_TRUE(SamePixels(rgb, Pattern(4, 4)));

    struct Pair {
        uint32_t from, to;
    };
    for (const Pair& p : {Pair{16, 24}, Pair{16, 32}, Pair{24, 8}, Pair{24, 16}, Pair{32, 8},
                          Pair{8, 4}, Pair{4, 8}, Pair{1, 8}, Pair{8, 16}}) {
        XDib dib;
        ASSERT_TRUE(dib.Create(3, 3, p.from));
        std::memset(dib.pBits, 0x42, dib.nStride * 3);
        uint8_t* const before = dib.pBits;
        EXPECT_FALSE(dib.ConvertBpp(p.to)) << p.from << " to " << p.to;
        EXPECT_EQ(dib.nBpp, p.from);
        EXPECT_EQ(dib.pBits, before);
        EXPECT_EQ(dib.pBits[0], 0x42);
    }
    XDib empty;
    EXPECT_FALSE(empty.ConvertBpp(24));
}

TEST(XDib, RotateTurnsANonSquarePictureAllThreeWays) {
    // A B C       clockwise:  D A    anticlockwise:  C F    half turn:  F E D
    // D E F                   E B                    B E                C B A
    //                         F C                    A D
    const auto label = [](char c) { return Rgba{uint8_t(c), uint8_t(c + 1), uint8_t(c + 2), 255}; };
    Picture p(3, 2);
    const char* letters = "ABCDEF";
    for (uint32_t i = 0; i < 6; ++i) p.pixels[i] = label(letters[i]);
    struct Case {
        int direction;
        uint32_t w, h;
        const char* result;
    };
    for (uint32_t bpp : {24u, 32u}) {
        for (const Case& c :
             {Case{0, 2, 3, "DAEBFC"}, Case{1, 2, 3, "CFBEAD"}, Case{2, 3, 2, "FEDCBA"}}) {
            XDib dib;
            ToDib(p, dib, bpp);
            dib.nFormat = FORMAT_TGA;
            ASSERT_TRUE(dib.Rotate(c.direction));
            EXPECT_EQ(dib.nFormat, uint32_t(FORMAT_TGA));
            Picture want(c.w, c.h);
            for (uint32_t i = 0; i < 6; ++i) want.pixels[i] = label(c.result[i]);
            EXPECT_TRUE(SamePixels(dib, want)) << "direction " << c.direction << ", " << bpp;
            EXPECT_EQ(dib.nStride, XDibStride(c.w, bpp));
        }
    }
    XDib indexed;
    ASSERT_TRUE(indexed.Create(3, 2, 8));
    EXPECT_FALSE(indexed.Rotate(0));
    XDib rgb;
    ToDib(p, rgb, 24);
    EXPECT_FALSE(rgb.Rotate(3));
    EXPECT_EQ(rgb.nWidth, 3u);
}

TEST(XDib, GrowKeepsLargerPicturesAndHalvesUnderMemoryPressure) {
    // Already large enough: nothing changes.
    XDib big;
    ToDib(Pattern(40, 30), big, 24);
    uint8_t* const bits = big.pBits;
    EXPECT_TRUE(big.Grow(40, 10));
    EXPECT_EQ(big.pBits, bits);
    EXPECT_TRUE(SamePixels(big, Pattern(40, 30)));
    // Larger in one direction: each side is the larger of old and new; the depth stays.
    EXPECT_TRUE(big.Grow(20, 50));
    EXPECT_EQ(big.nWidth, 40u);
    EXPECT_EQ(big.nHeight, 50u);
    EXPECT_EQ(big.nBpp, 24u);
    // An empty picture grows to 32 bits.
    XDib canvas;
    EXPECT_TRUE(canvas.Grow(30, 20));
    EXPECT_EQ(canvas.nBpp, 32u);
    EXPECT_EQ(canvas.nWidth, 30u);

    {
        // 400 x 400 x 4 bytes doesn't fit, 200 x 200 does.
        AllocationLimit limit(200 * 200 * 4);
        XDib low;
        EXPECT_TRUE(low.Grow(400, 400));
        EXPECT_EQ(low.nWidth, 200u);
        EXPECT_EQ(low.nHeight, 200u);
    }
    {
        // Nothing fits: 100x100, 50x50, then 25x25 is under 1000 pixels and the grow fails.
        AllocationLimit limit(16);
        XDib none;
        EXPECT_FALSE(none.Grow(100, 100));
        EXPECT_TRUE(none.IsEmpty());
        XDib kept;
        ASSERT_TRUE(kept.Create(2, 2, 24));  // 16 bytes fit
        EXPECT_FALSE(kept.Grow(100, 100));
        EXPECT_EQ(kept.nWidth, 2u);  // a failed grow leaves the old picture
    }
}

TEST(XDib, SaveBmpWritesAPlainBottomUpFileThatLoadsBack) {
    ScratchFolder dir;
    XDib dib;
    ToDib(Pattern(5, 3), dib, 24);
    const std::string path = dir / "saved.bmp";
    ASSERT_TRUE(dib.SaveBmp(path.c_str()));

    std::ifstream in(path, std::ios::binary);
    const std::vector<uint8_t> file{std::istreambuf_iterator<char>(in), {}};
    ASSERT_EQ(file.size(), 54u + 16 * 3);
    const auto le32 = [&](size_t at) {
        return uint32_t(file[at]) | uint32_t(file[at + 1]) << 8 | uint32_t(file[at + 2]) << 16 |
               uint32_t(file[at + 3]) << 24;
    };
    const auto le16 = [&](size_t at) { return uint32_t(file[at]) | uint32_t(file[at + 1]) << 8; };
    EXPECT_EQ(file[0], 'B');
    EXPECT_EQ(file[1], 'M');
    EXPECT_EQ(le32(2), 54u + 48);  // file size
    EXPECT_EQ(le32(6), 0u);        // reserved
    EXPECT_EQ(le32(10), 54u);      // pixel offset
    EXPECT_EQ(le32(14), 40u);      // info header size
    EXPECT_EQ(le32(18), 5u);
    EXPECT_EQ(le32(22), 3u);  // positive: rows bottom first
    EXPECT_EQ(le16(26), 1u);  // planes
    EXPECT_EQ(le16(28), 24u);
    EXPECT_EQ(le32(30), 0u);  // uncompressed
    EXPECT_EQ(le32(34), 48u);
    EXPECT_EQ(le32(46), 0u);  // no palette
    // The first row in the file is the bottom row of the picture.
    EXPECT_EQ(std::memcmp(&file[54], dib.GetRow(2), 16), 0);

    XAnimDib loaded;
    ASSERT_TRUE(loaded.LoadFile(path.c_str()));
    ASSERT_EQ(loaded.GetFrameCount(), 1u);
    EXPECT_EQ(loaded.GetFrame(0)->nFormat, uint32_t(FORMAT_BMP));
    EXPECT_TRUE(SamePixels(*loaded.GetFrame(0), Pattern(5, 3)));

    // Only 24-bit pictures are saved.
    XDib rgba;
    ToDib(Pattern(2, 2), rgba, 32);
    EXPECT_FALSE(rgba.SaveBmp((dir / "rgba.bmp").c_str()));
    XDib empty;
    EXPECT_FALSE(empty.SaveBmp((dir / "empty.bmp").c_str()));
    EXPECT_FALSE(dib.SaveBmp((dir / "missing/folder.bmp").c_str()));
}
