// Files that lie, end early or are made of noise. Whatever comes in, a load gives a picture of
// the size the header states, or nothing; it never crashes or reads outside its buffers (the
// sanitizer build runs these too).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "image/colorman.h"
#include "image/format.h"
#include "image/xanimdib.h"
#include "image/xdib.h"
#include "image/xdibio.h"
#include "image_test_util.h"
#include "support/scratchfolder.h"

using namespace imgtest;

namespace {

struct Sample {
    std::string what;
    Bytes file;
    uint32_t width, height;
};

// One file of each kind the program's own decoders read.
std::vector<Sample> Samples() {
    const Picture rgb = Pattern(40, 30);
    const Picture few = Pattern(40, 30, 16);
    const Picture runs = RunsPattern(40, 30, 16);
    using imgwrite::BmpHeader;
    std::vector<Sample> s = {
        {"BMP 1 bit", imgwrite::WriteBmp(Pattern(40, 30, 2), {.bpp = 1}), 40, 30},
        {"BMP 4 bits", imgwrite::WriteBmp(few, {.bpp = 4}), 40, 30},
        {"BMP 8 bits top down", imgwrite::WriteBmp(few, {.bpp = 8, .topDown = true}), 40, 30},
        {"BMP 16 bits 5-6-5", imgwrite::WriteBmp(rgb, {.bpp = 16, .bitfields = 565}), 40, 30},
        {"BMP 24 bits", imgwrite::WriteBmp(rgb, {.bpp = 24}), 40, 30},
        {"BMP 32 bits V5", imgwrite::WriteBmp(rgb, {.bpp = 32, .header = BmpHeader::V5}), 40, 30},
        {"BMP OS/2", imgwrite::WriteBmp(few, {.bpp = 8, .header = BmpHeader::Os2Core12}), 40, 30},
        {"BMP RLE8", imgwrite::WriteBmp(runs, {.bpp = 8, .rle = true, .rleDelta = true}), 40, 30},
        {"BMP RLE4", imgwrite::WriteBmp(runs, {.bpp = 4, .rle = true, .rleDelta = true}), 40, 30},
        {"TGA raw", imgwrite::WriteTga(rgb, {.type = 2, .depth = 24}), 40, 30},
        {"TGA RLE 32", imgwrite::WriteTga(rgb, {.type = 10, .depth = 32}), 40, 30},
        {"TGA mapped RLE", imgwrite::WriteTga(few, {.type = 9, .depth = 8, .mapDepth = 16}), 40,
         30},
        {"TGA grey", imgwrite::WriteTga(rgb, {.type = 3, .depth = 8, .topFirst = true}), 40, 30},
        {"PSD raw", imgwrite::WritePsd(rgb, {.mode = 3, .resourceBytes = 20}), 40, 30},
        {"PSD PackBits RGBA",
         imgwrite::WritePsd(runs, {.mode = 3, .channels = 4, .packBits = true}), 40, 30},
        {"PSD CMYK 16 bits",
         imgwrite::WritePsd(rgb, {.mode = 4, .depth = 16, .packBits = true, .layerBytes = 8}), 40,
         30},
        {"PSD grey", imgwrite::WritePsd(rgb, {.mode = 1}), 40, 30},
    };
    return s;
}

// Cut points: every byte of the headers, then spread over the body, and one short of the end.
std::vector<size_t> CutPoints(size_t size) {
    std::vector<size_t> cuts;
    for (size_t i = 0; i < std::min<size_t>(size, 140); ++i) cuts.push_back(i);
    for (size_t i = 1; i < 16; ++i) cuts.push_back(size * i / 16);
    cuts.push_back(size - 1);
    return cuts;
}

// A deterministic stream of noise.
struct Noise {
    uint32_t state;
    uint8_t Next() {
        state = state * 1664525u + 1013904223u;
        return uint8_t(state >> 24);
    }
};

}  // namespace

