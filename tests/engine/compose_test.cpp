#include "engine/compose.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "image/kernels/kernels.h"

void PrintTo(const XRect& r, std::ostream* os) {
    *os << "(" << r.left << "," << r.top << "," << r.right << "," << r.bottom << ")";
}

namespace {

using Colour = std::function<uint32_t(uint32_t, uint32_t)>;

ComposeSize Size(uint32_t w, uint32_t h) {
    return {w, h, w, h};
}

// A 32-bit picture whose pixel (x, y) is colour(x, y), as B, G, R, A in one value.
std::unique_ptr<XAnimDib> Picture(uint32_t w, uint32_t h, const Colour& colour) {
    auto pic = std::make_unique<XAnimDib>();
    XDib* dib = pic->AddEmptyFrame();
    EXPECT_TRUE(dib->Create(w, h, 32));
    for (uint32_t y = 0; y < h; ++y)
        for (uint32_t x = 0; x < w; ++x) {
            const uint32_t v = colour(x, y);
            std::memcpy(dib->GetPixelPtr(x, y), &v, 4);
        }
    return pic;
}
uint32_t Pixel(const XDib& dib, uint32_t x, uint32_t y) {
    uint32_t v;
    std::memcpy(&v, dib.GetPixelPtr(x, y), 4);
    return v;
}
// The w x h pixels of `dib` from (x0, y0) against want(x, y).
::testing::AssertionResult PixelsAre(const XDib& dib, uint32_t w, uint32_t h, const Colour& want,
                                     uint32_t x0 = 0, uint32_t y0 = 0) {
    for (uint32_t y = 0; y < h; ++y)
        for (uint32_t x = 0; x < w; ++x)
            if (Pixel(dib, x0 + x, y0 + y) != want(x, y))
                return ::testing::AssertionFailure() << "at " << x << "," << y;
    return ::testing::AssertionSuccess();
}
uint32_t Coded(uint32_t x, uint32_t y) {
    return 0xFF000000u | (y << 12) | x;
}

}  // namespace

