// The metadata pass over a JPEG's sections and the EXIF directory walk, on blocks built by
// hand: fields and conversions in both byte orders, and hostile directories.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <string>
#include <vector>

#include "image/exifinfo.h"
#include "image/jpegmeta.h"
#include "image/xdibio.h"
#include "jpeg_fixtures.h"

using jpegfix::Bytes;
using jpegfix::ExifBuilder;

namespace {

constexpr bool kSub = true;  // the entry goes to the EXIF sub-directory

struct Parsed {
    bool ok = false;
    ExifInfo info{};
    std::string error;
};

Parsed Parse(const Bytes& block, bool withPrefix = true) {
    Parsed p;
    CJPEGMetaData meta(&p.info);
    p.ok = withPrefix ? meta.ParseExifBlock(block.data(), block.size())
                      : meta.ParseTiffExif(block.data(), block.size());
    p.error = meta.GetError();
    return p;
}

}  // namespace

TEST(ExifBlock, FieldsAndConversionsInBothByteOrders) {
    auto bits = [](float f) { return std::bit_cast<uint32_t>(f); };
    for (bool motorola : {false, true}) {
        SCOPED_TRACE(motorola ? "MM" : "II");
        // Every field; an exposure time and an f-number win over the APEX values behind them.
        ExifBuilder a(motorola);
        a.Text(271, "Canon").Text(272, "Canon EOS 5D").Short(274, 6).Rational(282, 300, 1);
        a.Rational(283, 150, 1).Short(296, 2).Text(305, "Firmware 1.1");
        a.Rational(33434, 1, 250, kSub).Rational(37377, 8, 1, kSub, true);
        a.Rational(33437, 28, 10, kSub).Rational(37378, 4, 1, kSub).Short(34850, 2, kSub);
        a.Short(34855, 400, kSub).Text(36864, "0230", kSub, ExifBuilder::kUndefined);
        a.Text(36867, "2024:05:06 07:08:09", kSub).Rational(37122, 5, 1, kSub);
        a.Rational(37379, 7, 2, kSub, true).Rational(37380, uint32_t(-2), 3, kSub, true);
        a.Rational(37382, 5, 2, kSub).Short(37383, 5, kSub).Short(37384, 1, kSub);
        a.Short(37385, 0x1C, kSub).Rational(37386, 50, 1, kSub);
        a.Text(37510, std::string("ASCII\0\0\0Hello there  ", 22), kSub, ExifBuilder::kUndefined);
        a.Long(40962, 3000, kSub).Long(40963, 2000, kSub).Rational(41486, 4000, 1, kSub);
        a.Rational(41487, 3000, 1, kSub).Short(41488, 3, kSub);  // centimetres
        Parsed p = Parse(a.Build(true));
        ASSERT_TRUE(p.ok) << p.error;
        const ExifInfo& i = p.info;
        EXPECT_EQ(i.bIsExif, 1);
        EXPECT_EQ(p.error, "");
        EXPECT_EQ((std::vector<std::string>{i.szCameraMake, i.szCameraModel, i.szSoftware,
                                            i.szVersion, i.szDateTime, i.szComments}),
                  (std::vector<std::string>{"Canon", "Canon EOS 5D", "Firmware 1.1", "0230",
                                            "2024:05:06 07:08:09", "Hello there"}));
        EXPECT_EQ(
            (std::vector{i.nOrientation, i.nExposureProgram, i.nISOequivalent, i.nCompressionLevel,
                         i.nMeteringMode, i.nWhitebalance, i.nFlashUsed}),
            (std::vector{6, 2, 400, 5, 5, 1, 1}));
        // Units as factors to inches. The sensor width comes from the larger side: 3000 px at
        // 4000 px per centimetre.
        const float cm = std::bit_cast<float>(0x3EC99326u);
        const std::pair<float, float> floats[] = {
            {i.fXResolution, 300},          {i.fYResolution, 150},      {i.fResolutionUnit, 1},
            {i.fExposureTime, 0.004f},      {i.fApertureFNumber, 2.8f}, {i.fBrightness, 3.5f},
            {i.fExposureBias, -2.0f / 3},   {i.fDistance, 2.5f},        {i.fFocalLength, 50},
            {i.fFocalplaneXRes, 4000},      {i.fFocalplaneYRes, 3000},  {i.fFocalplaneUnits, cm},
            {i.fCCDWidth, 3000 * cm / 4000}};
        for (size_t k = 0; k < std::size(floats); ++k)
            EXPECT_FLOAT_EQ(floats[k].first, floats[k].second) << k;

        // APEX values alone, ISO in 200s under 50, flash bits 0 to 2, texts cut to their
        // fields, an orientation out of range.
        ExifBuilder b(motorola);
        b.Text(271, std::string(40, 'm')).Short(274, 9).Rational(37377, 8, 1, kSub, true);
        b.Short(34855, 49, kSub).Text(36867, std::string(25, 'd'), kSub);
        b.Rational(37381, 3, 1, kSub).Short(37385, 0x18, kSub).Short(296, 4).Short(41488, 6, kSub);
        b.Text(37510, std::string(300, 'c'), kSub, ExifBuilder::kUndefined);
        p = Parse(b.Build(true));
        EXPECT_TRUE(p.ok);
        EXPECT_EQ(p.error, "Undefined rotation value");
        EXPECT_EQ((std::vector{i.nOrientation, i.nISOequivalent, i.nFlashUsed}),
                  (std::vector{0, 9800, 0}));
        EXPECT_FLOAT_EQ(i.fExposureTime, 1.0f / 256);
        EXPECT_FLOAT_EQ(i.fApertureFNumber, 2.8284271f);
        EXPECT_EQ(bits(i.fResolutionUnit), 0x3D214285u) << "millimetres";
        EXPECT_EQ(bits(i.fFocalplaneUnits), 0u) << "an unknown unit";
        EXPECT_EQ(i.szCameraMake + std::string(i.szDateTime) + i.szComments,
                  std::string(31, 'm') + std::string(19, 'd') + std::string(199, 'c'));

        ExifBuilder c(motorola);
        c.Short(274, 8).Rational(37378, 4, 1, kSub).Short(34855, 50, kSub).Short(296, 5);
        c.Short(41488, 1, kSub);
        c.Text(37510, std::string("ASCII \0 \0 X  ", 13), kSub, ExifBuilder::kUndefined);
        p = Parse(c.Build(true));
        EXPECT_EQ(p.error, "");
        EXPECT_EQ((std::vector{i.nOrientation, i.nISOequivalent, i.nFlashUsed}),
                  (std::vector{8, 50, -1}));
        EXPECT_FLOAT_EQ(i.fApertureFNumber, 4);
        EXPECT_STREQ(i.szComments, "X");
        EXPECT_EQ(bits(i.fResolutionUnit), 0x3825214Du) << "micrometres";
        EXPECT_EQ(bits(i.fFocalplaneUnits), 0u) << "no unit";
    }
}

