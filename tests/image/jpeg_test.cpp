// The JPEG decoder: reduced decoding and its rounding, output forms, CMYK, partial pictures,
// hostile files. The oracle is TurboJPEG's own decode of the same file at the same scale.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <thread>

#include "image/colorman.h"
#include "image/decoders.h"
#include "image/exifinfo.h"
#include "image/jpegmeta.h"
#include "image/xdib.h"
#include "image/xdibio.h"
#include "jpeg_fixtures.h"
#include "platform/files.h"

using jpegfix::Bytes;

namespace {

// A source that only streams, as a file does: the library reads it through the decoder's
// buffer (a memory source is handed over whole).
class StreamIO final : public IXDibIO {
public:
    explicit StreamIO(const Bytes& b) : memory(b.data(), int64_t(b.size())) {}
    bool Read(void* buffer, uint32_t count) override { return memory.Read(buffer, count); }
    bool Write(const void*, uint32_t) override { return false; }
    int64_t Seek(int64_t offset, int origin) override { return memory.Seek(offset, origin); }
    int64_t Tell() override { return memory.Tell(); }
    int64_t GetSize() override { return memory.GetSize(); }

private:
    CXDibMemIO memory;
};

struct Decoded {
    bool whole = false;
    XDib dib;
};

Decoded Decode(const Bytes& jpeg, const XDibScaleRequest* request = nullptr, bool stream = false,
               XColorMan* colorMan = nullptr, CJPEGMetaData* meta = nullptr) {
    Decoded d;
    d.dib.pColorMan = colorMan;
    CXDibMemIO memory(jpeg.data(), int64_t(jpeg.size()));
    StreamIO streamed(jpeg);
    d.whole = DecodeJpeg(d.dib, stream ? static_cast<IXDibIO&>(streamed) : memory, meta, request);
    return d;
}

// The first `rows` rows of `dib` equal the reference's first `dib.nWidth` columns (the library
// rounds the width up where we cut it, so its rows may be one pixel wider).
bool SameAsReference(const XDib& dib, const jpegfix::Reference& ref, uint32_t rows = ~0u) {
    const size_t bytes = dib.nBytesPerPixel, width = size_t(ref.width);
    if (dib.IsEmpty() || dib.nHeight != uint32_t(ref.height) || width - dib.nWidth > 1)
        return false;
    for (uint32_t y = 0; y < std::min(rows, dib.nHeight); ++y)
        if (std::memcmp(dib.GetRow(y), &ref.pixels[y * width * bytes], dib.nWidth * bytes) != 0)
            return false;
    return true;
}

Bytes Bgr(uint32_t w, uint32_t h, const jpegfix::TjOptions& o = {}) {
    return jpegfix::EncodeTj(jpegfix::DrawPixels(w, h, 3), w, h, TJPF_BGR, o);
}

// The frame header turned into another process (SOF0 -> SOF1, ...) unless `marker` is 0, and
// claiming another size when one is given.
Bytes WithFrame(Bytes jpeg, uint8_t marker, uint32_t w = 0, uint32_t h = 0) {
    const size_t at = std::max(jpegfix::FindSegment(jpeg, 0xC0), jpegfix::FindSegment(jpeg, 0xC2));
    if (marker) jpeg[at + 1] = marker;
    if (w || h) jpeg[at + 5] = uint8_t(h >> 8), jpeg[at + 6] = uint8_t(h);
    if (w || h) jpeg[at + 7] = uint8_t(w >> 8), jpeg[at + 8] = uint8_t(w);
    return jpeg;
}

}  // namespace