TEST(ComposeLayout, EveryModeWorkedOutByHand) {
    struct Case {
        const char* name;
        uint32_t nMode, nCanvasW, nCanvasH;
        ComposeSize first;
        std::optional<ComposeSize> second;
        bool bStretchWhenLarge;
        uint32_t nModeOut, nGrowW, nGrowH;
        bool bFill;
        std::vector<XRect> pages;  // page i shows picture i; two pages: a spread is shown
        XRect rcPage = {};         // when not the only page's rectangle
    };
    const ComposeSize reducedPage{99, 133, 300, 400};  // stored aspect a little off the true one
    // clang-format off
    const Case cases[] = {
        // Stretch: the height rules when the area is relatively wider, rounding half up.
        {"stretch, height rules", 1, 1000, 800, Size(500, 500), {}, false,
         1, 1000, 800, false, {{0, 0, 800, 800}}},
        {"stretch, height rounded", 1, 1000, 337, Size(2, 3), {}, false,
         1, 1000, 337, false, {{0, 0, 225, 337}}},  // 224.67
        {"stretch, width rounded", 1, 1000, 700, Size(3, 2), {}, false,
         1, 1000, 700, false, {{0, 0, 1000, 667}}},  // 666.67
        // Fit width: the height is cut, not rounded; the canvas is at least the area.
        {"fit width, cut", 2, 800, 600, Size(7, 9), {}, false,
         2, 800, 1028, true, {{0, 0, 800, 1028}}},  // 1028.57
        {"fit width, short page", 2, 800, 600, Size(1000, 100), {}, false,
         2, 800, 600, true, {{0, 0, 800, 80}}},
        // None: the canvas is the larger of area and picture; a reduced picture at true size.
        {"none, wide", 0, 800, 600, Size(1000, 500), {}, false,
         0, 1000, 600, true, {{0, 0, 1000, 500}}},
        {"none, reduced", 0, 800, 600, {500, 250, 2000, 1000}, {}, false,
         0, 2000, 1000, true, {{0, 0, 2000, 1000}}},
        // Spreads are 2:1, each page against mid.
        {"spread L2R", 3, 1600, 1000, Size(1000, 1000), Size(800, 1000), false,
         3, 1600, 800, true, {{0, 0, 800, 800}, {800, 0, 1440, 800}}, {0, 0, 1600, 800}},
        // A landscape page on either side: the first page alone, fitted to the whole area.
        {"landscape neighbour", 3, 1600, 1000, Size(1000, 1000), Size(1001, 1000), false,
         1, 1600, 1000, false, {{0, 0, 1000, 1000}}},
        {"landscape first", 4, 1600, 1000, Size(1001, 1000), Size(800, 1000), false,
         1, 1600, 1000, false, {{0, 0, 1001, 1000}}},
        {"last page alone", 3, 1600, 1000, Size(700, 1000), {}, false,
         1, 1600, 1000, false, {{0, 0, 700, 1000}}},
        // R2L: first page right; a lower second page fills the slot's width and is centred.
        {"R2L, heights differ", 4, 2000, 1000, Size(600, 1000), Size(600, 800), false,
         4, 1200, 1000, true, {{600, 0, 1200, 1000}, {0, 100, 600, 900}}, {0, 0, 1200, 1000}},
        {"R2L, odd free height halved down", 4, 2000, 1000, Size(600, 1000), Size(600, 801), false,
         4, 1200, 1000, true, {{600, 0, 1200, 1000}, {0, 99, 600, 900}}, {0, 0, 1200, 1000}},
        // Odd spread width: mid and slots by integer division, the spare column outside.
        {"spread of odd width", 3, 2000, 1001, Size(500, 1000), Size(500, 1000), false,
         3, 1001, 1001, true, {{0, 0, 500, 1000}, {500, 0, 1000, 1000}}, {0, 0, 1001, 1001}},
        // One-page modes: landscape becomes strips of cut(w * 0.53) stacked to 2h.
        {"one page, landscape", 5, 800, 600, Size(1001, 500), {}, false,
         5, 800, 1509, true, {{0, 0, 800, 1509}}},  // 1000 * 800/530
        {"one page, square whole", 6, 800, 600, Size(500, 500), {}, false,
         6, 800, 800, true, {{0, 0, 800, 800}}},
        // Stretch when large: mode 1 non-strict both ways, judged by the true size.
        {"fits exactly", 1, 800, 600, Size(800, 600), {}, true,
         0, 800, 600, true, {{0, 0, 800, 600}}},
        {"one pixel too wide", 1, 799, 600, Size(800, 600), {}, true,
         1, 799, 600, false, {{0, 0, 799, 599}}},  // 599.25
        {"reduced by true size", 1, 1000, 800, {400, 300, 1600, 1200}, {}, true,
         1, 1000, 800, false, {{0, 0, 1000, 750}}},
        // Mode 2 compares the width only, non-strict.
        {"fit width, as wide", 2, 800, 600, Size(800, 5000), {}, true,
         0, 800, 5000, true, {{0, 0, 800, 5000}}},
        {"fit width, one wider", 2, 799, 600, Size(800, 5000), {}, true,
         2, 799, 4993, true, {{0, 0, 799, 4993}}},  // 4993.75
        {"small spread natural", 3, 1600, 1000, Size(300, 400), Size(200, 400), true,
         3, 600, 400, true, {{0, 0, 300, 400}, {300, 0, 500, 400}}, {0, 0, 600, 400}},
        // Spreads compare strictly: 600 wide against 601 shrinks to 600x400; against 600 doesn't.
        {"spread strict, shrunk", 3, 601, 1000, reducedPage, reducedPage, true,
         3, 595, 400, true, {{0, 0, 297, 399}, {297, 0, 594, 399}}, {0, 0, 595, 400}},
        {"spread strict, equal", 3, 600, 1000, reducedPage, reducedPage, true,
         3, 600, 403, true, {{0, 0, 300, 403}, {300, 0, 600, 403}}, {0, 0, 600, 403}},
        {"one page ignores stretch-when-large", 5, 800, 600, Size(400, 500), {}, true,
         5, 800, 1000, true, {{0, 0, 800, 1000}}},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ViewSettings s;
        s.nStretchMode = c.nMode, s.nCanvasWidth = c.nCanvasW, s.nCanvasHeight = c.nCanvasH;
        s.bStretchWhenLarge = c.bStretchWhenLarge, s.nFilterMode = 1;
        const ComposeLayout l = LayoutView(&c.first, c.second ? &*c.second : nullptr, s, false);
        EXPECT_TRUE(l.report.bComposed);
        EXPECT_EQ(l.nMode, c.nModeOut);
        EXPECT_EQ(l.nGrowWidth, c.nGrowW);
        EXPECT_EQ(l.nGrowHeight, c.nGrowH);
        EXPECT_EQ(l.bFill, c.bFill);
        EXPECT_EQ(l.nFilter, 1u);
        ASSERT_EQ(l.nPageCount, c.pages.size());
        for (size_t i = 0; i < c.pages.size(); ++i) {
            EXPECT_EQ(l.pages[i].nPicture, i);
            EXPECT_EQ(l.pages[i].rect, c.pages[i]);
        }
        EXPECT_EQ(l.rcPage, c.rcPage.IsEmpty() ? c.pages[0] : c.rcPage);
        EXPECT_EQ(l.report.bTwoPageShown, c.pages.size() == 2);
        EXPECT_EQ(l.report.bTwoPageMode, c.nMode == 3 || c.nMode == 4);
    }
}