// Blocks that point outside themselves, claim more than they hold, or go in circles: each
// fails with its text or stops safely, and no read leaves the block (the sanitizer build
// watches every prefix of a valid one).
TEST(ExifBlock, HostileDirectoriesFailOrStopSafely) {
    for (bool motorola : {false, true}) {
        SCOPED_TRACE(motorola ? "MM" : "II");
        ExifBuilder e(motorola);
        e.Text(271, "A long maker name").Short(274, 3);                        // IFD0: 2 + the link
        e.Short(34855, 100, kSub).Long(34665, 0, kSub).Short(37385, 1, kSub);  // sub-directory
        const Bytes valid = e.Build(false);
        const uint32_t ifd0 = 8, link0 = ifd0 + 2 + 12 * 3;  // IFD0's next-directory link
        const uint32_t sub = link0 + 4, subSelfLink = sub + 2 + 12 + 8;  // the sub's 34665 value
        const Bytes doubles = jpegfix::Cat(e.U16(12), e.U32(1u << 29));  // 2^32 bytes: 0 in 32 bits
        struct Case {
            const char* what;
            uint32_t at;
            Bytes patch;
            bool ok;
            const char* error;
        };
        const char *kSize = "Illegally sized directory", *kLink = "Illegal subdirectory link";
        const char *kFormat = "Illegal format code in EXIF dir",
                   *kValue = "Illegal pointer offset value in EXIF.";
        const Case cases[] = {
            {"a valid block", 0, {}, true, ""},
            {"no byte-order mark", 0, {'X', 'X'}, false, "Invalid Exif alignment marker."},
            {"not 42", 2, e.U16(43), false, "Invalid Exif start (1)"},
            {"first directory outside", 4, e.U32(0xFFFFFFF0u), false, kSize},
            {"entry count past the end", ifd0, e.U16(0xFFFF), false, kSize},
            {"format 0", ifd0 + 4, e.U16(0), false, kFormat},
            {"format 13", ifd0 + 4, e.U16(13), false, kFormat},
            {"value pointer outside", ifd0 + 10, e.U32(0xFFFFFFF0u), false, kValue},
            {"count whose size overflows", ifd0 + 4, doubles, false, kValue},
            {"sub-directory link outside", ifd0 + 34, e.U32(0x7FFFFFFF), false, kLink},
            {"broken sub-directory", sub, e.U16(0xFFFF), false, kSize},
            {"next-directory link outside: kept", link0, e.U32(0x7FFFFFFF), true, kLink},
            {"broken next directory: kept", link0, e.U32(uint32_t(valid.size() - 3)), true, kSize},
            {"next directory is the first", link0, e.U32(ifd0), true, ""},
            {"sub-directory linking to itself", subSelfLink, e.U32(sub), true, ""},
            {"next directory is the sub-directory", link0, e.U32(sub), true, ""},
        };
        for (const Case& c : cases) {
            SCOPED_TRACE(c.what);
            Bytes block = valid;
            std::copy(c.patch.begin(), c.patch.end(), block.begin() + c.at);
            const Parsed p = Parse(block, false);
            EXPECT_EQ(p.ok, c.ok);
            EXPECT_EQ(p.info.bIsExif, c.ok ? 1 : 0);
            EXPECT_EQ(p.error, c.error);
            EXPECT_EQ(p.info.nOrientation, c.ok ? 3 : p.info.nOrientation);
        }
        for (size_t n = 0; n < valid.size(); ++n)
            Parse(Bytes(valid.begin(), valid.begin() + n), false);
        // The APP1 form needs its "Exif" and zero first.
        Bytes wrong = e.Build(true);
        wrong[3] = 'g';
        EXPECT_EQ(Parse(wrong).error, "Incorrect Exif header");
        EXPECT_FALSE(Parse(Bytes{'E', 'x'}).ok);
    }
    // A thumbnail is kept only when it lies inside the block.
    for (uint32_t size : {16u, 5000u}) {
        const Bytes block = ExifBuilder(false).Long(513, 8).Long(514, size).Build(false);
        EXPECT_EQ(Parse(block, false).info.pThumbnail, size == 16 ? block.data() + 8 : nullptr);
    }
}

