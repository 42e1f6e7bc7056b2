// GIF decoder against files written by the test writer and streams built code by code: how each
// frame starts (the new frame's control block decides), transparency, palettes, interlacing,
// delays, extension blocks, damaged and truncated files, LZW corner cases and hostile sizes.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "image/decoders.h"
#include "image/format.h"
#include "image/limits.h"
#include "image/xanimdib.h"
#include "image/xdib.h"
#include "image/xdibio.h"
#include "image_test_util.h"

using namespace imgtest;
using imgwrite::GifCode;
using imgwrite::GifControl;
using imgwrite::GifExtension;
using imgwrite::GifFrame;

namespace {

std::vector<Rgba> Palette(uint32_t size) {
    std::vector<Rgba> p;
    for (uint32_t k = 0; k < size; ++k) p.push_back(TableColour(k));
    return p;
}

// Pixels written as characters, rows `width` long: '0'..'9' the table colour, 'a'..'h' table
// colour 0..7 at alpha 0, 'W' opaque white, '.' a canvas pixel nothing has touched.
Picture Pixels(uint32_t width, const std::string& s) {
    Picture p(width, uint32_t(s.size()) / width);
    for (size_t i = 0; i < s.size(); ++i) {
        const char c = s[i];
        Rgba& q = p.pixels[i];
        q = c == 'W' ? Rgba{255, 255, 255, 255} : c == '.' ? Rgba{0, 0, 0, 0} : TableColour(0);
        if (c >= '0' && c <= '9') q = TableColour(c - '0');
        if (c >= 'a' && c <= 'h') q = TableColour(c - 'a'), q.a = 0;
    }
    return p;
}
// The colours of palette indices, rows top first.
Picture Indexed(uint32_t width, uint32_t height, const std::vector<uint8_t>& indices) {
    Picture p(width, height);
    for (size_t i = 0; i < indices.size(); ++i) p.pixels[i] = TableColour(indices[i]);
    return p;
}

std::vector<uint8_t> Noise(size_t count, uint32_t colours, uint32_t seed) {
    std::vector<uint8_t> v(count);
    for (uint8_t& i : v) {
        seed = seed * 1103515245u + 12345u;
        i = uint8_t((seed >> 16) % colours);
    }
    return v;
}

GifFrame Frame(uint16_t left, uint16_t top, uint16_t width, uint16_t height,
               std::vector<uint8_t> indices) {
    GifFrame f{.left = left, .top = top, .width = width, .height = height};
    f.indices = std::move(indices);
    return f;
}
// A frame of whole rows at the top of the screen, with a control block.
GifFrame Frame(uint16_t left, uint16_t width, const std::vector<uint8_t>& indices,
               GifControl control) {
    GifFrame f = Frame(left, 0, width, uint16_t(indices.size() / width), indices);
    f.hasControl = true, f.control = control;
    return f;
}

Bytes Gif(uint16_t width, uint16_t height, const std::vector<GifFrame>& frames,
          const std::vector<Rgba>& palette = Palette(8), uint8_t background = 0) {
    return imgwrite::WriteGif(
        {.width = width, .height = height, .globalPalette = palette, .background = background},
        frames);
}

bool Load(const Bytes& bytes, XAnimDib& anim) {
    CXDibMemIO source(bytes.data(), int64_t(bytes.size()));
    return anim.Load(source);
}

}  // namespace

TEST(GifDecoder, NewFramesControlBlockDecidesHowItStarts) {
    // Frame 1 covers the 4 x 2 screen with colour 0 and asks for disposal 2 itself, which
    // must not matter to frame 2; frame 2 puts colour 1 at (1,0) and (2,0) and its own
    // disposal decides what lies under it. The background index is 3.
    for (uint8_t disposal = 0; disposal < 8; ++disposal) {
        XAnimDib anim;
        ASSERT_TRUE(Load(Gif(4, 2,
                             {Frame(0, 4, std::vector<uint8_t>(8, 0), {.disposal = 2}),
                              Frame(1, 2, {1, 1}, {.disposal = disposal})},
                             Palette(8), 3),
                         anim));
        ASSERT_EQ(anim.GetFrameCount(), 2u);
        // The previous frame, the background at alpha 0, or the canvas left as made.
        std::string want(8, disposal <= 1 || disposal == 3 ? '0' : disposal == 2 ? 'd' : '.');
        want[1] = want[2] = '1';
        EXPECT_TRUE(SamePixels(*anim.GetFrame(1), Pixels(4, want), true)) << int(disposal);
    }
}

