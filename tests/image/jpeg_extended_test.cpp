// The decoder of lossless and 12-bit JPEG frames: reference streams against the samples an
// independent decoder gave, lossless round trips through our own writer, the 8-bit output the
// viewer gets, the colour space markers choose, truncated streams and hostile headers.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
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
    const std::string path =
        std::string(root ? root : ".") + "/tests/image/data/jpeg_extended/" + name;
    Bytes out;
    if (FILE* f = std::fopen(path.c_str(), "rb")) {
        uint8_t buf[4096];
        size_t n;
        while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) out.insert(out.end(), buf, buf + n);
        std::fclose(f);
    }
    return out;
}

std::vector<uint16_t> ReadReference(const std::string& name) {
    const Bytes raw = ReadFixture(name);
    std::vector<uint16_t> s(raw.size() / 2);
    for (size_t i = 0; i < s.size(); ++i) s[i] = uint16_t(raw[2 * i] | (raw[2 * i + 1] << 8));
    return s;
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

// The 8-bit value the viewer shows for a sample of `precision` bits: shifted right with
// rounding and saturation above 8 bits, scaled to 0..255 below.
uint8_t To8(uint32_t v, int precision) {
    if (precision > 8) {
        const int s = precision - 8;
        return uint8_t(std::min<uint32_t>(255, (v + (1u << (s - 1))) >> s));
    }
    const uint32_t maxv = (1u << precision) - 1;
    return uint8_t((v * 255 + maxv / 2) / maxv);
}

// Pixel (x, y) of a 24-bit picture as R, G, B; of an 8-bit picture as its palette index.
std::vector<uint32_t> Pixel(const XDib& dib, uint32_t x, uint32_t y) {
    const uint8_t* p = dib.GetPixelPtr(x, y);
    if (dib.nBpp == 8) return {p[0]};
    return {p[2], p[1], p[0]};
}

// Where two sample sets first differ, for failure messages.
::testing::AssertionResult SameSamples(const std::vector<uint16_t>& got,
                                       const std::vector<uint16_t>& want, size_t count) {
    if (got.size() < count || want.size() < count)
        return ::testing::AssertionFailure() << "sizes " << got.size() << " and " << want.size();
    for (size_t i = 0; i < count; ++i)
        if (got[i] != want[i])
            return ::testing::AssertionFailure()
                   << "sample " << i << ": got " << got[i] << ", wanted " << want[i];
    return ::testing::AssertionSuccess();
}

size_t FindMarker(const Bytes& b, uint8_t marker) {
    for (size_t i = 0; i + 1 < b.size(); ++i)
        if (b[i] == 0xFF && b[i + 1] == marker) return i;
    return b.size();
}

TEST(JpegExtendedReference, MatchesTheIndependentDecoderSampleForSample) {
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
        const std::vector<uint16_t> ref = ReadReference(std::string(c.name) + ".ref");
        ASSERT_FALSE(file.empty());
        const size_t count = size_t(c.w) * c.h * c.channels;
        ASSERT_EQ(ref.size(), count);

        const Samples s = DecodeSamples(file);
        EXPECT_TRUE(s.whole);
        EXPECT_EQ(s.s.nWidth, c.w);
        EXPECT_EQ(s.s.nHeight, c.h);
        EXPECT_EQ(s.s.nChannels, c.channels);
        EXPECT_EQ(s.s.nPrecision, c.precision);
        EXPECT_TRUE(SameSamples(s.s.samples, ref, count));

        // What the viewer gets: the same samples at 8 bits, grey through a ramp, B G R.
        const Picture8 p = DecodeDib(file);
        ASSERT_TRUE(p.whole);
        EXPECT_EQ(p.dib.nBpp, c.channels == 1 ? 8u : 24u);
        EXPECT_EQ(p.dib.nOrigWidth, c.w);
        EXPECT_EQ(p.dib.nOrigHeight, c.h);
        EXPECT_EQ(p.dib.bReduced, 0u);
        uint32_t wrong = 0;
        for (uint32_t y = 0; y < c.h; ++y)
            for (uint32_t x = 0; x < c.w; ++x) {
                const std::vector<uint32_t> got = Pixel(p.dib, x, y);
                for (uint32_t k = 0; k < c.channels; ++k)
                    wrong += got[k] !=
                             To8(ref[(size_t(y) * c.w + x) * c.channels + k], int(c.precision));
            }
        EXPECT_EQ(wrong, 0u);

        // The ordinary load path hands these frames over from the libjpeg path, and a wish for
        // a reduced picture changes nothing.
        XAnimDib anim;
        CXDibMemIO io(file.data(), int64_t(file.size()));
        const XDibScaleRequest half{1, c.w / 2, c.h / 2};
        ASSERT_TRUE(anim.Load(io, nullptr, nullptr, &half));
        const XDib* loaded = anim.GetFrame(0);
        EXPECT_EQ(loaded->nFormat, uint32_t(FORMAT_JPEG));
        ASSERT_EQ(loaded->nWidth, c.w);
        ASSERT_EQ(loaded->nHeight, c.h);
        for (uint32_t y = 0; y < c.h; ++y)
            EXPECT_EQ(0, std::memcmp(loaded->GetRow(y), p.dib.GetRow(y),
                                     size_t(c.w) * p.dib.nBytesPerPixel));
    }
}

