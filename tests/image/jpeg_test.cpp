// The JPEG decoder: reduced decoding and its rounding, output forms, CMYK, partial pictures,
// hostile files. The oracle is TurboJPEG's own decode of the same file at the same scale.
#include <gtest/gtest.h>

#include <cstring>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "image/colorman.h"
#include "image/decoders.h"
#include "image/exifinfo.h"
#include "image/jpegmeta.h"
#include "image/xanimdib.h"
#include "image/xdib.h"
#include "image/xdibio.h"
#include "image_test_util.h"
#include "jpeg_fixtures.h"
#include "platform/files.h"

using jpegfix::Bytes;

namespace {

// A source that only streams, as a file does: the decoder must read it through its buffer
// (a memory source is handed to the library whole).
class StreamIO final : public IXDibIO {
public:
    explicit StreamIO(const Bytes& b) : bytes(b) {}
    bool Read(void* buffer, uint32_t count) override {
        if (count > bytes.size() - pos) return false;
        std::memcpy(buffer, bytes.data() + pos, count);
        pos += count;
        return true;
    }
    bool Write(const void*, uint32_t) override { return false; }
    int64_t Seek(int64_t offset, int origin) override {
        const int64_t base = origin == 0 ? 0 : origin == 1 ? int64_t(pos) : int64_t(bytes.size());
        const int64_t at = origin == 2 ? base - offset : base + offset;
        pos = size_t(std::clamp<int64_t>(at, 0, int64_t(bytes.size())));
        return int64_t(pos);
    }
    int64_t Tell() override { return int64_t(pos); }
    int64_t GetSize() override { return int64_t(bytes.size()); }

private:
    const Bytes& bytes;
    size_t pos = 0;
};

enum class Via { kMemory, kStream };

struct Decoded {
    bool whole = false;
    XDib dib;
};

Decoded DecodeBytes(const Bytes& jpeg, const XDibScaleRequest* request = nullptr,
                    CJPEGMetaData* meta = nullptr, XColorMan* colorMan = nullptr,
                    Via via = Via::kMemory) {
    Decoded d;
    d.dib.pColorMan = colorMan;
    CXDibMemIO memory(jpeg.data(), int64_t(jpeg.size()));
    StreamIO stream(jpeg);
    IXDibIO& source = via == Via::kMemory ? static_cast<IXDibIO&>(memory) : stream;
    d.whole = DecodeJpeg(d.dib, source, meta, request);
    return d;
}

// Every pixel of `dib` against the reference's first `dib.nWidth` columns (the reference is
// the library's decode, whose rows may be one pixel wider).
::testing::AssertionResult SameAsReference(const XDib& dib, const jpegfix::Reference& ref,
                                           uint32_t rows = 0xFFFFFFFF) {
    if (dib.IsEmpty() || ref.pixels.empty())
        return ::testing::AssertionFailure() << "no picture or no reference";
    const uint32_t bytes = dib.nBytesPerPixel;
    if (dib.nHeight != uint32_t(ref.height) ||
        (dib.nWidth != uint32_t(ref.width) && dib.nWidth + 1 != uint32_t(ref.width)))
        return ::testing::AssertionFailure() << "size " << dib.nWidth << "x" << dib.nHeight
                                             << " against " << ref.width << "x" << ref.height;
    for (uint32_t y = 0; y < std::min(rows, dib.nHeight); ++y) {
        const uint8_t* want = ref.pixels.data() + size_t(y) * ref.width * bytes;
        if (std::memcmp(dib.GetRow(y), want, size_t(dib.nWidth) * bytes) != 0)
            return ::testing::AssertionFailure() << "row " << y << " differs";
    }
    return ::testing::AssertionSuccess();
}

Bytes Bgr(uint32_t w, uint32_t h, const jpegfix::TjOptions& o = {}) {
    return jpegfix::EncodeTj(jpegfix::DrawPixels(w, h, 3), w, h, TJPF_BGR, o);
}

// The first frame header turned into another process (same layout: SOF0 -> SOF1, SOF7, ...).
Bytes WithFrameMarker(Bytes jpeg, uint8_t marker) {
    const size_t at = jpegfix::FindSegment(jpeg, 0xC0);
    if (at) jpeg[at + 1] = marker;
    return jpeg;
}

// Frame header fields: precision at +4, height at +5, width at +7.
Bytes WithFrameSize(Bytes jpeg, uint32_t w, uint32_t h) {
    size_t at = jpegfix::FindSegment(jpeg, 0xC0);
    if (!at) at = jpegfix::FindSegment(jpeg, 0xC2);
    jpeg[at + 5] = uint8_t(h >> 8), jpeg[at + 6] = uint8_t(h);
    jpeg[at + 7] = uint8_t(w >> 8), jpeg[at + 8] = uint8_t(w);
    return jpeg;
}

std::string Profile(const char* name) {
    return platform::GetProgramFolder() + "/" + name;
}

}  // namespace