TEST(GifDecoder, TransparencyAndDelaysAcrossFrames) {
    const Bytes file =
        Gif(4, 1,
            {// The canvas starts as colour 1 at alpha 0; index 1 is never written.
             Frame(0, 4, {0, 1, 2, 3}, {.transparentIndex = 1}),
             // Copies frame 1; the pixels of index 1 let it show through.
             Frame(0, 4, {2, 2, 1, 1}, {.disposal = 1, .transparentIndex = 1, .delay = 7}),
             // No control block: the last one still holds, but the delay is back to 100 ms.
             Frame(0, 0, 4, 1, {1, 0, 1, 0}),
             // Background fill (index 3, alpha 0) under a transparent pixel and a colour.
             Frame(1, 2, {1, 2}, {.disposal = 2, .transparentIndex = 1})},
            Palette(8), 3);
    XAnimDib anim;
    ASSERT_TRUE(Load(file, anim));
    ASSERT_EQ(anim.GetFrameCount(), 4u);
    const char* expected[] = {"0b23", "2223", "2020", "dd2d"};
    const uint32_t delays[] = {100, 70, 100, 100};  // a delay of 0 plays as 100 ms
    const Rgba key = TableColour(1);
    for (size_t i = 0; i < 4; ++i) {
        const XDib& f = *anim.GetFrame(i);
        EXPECT_TRUE(SamePixels(f, Pixels(4, expected[i]), true)) << "frame " << i;
        EXPECT_EQ(anim.GetDelay(i), delays[i]) << "frame " << i;
        EXPECT_EQ(f.clrTransparent, 1u) << "frame " << i;
        EXPECT_EQ(f.clrBackground, key.r | (uint32_t(key.g) << 8) | (uint32_t(key.b) << 16));
    }
}

TEST(GifDecoder, PalettesAndMissingEntries) {
    const std::vector<Rgba> local = {TableColour(4), TableColour(5), TableColour(6),
                                     TableColour(7)};
    const struct {
        std::vector<Rgba> global, local;
        const char* expected;  // indices 0, 1, 2, 3, 5: entry 5 is in no table, opaque white
    } cases[] = {{Palette(4), {}, "0123W"}, {Palette(4), local, "4567W"}, {{}, {}, "WWWWW"}};
    for (const auto& c : cases) {
        GifFrame f = Frame(0, 0, 5, 1, {0, 1, 2, 3, 5});
        f.localPalette = c.local;
        XAnimDib anim;
        ASSERT_TRUE(Load(Gif(5, 1, {f}, c.global), anim)) << c.expected;
        EXPECT_TRUE(SamePixels(*anim.GetFrame(0), Pixels(5, c.expected), true)) << c.expected;
    }
}

TEST(GifDecoder, InterlacedRowsInPassOrder) {
    // A frame one pixel wide whose row y has colour y, one row down a screen two rows taller.
    // Stored rows: every 8th from 0, every 8th from 4, every 4th from 2, every 2nd from 1.
    const struct {
        std::vector<uint8_t> stored;
        const char* screen;
    } cases[] = {{{0}, ".0."}, {{0, 8, 4, 2, 6, 1, 3, 5, 7, 9}, ".0123456789."}};
    for (const auto& c : cases) {
        const uint16_t height = uint16_t(c.stored.size());
        GifFrame f = Frame(0, 1, 1, height, {});
        f.interlaced = true;
        f.imageData = imgwrite::GifLzw(c.stored);
        XAnimDib anim;
        ASSERT_TRUE(Load(Gif(1, uint16_t(height + 2), {f}, Palette(10)), anim)) << height;
        EXPECT_TRUE(SamePixels(*anim.GetFrame(0), Pixels(1, c.screen), true)) << height;
    }
}

TEST(GifDecoder, ExtensionBlocks) {
    const struct {
        const char* what;
        GifExtension extension;
        bool whole;
    } cases[] = {
        {"comment of one sub-block", imgwrite::GifComment({"made by a test"}), true},
        {"looping application block", imgwrite::GifLoop(0), true},
        // A comment is read as one sub-block and its terminator: a second sub-block fails.
        {"comment of two sub-blocks", imgwrite::GifComment({"one", "two"}), false},
        {"plain text", GifExtension{0x01, {Bytes(12, 0), {'h', 'i'}}}, false},
    };
    for (const auto& c : cases) {
        GifFrame second = Frame(0, 0, 1, 1, {1});
        second.extensions = {c.extension};
        XAnimDib anim;
        EXPECT_EQ(Load(Gif(1, 1, {Frame(0, 0, 1, 1, {0}), second}), anim), c.whole) << c.what;
        // Decoding ends at the block that fails, with the frames before it kept.
        ASSERT_EQ(anim.GetFrameCount(), c.whole ? 2u : 1u) << c.what;
        EXPECT_TRUE(SamePixels(*anim.GetFrame(0), Pixels(1, "0"), true)) << c.what;
    }
}