TEST(ComposeLayout, ReportsStripsActualSizeAndNothingToDraw) {
    ViewSettings s;
    s.nCanvasWidth = 800, s.nCanvasHeight = 600, s.nFilterMode = 2;
    const ComposeSize landscape = Size(1001, 500), reduced{500, 250, 2000, 1000};

    // Strips of 530 overlap in the middle: the right one starts at 1001 - 530.
    s.nStretchMode = SHOW_ONE_PAGE_L2R;
    ComposeLayout l = LayoutView(&landscape, nullptr, s, false);
    EXPECT_TRUE(l.bStrips);
    EXPECT_EQ(l.nStripWidth, 530u);
    EXPECT_EQ(l.nStripSourceX[0], 0u);
    EXPECT_EQ(l.nStripSourceX[1], 471u);
    s.nStretchMode = SHOW_ONE_PAGE_R2L;
    l = LayoutView(&landscape, nullptr, s, false);
    EXPECT_EQ(l.nStripSourceX[0], 471u);
    EXPECT_EQ(l.nStripSourceX[1], 0u);
    s.nStretchMode = SHOW_ONE_PAGE_L2R;
    const ComposeSize square = Size(700, 700), line = Size(3000, 1);
    EXPECT_FALSE(LayoutView(&square, nullptr, s, false).bStrips);
    // One pixel high: only w / h is ever divided by.
    EXPECT_EQ(LayoutView(&line, nullptr, s, false).rcPage, (XRect{0, 0, 800, 1}));  // 2 * 800/1590
    s.nStretchMode = SHOW_STRETCH;
    EXPECT_EQ(LayoutView(&line, nullptr, s, false).rcPage, (XRect{0, 0, 800, 0}));  // 0.27

    // Actual size: mode 0, no filter, no spread; a reduced picture is scaled up to true size.
    s.nStretchMode = SHOW_TWO_PAGE_R2L;
    l = LayoutView(&reduced, &reduced, s, true);
    EXPECT_EQ(l.nMode, uint32_t(SHOW_NONE));
    EXPECT_EQ(l.nFilter, 0u);
    EXPECT_TRUE(l.bLinearUpscale);
    EXPECT_TRUE(l.report.bTwoPageMode);
    EXPECT_FALSE(l.report.bTwoPageShown);
    EXPECT_EQ(l.rcPage, (XRect{0, 0, 2000, 1000}));
    EXPECT_FALSE(LayoutView(&landscape, nullptr, s, true).bLinearUpscale);

    // Nothing to compose: no picture, an empty area, an unknown mode.
    EXPECT_FALSE(LayoutView(nullptr, nullptr, s, false).report.bComposed);
    s.nCanvasHeight = 0;
    EXPECT_FALSE(LayoutView(&landscape, nullptr, s, false).report.bComposed);
    s.nCanvasHeight = 600, s.nStretchMode = 7;
    EXPECT_FALSE(LayoutView(&landscape, nullptr, s, false).report.bComposed);

    EXPECT_TRUE(IsUpright(1000, 1000));
    EXPECT_TRUE(IsUpright(1, 1000));
    EXPECT_FALSE(IsUpright(1001, 1000));
    EXPECT_FALSE(IsUpright(1, 0));
}