TEST(JpegScale, ChoiceAndRoundingFollowTheRequest) {
    enum Kind { kBaseline, kProgressive, kExtended, kArithmetic };
    struct Case {
        const char* what;
        Kind kind;
        uint32_t w, h;
        XDibScaleRequest request;
        uint32_t s;  // expected divisor
        uint32_t outW, outH;
    };
    const Case cases[] = {
        {"100x100 on 1600x1200 gives 1/8", kBaseline, 1600, 1200, {1, 100, 100}, 8, 200, 150},
        {"a width of 1000 alone on 4000 gives 1/4", kBaseline, 4000, 64, {1, 1000, 0}, 4, 1000, 16},
        {"1001 at 1/2: width cut, height rounded up",
         kBaseline,
         1001,
         1001,
         {1, 500, 0},
         2,
         500,
         501},
        {"a height alone", kBaseline, 640, 480, {1, 0, 120}, 4, 160, 120},
        {"a picture narrower than 1/8 keeps one column",
         kBaseline,
         3,
         4000,
         {1, 0, 100},
         8,
         1,
         500},
        {"a disabled request", kBaseline, 1600, 1200, {0, 100, 100}, 1, 1600, 1200},
        {"a request without a target", kBaseline, 1600, 1200, {1, 0, 0}, 1, 1600, 1200},
        {"progressive files are reduced", kProgressive, 1600, 1200, {1, 100, 100}, 8, 200, 150},
        {"extended sequential files are not", kExtended, 1600, 1200, {1, 100, 100}, 1, 1600, 1200},
        {"arithmetic-coded files are not", kArithmetic, 800, 600, {1, 100, 100}, 1, 800, 600},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Bytes file;
        switch (c.kind) {
            case kBaseline:
                file = Bgr(c.w, c.h);
                break;
            case kProgressive:
                file = Bgr(c.w, c.h, {.progressive = true});
                break;
            case kExtended:
                file = WithFrameMarker(Bgr(c.w, c.h), 0xC1);
                break;
            case kArithmetic:
                file = jpegfix::EncodeLib(jpegfix::DrawPixels(c.w, c.h, 3), c.w, c.h,
                                          {.arithmetic = true});
                break;
        }
        ASSERT_FALSE(file.empty());
        const jpegfix::Reference reference = jpegfix::DecodeTj(file, int(c.s), TJPF_BGR);
        for (Via via : {Via::kMemory, Via::kStream}) {
            const Decoded d = DecodeBytes(file, &c.request, nullptr, nullptr, via);
            ASSERT_TRUE(d.whole);
            EXPECT_EQ(d.dib.nWidth, c.outW);
            EXPECT_EQ(d.dib.nHeight, c.outH);
            EXPECT_EQ(d.dib.nBpp, 24u);
            EXPECT_EQ(d.dib.bReduced, c.s > 1 ? 1u : 0u);
            EXPECT_EQ(d.dib.nOrigWidth, c.w);
            EXPECT_EQ(d.dib.nOrigHeight, c.h);
            EXPECT_TRUE(SameAsReference(d.dib, reference));
        }
    }
}

