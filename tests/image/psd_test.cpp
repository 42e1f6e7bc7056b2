// PSD decoder against files written by the test writers: grey, RGB, RGB with alpha and CMYK,
// 8 and 16 bits, raw and PackBits, and the hand-made streams a writer would never produce.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "image/decoders.h"
#include "image/format.h"
#include "image/xdib.h"
#include "image/xdibio.h"
#include "image_test_util.h"

using namespace imgtest;
using imgwrite::PsdOptions;

namespace {

// What a CMYK file shows without a colour manager: each of C, M, Y times K, as stored.
Picture CmykWithoutProfiles(const Picture& p, const PsdOptions& o) {
    const std::vector<Bytes> planes = imgwrite::PsdPlanes(p, o);
    Picture out(p.width, p.height);
    for (size_t i = 0; i < out.pixels.size(); ++i) {
        const uint32_t k = planes[3][i];
        out.pixels[i] = {uint8_t((planes[0][i] * k) >> 8), uint8_t((planes[1][i] * k) >> 8),
                         uint8_t((planes[2][i] * k) >> 8)};
    }
    return out;
}

}  // namespace

TEST(PsdDecoder, EveryModeAtBothDepthsRawAndPackBits) {
    struct Mode {
        uint16_t mode, channels;
        uint32_t bpp;
        const char* what;
    };
    for (const Mode& m : {Mode{1, 1, 24, "grey"}, Mode{3, 3, 24, "RGB"}, Mode{3, 4, 32, "RGBA"},
                          Mode{3, 5, 24, "RGB and two extra channels"}, Mode{4, 4, 24, "CMYK"},
                          Mode{4, 5, 24, "CMYK and alpha"}})
        for (uint16_t depth : {8, 16})
            for (bool packBits : {false, true})
                for (uint32_t w : {3u, 130u, 300u}) {
                    const Picture p = w == 300 ? RunsPattern(w, 4, 5) : Pattern(w, 4, 0, w);
                    PsdOptions o{.mode = m.mode, .channels = m.channels, .depth = depth};
                    o.packBits = packBits, o.layerBytes = w == 130 ? 10 : 0;
                    o.colourModeBytes = o.resourceBytes = w == 3 ? 12 : 0;
                    const std::string what = std::string(m.what) + ", " + std::to_string(depth) +
                                             " bits" + (packBits ? ", PackBits" : ", raw") +
                                             ", width " + std::to_string(w);
                    const Picture expected = m.mode == 1   ? Greyed(p)
                                             : m.mode == 4 ? CmykWithoutProfiles(p, o)
                                                           : p;
                    // The fourth plane of an RGB file of four channels is its alpha.
                    EXPECT_TRUE(DecodesTo(imgwrite::WritePsd(p, o), expected, m.bpp, FORMAT_PSD,
                                          m.bpp == 32))
                        << what;
                }
}

TEST(PsdDecoder, PackBitsControlBytesAndOverruns) {
    const auto grey = [](const Bytes& data) {
        return Decode(PackBitsPsd(2, 2, 1, 1, data), DecodePsd);
    };
    // One run of four fills the plane across the row end.
    Decoded run = grey({0xFD, 77});
    EXPECT_TRUE(run.whole);
    EXPECT_TRUE(SamePixels(run.dib, Picture(2, 2, Rgba{77, 77, 77})));
    // 128 does nothing; literals and runs mix.
    Decoded mixed = grey({128, 0x01, 10, 20, 128, 0xFF, 30});
    Picture expected(2, 2, Rgba{30, 30, 30});
    expected.At(0, 0) = {10, 10, 10}, expected.At(1, 0) = {20, 20, 20};
    EXPECT_TRUE(mixed.whole);
    EXPECT_TRUE(SamePixels(mixed.dib, expected));
    // A run or literal overrunning the plane fails, leaving the picture behind; so does data
    // that ends inside the plane.
    for (const Bytes& bad :
         {Bytes{0xFC, 5}, Bytes{0x04, 1, 2, 3, 4, 5}, Bytes{0x00, 1, 0xFD, 2}, Bytes{0xFF, 1}}) {
        Decoded d = grey(bad);
        EXPECT_FALSE(d.whole) << int(bad[0]);
        EXPECT_FALSE(d.dib.IsEmpty());
    }
    // A packet may not run on from one plane into the next either: RGB, 1 x 1.
    EXPECT_FALSE(Decode(PackBitsPsd(1, 1, 3, 3, {0xFF, 9}), DecodePsd).whole);
}

TEST(PsdDecoder, UnsupportedModesGiveABlankPictureAndBrokenFilesNone) {
    struct Case {
        uint16_t mode, channels;
        const char* what;
    };
    for (const Case& c :
         {Case{0, 1, "bitmap"}, Case{2, 1, "indexed"}, Case{7, 3, "multichannel"},
          Case{8, 1, "duotone"}, Case{9, 3, "Lab"}, Case{1, 2, "grey with alpha"}}) {
        Decoded d =
            Decode(imgwrite::WritePsd(Pattern(5, 3),
                                      {.mode = c.mode, .channels = c.channels, .packBits = true}),
                   DecodePsd);
        EXPECT_TRUE(d.whole) << c.what;
        EXPECT_EQ(d.dib.nBpp, 24u) << c.what;
        EXPECT_TRUE(SamePixels(d.dib, Picture(5, 3))) << c.what;
    }
    // Through the dispatch, a sniffed PSD of mode 2 reports itself as a whole PSD.
    EXPECT_EQ(Decode(imgwrite::WritePsd(Pattern(5, 3), {.mode = 2, .channels = 1})).dib.nFormat,
              uint32_t(FORMAT_PSD));

    // Refused: 1 and 32 bits a sample, RGB of 2 channels, ZIP, CMYK of 3 and 6 channels.
    const size_t patches[][3] = {{3, 23, 1}, {3, 23, 32}, {3, 13, 2},
                                 {3, 39, 2}, {4, 13, 3},  {4, 13, 6}};  // mode, offset, value
    for (const auto& [mode, at, value] : patches) {
        Bytes file = imgwrite::WritePsd(Pattern(4, 4), {.mode = uint16_t(mode)});
        file[at] = uint8_t(value);
        Decoded d = Decode(file, DecodePsd);
        EXPECT_FALSE(d.whole) << "mode " << mode << ", byte " << at << " = " << value;
        EXPECT_TRUE(d.dib.IsEmpty()) << "mode " << mode << ", byte " << at << " = " << value;
    }
}