// The section pass: its limits, what it keeps and drops, and its texts.
TEST(JpegSections, PassRulesAndTexts) {
    auto file = [](std::initializer_list<Bytes> parts) {
        Bytes b = {0xFF, 0xD8};
        for (const Bytes& p : parts) b.insert(b.end(), p.begin(), p.end());
        b.insert(b.end(), {0x12, 0x34, 0xFF, 0xD9});  // a little coded data, the end
        return b;
    };
    auto repeat = [](const Bytes& part, int n) {
        Bytes b;
        for (int i = 0; i < n; ++i) b.insert(b.end(), part.begin(), part.end());
        return b;
    };
    const Bytes sos = jpegfix::Segment(0xDA, {1, 1, 0, 0, 63, 0});
    const Bytes com1 = jpegfix::Segment(0xFE, {'f', 'i', 'r', 's', 't'});
    const Bytes com2 = jpegfix::Segment(0xFE, {'s', 'e', 'c'});
    const Bytes dqt = jpegfix::Segment(0xDB, Bytes(65, 1));
    const Bytes app0 = jpegfix::Segment(0xE0, {'J', 'F', 'I', 'F', 0});
    const Bytes xmp = jpegfix::Segment(0xE1, {'h', 't', 't', 'p', ':'});
    const Bytes exif = jpegfix::Segment(0xE1, ExifBuilder(true).Short(274, 8).Build(true));
    const Bytes sof = jpegfix::Segment(0xC0, {8, 0, 16, 0, 32, 1, 1, 0x11, 0});
    struct Case {
        const char* what;
        Bytes bytes;
        bool ok;
        const char* error;
        const char* comment;
    };
    const char* kPremature = "Premature end of file?";
    const Case cases[] = {
        {"a plain file", file({app0, exif, dqt, sof, com1, sos}), true, "", "first"},
        {"two comments: the first kept", file({com1, com2, sos}), true, "", "first"},
        // The marker's own 0xFF counts: seven in a row end the pass.
        {"six 0xFF", file({Bytes(5, 0xFF), com1, sos}), true, "", "first"},
        {"seven 0xFF", file({Bytes(6, 0xFF), com1, sos}), false, "too many padding bytes!", ""},
        {"a length under 2", file({Bytes{0xFF, 0xFE, 0, 1}, sos}), false, "invalid marker", ""},
        {"the end before a scan", file({com1, {0xFF, 0xD9, 0, 2}}), false, "No image in jpeg!",
         "first"},
        {"19 sections and the scan", file({repeat(dqt, 19), sos}), true, "", ""},
        {"20", file({repeat(dqt, 20), sos}), false, "Too many sections in jpg file", ""},
        {"dropped sections don't count",
         file({repeat(app0, 30), com1, repeat(com2, 30), repeat(xmp, 30), sos}), true, "", "first"},
        {"a section cut short", {0xFF, 0xD8, 0xFF, 0xFE, 0x10, 0x00, 'a'}, false, kPremature, ""},
        {"no start of image", {0xFF, 0xD9, 0xFF, 0xDA}, false, "Not a jpeg file", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        // Read from a position other than 0: it is noted and restored.
        Bytes bytes = {9, 9, 9};
        bytes.insert(bytes.end(), c.bytes.begin(), c.bytes.end());
        CXDibMemIO source(bytes.data(), int64_t(bytes.size()));
        source.Seek(3, 0);
        ExifInfo info;
        CJPEGMetaData meta(&info);
        EXPECT_EQ(meta.Read(source), c.ok);
        EXPECT_EQ(meta.GetError(), c.error);
        EXPECT_EQ(meta.GetComment(), c.comment);
        EXPECT_EQ(source.Tell(), 3);
        EXPECT_EQ(info.pThumbnail, nullptr) << "the sections are gone after the pass";
        EXPECT_EQ(info.nOrientation, &c == cases ? 8 : 0) << "the EXIF block is read";
    }
}