// Every sampling, odd sizes, every scale: the rows written one pixel wide into the picture
// must leave no trace, and the picture must be the library's decode, pixel for pixel.
TEST(JpegDecode, MatchesTheLibraryForEverySamplingSizeAndScale) {
    struct Form {
        const char* what;
        TJPF format;
        int subsamp;
    };
    const Form forms[] = {{"4:2:0", TJPF_BGR, TJSAMP_420},
                          {"4:2:2", TJPF_BGR, TJSAMP_422},
                          {"4:4:4", TJPF_BGR, TJSAMP_444},
                          {"4:4:0", TJPF_BGR, TJSAMP_440},
                          {"grey", TJPF_GRAY, TJSAMP_GRAY}};
    const uint32_t sizes[][2] = {{333, 251}, {17, 9}, {9, 17}, {64, 64}, {8, 8}};
    for (const Form& f : forms)
        for (const auto& size : sizes)
            for (uint32_t s : {1u, 2u, 4u, 8u}) {
                const uint32_t w = size[0], h = size[1];
                SCOPED_TRACE(::testing::Message() << f.what << " " << w << "x" << h << " 1/" << s);
                const uint32_t channels = f.format == TJPF_GRAY ? 1 : 3;
                const Bytes file = jpegfix::EncodeTj(jpegfix::DrawPixels(w, h, channels, s), w, h,
                                                     f.format, {.subsamp = f.subsamp});
                const XDibScaleRequest request{1, std::max(1u, w / s), 0};
                const Decoded d = DecodeBytes(file, s > 1 ? &request : nullptr);
                ASSERT_TRUE(d.whole);
                EXPECT_EQ(d.dib.nWidth, w / s);
                EXPECT_EQ(d.dib.nHeight, (h + s - 1) / s);
                EXPECT_EQ(d.dib.nBpp, channels * 8);
                EXPECT_TRUE(SameAsReference(d.dib, jpegfix::DecodeTj(file, int(s), f.format)));
                if (channels == 1) {
                    ASSERT_EQ(d.dib.nPaletteCount, 256u);
                    const uint8_t* quads = d.dib.GetPalette();
                    for (uint32_t i = 0; i < 256; ++i)
                        ASSERT_TRUE(quads[4 * i] == i && quads[4 * i + 1] == i &&
                                    quads[4 * i + 2] == i)
                            << "grey ramp entry " << i;
                }
            }
}