TEST(HostileInput, HugeClaimsFailBeforeAnyAllocation) {
    // Storage is limited, so that a decoder which did try to allocate what a header claims
    // can't take the machine's memory with it; none of these may produce a picture.
    AllocationLimit limit(1 << 16);
    // A BMP header claiming 3,000,000 x 2,000,000 pixels, and hardly any body.
    Bytes bmp = imgwrite::BmpFromBody(3000000, 2000000, 24, 0, {}, Bytes(64, 0x55));
    Bytes tga = imgwrite::WriteTga(Pattern(2, 2), {.type = 2, .depth = 32});
    tga[12] = tga[13] = tga[14] = tga[15] = 0xFF;  // 65535 x 65535
    Bytes psd = imgwrite::WritePsd(Pattern(2, 2), {.mode = 3});
    psd[14] = psd[18] = 0x40;  // 0x40000002 both ways
    Bytes rle = imgwrite::BmpFromBody(60000, 60000, 8, 1, std::vector<Rgba>(2), {0, 1});
    for (const Bytes* file : {&bmp, &tga, &psd, &rle}) {
        XAnimDib anim;
        CXDibMemIO io(file->data(), int64_t(file->size()));
        EXPECT_FALSE(anim.Load(io)) << FormatName(SniffFormat(io, nullptr));
        EXPECT_EQ(anim.GetFrameCount(), 0u);
    }
}

TEST(HostileInput, TruncatedFilesGiveAPartialPictureOrNothing) {
    for (const Sample& s : Samples()) {
        ASSERT_FALSE(s.file.empty()) << s.what;
        {
            XAnimDib whole;
            CXDibMemIO io(s.file.data(), int64_t(s.file.size()));
            ASSERT_TRUE(whole.Load(io)) << s.what;
            ASSERT_NE(whole.GetFrame(0)->nFormat, 0u) << s.what;
        }
        for (size_t cut : CutPoints(s.file.size())) {
            const Bytes part(s.file.begin(), s.file.begin() + cut);
            XAnimDib anim;
            CXDibMemIO io(part.data(), int64_t(part.size()));
            const bool loaded = anim.Load(io);
            EXPECT_EQ(anim.GetFrameCount(), loaded ? 1u : 0u) << s.what << " cut at " << cut;
            // One byte short, every format still shows all but the last bit of the picture.
            if (cut == s.file.size() - 1) {
                EXPECT_TRUE(loaded) << s.what;
            }
            if (!loaded) continue;
            const XDib* dib = anim.GetFrame(0);
            EXPECT_EQ(dib->nWidth, s.width) << s.what << " cut at " << cut;
            EXPECT_EQ(dib->nHeight, s.height) << s.what << " cut at " << cut;
        }
    }
}

TEST(HostileInput, CutBmpKeepsTheRowsItRead) {
    const Picture p = Pattern(16, 8);
    const Bytes file = imgwrite::WriteBmp(p, {.bpp = 24});
    // Header, then three whole rows (the bottom three) and half of the fourth.
    const Bytes cut(file.begin(), file.begin() + 54 + 48 * 3 + 24);
    Decoded d = Decode(cut);
    EXPECT_FALSE(d.whole);
    EXPECT_EQ(d.dib.nFormat, 0u);
    Picture expected(16, 8, Rgba{0, 0, 0, 255});
    for (uint32_t y = 5; y < 8; ++y)
        for (uint32_t x = 0; x < 16; ++x) expected.At(x, y) = p.At(x, y);
    EXPECT_TRUE(SamePixels(d.dib, expected));
}

TEST(HostileInput, UncompressedBodiesMustHoldASixtyFourthOfTheirClaim) {
    // Every picture claims 256 x 64 x 3 = 49152 bytes of body; 1/64 of it is 768 bytes.
    const Picture p = Pattern(256, 64);
    struct Case {
        const char* what;
        Bytes file;
        size_t bodyStart;
    };
    const Case cases[] = {
        {"BMP", imgwrite::WriteBmp(p, {.bpp = 24}), 54},
        {"TGA", imgwrite::WriteTga(p, {.type = 2, .depth = 24, .topFirst = true}), 18},
        {"PSD", imgwrite::WritePsd(p, {.mode = 3}), 26 + 12 + 2},
    };
    for (const Case& c : cases) {
        ASSERT_EQ(c.file.size(), c.bodyStart + 49152) << c.what;
        const Bytes tooShort(c.file.begin(), c.file.begin() + c.bodyStart + 767);
        Decoded refused = Decode(tooShort);
        EXPECT_FALSE(refused.whole) << c.what;
        EXPECT_TRUE(refused.dib.IsEmpty()) << c.what << ": a 767-byte body was taken";

        const Bytes enough(c.file.begin(), c.file.begin() + c.bodyStart + 768);
        Decoded partial = Decode(enough);
        EXPECT_FALSE(partial.whole) << c.what;
        ASSERT_FALSE(partial.dib.IsEmpty()) << c.what << ": a 768-byte body was refused";
        EXPECT_EQ(partial.dib.nWidth, 256u) << c.what;
    }
    // Run-length bodies have no such floor: a short RLE file still shows what it holds.
    Decoded rle = Decode(
        imgwrite::BmpFromBody(256, 64, 8, 1, std::vector<Rgba>(2), {4, 1, 0, 0, 0, 0, 0, 0}));
    EXPECT_TRUE(rle.whole);
}