TEST(JpegExtendedLossless, EveryPredictorPrecisionPointTransformAndRestartRoundTrips) {
    const uint32_t w = 21, h = 9;
    // Restart intervals: none, a row, three rows, and one that ends inside a row.
    for (int precision : {2, 6, 8, 12, 16})
        for (int predictor = 1; predictor <= 7; ++predictor)
            for (int pt : {0, precision / 2})
                for (uint32_t restart : {0u, w, 3 * w, 5u}) {
                    SCOPED_TRACE(::testing::Message()
                                 << "precision " << precision << " predictor " << predictor
                                 << " point transform " << pt << " restart " << restart);
                    const LosslessSpec spec = GreySpec(w, h, precision, predictor, pt, restart);
                    const Samples s = DecodeSamples(WriteLossless(spec));
                    ASSERT_TRUE(s.whole);
                    std::vector<uint16_t> want = spec.comps[0].samples;
                    for (uint16_t& v : want) v = uint16_t((v >> pt) << pt);
                    ASSERT_TRUE(SameSamples(s.s.samples, want, want.size()));
                }
}

TEST(JpegExtendedLossless, SubsampledComponentsInOneScanAndInScansOfTheirOwn) {
    // R at 2x2, G at 1x1, B at 1x2 of a 19 x 13 picture: box upsampling, no colour transform.
    LosslessSpec spec;
    spec.width = 19, spec.height = 13, spec.precision = 10, spec.predictor = 4;
    spec.comps.push_back({'R', 2, 2, TestPlane(19, 13, 10, 1)});
    spec.comps.push_back({'G', 1, 1, TestPlane(10, 7, 10, 2)});
    spec.comps.push_back({'B', 1, 2, TestPlane(10, 13, 10, 3)});
    std::vector<uint16_t> want;
    for (uint32_t y = 0; y < 13; ++y)
        for (uint32_t x = 0; x < 19; ++x) {
            want.push_back(spec.comps[0].samples[y * 19 + x]);
            want.push_back(spec.comps[1].samples[(y / 2) * 10 + x / 2]);
            want.push_back(spec.comps[2].samples[y * 10 + x / 2]);
        }
    for (bool interleaved : {true, false})
        for (uint32_t restart : {0u, 10u, 7u}) {
            SCOPED_TRACE(::testing::Message()
                         << "interleaved " << interleaved << " restart " << restart);
            spec.interleaved = interleaved, spec.restartInterval = restart;
            const Samples s = DecodeSamples(WriteLossless(spec));
            ASSERT_TRUE(s.whole);
            ASSERT_EQ(s.s.nChannels, 3u);
            EXPECT_TRUE(SameSamples(s.s.samples, want, want.size()));
        }
}

