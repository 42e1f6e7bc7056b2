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

// A file with the given header fields and everything after the compression word hand-made.
Bytes PsdWithBody(uint32_t w, uint32_t h, uint16_t channels, uint16_t depth, uint16_t mode,
                  uint16_t compression, const Bytes& body) {
    Bytes b = {
        '8', 'B', 'P', 'S', 0, 1, 0, 0, 0, 0, 0, 0, uint8_t(channels >> 8), uint8_t(channels)};
    for (uint32_t v : {h, w}) {
        for (int shift = 24; shift >= 0; shift -= 8) b.push_back(uint8_t(v >> shift));
    }
    b.insert(b.end(), {uint8_t(depth >> 8), uint8_t(depth), uint8_t(mode >> 8), uint8_t(mode)});
    b.insert(b.end(), 12, 0);  // three empty sections
    b.insert(b.end(), {uint8_t(compression >> 8), uint8_t(compression)});
    b.insert(b.end(), body.begin(), body.end());
    return b;
}

Decoded DecodePsdBytes(const Bytes& file) {
    Decoded d;
    CXDibMemIO io(file.data(), int64_t(file.size()));
    d.whole = DecodePsd(d.dib, io);
    return d;
}

// What a CMYK file shows without a colour manager: each of C, M, Y times K, as stored.
Picture CmykWithoutProfiles(const Picture& p, const PsdOptions& o) {
    const std::vector<Bytes> planes = imgwrite::PsdPlanes(p, o);
    Picture out(p.width, p.height);
    for (size_t i = 0; i < out.pixels.size(); ++i) {
        const uint32_t k = planes[3][i];
        out.pixels[i] = {uint8_t((planes[0][i] * k) >> 8), uint8_t((planes[1][i] * k) >> 8),
                         uint8_t((planes[2][i] * k) >> 8), 255};
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
                          Mode{3, 5, 24, "RGB with two extra channels"}, Mode{4, 4, 24, "CMYK"},
                          Mode{4, 5, 24, "CMYK with alpha"}}) {
        for (uint16_t depth : {8, 16}) {
            for (bool packBits : {false, true}) {
                for (uint32_t w : {1u, 3u, 130u, 300u}) {
                    const Picture p = w == 300 ? RunsPattern(w, 4, 5) : Pattern(w, 4, 0, w);
                    const PsdOptions o{.mode = m.mode,
                                       .channels = m.channels,
                                       .depth = depth,
                                       .packBits = packBits,
                                       .colourModeBytes = w == 3 ? 12u : 0u,
                                       .resourceBytes = w == 3 ? 30u : 0u,
                                       .layerBytes = w == 130 ? 10u : 0u};
                    const std::string what = std::string(m.what) + ", " + std::to_string(depth) +
                                             " bits" + (packBits ? ", PackBits" : ", raw") +
                                             ", width " + std::to_string(w);
                    Decoded d = Decode(imgwrite::WritePsd(p, o));
                    EXPECT_TRUE(d.whole) << what;
                    EXPECT_EQ(d.dib.nBpp, m.bpp) << what;
                    EXPECT_EQ(d.dib.nFormat, d.whole ? uint32_t(FORMAT_PSD) : 0u) << what;
                    const Picture expected = m.mode == 1   ? Greyed(p)
                                             : m.mode == 4 ? CmykWithoutProfiles(p, o)
                                                           : p;
                    // The fourth plane of an RGB file of four channels is its alpha.
                    EXPECT_TRUE(SamePixels(d.dib, expected, m.bpp == 32)) << what;
                }
            }
        }
    }
}