TEST(GifDecoder, TruncatedFilesKeepTheirFrames) {
    const uint16_t w = 16, h = 16;
    const std::vector<uint8_t> a = Noise(w * h, 8, 1), b = Noise(w * h, 8, 2),
                               c = Noise(w * h, 8, 3);
    const Bytes two = Gif(w, h, {Frame(0, 0, w, h, a), Frame(0, 0, w, h, b)});
    const Bytes three =
        Gif(w, h, {Frame(0, 0, w, h, a), Frame(0, 0, w, h, b), Frame(0, 0, w, h, c)});
    ASSERT_EQ(Bytes(three.begin(), three.begin() + two.size() - 1),
              Bytes(two.begin(), two.end() - 1));

    // Cut halfway into the third frame's data: two frames and the third's partial state.
    const size_t thirdData = two.size() - 1 + 10;
    XAnimDib anim;
    EXPECT_FALSE(Load(Bytes(three.begin(), three.begin() + (thirdData + three.size()) / 2), anim));
    ASSERT_EQ(anim.GetFrameCount(), 3u);
    EXPECT_TRUE(SamePixels(*anim.GetFrame(0), Indexed(w, h, a), true));
    EXPECT_TRUE(SamePixels(*anim.GetFrame(1), Indexed(w, h, b), true));
    // The rows decoded before the cut (at least four), then frame 2 showing through.
    bool matched = false;
    for (uint32_t rows = 4; rows < h && !matched; ++rows) {
        std::vector<uint8_t> mix = b;
        std::copy(c.begin(), c.begin() + rows * w, mix.begin());
        matched = SamePixels(*anim.GetFrame(2), Indexed(w, h, mix), true);
    }
    EXPECT_TRUE(matched);

    // Cut right after frame 2's terminator: the trailer is missing, the load fails.
    EXPECT_FALSE(Load(Bytes(two.begin(), two.end() - 1), anim));
    ASSERT_EQ(anim.GetFrameCount(), 2u);
    EXPECT_TRUE(SamePixels(*anim.GetFrame(1), Indexed(w, h, b), true));
}

TEST(GifDecoder, LzwCodingOptions) {
    const uint16_t w = 101, h = 99;  // some ten thousand pixels: the table fills several times
    const struct {
        const char* what;
        uint32_t colours;
        imgwrite::GifLzwOptions lzw;
    } cases[] = {
        {"minimum code size 2", 4, {}},
        {"minimum code size 9", 256, {.minCodeSize = 9}},
        {"table full at 4096 without a clear code", 256, {.clearWhenFull = false}},
    };
    for (const auto& c : cases) {
        const std::vector<uint8_t> indices = Noise(size_t(w) * h, c.colours, c.colours);
        GifFrame f = Frame(0, 0, w, h, indices);
        f.lzw = c.lzw;
        // Two frames: the second starts from the tables the first left behind.
        XAnimDib anim;
        ASSERT_TRUE(Load(Gif(w, h, {f, f}, Palette(256)), anim)) << c.what;
        ASSERT_EQ(anim.GetFrameCount(), 2u) << c.what;
        EXPECT_TRUE(SamePixels(*anim.GetFrame(1), Indexed(w, h, indices), true)) << c.what;
    }
}

TEST(GifDecoder, LzwStreamsBuiltCodeByCode) {
    // Minimum code size 2: clear 4, end 5, first free code 6. Codes have 3 bits until the
    // decoder's next free code reaches 8, 4 bits after. A 3 x 2 frame on a 3 x 2 screen.
    const auto c3 = [](uint16_t c) { return GifCode{c, 3}; };
    const auto c4 = [](uint16_t c) { return GifCode{c, 4}; };
    const struct {
        const char* what;
        uint8_t minimum;
        std::vector<GifCode> codes;
        const char* pixels;
    } cases[] = {
        // 6 is (1 2), defined by the second code.
        {"codes without a leading clear", 2, {c3(1), c3(2), c3(3), c4(6), c4(5)}, "12312."},
        // The first code after a clear names nothing yet: it is taken as colour 0.
        {"undefined first code", 2, {c3(4), c3(7), c3(1), c3(2), c4(5)}, "012..."},
        // 7 is beyond the next free code 6: read as the string being defined (1 1).
        {"code beyond the table", 2, {c3(4), c3(1), c3(7), c3(3), c4(5)}, "1113.."},
        // The end code writes the partly filled second row.
        {"end code in mid row", 2, {c3(4), c3(0), c3(1), c3(2), c4(3), c4(5)}, "0123.."},
        // Running out of codes writes no partial row; the zero-length block closes the data.
        {"no end code", 2, {c3(4), c3(0), c3(1), c3(2), c4(3)}, "012..."},
        {"minimum code size 1", 1, {}, "......"},
        {"minimum code size 10", 10, {}, "......"},
    };
    for (const auto& c : cases) {
        GifFrame f = Frame(0, 0, 3, 2, {});
        f.imageData = imgwrite::GifImageData(c.minimum, imgwrite::GifPackCodes(c.codes));
        XAnimDib anim;
        EXPECT_EQ(Load(Gif(3, 2, {f}), anim), c.minimum == 2) << c.what;
        ASSERT_EQ(anim.GetFrameCount(), 1u) << c.what;
        EXPECT_TRUE(SamePixels(*anim.GetFrame(0), Pixels(3, c.pixels), true)) << c.what;
    }
}