TEST(JpegExtendedOutput, SamplesAreBroughtToEightBits) {
    struct Case {
        int precision;
        std::vector<uint16_t> samples;
        std::vector<uint8_t> shown;
    };
    const Case cases[] = {
        {2, {0, 1, 2, 3}, {0, 85, 170, 255}},
        {6, {0, 1, 32, 63}, {0, 4, 130, 255}},
        {8, {0, 1, 128, 255}, {0, 1, 128, 255}},
        // Above 8 bits: rounded to nearest, the top saturating instead of wrapping to 0.
        {12, {0, 7, 8, 2047, 4087, 4088, 4095}, {0, 0, 1, 128, 255, 255, 255}},
        {16, {0, 127, 128, 32768, 65407, 65535}, {0, 0, 1, 128, 255, 255}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.precision);
        LosslessSpec spec;
        spec.width = uint32_t(c.samples.size()), spec.height = 1;
        spec.precision = c.precision, spec.predictor = 1;
        spec.comps.push_back({1, 1, 1, c.samples});
        const Picture8 p = DecodeDib(WriteLossless(spec));
        ASSERT_TRUE(p.whole);
        ASSERT_EQ(p.dib.nBpp, 8u);
        for (size_t x = 0; x < c.shown.size(); ++x)
            EXPECT_EQ(p.dib.GetRow(0)[x], c.shown[x]) << "sample " << c.samples[x];
        // The grey ramp.
        const uint8_t* pal = p.dib.GetPalette();
        for (uint32_t i = 0; i < 256; i += 51)
            EXPECT_TRUE(pal[4 * i] == i && pal[4 * i + 1] == i && pal[4 * i + 2] == i);
    }
}

