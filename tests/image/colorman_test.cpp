// The colour manager over the profiles that the build writes beside the executables.
#include <gtest/gtest.h>

#include <cstring>

#include "image/colorman.h"
#include "image/xdib.h"
#include "image_test_util.h"
#include "platform/files.h"

using namespace imgtest;

namespace {

std::string Profile(const char* name) {
    return platform::GetProgramFolder() + "/" + name;
}

}  // namespace

TEST(ColorMan, ConvertsStoredInvertedCmykThroughTheProfiles) {
    XColorMan cm;
    ASSERT_TRUE(cm.Open(Profile(kCmykProfileName), Profile(kSrgbProfileName)));
    EXPECT_EQ(pLastColorMan, &cm);
    EXPECT_FALSE(cm.Open(Profile(kCmykProfileName), Profile(kSrgbProfileName)))
        << "a second open of an open manager must fail";

    // Stored values are inverted: 255 is no ink. No ink, full black, full cyan.
    const uint8_t cmyk[12] = {255, 255, 255, 255, 255, 255, 255, 0, 0, 255, 255, 255};
    uint8_t bgr[12] = {};
    cm.TranslateCmykRow(cmyk, bgr, 3, 4);
    EXPECT_GT(bgr[0], 240);  // paper white
    EXPECT_GT(bgr[2], 240);
    EXPECT_LT(bgr[4], 60);  // black
    EXPECT_LT(bgr[6], 60);
    EXPECT_GT(bgr[8], 150);  // cyan: much blue, little red
    EXPECT_LT(bgr[10], 60);
    EXPECT_EQ(bgr[3], 0) << "the fourth byte of a 32-bit target is left alone";

    cm.Close();
    EXPECT_EQ(pLastColorMan, nullptr);
}

TEST(ColorMan, MissingProfileLeavesNoTransformAndCmykStillDecodes) {
    XColorMan cm;
    EXPECT_FALSE(cm.Open(Profile("icm/no-such.icc"), Profile(kSrgbProfileName)));
    EXPECT_FALSE(cm.IsOpen());
    EXPECT_EQ(cm.hProfileCmyk, nullptr);

    // A CMYK PSD with a manager that couldn't open falls back to the plain conversion.
    const Picture p = Pattern(8, 4);
    XDib withClosed;
    withClosed.pColorMan = &cm;
    XDib without;
    const Bytes file = imgwrite::WritePsd(p, {.mode = 4});
    ASSERT_TRUE(withClosed.LoadFromMemory(file.data(), file.size()));
    ASSERT_TRUE(without.LoadFromMemory(file.data(), file.size()));
    for (uint32_t y = 0; y < 4; ++y)
        EXPECT_EQ(0, std::memcmp(withClosed.GetRow(y), without.GetRow(y), 8 * 3));

    // With the profiles the same file comes out differently, but still as a 24-bit picture.
    XColorMan open;
    ASSERT_TRUE(open.Open(Profile(kCmykProfileName), Profile(kSrgbProfileName)));
    XDib managed;
    managed.pColorMan = &open;
    ASSERT_TRUE(managed.LoadFromMemory(file.data(), file.size()));
    EXPECT_EQ(managed.nBpp, 24u);
    bool differs = false;
    for (uint32_t y = 0; y < 4; ++y)
        differs |= std::memcmp(managed.GetRow(y), without.GetRow(y), 24) != 0;
    EXPECT_TRUE(differs);
}
