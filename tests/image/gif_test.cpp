// GIF decoder against files written by the test writer and streams built code by code: how each
// frame starts (the new frame's control block decides), transparency, palettes, interlacing,
// delays, extension blocks, damaged and truncated files, LZW corner cases and hostile sizes.
#include <gtest/gtest.h>

#include <cstdio>
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
using imgwrite::GifOptions;

namespace {

constexpr Rgba kNothing{0, 0, 0, 0};  // a canvas pixel no frame or fill has touched
constexpr Rgba kWhite{255, 255, 255, 255};

const std::vector<Rgba> kPalette = {TableColour(0), TableColour(1), TableColour(2), TableColour(3),
                                    TableColour(4), TableColour(5), TableColour(6), TableColour(7)};

Rgba Colour(uint32_t k) {
    return kPalette[k];
}
Rgba Clear(uint32_t k) {
    Rgba c = kPalette[k];
    c.a = 0;
    return c;
}
uint32_t ColourRef(const Rgba& c) {
    return c.r | (uint32_t(c.g) << 8) | (uint32_t(c.b) << 16);
}

GifFrame Frame(uint16_t left, uint16_t top, uint16_t width, uint16_t height,
               std::vector<uint8_t> indices) {
    GifFrame f{.left = left, .top = top, .width = width, .height = height};
    f.indices = std::move(indices);
    return f;
}
GifFrame Controlled(GifFrame f, GifControl control) {
    f.hasControl = true;
    f.control = control;
    return f;
}

// A picture from rows of colours.
Picture Rows(const std::vector<std::vector<Rgba>>& rows) {
    Picture p(uint32_t(rows[0].size()), uint32_t(rows.size()));
    for (uint32_t y = 0; y < p.height; ++y)
        for (uint32_t x = 0; x < p.width; ++x) p.At(x, y) = rows[y][x];
    return p;
}
// The colours of palette indices, rows top first.
Picture Indexed(uint32_t width, uint32_t height, const std::vector<uint8_t>& indices,
                const std::vector<Rgba>& palette = kPalette) {
    Picture p(width, height);
    for (size_t i = 0; i < indices.size(); ++i) p.pixels[i] = palette[indices[i]];
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

Bytes Gif(uint16_t width, uint16_t height, const std::vector<GifFrame>& frames,
          const std::vector<Rgba>& palette = kPalette, uint8_t background = 0) {
    Bytes b = imgwrite::WriteGif(
        {.width = width, .height = height, .globalPalette = palette, .background = background},
        frames);
    EXPECT_FALSE(b.empty()) << "the writer refused its options";
    return b;
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
        const Bytes file =
            Gif(4, 2,
                {Controlled(Frame(0, 0, 4, 2, std::vector<uint8_t>(8, 0)), {.disposal = 2}),
                 Controlled(Frame(1, 0, 2, 1, {1, 1}), {.disposal = disposal})},
                kPalette, 3);
        XAnimDib anim;
        ASSERT_TRUE(Load(file, anim)) << "disposal " << int(disposal);
        ASSERT_EQ(anim.GetFrameCount(), 2u);
        EXPECT_TRUE(SamePixels(*anim.GetFrame(0), Picture(4, 2, Colour(0)), true));
        const Rgba under = disposal <= 1 || disposal == 3 ? Colour(0)  // the previous frame
                           : disposal == 2                ? Clear(3)   // background, alpha 0
                                                          : kNothing;                 // left as made
        const Picture expected =
            Rows({{under, Colour(1), Colour(1), under}, {under, under, under, under}});
        EXPECT_TRUE(SamePixels(*anim.GetFrame(1), expected, true)) << "disposal " << int(disposal);
        for (size_t i = 0; i < 2; ++i) {
            const XDib& f = *anim.GetFrame(i);
            EXPECT_EQ(f.nBpp, 32u);
            EXPECT_EQ(f.nFormat, uint32_t(FORMAT_GIF));
            EXPECT_EQ(f.clrTransparent, XDib::kDefaultTransparent);
        }
    }
    // The first frame has nothing to copy: what it doesn't cover stays untouched.
    XAnimDib anim;
    ASSERT_TRUE(Load(Gif(3, 1, {Frame(1, 0, 1, 1, {2})}), anim));
    EXPECT_TRUE(SamePixels(*anim.GetFrame(0), Rows({{kNothing, Colour(2), kNothing}}), true));
}

TEST(GifDecoder, TransparencyAcrossFrames) {
    const Bytes file =
        Gif(4, 1,
            {// The canvas starts as colour 1 at alpha 0; index 1 is never written.
             Controlled(Frame(0, 0, 4, 1, {0, 1, 2, 3}), {.transparentIndex = 1}),
             // Copies frame 1; the pixels of index 1 let it show through.
             Controlled(Frame(0, 0, 4, 1, {2, 2, 1, 1}), {.disposal = 1, .transparentIndex = 1}),
             // No control block: the last one still holds, but the delay is back to 100 ms.
             Frame(0, 0, 4, 1, {1, 0, 1, 0}),
             // Background fill (index 3, alpha 0) under a transparent pixel and a colour.
             Controlled(Frame(1, 0, 2, 1, {1, 2}), {.disposal = 2, .transparentIndex = 1})},
            kPalette, 3);
    XAnimDib anim;
    ASSERT_TRUE(Load(file, anim));
    ASSERT_EQ(anim.GetFrameCount(), 4u);
    const Picture expected[] = {
        Rows({{Colour(0), Clear(1), Colour(2), Colour(3)}}),
        Rows({{Colour(2), Colour(2), Colour(2), Colour(3)}}),
        Rows({{Colour(2), Colour(0), Colour(2), Colour(0)}}),
        Rows({{Clear(3), Clear(3), Colour(2), Clear(3)}}),
    };
    for (size_t i = 0; i < 4; ++i) {
        const XDib& f = *anim.GetFrame(i);
        EXPECT_TRUE(SamePixels(f, expected[i], true)) << "frame " << i;
        EXPECT_EQ(f.clrTransparent, 1u) << "frame " << i;
        EXPECT_EQ(f.clrBackground, ColourRef(Colour(1))) << "frame " << i;
    }
}

TEST(GifDecoder, Delays) {
    const struct {
        bool control;
        uint16_t delay;
        uint32_t ms;
    } cases[] = {{true, 0, 100}, {false, 0, 100}, {true, 7, 70}, {true, 1, 10}, {true, 250, 2500}};
    std::vector<GifFrame> frames;
    for (const auto& c : cases) {
        GifFrame f = Frame(0, 0, 1, 1, {0});
        if (c.control) f = Controlled(f, {.delay = c.delay});
        frames.push_back(f);
    }
    XAnimDib anim;
    ASSERT_TRUE(Load(Gif(1, 1, frames), anim));
    ASSERT_EQ(anim.GetFrameCount(), std::size(cases));
    for (size_t i = 0; i < std::size(cases); ++i)
        EXPECT_EQ(anim.GetDelay(i), cases[i].ms) << "frame " << i;
}

TEST(GifDecoder, PalettesAndMissingEntries) {
    const std::vector<Rgba> local = {TableColour(40), TableColour(41), TableColour(42)};
    const std::vector<Rgba> fourGlobal(kPalette.begin(), kPalette.begin() + 4);
    const std::vector<uint8_t> indices = {0, 1, 2, 3, 5, 7};
    const struct {
        const char* what;
        std::vector<Rgba> global;
        std::vector<Rgba> local;
        int32_t localField;
        std::vector<Rgba> expected;
    } cases[] = {
        {"global only", kPalette, {}, -1, Indexed(6, 1, indices).pixels},
        // Entries past the global table's four are opaque white.
        {"short global",
         fourGlobal,
         {},
         -1,
         {Colour(0), Colour(1), Colour(2), Colour(3), kWhite, kWhite}},
        // The local table (4 entries, the fourth padded black) replaces the global one.
        {"local over global",
         kPalette,
         local,
         -1,
         {local[0], local[1], local[2], Rgba{0, 0, 0, 255}, kWhite, kWhite}},
        {"local without global",
         {},
         local,
         -1,
         {local[0], local[1], local[2], Rgba{0, 0, 0, 255}, kWhite, kWhite}},
        {"neither", {}, {}, -1, std::vector<Rgba>(6, kWhite)},
        // Bit 3 of the frame's flags widens the local table to 2 << 8 entries; the decoder
        // reads all 512 and keeps the first 256.
        {"local size field 8",
         kPalette,
         local,
         8,
         {local[0], local[1], local[2], Rgba{0, 0, 0, 255}, Rgba{0, 0, 0, 255},
          Rgba{0, 0, 0, 255}}},
    };
    for (const auto& c : cases) {
        GifFrame f = Frame(0, 0, 6, 1, indices);
        f.localPalette = c.local;
        f.localSizeField = c.localField;
        XAnimDib anim;
        ASSERT_TRUE(Load(Gif(6, 1, {f}, c.global), anim)) << c.what;
        Picture expected(6, 1);
        expected.pixels = c.expected;
        EXPECT_TRUE(SamePixels(*anim.GetFrame(0), expected, true)) << c.what;
    }
}

TEST(GifDecoder, InterlacedRowsInPassOrder) {
    // The order in which an interlaced frame stores its rows: every 8th from 0, every 8th
    // from 4, every 4th from 2, every 2nd from 1.
    const struct {
        uint16_t height;
        std::vector<uint32_t> stored;
    } cases[] = {
        {1, {0}},
        {2, {0, 1}},
        {5, {0, 4, 2, 1, 3}},
        {10, {0, 8, 4, 2, 6, 1, 3, 5, 7, 9}},
    };
    for (const auto& c : cases) {
        const uint16_t width = 3, top = 1;
        const std::vector<uint8_t> indices = Noise(size_t(width) * c.height, 8, c.height);
        std::vector<uint8_t> stored;
        for (uint32_t y : c.stored)
            stored.insert(stored.end(), indices.begin() + y * width,
                          indices.begin() + (y + 1) * width);
        GifFrame f = Frame(0, top, width, c.height, indices);
        f.interlaced = true;
        f.imageData = imgwrite::GifLzw(stored);
        // One more row above and below the frame shows that nothing else was written.
        XAnimDib anim;
        ASSERT_TRUE(Load(Gif(width, uint16_t(c.height + 2), {f}), anim)) << c.height;
        Picture expected(width, c.height + 2u, kNothing);
        for (size_t i = 0; i < indices.size(); ++i)
            expected.pixels[width * top + i] = Colour(indices[i]);
        EXPECT_TRUE(SamePixels(*anim.GetFrame(0), expected, true)) << "height " << c.height;
    }
}

TEST(GifDecoder, ExtensionBlocks) {
    const auto twoFrames = [](std::vector<GifExtension> before) {
        GifFrame second = Frame(0, 0, 1, 1, {1});
        second.extensions = std::move(before);
        return Gif(1, 1, {Frame(0, 0, 1, 1, {0}), second});
    };
    const struct {
        const char* what;
        std::vector<GifExtension> extensions;
        bool whole;
    } cases[] = {
        {"comment of one sub-block", {imgwrite::GifComment({"made by a test"})}, true},
        {"looping application block", {imgwrite::GifLoop(0)}, true},
        {"application block of three sub-blocks",
         {GifExtension{0xFF, {Bytes(11, 'x'), {1, 2}, {3}}}},
         true},
        // A comment is read as one sub-block and its terminator: a second sub-block fails.
        {"comment of two sub-blocks", {imgwrite::GifComment({"one", "two"})}, false},
        {"plain text", {GifExtension{0x01, {Bytes(12, 0), {'h', 'i'}}}}, false},
        {"unknown label", {GifExtension{0x42, {{1}}}}, false},
        {"control block of size 5", {GifExtension{0xF9, {{0, 0, 0, 0, 0}}}}, false},
        {"application block of size 10", {GifExtension{0xFF, {Bytes(10, 'x')}}}, false},
    };
    for (const auto& c : cases) {
        XAnimDib anim;
        EXPECT_EQ(Load(twoFrames(c.extensions), anim), c.whole) << c.what;
        // Decoding ends at the block that fails, with the frames before it kept.
        ASSERT_EQ(anim.GetFrameCount(), c.whole ? 2u : 1u) << c.what;
        EXPECT_TRUE(SamePixels(*anim.GetFrame(0), Picture(1, 1, Colour(0)), true)) << c.what;
    }
}

TEST(GifDecoder, FrameLeavingTheScreenFails) {
    const struct {
        const char* what;
        uint16_t left, top, width, height;
        uint32_t rowsWritten;
    } cases[] = {
        {"below the bottom", 0, 0, 4, 6, 4},
        {"starting below the bottom", 0, 4, 4, 1, 0},
        {"past the right side", 1, 0, 4, 2, 0},
        {"at a negative left", 0xFFFF, 0, 2, 2, 0},
    };
    for (const auto& c : cases) {
        const std::vector<uint8_t> indices = Noise(size_t(c.width) * c.height, 8, c.width);
        const Bytes file = Gif(4, 4,
                               {Frame(0, 0, 4, 4, std::vector<uint8_t>(16, 7)),
                                Frame(c.left, c.top, c.width, c.height, indices)});
        XAnimDib anim;
        EXPECT_FALSE(Load(file, anim)) << c.what;
        // The failing frame is kept as far as it got: frame 1 with the rows that fitted.
        ASSERT_EQ(anim.GetFrameCount(), 2u) << c.what;
        Picture expected(4, 4, Colour(7));
        for (uint32_t y = 0; y < c.rowsWritten; ++y)
            for (uint32_t x = 0; x < c.width; ++x)
                expected.At(c.left + x, y) = Colour(indices[y * c.width + x]);
        EXPECT_TRUE(SamePixels(*anim.GetFrame(1), expected, true)) << c.what;
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
    XAnimDib anim;
    ASSERT_TRUE(Load(three, anim));
    ASSERT_EQ(anim.GetFrameCount(), 3u);

    // Cut halfway into the third frame's data: two frames and the third's partial state.
    const size_t thirdData = two.size() - 1 + 10;
    const Bytes cut(three.begin(), three.begin() + (thirdData + three.size()) / 2);
    EXPECT_FALSE(Load(cut, anim));
    ASSERT_EQ(anim.GetFrameCount(), 3u);
    EXPECT_TRUE(SamePixels(*anim.GetFrame(0), Indexed(w, h, a), true));
    EXPECT_TRUE(SamePixels(*anim.GetFrame(1), Indexed(w, h, b), true));
    const Picture bp = Indexed(w, h, b), cp = Indexed(w, h, c);
    const XDib& partial = *anim.GetFrame(2);
    const auto rowIs = [&](const Picture& p, uint32_t y) {
        for (uint32_t x = 0; x < w; ++x)
            if (!(PixelOf(partial, x, y) == p.At(x, y))) return false;
        return true;
    };
    // The rows decoded before the cut, then frame 2 showing through.
    uint32_t newRows = 0;
    while (newRows < h && rowIs(cp, newRows)) ++newRows;
    EXPECT_GE(newRows, 4u);
    EXPECT_LT(newRows, h);
    for (uint32_t y = newRows; y < h; ++y) EXPECT_TRUE(rowIs(bp, y)) << "row " << y;

    // Cut right after frame 2's terminator: the trailer is missing, Read fails.
    const Bytes noTrailer(two.begin(), two.end() - 1);
    EXPECT_FALSE(Load(noTrailer, anim));
    ASSERT_EQ(anim.GetFrameCount(), 2u);
    EXPECT_TRUE(SamePixels(*anim.GetFrame(1), Indexed(w, h, b), true));
    // A good header and no image at all: no frames.
    EXPECT_FALSE(Load(Bytes(two.begin(), two.begin() + 13 + 24), anim));
    EXPECT_EQ(anim.GetFrameCount(), 0u);
    EXPECT_TRUE(Load(Gif(w, h, {}), anim));
    EXPECT_EQ(anim.GetFrameCount(), 0u);
}

TEST(GifDecoder, LzwCodingOptions) {
    const uint16_t w = 101, h = 99;  // some ten thousand pixels: the table fills several times
    const struct {
        const char* what;
        uint32_t colours;
        imgwrite::GifLzwOptions lzw;
    } cases[] = {
        {"minimum code size 2", 4, {}},
        {"minimum code size 2, one colour", 1, {}},
        {"minimum code size 8", 256, {}},
        {"minimum code size 9", 256, {.minCodeSize = 9}},
        {"table full at 4096 without a clear code", 256, {.clearWhenFull = false}},
        {"a clear code every 100 codes", 16, {.clearEvery = 100}},
        {"a clear code after every code", 3, {.clearEvery = 1}},
        {"sub-blocks of one byte", 16, {.blockSize = 1}},
        {"a code beyond the table, counted and read as the one being defined", 2, {.badCodeAt = 1}},
        {"the tenth such code, in a run of one colour", 1, {.badCodeAt = 10}},
        // The data ends with the zero-length block: the decode ends quietly, whole.
        {"no end code", 16, {.endCode = false}},
    };
    for (const auto& c : cases) {
        const std::vector<uint8_t> indices = Noise(size_t(w) * h, c.colours, c.colours);
        std::vector<Rgba> palette;
        for (uint32_t k = 0; k < 256; ++k) palette.push_back(TableColour(k));
        GifFrame f = Frame(0, 0, w, h, indices);
        f.lzw = c.lzw;
        XAnimDib anim;
        ASSERT_TRUE(Load(Gif(w, h, {f, f}, palette), anim)) << c.what;
        ASSERT_EQ(anim.GetFrameCount(), 2u) << c.what;
        EXPECT_TRUE(SamePixels(*anim.GetFrame(1), Indexed(w, h, indices, palette), true)) << c.what;
    }
}

TEST(GifDecoder, LzwStreamsBuiltCodeByCode) {
    // Minimum code size 2: clear 4, end 5, first free code 6. Codes have 3 bits until the
    // decoder's next free code reaches 8, 4 bits after.
    const auto c3 = [](uint16_t c) { return GifCode{c, 3}; };
    const auto c4 = [](uint16_t c) { return GifCode{c, 4}; };
    const std::vector<Rgba> blank(3, kNothing);
    const struct {
        const char* what;
        uint8_t minimum;
        std::vector<GifCode> codes;
        bool whole;
        std::vector<Rgba> row0, row1;  // a 3 x 2 frame on a 3 x 2 screen
    } cases[] = {
        // 6 is (1 2), defined by the second code.
        {"codes without a leading clear",
         2,
         {c3(1), c3(2), c3(3), c4(6), c4(5)},
         true,
         {Colour(1), Colour(2), Colour(3)},
         {Colour(1), Colour(2), kNothing}},
        // The first code after a clear names nothing yet: it is taken as colour 0.
        {"undefined first code",
         2,
         {c3(4), c3(7), c3(1), c3(2), c4(5)},
         true,
         {Colour(0), Colour(1), Colour(2)},
         blank},
        // 7 is beyond the next free code 6: read as the string being defined (1 1).
        {"code beyond the table",
         2,
         {c3(4), c3(1), c3(7), c3(3), c4(5)},
         true,
         {Colour(1), Colour(1), Colour(1)},
         {Colour(3), kNothing, kNothing}},
        // The end code writes the partly filled second row.
        {"end code in mid row",
         2,
         {c3(4), c3(0), c3(1), c3(2), c4(3), c4(5)},
         true,
         {Colour(0), Colour(1), Colour(2)},
         {Colour(3), kNothing, kNothing}},
        // Running out of codes writes no partial row; the zero-length block closes the data.
        {"no end code",
         2,
         {c3(4), c3(0), c3(1), c3(2), c4(3)},
         true,
         {Colour(0), Colour(1), Colour(2)},
         blank},
        {"clear after clear",
         2,
         {c3(4), c3(4), c3(2), c3(2), c3(2), c4(5)},
         true,
         {Colour(2), Colour(2), Colour(2)},
         blank},
        {"minimum code size 1", 1, {}, false, blank, blank},
        {"minimum code size 10", 10, {}, false, blank, blank},
        {"minimum code size 0", 0, {}, false, blank, blank},
    };
    for (const auto& c : cases) {
        GifFrame f = Frame(0, 0, 3, 2, {});
        f.imageData = imgwrite::GifImageData(c.minimum, imgwrite::GifPackCodes(c.codes));
        XAnimDib anim;
        EXPECT_EQ(Load(Gif(3, 2, {f}), anim), c.whole) << c.what;
        ASSERT_EQ(anim.GetFrameCount(), 1u) << c.what;
        EXPECT_TRUE(SamePixels(*anim.GetFrame(0), Rows({c.row0, c.row1}), true)) << c.what;
    }
    // Minimum code size 9: literals above 255 keep their low byte.
    GifFrame f = Frame(0, 0, 3, 1, {});
    f.imageData = imgwrite::GifImageData(
        9, imgwrite::GifPackCodes({{512, 10}, {2, 10}, {257, 10}, {7, 10}, {513, 10}}));
    XAnimDib anim;
    ASSERT_TRUE(Load(Gif(3, 1, {f}), anim));
    EXPECT_TRUE(SamePixels(*anim.GetFrame(0), Rows({{Colour(2), Colour(1), Colour(7)}}), true));
}

TEST(GifDecoder, FirstPictureOnly) {
    const Bytes file = Gif(3, 2,
                           {Frame(0, 0, 3, 2, {0, 1, 2, 3, 4, 5}),
                            Controlled(Frame(0, 0, 1, 1, {6}), {.disposal = 1})});
    // Through sniffing and dispatch, as a single picture.
    Decoded first = Decode(file);
    EXPECT_TRUE(first.whole);
    EXPECT_EQ(first.dib.nBpp, 32u);
    EXPECT_EQ(first.dib.nFormat, uint32_t(FORMAT_GIF));
    EXPECT_TRUE(SamePixels(first.dib, Indexed(3, 2, {0, 1, 2, 3, 4, 5}), true));
    // A still picture of up to 256 colours, as the writer makes it for the sample book.
    const Picture still = Opaque(Pattern(13, 7, 200));
    EXPECT_TRUE(DecodesTo(imgwrite::WriteGif(still), still, 32, FORMAT_GIF, true));
    // A target holding another picture is replaced.
    XDib dib;
    ASSERT_TRUE(dib.Create(50, 50, 24));
    CXDibMemIO source(file.data(), int64_t(file.size()));
    EXPECT_TRUE(DecodeGifFirst(dib, source));
    EXPECT_TRUE(SamePixels(dib, Indexed(3, 2, {0, 1, 2, 3, 4, 5}), true));

    // No image before the trailer: no picture.
    Decoded none = Decode(Gif(3, 2, {}), DecodeGifFirst);
    EXPECT_FALSE(none.whole);
    EXPECT_TRUE(none.dib.IsEmpty());
    // A first frame that leaves the screen: the rows that fitted, not reported as whole.
    Decoded broken = Decode(Gif(3, 2, {Frame(0, 1, 3, 2, {1, 1, 1, 2, 2, 2})}));
    EXPECT_FALSE(broken.whole);
    EXPECT_EQ(broken.dib.nFormat, 0u);
    EXPECT_TRUE(SamePixels(
        broken.dib, Rows({{kNothing, kNothing, kNothing}, {Colour(1), Colour(1), Colour(1)}}),
        true));
}

TEST(GifDecoder, AnimationFromAFile) {
    // Through the buffered file source, with frames larger than its buffer.
    const uint16_t w = 90, h = 70;
    std::vector<GifFrame> frames;
    std::vector<Rgba> palette;
    for (uint32_t k = 0; k < 256; ++k) palette.push_back(TableColour(k));
    for (uint32_t i = 0; i < 4; ++i) {
        frames.push_back(Controlled(Frame(0, 0, w, h, Noise(w * h, 256, i)), {.delay = 5}));
        frames.back().interlaced = i % 2 == 1;
    }
    const std::string path = ::testing::TempDir() + "orlimo_gif_animation.gif";
    ASSERT_TRUE(imgwrite::WriteFile(path, Gif(w, h, frames, palette)));
    XAnimDib anim;
    EXPECT_TRUE(anim.LoadFile(path.c_str()));
    std::remove(path.c_str());
    ASSERT_EQ(anim.GetFrameCount(), 4u);
    for (uint32_t i = 0; i < 4; ++i) {
        EXPECT_TRUE(SamePixels(*anim.GetFrame(i), Indexed(w, h, frames[i].indices, palette), true))
            << "frame " << i;
        EXPECT_EQ(anim.GetDelay(i), 50u);
    }
}

TEST(GifDecoder, HostileSizes) {
    // A frame claiming 65535 x 1321 inside a 32 x 32 screen: a first row of 65535 pixels
    // doesn't fit, and the frame fails with the screen untouched.
    {
        GifFrame huge = Frame(0, 0, 65535, 1321, {});
        huge.imageData = imgwrite::GifLzw(std::vector<uint8_t>(70000, 1));
        XAnimDib anim;
        EXPECT_FALSE(Load(Gif(32, 32, {huge}), anim));
        ASSERT_EQ(anim.GetFrameCount(), 1u);
        EXPECT_TRUE(SamePixels(*anim.GetFrame(0), Picture(32, 32, kNothing), true));
    }
    // Logical screens over the storage ceiling fail before anything is made.
    for (const auto& [w, h] : {std::pair{65535, 65535}, {16384, 16385}, {65535, 4097}}) {
        const Bytes file = Gif(uint16_t(w), uint16_t(h), {Frame(0, 0, 1, 1, {0})});
        XAnimDib anim;
        EXPECT_FALSE(Load(file, anim)) << w << " x " << h;
        EXPECT_EQ(anim.GetFrameCount(), 0u);
        EXPECT_FALSE(Decode(file, DecodeGifFirst).whole);
    }
    // Storage that can't be had: no frame.
    {
        AllocationLimit limit(1 << 20);
        XAnimDib anim;
        EXPECT_FALSE(Load(Gif(1024, 1024, {Frame(0, 0, 1, 1, {0})}), anim));
        EXPECT_EQ(anim.GetFrameCount(), 0u);
    }
    // The frames of one file stop where their storage would pass 1 GiB: four frames of a
    // 16384 x 4096 screen (256 MiB each) are kept, the fifth isn't made. Each frame starts
    // from nothing (disposal 4) and writes one pixel, so the test touches little memory.
    {
        static_assert(kMaxPictureBytes == uint64_t(1) << 30);
        const GifFrame pixel = Controlled(Frame(0, 0, 1, 1, {0}), {.disposal = 4});
        XAnimDib anim;
        EXPECT_FALSE(Load(Gif(16384, 4096, std::vector<GifFrame>(5, pixel)), anim));
        EXPECT_EQ(anim.GetFrameCount(), 4u);
        EXPECT_EQ(anim.GetMemorySize(), kMaxPictureBytes);
        // One frame as large as the ceiling is whole.
        EXPECT_TRUE(Load(Gif(16384, 16384, {pixel}), anim));
        EXPECT_EQ(anim.GetFrameCount(), 1u);
    }
    // A local table of 2 << 15 entries (bit 3 of the flags set) is read past, 256 kept.
    {
        std::vector<Rgba> local;
        for (uint32_t k = 0; k < 300; ++k) local.push_back(TableColour(k % 256 + 1));
        GifFrame f = Frame(0, 0, 2, 1, {5, 255});
        f.localPalette = local;
        f.localSizeField = 15;
        const Bytes file = Gif(2, 1, {f});
        EXPECT_GT(file.size(), 3u * 65536);
        XAnimDib anim;
        ASSERT_TRUE(Load(file, anim));
        EXPECT_TRUE(SamePixels(*anim.GetFrame(0), Rows({{local[5], local[255]}}), true));
    }
}