TEST(JpegExtendedOutput, ColourSpaceChosenFromMarkersAndComponentIds) {
    // Three components holding 200, 128, 128 read as R, G, B or as Y, Cb, Cr (neutral grey);
    // four holding 200, 100, 50, 255 read as CMYK, or as YCCK (Y 200, neutral chroma, K 255).
    struct Case {
        const char* what;
        ColourMarker marker;
        uint8_t transform;
        std::vector<uint8_t> ids;
        std::vector<uint32_t> rgb;
    };
    const Case cases[] = {
        {"JFIF means YCbCr", ColourMarker::kJfif, 0, {1, 2, 3}, {200, 200, 200}},
        {"JFIF wins over R G B ids", ColourMarker::kJfif, 0, {'R', 'G', 'B'}, {200, 200, 200}},
        {"Adobe transform 0 is RGB", ColourMarker::kAdobe, 0, {1, 2, 3}, {200, 128, 128}},
        {"Adobe transform 1 is YCbCr", ColourMarker::kAdobe, 1, {'R', 'G', 'B'}, {200, 200, 200}},
        {"ids R G B are RGB", ColourMarker::kNone, 0, {'R', 'G', 'B'}, {200, 128, 128}},
        {"no marker in a lossless frame is RGB",
         ColourMarker::kNone,
         0,
         {1, 2, 3},
         {200, 128, 128}},
        {"4 without Adobe is CMYK", ColourMarker::kNone, 0, {1, 2, 3, 4}, {199, 99, 49}},
        {"Adobe transform 0 on 4 is CMYK", ColourMarker::kAdobe, 0, {1, 2, 3, 4}, {199, 99, 49}},
        {"Adobe transform 2 on 4 is YCCK", ColourMarker::kAdobe, 2, {1, 2, 3, 4}, {54, 54, 54}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        LosslessSpec spec;
        spec.width = 4, spec.height = 2, spec.precision = 8, spec.predictor = 1;
        spec.marker = c.marker, spec.adobeTransform = c.transform;
        const uint16_t values[4] = {200, uint16_t(c.ids.size() == 4 ? 100 : 128),
                                    uint16_t(c.ids.size() == 4 ? 50 : 128), 255};
        const bool ycck = c.ids.size() == 4 && c.transform == 2;
        for (size_t k = 0; k < c.ids.size(); ++k) {
            const uint16_t v = ycck && (k == 1 || k == 2) ? 128 : values[k];
            spec.comps.push_back({c.ids[k], 1, 1, std::vector<uint16_t>(8, v)});
        }
        const Picture8 p = DecodeDib(WriteLossless(spec));
        ASSERT_TRUE(p.whole);
        ASSERT_EQ(p.dib.nBpp, 24u);
        EXPECT_EQ(Pixel(p.dib, 3, 1), c.rgb);
    }
}

TEST(JpegExtendedTruncation, StreamsCutShortKeepWhatWasDecoded) {
    struct Case {
        const char* name;
        double keep;   // fraction of the file kept
        bool allRows;  // every row decoded (a progressive frame cut between scans)
    };
    const Case cases[] = {
        {"ext12_ycc420_rst", 0.7, false},
        {"ext12_grey", 0.6, false},
        {"lossless16_p4", 0.5, false},
        {"prog12_ycc422", 0.8, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const Bytes file = ReadFixture(std::string(c.name) + ".jpg");
        const Samples full = DecodeSamples(file);
        ASSERT_TRUE(full.whole);
        const Bytes cut(file.begin(), file.begin() + ptrdiff_t(file.size() * c.keep));
        const Samples part = DecodeSamples(cut);
        EXPECT_FALSE(part.whole);
        const uint32_t w = full.s.nWidth, h = full.s.nHeight, ch = full.s.nChannels;
        const uint32_t valid = part.s.nValidRows;
        if (c.allRows) {
            EXPECT_EQ(valid, h);
        } else {
            EXPECT_GT(valid, 0u);
            EXPECT_LT(valid, h);
            // Rows above the cut as in the whole picture; the last one may differ where chroma
            // is interpolated from the band below. Below the cut: zero.
            const size_t rowSamples = size_t(w) * ch;
            const size_t same = (valid - 1) * rowSamples;
            EXPECT_TRUE(SameSamples(part.s.samples, full.s.samples, same));
            for (size_t i = valid * rowSamples; i < part.s.samples.size(); ++i)
                ASSERT_EQ(part.s.samples[i], 0) << "sample " << i;
        }
        // The viewer gets a picture with the rest cleared.
        const Picture8 p = DecodeDib(cut);
        EXPECT_FALSE(p.whole);
        ASSERT_FALSE(p.dib.IsEmpty());
        for (uint32_t y = valid; y < h; ++y)
            for (uint32_t x = 0; x < p.dib.nStride; ++x) ASSERT_EQ(p.dib.GetRow(y)[x], 0);
    }
    // Cut before the first scan: no picture at all.
    const Bytes file = ReadFixture("ext12_grey.jpg");
    const Picture8 p =
        DecodeDib(Bytes(file.begin(), file.begin() + ptrdiff_t(FindMarker(file, 0xDA))));
    EXPECT_FALSE(p.whole);
    EXPECT_TRUE(p.dib.IsEmpty());
}

TEST(JpegExtendedHostile, HeadersAndTablesThatLieFailWithoutAPicture) {
    const Bytes lossless = WriteLossless(GreySpec(16, 8, 12, 1));
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
        {"frame 65535 x 65535 in a file of a few hundred bytes",
         &lossless,
         0xC3,
         5,
         {0xFF, 0xFF, 0xFF, 0xFF}},
        {"width 0", &lossless, 0xC3, 7, {0, 0}},
        {"sampling factor 0", &lossless, 0xC3, 11, {0x01}},
        {"sampling factor 5", &lossless, 0xC3, 11, {0x51}},
        {"quantisation table 4", &lossless, 0xC3, 12, {4}},
        {"arithmetic coding (SOF11)", &lossless, 0xC3, 1, {0xCB}},
        {"hierarchical frame (SOF7)", &lossless, 0xC3, 1, {0xC7}},
        // DHT: FF C4, length, class/id, 16 counts.
        {"Huffman codes over-filling length 1", &lossless, 0xC4, 5, {3}},
        {"Huffman table id 4", &lossless, 0xC4, 4, {0x04}},
        {"scan with an undefined Huffman table", &lossless, 0xDA, 6, {0x20}},
        // SOS: FF DA, length, Ns, (Cs, Td/Ta), Ss, Se, Ah/Al.
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
    // Empty and tiny inputs.
    for (size_t n : {0, 1, 2, 3})
        EXPECT_FALSE(DecodeDib(Bytes(lossless.begin(), lossless.begin() + ptrdiff_t(n))).whole);
}

TEST(JpegExtendedHostile, EveryByteCorruptedInTurnDecodesOrFailsSafely) {
    LosslessSpec restarts = GreySpec(12, 6, 16, 5, 1, 5);
    const Bytes files[] = {WriteLossless(restarts), ReadFixture("prog12_grey.jpg"),
                           ReadFixture("ext12_ycc420_rst.jpg")};
    for (const Bytes& file : files) {
        ASSERT_FALSE(file.empty());
        for (size_t i = 0; i < file.size(); ++i)
            for (uint8_t value : {uint8_t(0xFF), uint8_t(file[i] ^ 0x5A)}) {
                Bytes b = file;
                b[i] = value;
                const Picture8 p = DecodeDib(b);
                if (p.dib.IsEmpty()) continue;
                // Whatever comes back is a picture of the size the frame declares.
                ASSERT_LE(p.dib.nWidth, 65535u) << "byte " << i;
                ASSERT_EQ(p.dib.nOrigWidth, p.dib.nWidth) << "byte " << i;
                ASSERT_GE(p.dib.nStride * 8, p.dib.nWidth * p.dib.nBpp) << "byte " << i;
            }
    }
}

}  // namespace
