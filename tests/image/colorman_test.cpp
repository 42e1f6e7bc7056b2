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
    EXPECT_TRUE(bgr[0] > 240 && bgr[2] > 240) << "paper white";
    EXPECT_TRUE(bgr[4] < 60 && bgr[6] < 60) << "black";
    EXPECT_TRUE(bgr[8] > 150 && bgr[10] < 60) << "cyan: much blue, little red";
    EXPECT_EQ(bgr[3], 0) << "the fourth byte of a 32-bit target is left alone";
    cm.Close();
    EXPECT_EQ(pLastColorMan, nullptr);
}

TEST(ColorMan, MissingProfileLeavesNoTransformAndCmykStillDecodes) {
    XColorMan closed, open;
    EXPECT_FALSE(closed.Open(Profile("icm/no-such.icc"), Profile(kSrgbProfileName)));
    EXPECT_FALSE(closed.IsOpen());
    ASSERT_TRUE(open.Open(Profile(kCmykProfileName), Profile(kSrgbProfileName)));
    // A CMYK PSD with a manager that couldn't open comes out as with none; through the
    // profiles it comes out differently.
    const Bytes file = imgwrite::WritePsd(Pattern(8, 4), {.mode = 4});  // rows of 24 bytes
    XDib withClosed, without, managed;
    withClosed.pColorMan = &closed, managed.pColorMan = &open;
    for (XDib* dib : {&withClosed, &without, &managed})
        ASSERT_TRUE(dib->LoadFromMemory(file.data(), file.size()));
    EXPECT_EQ(0, std::memcmp(withClosed.pBits, without.pBits, 24 * 4));
    EXPECT_NE(0, std::memcmp(managed.pBits, without.pBits, 24 * 4));
}