TEST(ComposeScale, KernelChoiceAndSuperSamplingThreshold) {
    using namespace kernels;
    struct Case {
        uint32_t filter, interp;
        bool super;
        uint32_t tw, th, sw, sh, kernel;
    };
    const Case cases[] = {
        {0, 2, true, 50, 50, 100, 100, kResizeNearest},  // no filter: nearest at any size
        {1, 0, true, 200, 200, 100, 100, kResizeLinear},
        {1, 1, true, 200, 200, 100, 100, kResizeCubic},
        {2, 2, true, 200, 200, 100, 100, kResizeLanczos},
        {1, 1, true, 70, 70, 100, 100, kResizeSuper},
        {1, 1, true, 70, 75, 100, 100, kResizeCubic},  // one direction above 70 per cent
        {1, 0, true, 75, 70, 100, 100, kResizeLinear},
        {1, 0, true, 141, 141, 200, 200, kResizeSuper},   // 70.5 per cent: 70 by integer division
        {1, 0, true, 142, 100, 200, 200, kResizeLinear},  // 71 per cent isn't under 71
        {1, 0, true, 100, 142, 200, 200, kResizeLinear},  // nor in height
        {1, 2, false, 10, 10, 100, 100, kResizeLanczos},  // super-sampling switched off
    };
    for (const Case& c : cases)
        EXPECT_EQ(ScaleKernel(c.filter, c.interp, c.super, c.tw, c.th, c.sw, c.sh), c.kernel)
            << c.filter << " " << c.interp << " " << c.tw << "x" << c.th << " of " << c.sw;
}

TEST(ComposeScale, ClippingMovesTheSourceByTheSameRatioCutTowardsZero) {
    struct Case {
        XRect rect, source;
        uint32_t width, height;
        bool bKept;
        XRect rectOut, sourceOut;
    };
    const Case cases[] = {
        // Twice enlarged, 50 cut off at either side: the source loses 25 at each.
        {{-50, 0, 150, 100}, {0, 0, 100, 50}, 100, 100, true, {0, 0, 100, 100}, {25, 0, 75, 50}},
        // 3 of 10 target pixels over 4 source pixels: 1.2 cut to 1; 2 at the right: 0.8 to 0.
        {{-3, 0, 7, 10}, {0, 0, 4, 4}, 5, 10, true, {0, 0, 5, 10}, {1, 0, 4, 4}},
        {{0, -10, 10, 20}, {5, 0, 15, 30}, 10, 15, true, {0, 0, 10, 15}, {5, 10, 15, 25}},
        {{0, 0, 10, 10}, {0, 0, 5, 5}, 20, 20, true, {0, 0, 10, 10}, {0, 0, 5, 5}},
        {{200, 0, 300, 100}, {0, 0, 10, 10}, 100, 100, false, {}, {}},
        {{-100, 0, -1, 100}, {0, 0, 10, 10}, 100, 100, false, {}, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.rect));
        XRect rect = c.rect, source = c.source;
        ASSERT_EQ(ClipScaleRects(rect, source, c.width, c.height), c.bKept);
        if (!c.bKept) continue;
        EXPECT_EQ(rect, c.rectOut);
        EXPECT_EQ(source, c.sourceOut);
    }
}

