// Files that lie, end early or are made of noise. Whatever comes in, a load gives a picture of
// the size the header states, or nothing; it never crashes or reads outside its buffers (the
// sanitizer build runs these too).
#include <gtest/gtest.h>

#include <algorithm>
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
using imgwrite::BmpHeader;

namespace {

// Loads through XAnimDib as the viewer does; false when no frame came out.
bool Load(XAnimDib& anim, const Bytes& file) {
    CXDibMemIO io(file.data(), int64_t(file.size()));
    const bool loaded = anim.Load(io);
    EXPECT_EQ(anim.GetFrameCount(), loaded ? 1u : 0u);
    return loaded;
}

}  // namespace

TEST(HostileInput, HugeClaimsFailBeforeAnyAllocation) {
    // Storage is limited, so that a decoder which did allocate what a header claims can't take
    // the machine's memory with it.
    AllocationLimit limit(1 << 16);
    Bytes tga = imgwrite::WriteTga(Pattern(2, 2), {.type = 2, .depth = 32});
    tga[12] = tga[13] = tga[14] = tga[15] = 0xFF;  // 65535 x 65535
    Bytes psd = imgwrite::WritePsd(Pattern(2, 2), {.mode = 3});
    psd[14] = psd[18] = 0x40;  // 0x40000002 both ways
    for (const Bytes& file :
         {imgwrite::BmpFromBody(3000000, 2000000, 24, 0, {}, Bytes(64, 0x55)), tga, psd,
          imgwrite::BmpFromBody(60000, 60000, 8, 1, std::vector<Rgba>(2), {0, 1})}) {
        XAnimDib anim;
        EXPECT_FALSE(Load(anim, file)) << file.size() << " bytes";
    }
}

TEST(HostileInput, TruncatedFilesGiveAPartialPictureOrNothing) {
    const Picture rgb = Pattern(40, 30), few = Pattern(40, 30, 16), runs = RunsPattern(40, 30, 16);
    const struct {
        const char* what;
        Bytes file;
    } samples[] = {
        {"BMP 8 bits top down", imgwrite::WriteBmp(few, {.bpp = 8, .topDown = true})},
        {"BMP 16 bits 5-6-5", imgwrite::WriteBmp(rgb, {.bpp = 16, .bitfields = 565})},
        {"BMP 32 bits V5", imgwrite::WriteBmp(rgb, {.bpp = 32, .header = BmpHeader::V5})},
        {"BMP OS/2", imgwrite::WriteBmp(few, {.bpp = 8, .header = BmpHeader::Os2Core12})},
        {"BMP RLE8", imgwrite::WriteBmp(runs, {.bpp = 8, .rle = true, .rleDelta = true})},
        {"BMP RLE4", imgwrite::WriteBmp(runs, {.bpp = 4, .rle = true, .rleDelta = true})},
        {"TGA raw", imgwrite::WriteTga(rgb, {.type = 2, .depth = 24})},
        {"TGA RLE 32", imgwrite::WriteTga(rgb, {.type = 10, .depth = 32})},
        {"TGA mapped RLE", imgwrite::WriteTga(few, {.type = 9, .depth = 8, .mapDepth = 16})},
        {"PSD raw", imgwrite::WritePsd(rgb, {.mode = 3, .resourceBytes = 20})},
        {"PSD PackBits RGBA",
         imgwrite::WritePsd(runs, {.mode = 3, .channels = 4, .packBits = true})},
        {"PSD CMYK 16 bits",
         imgwrite::WritePsd(rgb, {.mode = 4, .depth = 16, .packBits = true, .layerBytes = 8})},
    };
    for (const auto& s : samples) {
        ASSERT_TRUE(Decode(s.file).whole) << s.what;
        // Every byte of the headers, then cuts spread over the body, and one short of the end.
        std::vector<size_t> cuts;
        for (size_t i = 0; i < std::min<size_t>(s.file.size(), 140); ++i) cuts.push_back(i);
        for (size_t i = 1; i < 16; ++i) cuts.push_back(s.file.size() * i / 16);
        cuts.push_back(s.file.size() - 1);
        for (size_t cut : cuts) {
            XAnimDib anim;
            const bool loaded = Load(anim, Bytes(s.file.begin(), s.file.begin() + cut));
            // One byte short, every format still shows all but the last bit of the picture.
            EXPECT_TRUE(loaded || cut < s.file.size() - 1) << s.what;
            if (!loaded) continue;
            EXPECT_EQ(std::pair(anim.GetFrame(0)->nWidth, anim.GetFrame(0)->nHeight),
                      std::pair(40u, 30u))
                << s.what << " cut at " << cut;
        }
    }
}

TEST(HostileInput, UncompressedBodiesMustHoldASixtyFourthOfTheirClaim) {
    // Every picture claims 256 x 64 x 3 = 49152 bytes of body; 1/64 of it is 768 bytes.
    const Picture p = Pattern(256, 64);
    const struct {
        const char* what;
        Bytes file;
        size_t bodyStart;
    } cases[] = {
        {"BMP", imgwrite::WriteBmp(p, {.bpp = 24}), 54},
        {"TGA", imgwrite::WriteTga(p, {.type = 2, .depth = 24, .topFirst = true}), 18},
        {"PSD", imgwrite::WritePsd(p, {.mode = 3}), 26 + 12 + 2},
    };
    for (const auto& c : cases) {
        ASSERT_EQ(c.file.size(), c.bodyStart + 49152) << c.what;
        Decoded refused = Decode(Bytes(c.file.begin(), c.file.begin() + c.bodyStart + 767));
        EXPECT_TRUE(refused.dib.IsEmpty()) << c.what << ": a 767-byte body was taken";
        Decoded partial = Decode(Bytes(c.file.begin(), c.file.begin() + c.bodyStart + 768));
        EXPECT_FALSE(partial.whole) << c.what;
        EXPECT_EQ(partial.dib.nWidth, 256u) << c.what << ": a 768-byte body was refused";
    }
}

