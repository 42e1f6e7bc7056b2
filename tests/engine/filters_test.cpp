// The pixel filters on small pictures whose results can be worked out by hand.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "base/types.h"
#include "engine/filters.h"
#include "image/kernels/kernels.h"

namespace {

XDib Picture(uint32_t w, uint32_t h, uint32_t bpp, uint32_t seed) {
    XDib dib;
    EXPECT_TRUE(dib.Create(w, h, bpp));
    std::mt19937 rng(seed);
    for (uint32_t y = 0; y < h; ++y)
        for (uint32_t i = 0; i < w * bpp / 8; ++i) dib.GetRow(y)[i] = uint8_t(rng());
    return dib;
}

// Every colour byte `grey`, alpha 77 for 32 bits, and one centre pixel of its own value.
XDib Dot(uint32_t bpp, uint8_t grey, uint8_t centre) {
    XDib dib;
    EXPECT_TRUE(dib.Create(3, 3, bpp));
    for (uint32_t y = 0; y < 3; ++y)
        for (uint32_t x = 0; x < 3; ++x) {
            uint8_t* p = dib.GetPixelPtr(x, y);
            std::memset(p, x == 1 && y == 1 ? centre : grey, 3);
            if (bpp == 32) p[3] = 77;
        }
    return dib;
}

std::vector<uint8_t> Rows(const XDib& dib) {
    return std::vector<uint8_t>(dib.pBits, dib.pBits + size_t(dib.nStride) * dib.nHeight);
}

bool Strong(XDib& dib) {
    return dib.nBpp == 24 ? StrongSharpen24(dib) : StrongSharpen32(dib);
}

// Sets nThreadCount for one test and puts it back.
struct ThreadCount {
    uint32_t saved = nThreadCount;
    explicit ThreadCount(uint32_t n) { nThreadCount = n; }
    ~ThreadCount() { nThreadCount = saved; }
};

TEST(FiltersTest, NegativeTwiceGivesThePictureBackAndKeepsAlpha) {
    for (uint32_t bpp : {24u, 32u}) {
        XDib dib = Picture(5, 3, bpp, bpp);
        const std::vector<uint8_t> before = Rows(dib);
        ASSERT_TRUE(Negative(dib));
        EXPECT_EQ(dib.GetRow(1)[0], uint8_t(~before[dib.nStride]));
        EXPECT_EQ(dib.GetRow(2)[7], uint8_t(bpp == 32 ? before[2 * dib.nStride + 7]  // alpha
                                                      : ~before[2 * dib.nStride + 7]));
        ASSERT_TRUE(Negative(dib));
        EXPECT_EQ(Rows(dib), before);
    }
    XDib grey;
    ASSERT_TRUE(grey.Create(4, 4, 8));
    grey.GetRow(0)[0] = 9;
    EXPECT_TRUE(Negative(grey));
    EXPECT_EQ(grey.GetRow(0)[0], 9);
}

TEST(FiltersTest, StrongSharpenValuesBordersAndLimits) {
    ThreadCount threads(1);
    // 24 bits: (100 * 2662 - 400 * 204) >> 10 = 180; (10 * 2662 - 96 * 204) >> 10 = 6.
    // 32 bits: 100 * 2.6 - 0.2 * 400 = 180; 10 * 2.6 - 0.2 * 96 = 6.8, cut to 6.
    struct Case {
        uint8_t grey, centre, want;
    };
    for (const Case c : {Case{50, 100, 180}, Case{12, 10, 6}, Case{0, 255, 255}, Case{255, 0, 0}}) {
        for (uint32_t bpp : {24u, 32u}) {
            SCOPED_TRACE(testing::Message()
                         << int(c.centre) << " in " << int(c.grey) << ", " << bpp);
            XDib dib = Dot(bpp, c.grey, c.centre);
            ASSERT_TRUE(Strong(dib));
            for (uint32_t y = 0; y < 3; ++y)
                for (uint32_t x = 0; x < 3; ++x) {
                    const uint8_t* p = dib.GetPixelPtr(x, y);
                    const uint8_t want = x == 1 && y == 1 ? c.want : c.grey;
                    EXPECT_EQ(p[0], want) << x << "," << y;
                    EXPECT_EQ(p[2], want) << x << "," << y;
                    if (bpp == 32) {
                        EXPECT_EQ(p[3], 77) << x << "," << y;
                    }
                }
        }
    }
}

TEST(FiltersTest, StrongSharpenRefusesSmallAndWrongPictures) {
    for (auto [w, h] : {std::pair{2u, 10u}, {10u, 2u}}) {
        XDib dib24 = Picture(w, h, 24, 1), dib32 = Picture(w, h, 32, 2);
        const std::vector<uint8_t> before = Rows(dib24);
        EXPECT_FALSE(StrongSharpen24(dib24));
        EXPECT_FALSE(StrongSharpen32(dib32));
        EXPECT_EQ(Rows(dib24), before);
    }
    XDib dib24 = Picture(5, 5, 24, 3), dib32 = Picture(5, 5, 32, 4), empty;
    EXPECT_FALSE(StrongSharpen24(dib32));
    EXPECT_FALSE(StrongSharpen32(dib24));
    EXPECT_FALSE(StrongSharpen24(empty));
    EXPECT_FALSE(Sharpen(empty));
    EXPECT_FALSE(Gamma(empty));
}

TEST(FiltersTest, StrongSharpenBandsGiveTheSameAsOneBand) {
    for (uint32_t bpp : {24u, 32u})
        for (auto [w, h] : {std::pair{37u, 29u}, {5u, 3u}, {4u, 6u}}) {
            SCOPED_TRACE(testing::Message() << w << "x" << h << " " << bpp);
            auto run = [&](uint32_t n) {
                ThreadCount threads(n);
                XDib dib = Picture(w, h, bpp, w * h);
                EXPECT_TRUE(Strong(dib));
                return Rows(dib);
            };
            const std::vector<uint8_t> one = run(1);
            for (uint32_t n : {2u, 3u, 4u}) EXPECT_EQ(run(n), one) << n;
            EXPECT_NE(Rows(Picture(w, h, bpp, w * h)), one);
        }
}

TEST(FiltersTest, StrongSharpenStopsAtTheProgressAnswerAndRestores) {
    struct Progress {
        uint32_t calls = 0, stopAt = 0, total = 0;
        static int Ask(uint32_t, uint32_t total, void* data) {
            auto* self = static_cast<Progress*>(data);
            self->total = total;
            return ++self->calls == self->stopAt;
        }
    };
    for (uint32_t n : {1u, 2u, 4u})
        for (uint32_t bpp : {24u, 32u}) {
            SCOPED_TRACE(testing::Message() << n << " threads, " << bpp);
            ThreadCount threads(n);
            XDib dib = Picture(20, 40, bpp, 9);
            const std::vector<uint8_t> before = Rows(dib);
            Progress progress{0, 3, 0};
            dib.pfnProgress = Progress::Ask;
            dib.pProgressData = &progress;
            EXPECT_FALSE(Strong(dib));
            EXPECT_EQ(progress.calls, 3u);
            EXPECT_EQ(progress.total, 40u);
            EXPECT_EQ(Rows(dib), before);
            // Going on at every row finishes the picture.
            progress = {0, 0, 0};
            EXPECT_TRUE(Strong(dib));
            EXPECT_NE(Rows(dib), before);
        }
}

TEST(FiltersTest, SharpenAndGammaGoThroughTheKernels) {
    for (uint32_t bpp : {24u, 32u}) {
        SCOPED_TRACE(bpp);
        const uint32_t ch = bpp / 8;
        XDib dib = Picture(9, 6, bpp, 11);
        XDib original;
        ASSERT_TRUE(original.CopyFrom(dib));
        ASSERT_TRUE(Sharpen(dib));
        std::vector<uint8_t> inner(7 * 4 * ch, 0);
        for (uint32_t y = 0; y < 4; ++y)  // the kernel's alpha rule: the target's alpha stays
            std::memcpy(&inner[y * 7 * ch], dib.GetPixelPtr(1, y + 1), 7 * ch);
        std::vector<uint8_t> want = inner;
        ASSERT_TRUE(kernels::Sharpen3x3(ch, original.GetPixelPtr(1, 1), original.nStride,
                                        want.data(), 7 * ch, 7, 4));
        EXPECT_EQ(inner, want);
        for (uint32_t y = 0; y < 6; ++y)  // the border stays
            for (uint32_t x = 0; x < 9; x += (y == 0 || y == 5 ? 1 : 8))
                EXPECT_EQ(0, std::memcmp(dib.GetPixelPtr(x, y), original.GetPixelPtr(x, y), ch));

        XDib grey = Dot(bpp, 128, 64);
        ASSERT_TRUE(Gamma(grey));
        EXPECT_EQ(grey.GetPixelPtr(0, 0)[1], 180);
        EXPECT_EQ(grey.GetPixelPtr(1, 1)[1], 125);
        if (bpp == 32) {
            EXPECT_EQ(grey.GetPixelPtr(2, 2)[3], 77);
        }
    }
    XDib small = Picture(2, 5, 24, 1);
    EXPECT_FALSE(Sharpen(small));
}

}  // namespace