TEST(ComposeScale, PixelsOfKernelsSuperSamplingAndClipping) {
    // Noise, so that every kernel gives its own result.
    const auto pic = Picture(100, 100, [](uint32_t x, uint32_t y) {
        return 0xFF000000u | ((x * 37 + y * 11) & 0xFF) | (((x * y) & 0xFF) << 8) |
               (((x ^ y) * 5 & 0xFF) << 16);
    });
    const XDib& src = *pic->GetFrame(0);
    const auto direct = [&](uint32_t kernel, uint32_t tw, uint32_t th) {
        XDib out;
        EXPECT_TRUE(out.Create(tw, th, 32));
        kernels::ResizeJob job{kernel,      4,  src.pBits, src.nStride, 100,       100, out.pBits,
                               out.nStride, tw, th,        tw / 100.0,  th / 100.0};
        std::vector<uint8_t> work(kernels::ResizeWorkSize(job, 1));
        EXPECT_TRUE(kernels::Resize(job, work.data(), work.size(), 1));
        return out;
    };
    const auto same = [&](uint32_t tw, uint32_t th, uint32_t filter, const XDib& want) {
        XDib out;
        EXPECT_TRUE(out.Create(tw, th, 32));
        ScaleBlit(src, out, {0, 0, int32_t(tw), int32_t(th)}, {0, 0, 100, 100}, filter, 1, true);
        return bool(
            PixelsAre(out, tw, th, [&](uint32_t x, uint32_t y) { return Pixel(want, x, y); }));
    };
    EXPECT_TRUE(same(70, 70, 1, direct(kernels::kResizeSuper, 70, 70)));
    EXPECT_FALSE(same(70, 70, 1, direct(kernels::kResizeCubic, 70, 70)));
    EXPECT_TRUE(same(70, 75, 1, direct(kernels::kResizeCubic, 70, 75)));
    EXPECT_TRUE(same(70, 70, 0, direct(kernels::kResizeNearest, 70, 70)));
    EXPECT_TRUE(same(100, 100, 1, src));

    // Twice enlarged at (-50, -20) into a canvas of 115 shows what an unclipped canvas shows
    // there: the right and bottom clips move the source by 17.5 and 32.5, so only the factors of
    // the whole rectangles keep the mapping.
    XDib whole, clipped;
    ASSERT_TRUE(whole.Create(200, 200, 32));
    ASSERT_TRUE(clipped.Create(115, 115, 32));
    ScaleBlit(src, whole, {0, 0, 200, 200}, {0, 0, 100, 100}, 0, 0, true);
    ScaleBlit(src, clipped, {-50, -20, 150, 180}, {0, 0, 100, 100}, 0, 0, true);
    EXPECT_TRUE(PixelsAre(clipped, 115, 115,
                          [&](uint32_t x, uint32_t y) { return Pixel(whole, x + 50, y + 20); }));

    // Different depths draw nothing.
    XDib deep24;
    ASSERT_TRUE(deep24.Create(50, 50, 24));
    ScaleBlit(src, deep24, {0, 0, 50, 50}, {0, 0, 100, 100}, 1, 0, true);
    for (uint32_t y = 0; y < 50; ++y)
        for (uint32_t x = 0; x < 150; ++x) ASSERT_EQ(deep24.GetRow(y)[x], 0);
}