// A CMYK file, stored plainly or as YCCK, becomes 24 bits: through the profiles when the
// colour manager is open, by (c * k + 1) >> 8 otherwise (also with a manager that failed).
TEST(JpegCmyk, BecomesBgrWithAndWithoutTheProfiles) {
    XColorMan open, closed;
    ASSERT_TRUE(open.Open(Profile(kCmykProfileName), Profile(kSrgbProfileName)));
    EXPECT_FALSE(closed.Open(Profile("icm/missing.icc"), Profile(kSrgbProfileName)));
    const uint32_t w = 45, h = 21;
    const Bytes ink = jpegfix::DrawPixels(w, h, 4);
    struct File {
        const char* what;
        Bytes bytes;
    };
    const File files[] = {
        {"YCCK", jpegfix::EncodeTj(ink, w, h, TJPF_CMYK, {.subsamp = TJSAMP_444})},
        {"plain CMYK",
         jpegfix::EncodeLib(ink, w, h, {.components = 4, .in = JCS_CMYK, .stored = JCS_CMYK})},
    };
    for (const File& f : files)
        for (uint32_t s : {1u, 2u}) {
            SCOPED_TRACE(::testing::Message() << f.what << " 1/" << s);
            const jpegfix::Reference cmyk = jpegfix::DecodeTj(f.bytes, int(s), TJPF_CMYK);
            ASSERT_FALSE(cmyk.pixels.empty());
            const XDibScaleRequest request{1, w / s, 0};
            const Decoded plain = DecodeBytes(f.bytes, &request);
            const Decoded failed = DecodeBytes(f.bytes, &request, nullptr, &closed);
            const Decoded managed = DecodeBytes(f.bytes, &request, nullptr, &open);
            for (const Decoded* d : {&plain, &failed, &managed}) {
                ASSERT_TRUE(d->whole);
                ASSERT_EQ(d->dib.nBpp, 24u);
                ASSERT_EQ(d->dib.nWidth, w / s);
                ASSERT_EQ(d->dib.nHeight, (h + s - 1) / s);
            }
            std::vector<uint8_t> profiled(size_t(cmyk.width) * 3);
            for (uint32_t y = 0; y < plain.dib.nHeight; ++y) {
                const uint8_t* src = cmyk.pixels.data() + size_t(y) * cmyk.width * 4;
                open.TranslateCmykRow(src, profiled.data(), uint32_t(cmyk.width), 3);
                ASSERT_EQ(0,
                          std::memcmp(managed.dib.GetRow(y), profiled.data(), plain.dib.nWidth * 3))
                    << "profiled row " << y;
                ASSERT_EQ(0, std::memcmp(failed.dib.GetRow(y), plain.dib.GetRow(y),
                                         plain.dib.nWidth * 3));
                for (uint32_t x = 0; x < plain.dib.nWidth; ++x) {
                    const uint8_t* p = src + 4 * x;
                    const uint8_t* got = plain.dib.GetRow(y) + 3 * x;
                    const uint32_t k = p[3];
                    ASSERT_EQ(got[2], (p[0] * k + 1) >> 8) << x << "," << y;
                    ASSERT_EQ(got[1], (p[1] * k + 1) >> 8) << x << "," << y;
                    ASSERT_EQ(got[0], (p[2] * k + 1) >> 8) << x << "," << y;
                }
            }
        }
}

// A file that ends early: inside a sequential scan it gives the rows decoded so far and blank
// rows below; inside a progressive file every row, from the scans that arrived; inside the
// header nothing. A missing EOI alone, or junk behind it, costs nothing.
TEST(JpegTruncated, PartialPicturesAndWholeOnes) {
    const Bytes baseline = Bgr(160, 480);
    const Bytes progressive = Bgr(160, 480, {.progressive = true});
    const jpegfix::Reference full = jpegfix::DecodeTj(baseline, 1, TJPF_BGR);
    Bytes withJunk = baseline;
    withJunk.insert(withJunk.end(), 3000, 0x55);
    const Bytes halfBaseline(baseline.begin(), baseline.begin() + baseline.size() / 2);
    const Bytes halfProgressive(progressive.begin(), progressive.begin() + progressive.size() / 2);
    auto blank = [](const XDib& dib, uint32_t y) {
        const uint8_t* row = dib.GetRow(y);
        return std::all_of(row, row + dib.nWidth * 3, [](uint8_t b) { return b == 0; });
    };

    for (Via via : {Via::kMemory, Via::kStream}) {
        SCOPED_TRACE(via == Via::kMemory ? "memory" : "stream");
        const Decoded half = DecodeBytes(halfBaseline, nullptr, nullptr, nullptr, via);
        EXPECT_FALSE(half.whole);
        ASSERT_FALSE(half.dib.IsEmpty());
        EXPECT_TRUE(SameAsReference(half.dib, full, 64)) << "the top rows are there";
        EXPECT_TRUE(blank(half.dib, half.dib.nHeight - 1)) << "rows never decoded are blank";

        const Decoded blurred = DecodeBytes(halfProgressive, nullptr, nullptr, nullptr, via);
        EXPECT_FALSE(blurred.whole);
        ASSERT_FALSE(blurred.dib.IsEmpty());
        EXPECT_FALSE(blank(blurred.dib, blurred.dib.nHeight - 1))
            << "the early scans cover the whole picture";

        const Bytes header(baseline.begin(), baseline.begin() + 100);
        const Decoded none = DecodeBytes(header, nullptr, nullptr, nullptr, via);
        EXPECT_FALSE(none.whole);
        EXPECT_TRUE(none.dib.IsEmpty());

        for (const Bytes& whole : {Bytes(baseline.begin(), baseline.end() - 2), withJunk}) {
            const Decoded d = DecodeBytes(whole, nullptr, nullptr, nullptr, via);
            EXPECT_TRUE(d.whole);
            EXPECT_TRUE(SameAsReference(d.dib, full));
        }
    }

    // Through the load path a partial picture is a picture without a format.
    const Bytes& cut = halfBaseline;
    XDib dib;
    EXPECT_FALSE(dib.LoadFromMemory(cut.data(), cut.size()));
    EXPECT_FALSE(dib.IsEmpty());
    EXPECT_EQ(dib.nFormat, 0u);
    XAnimDib anim;
    CXDibMemIO source(cut.data(), int64_t(cut.size()));
    EXPECT_TRUE(anim.Load(source));
    EXPECT_EQ(anim.GetFrameCount(), 1u);
}