TEST(GifDecoder, FirstPictureOnly) {
    const Bytes file =
        Gif(3, 2, {Frame(0, 0, 3, 2, {0, 1, 2, 3, 4, 5}), Frame(0, 1, {6}, {.disposal = 1})});
    // Through sniffing and dispatch, as a single picture: the first frame only.
    EXPECT_TRUE(DecodesTo(file, Pixels(3, "012345"), 32, FORMAT_GIF, true));

    // No image before the trailer: no picture.
    Decoded none = Decode(Gif(3, 2, {}), DecodeGifFirst);
    EXPECT_FALSE(none.whole);
    EXPECT_TRUE(none.dib.IsEmpty());
    // A frame that leaves the screen fails with the rows that fitted, not reported as whole.
    Decoded broken = Decode(Gif(3, 2, {Frame(0, 1, 3, 2, {1, 1, 1, 2, 2, 2})}));
    EXPECT_FALSE(broken.whole);
    EXPECT_EQ(broken.dib.nFormat, 0u);
    EXPECT_TRUE(SamePixels(broken.dib, Pixels(3, "...111"), true));
}

TEST(GifDecoder, HostileSizes) {
    // A frame claiming 65535 x 1321 inside a 32 x 32 screen: a first row of 65535 pixels
    // doesn't fit, and the frame fails with the screen untouched.
    GifFrame huge = Frame(0, 0, 65535, 1321, {});
    huge.imageData = imgwrite::GifLzw(std::vector<uint8_t>(70000, 1));
    XAnimDib anim;
    EXPECT_FALSE(Load(Gif(32, 32, {huge}), anim));
    ASSERT_EQ(anim.GetFrameCount(), 1u);
    EXPECT_TRUE(SamePixels(*anim.GetFrame(0), Pixels(32, std::string(32 * 32, '.')), true));

    // Logical screens over the storage ceiling fail before anything is made.
    for (const auto& [w, h] : {std::pair{65535, 65535}, {16384, 16385}}) {
        const Bytes file = Gif(uint16_t(w), uint16_t(h), {Frame(0, 0, 1, 1, {0})});
        EXPECT_FALSE(Load(file, anim)) << w << " x " << h;
        EXPECT_EQ(anim.GetFrameCount(), 0u);
        EXPECT_FALSE(Decode(file, DecodeGifFirst).whole);
    }

    // The frames of one file stop where their storage would pass 1 GiB: four frames of a
    // 16384 x 4096 screen (256 MiB each) are kept, the fifth isn't made. Each frame starts
    // from nothing (disposal 4) and writes one pixel, so the test touches little memory.
    static_assert(kMaxPictureBytes == uint64_t(1) << 30);
    const GifFrame pixel = Frame(0, 1, {0}, {.disposal = 4});
    EXPECT_FALSE(Load(Gif(16384, 4096, std::vector<GifFrame>(5, pixel)), anim));
    EXPECT_EQ(anim.GetFrameCount(), 4u);
    EXPECT_EQ(anim.GetMemorySize(), kMaxPictureBytes);
    // One frame as large as the ceiling is whole.
    EXPECT_TRUE(Load(Gif(16384, 16384, {pixel}), anim));
    EXPECT_EQ(anim.GetFrameCount(), 1u);

    // A local table of 2 << 15 entries (bit 3 of the flags set) is read past, 256 kept.
    GifFrame f = Frame(0, 0, 2, 1, {200, 255});
    f.localPalette = Palette(300);
    f.localSizeField = 15;
    const Bytes file = Gif(2, 1, {f});
    EXPECT_GT(file.size(), 3u * 65536);
    ASSERT_TRUE(Load(file, anim));
    EXPECT_TRUE(SamePixels(*anim.GetFrame(0), Indexed(2, 1, {200, 255}), true));
}