// The divisor a request gives, the width cut and the height rounded up, and the picture equal
// to the library's decode at that scale for each sampling (grey with a ramp), from memory and
// from a stream.
TEST(JpegScale, ChoiceRoundingAndPixelsFollowTheRequest) {
    constexpr int kProgressive = -1, kExtended = -2, kArithmetic = -3;
    struct Case {
        int form;  // a TurboJPEG sampling of a baseline file, or one of the above
        uint32_t w, h;
        XDibScaleRequest request;
        uint32_t s, outW, outH;
    };
    const Case cases[] = {
        {TJSAMP_420, 1600, 1200, {1, 100, 100}, 8, 200, 150},
        {TJSAMP_420, 4000, 64, {1, 1000, 0}, 4, 1000, 16},  // by the width alone
        {TJSAMP_420, 1001, 1001, {1, 500, 0}, 2, 500, 501},
        {TJSAMP_420, 640, 480, {1, 0, 120}, 4, 160, 120},    // by the height alone
        {TJSAMP_420, 3, 4000, {1, 0, 100}, 8, 1, 500},       // at least one column
        {TJSAMP_420, 640, 480, {0, 100, 100}, 1, 640, 480},  // disabled
        {TJSAMP_422, 333, 251, {1, 166, 0}, 2, 166, 126},
        {TJSAMP_440, 333, 251, {1, 41, 0}, 8, 41, 32},
        {TJSAMP_422, 9, 17, {1, 1, 0}, 8, 1, 3},
        {TJSAMP_GRAY, 333, 251, {1, 83, 0}, 4, 83, 63},
        {TJSAMP_GRAY, 9, 17, {1, 9, 0}, 1, 9, 17},
        {kProgressive, 800, 600, {1, 100, 0}, 8, 100, 75},
        {kExtended, 800, 600, {1, 100, 100}, 1, 800, 600},  // only baseline and progressive
        {kArithmetic, 800, 600, {1, 100, 100}, 1, 800, 600},
    };
    for (const Case& c : cases) {
        const TJPF format = c.form == TJSAMP_GRAY ? TJPF_GRAY : TJPF_BGR;
        const Bytes pixels = jpegfix::DrawPixels(c.w, c.h, format == TJPF_GRAY ? 1 : 3);
        const Bytes file =
            c.form == kArithmetic ? jpegfix::EncodeLib(pixels, c.w, c.h, {.arithmetic = true})
            : c.form == kExtended ? WithFrame(Bgr(c.w, c.h), 0xC1)
                                  : jpegfix::EncodeTj(pixels, c.w, c.h, format,
                                                      {.subsamp = std::max(c.form, 0),
                                                       .progressive = c.form == kProgressive});
        const jpegfix::Reference reference = jpegfix::DecodeTj(file, int(c.s), format);
        auto check = [&](bool stream) {
            SCOPED_TRACE(::testing::Message()
                         << "case " << &c - cases << (stream ? " stream" : ""));
            const Decoded d = Decode(file, &c.request, stream);
            ASSERT_TRUE(d.whole);
            EXPECT_EQ(d.dib.nWidth, c.outW);
            EXPECT_EQ(d.dib.nHeight, c.outH);
            EXPECT_EQ(d.dib.bReduced, c.s > 1 ? 1u : 0u);
            EXPECT_EQ(d.dib.nOrigWidth, c.w);
            EXPECT_EQ(d.dib.nOrigHeight, c.h);
            EXPECT_TRUE(SameAsReference(d.dib, reference));
            for (uint32_t i = 0; format == TJPF_GRAY && i < 256; ++i)
                ASSERT_EQ(Bytes(d.dib.GetPalette() + 4 * i, d.dib.GetPalette() + 4 * i + 3),
                          Bytes(3, uint8_t(i)));
        };
        // Both sources at once: each thread has a decompressor of its own.
        std::thread other(check, true);
        check(false);
        other.join();
    }
}

// CMYK, stored plainly or as YCCK, becomes 24 bits: through the profiles when the colour
// manager is open, by (c * k + 1) >> 8 otherwise (also with a manager that failed to open).
TEST(JpegCmyk, BecomesBgrWithAndWithoutTheProfiles) {
    XColorMan open, closed;
    const std::string icm = platform::GetProgramFolder() + "/";
    ASSERT_TRUE(open.Open(icm + kCmykProfileName, icm + kSrgbProfileName));
    EXPECT_FALSE(closed.Open(icm + "icm/missing.icc", icm + kSrgbProfileName));
    const uint32_t w = 45, h = 21;
    const Bytes ink = jpegfix::DrawPixels(w, h, 4);
    const Bytes files[] = {
        jpegfix::EncodeTj(ink, w, h, TJPF_CMYK, {.subsamp = TJSAMP_444}),
        jpegfix::EncodeLib(ink, w, h, {.components = 4, .in = JCS_CMYK, .stored = JCS_CMYK}),
    };
    for (const Bytes& file : files)
        for (uint32_t s : {1u, 2u}) {
            SCOPED_TRACE(::testing::Message() << (&file == files ? "YCCK" : "CMYK") << " 1/" << s);
            const jpegfix::Reference cmyk = jpegfix::DecodeTj(file, int(s), TJPF_CMYK);
            const XDibScaleRequest request{1, w / s, 0};
            const Decoded plain = Decode(file, &request);
            const Decoded failed = Decode(file, &request, false, &closed);
            const Decoded managed = Decode(file, &request, false, &open);
            for (const Decoded* d : {&plain, &failed, &managed})
                ASSERT_TRUE(d->whole && d->dib.nBpp == 24 && d->dib.nWidth == w / s &&
                            d->dib.nHeight == uint32_t(cmyk.height));
            Bytes profiled(size_t(cmyk.width) * 3);
            for (uint32_t y = 0; y < plain.dib.nHeight; ++y) {
                const uint8_t* src = &cmyk.pixels[size_t(y) * cmyk.width * 4];
                open.TranslateCmykRow(src, profiled.data(), uint32_t(cmyk.width), 3);
                ASSERT_EQ(0, std::memcmp(managed.dib.GetRow(y), profiled.data(), w / s * 3)) << y;
                ASSERT_EQ(0, std::memcmp(failed.dib.GetRow(y), plain.dib.GetRow(y), w / s * 3));
                for (uint32_t x = 0; x < w / s * 3; ++x)
                    ASSERT_EQ(plain.dib.GetRow(y)[x],
                              (src[x / 3 * 4 + 2 - x % 3] * src[x / 3 * 4 + 3] + 1) >> 8)
                        << x / 3 << "," << y;
            }
        }
}