TEST(HostileInput, RunLengthBodiesMustBeLongEnoughForTheirCoding) {
    // 4096 x 4096 pictures with bodies far shorter than their coding could ever expand to.
    // Each is refused with nothing allocated; given the smallest plausible body, it decodes.
    const uint32_t side = 4096;
    // PackBits PSD, RGB: 48 MiB of planes; 2-byte run packets give 128 bytes each, so 48 MiB
    // need at least 768 KiB of body, and 1/64 of that (12 KiB) is the floor for a cut file.
    // TGA RLE, 24 bits: 48 MiB; a run packet of 4 bytes gives 128 pixels (384 bytes). RLE8 BMP:
    // 16 MiB, held to the same 64:1 policy as PackBits.
    const auto body = [](size_t bytes, const Bytes& packet) {
        Bytes b;
        while (b.size() + packet.size() <= bytes) b.insert(b.end(), packet.begin(), packet.end());
        return b;
    };
    const auto psd = [&](size_t n) { return PackBitsPsd(side, side, 3, 3, body(n, {0x81, 0x40})); };
    const auto tga = [&](size_t n) { return RleTga(side, side, 24, 0, body(n, {0xFF, 1, 2, 3})); };
    const auto bmp = [&](size_t n) {
        return imgwrite::BmpFromBody(side, side, 8, 1, std::vector<Rgba>(2), body(n, {255, 1}));
    };
    const uint64_t mib48 = uint64_t(48) << 20, mib16 = uint64_t(16) << 20;
    const struct {
        const char* what;
        Bytes refused, taken;
    } cases[] = {
        {"PSD", psd(mib48 / 64 / 64 - 64), psd(mib48 / 64 / 64 + 64)},
        {"TGA", tga(mib48 / 128 / 64 - 64), tga(mib48 / 128 / 64 + 64)},
        {"BMP", bmp(mib16 / 64 / 64 - 64), bmp(mib16 / 64 / 64 + 64)},
    };
    for (const auto& c : cases) {
        EXPECT_TRUE(Decode(c.refused).dib.IsEmpty()) << c.what << ": a body below the floor";
        EXPECT_EQ(Decode(c.taken).dib.nWidth, side) << c.what << ": a body above the floor";
    }
}

TEST(HostileInput, AnimDibTakesAPartialPictureAsItsOneFrame) {
    const Picture p = Pattern(16, 8);
    const Bytes file = imgwrite::WriteBmp(p, {.bpp = 24});
    XColorMan colorMan;
    XAnimDib anim;
    anim.pColorMan = &colorMan;
    // Header, then the bottom three rows and half of the fourth: the decoder fails but leaves a
    // picture, which becomes the frame with the rows it read.
    ASSERT_TRUE(Load(anim, Bytes(file.begin(), file.begin() + 54 + 48 * 3 + 24)));
    const XDib* frame = anim.GetFrame(0);
    EXPECT_EQ(anim.pLastDib, frame);
    EXPECT_EQ(frame->nFormat, 0u);  // not whole
    EXPECT_EQ(frame->pColorMan, &colorMan);
    Picture expected(16, 8);
    for (uint32_t y = 5; y < 8; ++y)
        for (uint32_t x = 0; x < 16; ++x) expected.At(x, y) = p.At(x, y);
    EXPECT_TRUE(SamePixels(*frame, expected));

    // A decoder that fails before making a picture: nothing, and the old frame is gone.
    EXPECT_FALSE(Load(anim, Bytes(file.begin(), file.begin() + 40)));
    EXPECT_EQ(anim.pLastDib, nullptr);
    ScratchFolder dir;
    EXPECT_FALSE(anim.LoadFile((dir / "missing.bmp").c_str()));
}

TEST(HostileInput, NoiseAfterValidHeadersNeverEscapesThePicture) {
    // Run-length and PackBits decoders walk their own positions; noise bodies push them
    // everywhere: far deltas, runs past row and plane ends, absolute runs past the data.
    const std::vector<Rgba> palette(16, Rgba{1, 2, 3});
    uint32_t state = 12345;
    const auto next = [&]() { return uint8_t((state = state * 1664525u + 1013904223u) >> 24); };
    for (int round = 0; round < 300; ++round) {
        Bytes body(size_t(20 + round % 200));
        for (uint8_t& b : body) b = next();
        if (round % 3)  // escape codes now and then
            for (size_t i = 0; i + 1 < body.size(); i += 7) body[i] = 0;
        const uint32_t w = 1 + next() % 37, h = 1 + next() % 23;
        for (const Bytes& file :
             {imgwrite::BmpFromBody(int32_t(w), int32_t(h), 8, 1, palette, body),
              imgwrite::BmpFromBody(int32_t(w), int32_t(h), 4, 2, palette, body),
              RleTga(w, h, round % 2 ? 16 : 24, 0, body), PackBitsPsd(w, h, 4, 3, body)}) {
            XAnimDib anim;
            if (!Load(anim, file)) continue;
            ASSERT_EQ(std::pair(anim.GetFrame(0)->nWidth, anim.GetFrame(0)->nHeight),
                      std::pair(w, h))
                << "round " << round;
        }
    }
}
