#include "image/textdraw.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "image/xdib.h"

namespace {

// The box of pixels that differ from the white a picture was filled with; empty when none.
XRect InkBox(const XDib& dib) {
    XRect box{INT32_MAX, INT32_MAX, INT32_MIN, INT32_MIN};
    for (uint32_t y = 0; y < dib.nHeight; ++y)
        for (uint32_t x = 0; x < dib.nWidth; ++x) {
            const uint8_t* p = dib.GetPixelPtr(x, y);
            if (p[0] == 255 && p[1] == 255 && p[2] == 255) continue;
            box.left = std::min(box.left, int32_t(x)), box.top = std::min(box.top, int32_t(y));
            box.right = std::max(box.right, int32_t(x) + 1);
            box.bottom = std::max(box.bottom, int32_t(y) + 1);
        }
    return box.left == INT32_MAX ? XRect{} : box;
}

XDib WhitePicture(uint32_t w, uint32_t h, uint32_t bpp) {
    XDib dib;
    EXPECT_TRUE(dib.Create(w, h, bpp));
    dib.Fill(0xFFFFFF, 255);
    return dib;
}

bool Inside(const XRect& inner, const XRect& outer) {
    return inner.left >= outer.left && inner.top >= outer.top && inner.right <= outer.right &&
           inner.bottom <= outer.bottom;
}

const XFontSpec kFont{"Sans", 16, false, false};

}  // namespace

TEST(TextDraw, DrawsOnlyInsideTheRectangleCentredBothWays) {
    XFontMetrics metrics;
    ASSERT_TRUE(XGetFontMetrics(kFont, &metrics)) << "no sans face on this system";
    EXPECT_GT(metrics.nAscent, 8);

    for (const uint32_t bpp : {24u, 32u}) {
        XDib dib = WhitePicture(300, 80, bpp);
        const XRect rect{20, 10, 280, 70};
        ASSERT_TRUE(XDrawTextLine(dib, rect, kFont, "HxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxH",
                                  0x0000FF, XTEXT_CENTRE));
        const XRect ink = InkBox(dib);
        ASSERT_FALSE(ink.IsEmpty());
        EXPECT_TRUE(Inside(ink, rect))
            << ink.left << "," << ink.top << "-" << ink.right << "," << ink.bottom;
        // The colour is red (0x00BBGGRR) and fully applied in the stems of the H.
        bool solid = false;
        for (int32_t y = ink.top; y < ink.bottom; ++y)
            for (int32_t x = ink.left; x < ink.right; ++x) {
                const uint8_t* p = dib.GetPixelPtr(uint32_t(x), uint32_t(y));
                solid |= p[2] == 255 && p[1] == 0 && p[0] == 0;
                EXPECT_EQ(p[1], p[0]);  // only red stays high
                if (bpp == 32) {
                    EXPECT_EQ(p[3], 255);
                }
            }
        EXPECT_TRUE(solid);
        // Centred: equal margins across within a pixel or two of bearing; the line box centred
        // down, so the ink lies around the middle.
        EXPECT_NEAR(ink.left - rect.left, rect.right - ink.right, 3);
        EXPECT_NEAR((ink.top + ink.bottom) / 2, (rect.top + rect.bottom) / 2, metrics.nHeight / 3);
    }

    // A rectangle over the picture's edge clips to both.
    XDib small = WhitePicture(30, 12, 24);
    EXPECT_TRUE(XDrawTextLine(small, {-50, -20, 100, 40}, kFont, "WWWWWWWWWW", 0, XTEXT_CENTRE));
    EXPECT_FALSE(XDrawTextLine(small, {0, 0, 30, 12}, XFontSpec{"Sans", 0}, "x", 0, 0));
}

TEST(TextDraw, ALongTextLosesItsMiddleAndFits) {
    const std::string path = "books/a very long series name/volume 12/page 0042.jpg";
    const int32_t full = XMeasureText(kFont, path);
    ASSERT_GT(full, 200);
    EXPECT_EQ(XEllipsizeMiddle(kFont, path, full), path);  // fits: unchanged

    const std::string shortened = XEllipsizeMiddle(kFont, path, 200);
    EXPECT_LE(XMeasureText(kFont, shortened), 200);
    const size_t dots = shortened.find("\xE2\x80\xA6");
    ASSERT_NE(dots, std::string::npos) << shortened;
    EXPECT_GT(dots, 3u);
    EXPECT_EQ(path.substr(0, dots), shortened.substr(0, dots));  // keeps the start
    const std::string end = shortened.substr(dots + 3);
    EXPECT_GT(end.size(), 3u);
    EXPECT_TRUE(path.ends_with(end)) << shortened;  // and the end
    // One more kept character would not fit: the shortening takes no more than it must.
    EXPECT_GT(XMeasureText(kFont, path.substr(0, dots + 1) + "\xE2\x80\xA6" + end), 200 - 12);

    // Cuts fall between code points, and a box narrower than "…" still gets "…".
    const std::string korean = "한국어로 된 아주 긴 책 제목과 페이지 이름.png";
    const std::string cut = XEllipsizeMiddle(kFont, korean, 80);
    EXPECT_LE(XMeasureText(kFont, cut), 80);
    EXPECT_NE(cut.find("\xE2\x80\xA6"), std::string::npos);
    EXPECT_EQ(XEllipsizeMiddle(kFont, path, 1), "\xE2\x80\xA6");

    XDib dib = WhitePicture(260, 40, 24);
    const XRect rect{30, 0, 230, 40};
    ASSERT_TRUE(XDrawTextLine(dib, rect, kFont, path, 0, XTEXT_CENTRE | XTEXT_MIDDLE_ELLIPSIS));
    const XRect ink = InkBox(dib);
    EXPECT_TRUE(Inside(ink, rect));
    // Shortened, not cut off at the edges: the text keeps a margin on both sides.
    EXPECT_GT(ink.left, rect.left);
    EXPECT_LT(ink.right, rect.right);
}

TEST(TextDraw, HangulComesFromAFaceThatHasItAndThreadsDrawAlike) {
    XTextMask mask;
    ASSERT_TRUE(XRenderText(kFont, "한글", &mask));
    // A face without Hangul would give empty boxes or nothing: the glyphs must have ink spread
    // over most of their advance.
    EXPECT_GT(mask.nWidth, 20);
    int32_t inked = 0;
    for (uint8_t c : mask.coverage) inked += c > 128;
    EXPECT_GT(inked, 40);

    // The same line drawn by several threads at once comes out the same everywhere.
    const auto draw = [] {
        XDib dib = WhitePicture(200, 30, 32);
        XDrawTextLine(dib, {0, 0, 200, 30}, XFontSpec{"Sans", 13, true, false}, "Page 7 / 12 한",
                      0x204080, XTEXT_CENTRE);
        return std::vector<uint8_t>(dib.pBits, dib.pBits + dib.nStride * dib.nHeight);
    };
    const std::vector<uint8_t> reference = draw();
    std::vector<std::vector<uint8_t>> results(4);
    std::vector<std::thread> threads;
    for (auto& result : results)
        threads.emplace_back([&] {
            for (int i = 0; i < 20; ++i) result = draw();
        });
    for (std::thread& t : threads) t.join();
    for (const auto& result : results) EXPECT_EQ(result, reference);
}
