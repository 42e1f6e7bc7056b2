// The decoder of lossless and 12-bit JPEG frames: reference streams against the samples an
// independent decoder gave, lossless round trips through our own writer, the 8-bit output in
// the colour space the markers choose, truncated streams and hostile headers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "image/decoders.h"
#include "image/format.h"
#include "image/jpeg_extended_samples.h"
#include "image/xanimdib.h"
#include "image/xdib.h"
#include "image/xdibio.h"
#include "jpeg_extended_writer.h"

using namespace jpegxtest;

namespace {

Bytes ReadFixture(const std::string& name) {
    const char* root = std::getenv("ORLIMO_SOURCE_DIR");
    std::ifstream f(std::string(root ? root : ".") + "/tests/image/data/jpeg_extended/" + name,
                    std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(f), {});
}

struct Samples {
    bool whole = false;
    XJpegExtendedSamples s;
};
Samples DecodeSamples(const Bytes& b) {
    Samples out;
    CXDibMemIO source(b.data(), int64_t(b.size()));
    out.whole = DecodeJpegExtendedSamples(source, out.s);
    return out;
}

struct Picture8 {
    bool whole = false;
    XDib dib;
};
Picture8 DecodeDib(const Bytes& b) {
    Picture8 out;
    CXDibMemIO source(b.data(), int64_t(b.size()));
    out.whole = DecodeJpegExtended(out.dib, source);
    return out;
}

size_t FindMarker(const Bytes& b, uint8_t marker) {
    for (size_t i = 0; i + 1 < b.size(); ++i)
        if (b[i] == 0xFF && b[i + 1] == marker) return i;
    return b.size();
}

// The samples, and the picture the ordinary load path makes of the same stream: handed over
// from the library path, and not reduced.
TEST(JpegExtendedReference, MatchesTheIndependentDecoderAndLoadsThroughTheLibraryPath) {
    struct Case {
        const char* name;
        uint32_t w, h, channels, precision;
    };
    const Case cases[] = {
        {"lossless16_p1", 33, 20, 1, 16},    {"lossless16_p2", 33, 20, 1, 16},
        {"lossless16_p3", 33, 20, 1, 16},    {"lossless16_p4", 33, 20, 1, 16},
        {"lossless16_p5", 33, 20, 1, 16},    {"lossless16_p6", 33, 20, 1, 16},
        {"lossless16_p7", 33, 20, 1, 16},    {"lossless16_p6_pt3", 33, 20, 1, 16},
        {"lossless12_rgb", 23, 17, 3, 16},   {"ext12_grey", 35, 21, 1, 12},
        {"ext12_ycc422", 35, 21, 3, 12},     {"ext12_ycc411", 35, 21, 3, 12},
        {"ext12_ycc420_rst", 37, 29, 3, 12}, {"prog12_grey", 35, 21, 1, 12},
        {"prog12_ycc422", 35, 21, 3, 12},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const Bytes file = ReadFixture(std::string(c.name) + ".jpg");
        const Bytes raw = ReadFixture(std::string(c.name) + ".ref");
        std::vector<uint16_t> ref(raw.size() / 2);
        for (size_t i = 0; i < ref.size(); ++i) ref[i] = uint16_t(raw[2 * i] | raw[2 * i + 1] << 8);
        ASSERT_EQ(ref.size(), size_t(c.w) * c.h * c.channels);
        const Samples s = DecodeSamples(file);
        EXPECT_TRUE(s.whole);
        EXPECT_EQ((std::vector{s.s.nWidth, s.s.nHeight, s.s.nChannels, s.s.nPrecision}),
                  (std::vector{c.w, c.h, c.channels, c.precision}));
        EXPECT_EQ(s.s.samples, ref);

        XAnimDib anim;
        CXDibMemIO io(file.data(), int64_t(file.size()));
        const XDibScaleRequest half{1, c.w / 2, c.h / 2};
        ASSERT_TRUE(anim.Load(io, nullptr, nullptr, &half));
        const XDib& dib = *anim.GetFrame(0);
        EXPECT_EQ(dib.nFormat, uint32_t(FORMAT_JPEG));
        EXPECT_EQ((std::vector{dib.nWidth, dib.nHeight, dib.nOrigWidth, dib.nOrigHeight}),
                  (std::vector{c.w, c.h, c.w, c.h}));
        EXPECT_EQ(dib.nBpp, c.channels == 1 ? 8u : 24u);
        EXPECT_EQ(dib.bReduced, 0u);
    }
}

// Streams of our writer decode to the samples they were made from: one case per predictor,
// precisions from 2 to 16, point transforms, restart intervals of a row, of three rows and one
// ending inside a row; and subsampled components (R at 2x2, G at 1x1, B at 1x2 of 19 x 13: box
// upsampling, no colour transform) in one scan and in scans of their own.
TEST(JpegExtendedLossless, StreamsOfOurWriterRoundTrip) {
    std::vector<std::pair<LosslessFrame, std::vector<uint16_t>>> cases;
    const int w = 21, h = 9;  // precision, predictor, point transform, restart interval:
    const int grey[][4] = {{8, 1, 0, 0},  {12, 2, 6, w},     {6, 3, 0, 3 * w}, {12, 4, 0, 5},
                           {10, 5, 3, 0}, {16, 6, 0, w},     {12, 7, 2, 5},    {2, 7, 0, 0},
                           {2, 4, 1, 5},  {16, 7, 8, 3 * w}, {16, 1, 0, 5}};
    for (const auto& [precision, predictor, pt, restart] : grey) {
        const LosslessFrame frame = GreyFrame(w, h, precision, predictor, pt, uint32_t(restart));
        std::vector<uint16_t> want = frame.comps[0].samples;
        for (uint16_t& v : want) v = uint16_t((v >> pt) << pt);
        cases.emplace_back(frame, want);
    }
    LosslessFrame sub{.width = 19,
                      .height = 13,
                      .precision = 10,
                      .predictor = 4,
                      .comps = {{'R', 2, 2, TestPlane(19, 13, 10, 1)},
                                {'G', 1, 1, TestPlane(10, 7, 10, 2)},
                                {'B', 1, 2, TestPlane(10, 13, 10, 3)}}};
    std::vector<uint16_t> want;
    for (uint32_t y = 0; y < 13; ++y)
        for (uint32_t x = 0; x < 19; ++x)
            want.insert(want.end(), {sub.comps[0].samples[y * 19 + x],
                                     sub.comps[1].samples[(y / 2) * 10 + x / 2],
                                     sub.comps[2].samples[y * 10 + x / 2]});
    for (bool interleaved : {true, false})
        for (uint32_t restart : {0u, 7u}) {
            sub.interleaved = interleaved, sub.restartInterval = restart;
            cases.emplace_back(sub, want);
        }
    for (size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(i);
        const Samples s = DecodeSamples(WriteLossless(cases[i].first));
        EXPECT_TRUE(s.whole);
        EXPECT_EQ(s.s.samples, cases[i].second);
    }
}

// The 8-bit picture the viewer gets: other precisions scaled (rounded, the top saturating
// rather than wrapping to 0), grey with a ramp; three components as R G B or as Y Cb Cr (where
// 200, 128, 128 is a neutral grey) and four as CMYK or YCCK, as markers and component ids say.
TEST(JpegExtendedOutput, EightBitsInTheColourSpaceTheMarkersChoose) {
    using enum ColourMarker;
    struct Case {
        ColourMarker marker;
        uint8_t transform;
        int precision;
        std::vector<uint8_t> ids;
        std::vector<std::vector<uint16_t>> planes;
        Bytes shown;  // the first row as stored: grey levels, or B G R
    };
    const std::vector<std::vector<uint16_t>> ycc = {{200}, {128}, {128}};
    const std::vector<std::vector<uint16_t>> cmyk = {{200}, {100}, {50}, {255}};
    const Case cases[] = {
        {kNone, 0, 2, {1}, {{0, 1, 2, 3}}, {0, 85, 170, 255}},
        {kNone, 0, 6, {1}, {{0, 1, 32, 63}}, {0, 4, 130, 255}},
        {kNone, 0, 12, {1}, {{0, 7, 8, 2047, 4087, 4088, 4095}}, {0, 0, 1, 128, 255, 255, 255}},
        {kNone, 0, 16, {1}, {{0, 127, 128, 32768, 65407, 65535}}, {0, 0, 1, 128, 255, 255}},
        {kJfif, 0, 8, {1, 2, 3}, ycc, {200, 200, 200}},
        {kJfif, 0, 8, {'R', 'G', 'B'}, ycc, {200, 200, 200}},  // JFIF wins over the ids
        {kAdobe, 0, 8, {1, 2, 3}, ycc, {128, 128, 200}},
        {kAdobe, 1, 8, {'R', 'G', 'B'}, ycc, {200, 200, 200}},
        {kNone, 0, 8, {1, 2, 3}, ycc, {128, 128, 200}},  // no marker: RGB in a lossless frame
        {kNone, 0, 8, {1, 2, 3, 4}, cmyk, {49, 99, 199}},
        {kAdobe, 0, 8, {1, 2, 3, 4}, cmyk, {49, 99, 199}},
        {kAdobe, 2, 8, {1, 2, 3, 4}, {{200}, {128}, {128}, {255}}, {54, 54, 54}},  // YCCK
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(&c - cases);
        LosslessFrame frame;
        frame.width = uint32_t(c.planes[0].size()), frame.height = 1, frame.precision = c.precision;
        frame.marker = c.marker, frame.adobeTransform = c.transform;
        for (size_t k = 0; k < c.ids.size(); ++k)
            frame.comps.push_back({c.ids[k], 1, 1, c.planes[k]});
        const Picture8 p = DecodeDib(WriteLossless(frame));
        ASSERT_TRUE(p.whole);
        ASSERT_EQ(p.dib.nBpp, c.ids.size() == 1 ? 8u : 24u);
        EXPECT_EQ(Bytes(p.dib.GetRow(0), p.dib.GetRow(0) + c.shown.size()), c.shown);
        EXPECT_TRUE(p.dib.nBpp == 24 || p.dib.GetPalette()[4 * 77 + 1] == 77) << "a grey ramp";
    }
}

// A stream cut short keeps the rows decoded (a progressive frame cut between scans: every row)
// and clears the rest; cut before its first scan it gives no picture.
TEST(JpegExtendedTruncation, StreamsCutShortKeepWhatWasDecoded) {
    const std::pair<const char*, double> cases[] = {
        {"ext12_ycc420_rst", 0.7}, {"lossless16_p4", 0.5}, {"prog12_ycc422", 0.8}};
    for (const auto& [name, keep] : cases) {
        SCOPED_TRACE(name);
        const Bytes file = ReadFixture(std::string(name) + ".jpg");
        const Bytes cut(file.begin(), file.begin() + ptrdiff_t(file.size() * keep));
        const Samples full = DecodeSamples(file), part = DecodeSamples(cut);
        ASSERT_TRUE(full.whole);
        EXPECT_FALSE(part.whole);
        const uint32_t h = full.s.nHeight, valid = part.s.nValidRows;
        const bool progressive = name[0] == 'p';
        EXPECT_TRUE(progressive ? valid == h : valid > 0 && valid < h) << valid;
        // Sequential: rows above the cut as in the whole picture, but the last, where chroma
        // may be interpolated from the band below; zeros below.
        const size_t rowSamples = size_t(full.s.nWidth) * full.s.nChannels;
        const auto& got = part.s.samples;
        EXPECT_TRUE(progressive || std::equal(got.begin(), got.begin() + (valid - 1) * rowSamples,
                                              full.s.samples.begin()));
        EXPECT_TRUE(std::all_of(got.begin() + valid * rowSamples, got.end(),
                                [](uint16_t v) { return v == 0; }));
        const Picture8 p = DecodeDib(cut);
        EXPECT_FALSE(p.whole);
        ASSERT_FALSE(p.dib.IsEmpty());
        for (uint32_t y = valid; y < h; ++y)
            ASSERT_TRUE(std::all_of(p.dib.GetRow(y), p.dib.GetRow(y) + p.dib.nStride,
                                    [](uint8_t v) { return v == 0; }));
    }
    const Bytes file = ReadFixture("ext12_grey.jpg");
    const Picture8 p =
        DecodeDib(Bytes(file.begin(), file.begin() + ptrdiff_t(FindMarker(file, 0xDA))));
    EXPECT_TRUE(!p.whole && p.dib.IsEmpty());
}

TEST(JpegExtendedHostile, HeadersAndTablesThatLieFailWithoutAPicture) {
    const Bytes lossless = WriteLossless(GreyFrame(16, 8, 12, 1));
    const Bytes progressive = ReadFixture("prog12_ycc422.jpg");
    struct Case {
        const char* what;
        const Bytes* base;
        uint8_t marker;  // patch at this marker's offset + `at`
        size_t at;
        std::vector<uint8_t> bytes;
    };
    const Case cases[] = {
        // Lossless SOF: FF C3, length (2), P, Y (2), X (2), Nf, then id, HV, Tq.
        {"precision 17", &lossless, 0xC3, 4, {17}},
        {"precision 1", &lossless, 0xC3, 4, {1}},
        {"65535 x 65535 in a few hundred bytes", &lossless, 0xC3, 5, {0xFF, 0xFF, 0xFF, 0xFF}},
        {"width 0", &lossless, 0xC3, 7, {0, 0}},
        {"sampling factor 0", &lossless, 0xC3, 11, {0x01}},
        {"sampling factor 5", &lossless, 0xC3, 11, {0x51}},
        {"quantisation table 4", &lossless, 0xC3, 12, {4}},
        {"arithmetic coding (SOF11)", &lossless, 0xC3, 1, {0xCB}},
        // DHT: FF C4, length, class/id, 16 counts.
        {"Huffman codes over-filling length 1", &lossless, 0xC4, 5, {3}},
        {"Huffman table id 4", &lossless, 0xC4, 4, {0x04}},
        // SOS: FF DA, length, Ns, (Cs, Td/Ta), Ss, Se, Ah/Al.
        {"scan with an undefined Huffman table", &lossless, 0xDA, 6, {0x20}},
        {"scan of a component the frame lacks", &lossless, 0xDA, 5, {9}},
        {"predictor 0", &lossless, 0xDA, 7, {0}},
        {"point transform as large as the precision", &lossless, 0xDA, 9, {12}},
        {"scan before any frame", &lossless, 0xC3, 1, {0xFE}},
        {"no start of image", &lossless, 0xD8, 1, {0xD9}},
        // Progressive: the first scan names 3 components; make it an AC band.
        {"AC band over three components", &progressive, 0xDA, 11, {1, 5}},
        {"DCT precision 16", &progressive, 0xC2, 4, {16}},
        {"successive approximation bit 14", &progressive, 0xDA, 13, {0x0E}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Bytes b = *c.base;
        const size_t at = FindMarker(b, c.marker);
        ASSERT_LT(at + c.at + c.bytes.size(), b.size());
        std::copy(c.bytes.begin(), c.bytes.end(), b.begin() + ptrdiff_t(at + c.at));
        const Picture8 p = DecodeDib(b);
        EXPECT_FALSE(p.whole);
        EXPECT_TRUE(p.dib.IsEmpty());
    }
    for (size_t n : {0, 1, 2, 3})
        EXPECT_FALSE(DecodeDib(Bytes(lossless.begin(), lossless.begin() + ptrdiff_t(n))).whole);
}

TEST(JpegExtendedHostile, CorruptedBytesDecodeOrFailSafely) {
    const Bytes files[] = {WriteLossless(GreyFrame(12, 6, 16, 5, 1, 5)),
                           ReadFixture("prog12_grey.jpg"), ReadFixture("ext12_ycc420_rst.jpg")};
    for (const Bytes& file : files) {
        ASSERT_FALSE(file.empty());
        for (size_t i = 0; i < file.size(); ++i) {
            Bytes b = file;
            b[i] = i % 2 ? 0xFF : b[i] ^ 0x5A;
            const Picture8 p = DecodeDib(b);
            // Whatever comes back is a picture of the size the frame declares.
            ASSERT_TRUE(p.dib.IsEmpty() || (p.dib.nOrigWidth == p.dib.nWidth &&
                                            p.dib.nStride * 8 >= p.dib.nWidth * p.dib.nBpp))
                << "byte " << i;
        }
    }
}

}  // namespace