TEST(PsdDecoder, PackBitsControlBytes) {
    // Grey, 2 x 2: the row-length table (two rows) comes first and is skipped.
    const Bytes table = {0, 2, 0, 2};
    const auto grey = [&](Bytes data) {
        Bytes body = table;
        body.insert(body.end(), data.begin(), data.end());
        return DecodePsdBytes(PsdWithBody(2, 2, 1, 8, 1, 1, body));
    };
    // One run of four fills the plane across the row end.
    Decoded run = grey({0xFD, 77});
    EXPECT_TRUE(run.whole);
    EXPECT_TRUE(SamePixels(run.dib, Picture(2, 2, Rgba{77, 77, 77, 255})));
    // 128 does nothing; literals and runs mix.
    Decoded mixed = grey({128, 0x01, 10, 20, 128, 0xFF, 30});
    EXPECT_TRUE(mixed.whole);
    Picture expected(2, 2, Rgba{30, 30, 30, 255});
    expected.At(0, 0) = {10, 10, 10, 255}, expected.At(1, 0) = {20, 20, 20, 255};
    EXPECT_TRUE(SamePixels(mixed.dib, expected));

    // A run or a literal that would overrun the plane fails, leaving the picture behind.
    for (const Bytes& overrun :
         {Bytes{0xFC, 5}, Bytes{0x04, 1, 2, 3, 4, 5}, Bytes{0x00, 1, 0xFD, 2}}) {
        Decoded d = grey(overrun);
        EXPECT_FALSE(d.whole) << int(overrun[0]);
        EXPECT_FALSE(d.dib.IsEmpty());
    }
    // A packet may not run on from one plane into the next either: RGB, 1 x 1.
    Decoded planes = DecodePsdBytes(PsdWithBody(1, 1, 3, 8, 3, 1, {0, 1, 0, 1, 0, 1, 0xFF, 9}));
    EXPECT_FALSE(planes.whole);
    // Data that ends inside the plane fails too.
    EXPECT_FALSE(grey({0xFF, 1}).whole);
}

TEST(PsdDecoder, UnsupportedColourModesGiveABlankPicture) {
    struct Case {
        uint16_t mode, channels;
        const char* what;
    };
    for (const Case& c :
         {Case{0, 1, "bitmap"}, Case{2, 1, "indexed"}, Case{7, 3, "multichannel"},
          Case{8, 1, "duotone"}, Case{9, 3, "Lab"}, Case{1, 2, "grey with alpha"}}) {
        const Picture p = Pattern(5, 3);
        const Bytes file =
            imgwrite::WritePsd(p, {.mode = c.mode, .channels = c.channels, .packBits = true});
        Decoded d = DecodePsdBytes(file);
        EXPECT_TRUE(d.whole) << c.what;
        EXPECT_EQ(d.dib.nBpp, 24u) << c.what;
        EXPECT_TRUE(SamePixels(d.dib, Picture(5, 3, Rgba{0, 0, 0, 255}))) << c.what;
    }
    // Through the dispatch, a sniffed PSD of mode 2 reports itself as a whole PSD.
    Decoded indexed = Decode(imgwrite::WritePsd(Pattern(5, 3), {.mode = 2, .channels = 1}));
    EXPECT_TRUE(indexed.whole);
    EXPECT_EQ(indexed.dib.nFormat, uint32_t(FORMAT_PSD));
}

TEST(PsdDecoder, RefusesWhatItCannotRead) {
    const Bytes rgb = imgwrite::WritePsd(Pattern(4, 4), {.mode = 3});
    struct Patch {
        size_t at;
        uint8_t value;
        const char* what;
    };
    for (const Patch& patch :
         {Patch{5, 2, "version 2"}, Patch{23, 1, "1 bit per sample"},
          Patch{23, 32, "32 bits per sample"}, Patch{13, 2, "RGB of 2 channels"},
          Patch{39, 2, "ZIP compression"}, Patch{0, 'X', "no signature"}}) {
        Bytes file = rgb;
        file[patch.at] = patch.value;
        Decoded d = DecodePsdBytes(file);
        EXPECT_FALSE(d.whole) << patch.what;
        EXPECT_TRUE(d.dib.IsEmpty()) << patch.what;
    }
    for (uint16_t channels : {3, 6}) {
        const Bytes cmyk = imgwrite::WritePsd(Pattern(4, 4), {.mode = 4, .channels = channels});
        EXPECT_FALSE(DecodePsdBytes(cmyk).whole) << "CMYK of " << channels << " channels";
    }
}