TEST(ComposeView, DrawsStripsUpscalesFillsAndOnlyGrows) {
    ViewSettings s;
    s.clrBkgnd = 0x00332211;
    const uint32_t bkgnd = 0xFF112233;

    // A landscape page 100x50 in an area 53 wide: strips of 53 at scale 1. Left half on top in
    // mode 5, right half on top in mode 6.
    const auto page = Picture(100, 50, Coded);
    s.nCanvasWidth = 53, s.nCanvasHeight = 40;
    for (uint32_t mode : {5u, 6u}) {
        SCOPED_TRACE(mode);
        s.nStretchMode = mode;
        XDib target;
        EXPECT_TRUE(ComposeView(page.get(), nullptr, target, false, false, s).bComposed);
        ASSERT_EQ(target.rcPage, (XRect{0, 0, 53, 100}));
        EXPECT_TRUE(target.bHasPageRect);
        const uint32_t topX = mode == 5 ? 0 : 47, bottomX = mode == 5 ? 47 : 0;
        EXPECT_TRUE(
            PixelsAre(target, 53, 50, [&](uint32_t x, uint32_t y) { return Coded(topX + x, y); }));
        EXPECT_TRUE(PixelsAre(
            target, 53, 50, [&](uint32_t x, uint32_t y) { return Coded(bottomX + x, y); }, 0, 50));
    }

    // A reduced picture in mode 0 is enlarged to its true size, a flat colour staying flat; the
    // canvas around it takes the background.
    const auto flat = Picture(2, 2, [](uint32_t, uint32_t) { return 0xFF808080u; });
    XDib* flatDib = flat->GetFrame(0);
    flatDib->bReduced = 1, flatDib->nOrigWidth = 8, flatDib->nOrigHeight = 6;
    s.nStretchMode = SHOW_NONE, s.nCanvasWidth = 10, s.nCanvasHeight = 4;
    XDib target;
    ComposeView(flat.get(), nullptr, target, false, false, s);
    EXPECT_EQ(target.nWidth, 10u);
    EXPECT_EQ(target.nHeight, 6u);
    EXPECT_EQ(target.rcPage, (XRect{0, 0, 8, 6}));
    EXPECT_TRUE(PixelsAre(target, 10, 6,
                          [&](uint32_t x, uint32_t) { return x < 8 ? 0xFF808080u : bkgnd; }));

    // The canvas only grows; stretch leaves what lies outside the page as it was.
    s.nStretchMode = SHOW_STRETCH, s.nCanvasWidth = 4, s.nCanvasHeight = 4;
    target.Fill(0x0000FF, 7);
    ComposeView(flat.get(), nullptr, target, false, false, s);
    EXPECT_EQ(target.nWidth, 10u);
    EXPECT_EQ(target.nHeight, 6u);
    EXPECT_EQ(target.rcPage, (XRect{0, 0, 4, 4}));  // fitted by the stored aspect
    EXPECT_EQ(Pixel(target, 3, 3), 0xFF808080u);
    EXPECT_EQ(Pixel(target, 4, 0), 0x07FF0000u);
    EXPECT_EQ(Pixel(target, 0, 4), 0x07FF0000u);

    // Actual size draws unfiltered even with the sharpening filter, where the same view without
    // it is sharpened.
    const Colour noise = [](uint32_t x, uint32_t y) {
        return 0xFF000000u | ((x * 97 + y * 89) * 53 & 0xFFFFFF);
    };
    const auto noisy = Picture(20, 20, noise);
    s.nFilterMode = 2, s.nStretchMode = SHOW_NONE, s.nCanvasWidth = 20, s.nCanvasHeight = 20;
    for (uint32_t strong : {0u, 1u}) {
        SCOPED_TRACE(strong);
        s.bUseStrongSharpen = strong;
        XDib actual, filtered;
        EXPECT_TRUE(ComposeView(noisy.get(), nullptr, actual, false, true, s).bComposed);
        EXPECT_TRUE(ComposeView(noisy.get(), nullptr, filtered, false, false, s).bComposed);
        EXPECT_TRUE(PixelsAre(actual, 20, 20, noise));
        EXPECT_FALSE(PixelsAre(filtered, 20, 20, noise));
    }
}