// Files that lie or that the decoder doesn't take: refused without a picture, or survived.
TEST(JpegHostile, LiesAreRefusedAndDamageIsSurvived) {
    const Bytes small = Bgr(64, 48);
    const Bytes progressive = Bgr(64, 48, {.progressive = true});
    // The last scan of a progressive file repeated: each repetition is one more pass.
    auto withScans = [&](int extra) {
        Bytes b(progressive.begin(), progressive.end() - 2);  // without its EOI
        size_t last = 0;  // 0xFF 0xDA can't occur inside coded data, where 0xFF is stuffed
        for (size_t i = b.size() - 2; i > 2 && !last; --i)
            if (b[i] == 0xFF && b[i + 1] == 0xDA) last = i;
        const Bytes scan(b.begin() + std::ptrdiff_t(last), b.end());
        for (int i = 0; i < extra; ++i) b.insert(b.end(), scan.begin(), scan.end());
        b.insert(b.end(), {0xFF, 0xD9});
        return b;
    };
    struct Case {
        const char* what;
        Bytes file;
        bool picture;
    };
    const Case cases[] = {
        {"65000 x 65000 claimed by a small file", WithFrameSize(small, 65000, 65000), false},
        // 768 MB of picture would fit the storage cap; 2.6 KB can't code 6 million blocks.
        {"16000 x 16000 claimed by a small file", WithFrameSize(small, 16000, 16000), false},
        // A sequential file may be cut short and show its top; a progressive one must hold
        // its first scan, as every coefficient is kept before the first row.
        {"a sequential 2000 x 2000 in 2.6 KB", WithFrameSize(small, 2000, 2000), true},
        {"a progressive 2000 x 2000 in 2.4 KB", WithFrameSize(progressive, 2000, 2000), false},
        {"a zero width", WithFrameSize(small, 0, 48), false},
        {"two components",
         jpegfix::EncodeLib(jpegfix::DrawPixels(16, 16, 2), 16, 16,
                            {.components = 2, .in = JCS_UNKNOWN, .stored = JCS_UNKNOWN}),
         false},
        {"an arithmetic lossless frame", WithFrameMarker(small, 0xCB), false},
        {"a differential lossless frame", WithFrameMarker(small, 0xC7), false},
        {"600 scans", withScans(600), false},
        {"40 scans", withScans(40), true},
        {"not a JPEG at all", Bytes(2000, 0x41), false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const Decoded d = DecodeBytes(c.file);
        EXPECT_EQ(!d.dib.IsEmpty(), c.picture);
        if (!c.picture) {
            EXPECT_FALSE(d.whole);
        }
    }

    // Every prefix, and bytes flipped all over the scans: no crash, no picture larger than
    // the file says, and only a file missing at most its EOI is whole.
    for (const Bytes* file : {&small, &progressive}) {
        for (size_t n = 0; n < file->size(); n += 7) {
            const Via via = n % 2 ? Via::kStream : Via::kMemory;
            const Decoded d = DecodeBytes(Bytes(file->begin(), file->begin() + std::ptrdiff_t(n)),
                                          nullptr, nullptr, nullptr, via);
            EXPECT_TRUE(!d.whole || n + 2 >= file->size()) << n;
            if (!d.dib.IsEmpty()) {
                EXPECT_TRUE(d.dib.nWidth == 64 && d.dib.nHeight == 48);
            }
        }
        uint32_t seed = 12345;
        for (int i = 0; i < 300; ++i) {
            Bytes damaged = *file;
            seed = seed * 1103515245 + 12345;
            const size_t at = 200 + (seed >> 8) % (damaged.size() - 200);
            damaged[at] ^= uint8_t(1 + (seed >> 3) % 255);
            const Decoded d = DecodeBytes(damaged);
            if (!d.dib.IsEmpty()) {
                EXPECT_TRUE(d.dib.nWidth <= 65500 && d.dib.nHeight <= 65500);
            }
        }
    }
}

// The metadata pass runs ahead of the decode on the same source and puts it back.
TEST(JpegMeta, FilledOnTheWayAndNeverInTheWay) {
    const Bytes plain = Bgr(96, 64);
    const Bytes exif = jpegfix::ExifBuilder(false).Text(271, "Maker").Short(274, 6).Build(true);
    const Bytes withExif = jpegfix::Insert(
        jpegfix::Insert(plain, jpegfix::Segment(0xFE, {'h', 'i'})), jpegfix::Segment(0xE1, exif));
    Bytes crowded = plain;
    for (int i = 0; i < 21; ++i) crowded = jpegfix::Insert(crowded, jpegfix::Segment(0xE2, {1, 2}));

    ExifInfo info;
    CJPEGMetaData meta(&info);
    const Decoded d = DecodeBytes(withExif, nullptr, &meta);
    EXPECT_TRUE(d.whole);
    EXPECT_TRUE(SameAsReference(d.dib, jpegfix::DecodeTj(plain, 1, TJPF_BGR)));
    EXPECT_EQ(info.bIsExif, 1);
    EXPECT_STREQ(info.szCameraMake, "Maker");
    EXPECT_EQ(info.nOrientation, 6);
    EXPECT_EQ(meta.GetComment(), "hi");

    ExifInfo crowdedInfo;
    CJPEGMetaData crowdedMeta(&crowdedInfo);
    const Decoded c = DecodeBytes(crowded, nullptr, &crowdedMeta);
    EXPECT_EQ(crowdedMeta.GetError(), "Too many sections in jpg file");
    EXPECT_TRUE(c.whole) << "a failed pass doesn't stop the decode";
}

// Each decoding thread has a decompressor of its own; pictures don't mix.
TEST(JpegThreads, ConcurrentDecodesAgree) {
    const Bytes a = Bgr(200, 150), b = Bgr(150, 200, {.progressive = true});
    const jpegfix::Reference refA = jpegfix::DecodeTj(a, 2, TJPF_BGR);
    const jpegfix::Reference refB = jpegfix::DecodeTj(b, 1, TJPF_BGR);
    bool okA = true, okB = true;
    std::thread first([&] {
        const XDibScaleRequest half{1, 100, 0};
        for (int i = 0; i < 20; ++i) okA = okA && SameAsReference(DecodeBytes(a, &half).dib, refA);
    });
    std::thread second([&] {
        for (int i = 0; i < 20; ++i) okB = okB && SameAsReference(DecodeBytes(b).dib, refB);
    });
    first.join();
    second.join();
    EXPECT_TRUE(okA);
    EXPECT_TRUE(okB);
}