// A file that ends early: inside a sequential scan it gives the rows decoded so far and blank
// rows below; inside a progressive file every row, from the scans that arrived; inside the
// header nothing. A missing EOI alone, or junk behind it, costs nothing.
TEST(JpegTruncated, PartialPicturesAndWholeOnes) {
    const Bytes baseline = Bgr(160, 480), progressive = Bgr(160, 480, {.progressive = true});
    const jpegfix::Reference full = jpegfix::DecodeTj(baseline, 1, TJPF_BGR);
    auto half = [](const Bytes& b) { return Bytes(b.begin(), b.begin() + b.size() / 2); };
    auto blank = [](const XDib& dib, uint32_t y) {
        return std::all_of(dib.GetRow(y), dib.GetRow(y) + dib.nWidth * 3,
                           [](uint8_t b) { return b == 0; });
    };
    for (bool stream : {false, true}) {
        SCOPED_TRACE(stream ? "stream" : "memory");
        const Decoded cut = Decode(half(baseline), nullptr, stream);
        EXPECT_FALSE(cut.whole);
        EXPECT_TRUE(SameAsReference(cut.dib, full, 64)) << "the top rows are there";
        EXPECT_TRUE(blank(cut.dib, cut.dib.nHeight - 1)) << "rows never decoded are blank";

        const Decoded blurred = Decode(half(progressive), nullptr, stream);
        EXPECT_FALSE(blurred.whole);
        ASSERT_FALSE(blurred.dib.IsEmpty());
        EXPECT_FALSE(blank(blurred.dib, blurred.dib.nHeight - 1)) << "early scans cover it all";

        const Decoded none =
            Decode(Bytes(baseline.begin(), baseline.begin() + 100), nullptr, stream);
        EXPECT_TRUE(!none.whole && none.dib.IsEmpty());
        for (const Bytes& whole : {Bytes(baseline.begin(), baseline.end() - 2),
                                   jpegfix::Cat(baseline, Bytes(3000, 0x55))}) {
            const Decoded d = Decode(whole, nullptr, stream);
            EXPECT_TRUE(d.whole && SameAsReference(d.dib, full));
        }
    }
}

// Frames claiming more than the file can hold, processes the library path doesn't take, and
// endless progressive scans: refused without a picture.
TEST(JpegHostile, LiesAreRefused) {
    const Bytes small = Bgr(64, 48), progressive = Bgr(64, 48, {.progressive = true});
    // The last scan of the progressive file repeated: each repetition is one more pass.
    auto withScans = [&](int extra) {
        Bytes b(progressive.begin(), progressive.end() - 2), scan;  // without its EOI
        size_t last = b.size() - 2;  // FF DA can't occur in coded data, where 0xFF is stuffed
        while (b[last] != 0xFF || b[last + 1] != 0xDA) --last;
        for (int i = 0; i < extra; ++i) scan.insert(scan.end(), b.begin() + last, b.end());
        return jpegfix::Cat(jpegfix::Cat(b, scan), {0xFF, 0xD9});
    };
    const std::pair<Bytes, bool> cases[] = {
        // 768 MB of picture would fit the storage cap; 2.6 KB can't code 6 million blocks.
        {WithFrame(small, 0, 16000, 16000), false},
        // A sequential file may be cut short and show its top; a progressive one must hold
        // its first scan, as every coefficient is kept before the first row.
        {WithFrame(small, 0, 2000, 2000), true},
        {WithFrame(progressive, 0, 2000, 2000), false},
        {WithFrame(small, 0xCB), false},  // arithmetic lossless
        {withScans(600), false},
        {withScans(40), true},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE(i);
        const auto& [file, picture] = cases[i];
        const Decoded d = Decode(file);
        EXPECT_EQ(!d.dib.IsEmpty(), picture);
        EXPECT_TRUE(picture || !d.whole);
    }
}

// The metadata pass runs ahead of the decode on the same source and puts it back; a pass that
// fails on the sections behind the EXIF block doesn't stop the decode.
TEST(JpegMeta, FilledOnTheWayAndNeverInTheWay) {
    const Bytes plain = Bgr(96, 64), exif = jpegfix::ExifBuilder(false).Short(274, 6).Build(true);
    Bytes file = plain;
    for (int i = 0; i < 21; ++i) file = jpegfix::Insert(file, jpegfix::Segment(0xE2, {1}));
    ExifInfo info;
    CJPEGMetaData meta(&info);
    const Decoded d =
        Decode(jpegfix::Insert(file, jpegfix::Segment(0xE1, exif)), nullptr, false, nullptr, &meta);
    EXPECT_TRUE(d.whole && SameAsReference(d.dib, jpegfix::DecodeTj(plain, 1, TJPF_BGR)));
    EXPECT_EQ(info.nOrientation, 6);
    EXPECT_EQ(meta.GetError(), "Too many sections in jpg file");
}