TEST(HostileInput, RunLengthBodiesMustBeLongEnoughForTheirCoding) {
    // 4096 x 4096 pictures with bodies far shorter than their coding could ever expand to.
    // Each is refused with nothing allocated; given the smallest plausible body, it decodes.
    const uint32_t side = 4096;
    const auto be = [](Bytes& b, uint32_t v, int n) {
        for (int i = n - 1; i >= 0; --i) b.push_back(uint8_t(v >> (8 * i)));
    };
    // PackBits PSD, RGB: 48 MiB of planes; 2-byte run packets give 128 bytes each, so 48 MiB
    // need at least 768 KiB of body, and 1/64 of that (12 KiB) is the floor for a cut file.
    const auto psd = [&](size_t bodyBytes) {
        Bytes b = {'8', 'B', 'P', 'S', 0, 1, 0, 0, 0, 0, 0, 0};
        be(b, 3, 2), be(b, side, 4), be(b, side, 4), be(b, 8, 2), be(b, 3, 2);
        be(b, 0, 4), be(b, 0, 4), be(b, 0, 4), be(b, 1, 2);
        b.insert(b.end(), size_t(3) * side * 2, 0);  // row lengths, skipped
        for (size_t i = 0; i < bodyBytes / 2; ++i) b.push_back(0x81), b.push_back(0x40);
        return b;
    };
    // TGA RLE, 24 bits: 48 MiB; a run packet of 4 bytes gives 128 pixels (384 bytes).
    const auto tga = [&](size_t bodyBytes) {
        Bytes b(18, 0);
        b[2] = 10, b[12] = side & 0xFF, b[13] = side >> 8, b[14] = side & 0xFF, b[15] = side >> 8,
        b[16] = 24;
        for (size_t i = 0; i < bodyBytes / 4; ++i) b.insert(b.end(), {0xFF, 10, 20, 30});
        return b;
    };
    // RLE8 BMP: 16 MiB, held to the same 64:1 policy as PackBits.
    const auto bmp = [&](size_t bodyBytes) {
        Bytes body;
        for (size_t i = 0; i < bodyBytes / 2; ++i) body.insert(body.end(), {255, 1});
        return imgwrite::BmpFromBody(int32_t(side), int32_t(side), 8, 1, std::vector<Rgba>(2),
                                     body);
    };
    struct Case {
        const char* what;
        Bytes refused, taken;
    };
    const uint64_t mib48 = uint64_t(48) << 20, mib16 = uint64_t(16) << 20;
    const Case cases[] = {
        {"PSD", psd(mib48 / 64 / 64 - 64), psd(mib48 / 64 / 64 + 64)},
        {"TGA", tga(mib48 / 128 / 64 - 64), tga(mib48 / 128 / 64 + 64)},
        {"BMP", bmp(mib16 / 64 / 64 - 64), bmp(mib16 / 64 / 64 + 64)},
    };
    for (const Case& c : cases) {
        Decoded refused = Decode(c.refused);
        EXPECT_TRUE(refused.dib.IsEmpty()) << c.what << ": a body below the floor was taken";
        Decoded taken = Decode(c.taken);
        EXPECT_EQ(taken.dib.nWidth, side) << c.what << ": a body above the floor was refused";
    }
}

TEST(HostileInput, AnimDibTakesAPartialPictureAsItsOneFrame) {
    const Picture p = Pattern(20, 10);
    const Bytes file = imgwrite::WriteBmp(p, {.bpp = 24});
    const Bytes cut(file.begin(), file.begin() + int64_t(file.size()) / 2);

    XColorMan colorMan;
    XAnimDib anim;
    anim.pColorMan = &colorMan;
    CXDibMemIO io(cut.data(), int64_t(cut.size()));
    ASSERT_TRUE(anim.Load(io));  // the decoder failed, but left a picture
    ASSERT_EQ(anim.GetFrameCount(), 1u);
    const XDib* frame = anim.GetFrame(0);
    EXPECT_EQ(anim.pLastDib, frame);
    EXPECT_EQ(anim.GetDelay(0), 0u);
    EXPECT_EQ(frame->nFormat, 0u);  // not whole
    EXPECT_EQ(frame->pColorMan, &colorMan);
    EXPECT_EQ(anim.GetMemorySize(), uint64_t(frame->nStride) * frame->nHeight);
    EXPECT_EQ(anim.GetFrame(1), nullptr);

    // A decoder that fails before making a picture: nothing, and the old frame is gone.
    const Bytes header(file.begin(), file.begin() + 40);
    CXDibMemIO headerOnly(header.data(), int64_t(header.size()));
    EXPECT_FALSE(anim.Load(headerOnly));
    EXPECT_EQ(anim.GetFrameCount(), 0u);
    EXPECT_EQ(anim.pLastDib, nullptr);
    // A format without a decoder here, and noise.
    const Bytes gif = {'G', 'I', 'F', '8', '9', 'a', 1, 0, 1, 0, 0, 0, 0, 0,
                       0,   0,   0,   0,   0,   0,   0, 0, 0, 0, 0, 0, 0};
    CXDibMemIO gifIo(gif.data(), int64_t(gif.size()));
    EXPECT_FALSE(anim.Load(gifIo));
    EXPECT_EQ(anim.GetFrameCount(), 0u);

    // Files: a missing path fails cleanly; a whole file sets the format.
    ScratchFolder dir;
    EXPECT_FALSE(anim.LoadFile((dir / "missing.bmp").c_str()));
    EXPECT_EQ(anim.GetFrameCount(), 0u);
    ASSERT_TRUE(imgwrite::WriteFile(dir / "whole.bmp", file));
    ASSERT_TRUE(anim.LoadFile((dir / "whole.bmp").c_str()));
    EXPECT_EQ(anim.GetFrame(0)->nFormat, uint32_t(FORMAT_BMP));
    EXPECT_TRUE(SamePixels(*anim.GetFrame(0), p));
}

TEST(HostileInput, NoiseAfterValidHeadersNeverEscapesThePicture) {
    // Run-length and PackBits decoders walk their own positions; noise bodies push them
    // everywhere: far deltas, runs past row and plane ends, absolute runs past the data.
    const std::vector<Rgba> palette(16, Rgba{1, 2, 3, 255});
    Noise noise{12345};
    for (int round = 0; round < 300; ++round) {
        Bytes body(size_t(20 + round % 200));
        for (uint8_t& b : body) b = noise.Next();
        // Bias towards escape codes now and then.
        for (size_t i = 0; i + 1 < body.size(); i += 7) body[i] = round % 3 ? 0 : body[i];
        const uint32_t w = 1 + noise.Next() % 37, h = 1 + noise.Next() % 23;
        std::vector<Bytes> files = {
            imgwrite::BmpFromBody(int32_t(w), int32_t(h), 8, 1, palette, body),
            imgwrite::BmpFromBody(int32_t(w), int32_t(h), 4, 2, palette, body),
        };
        Bytes tga =
            imgwrite::WriteTga(Picture(w, h), {.type = 10, .depth = uint8_t(round % 2 ? 16 : 24)});
        tga.resize(18);
        tga.insert(tga.end(), body.begin(), body.end());
        files.push_back(tga);
        Bytes psd = imgwrite::WritePsd(Picture(w, h), {.mode = 3, .channels = 4});
        psd.resize(26 + 12);
        psd.insert(psd.end(), {0, 1});
        psd.insert(psd.end(), size_t(4) * h * 2, 0);  // the row table, skipped
        psd.insert(psd.end(), body.begin(), body.end());
        files.push_back(psd);
        for (const Bytes& file : files) {
            XAnimDib anim;
            CXDibMemIO io(file.data(), int64_t(file.size()));
            anim.Load(io);
            if (anim.GetFrameCount()) {
                ASSERT_EQ(anim.GetFrame(0)->nWidth, w) << "round " << round;
                ASSERT_EQ(anim.GetFrame(0)->nHeight, h) << "round " << round;
            }
        }
    }
}
