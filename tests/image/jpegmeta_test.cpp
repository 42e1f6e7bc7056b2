// The metadata pass over a JPEG's sections and the EXIF directory walk, on blocks built by
// hand: field by field in both byte orders, the conversions, and hostile directories.
#include <gtest/gtest.h>

#include <bit>
#include <functional>
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

Parsed ParseBlock(const Bytes& block, bool withPrefix = true) {
    Parsed p;
    CJPEGMetaData meta(&p.info);
    p.ok = withPrefix ? meta.ParseExifBlock(block.data(), block.size())
                      : meta.ParseTiffExif(block.data(), block.size());
    p.error = meta.GetError();
    return p;
}

std::string WithNuls(const char* text, size_t size) {
    return std::string(text, size);
}

// A 32-bit value written into a block in its byte order.
void Put32(Bytes& b, size_t at, uint32_t v, bool motorola) {
    for (int i = 0; i < 4; ++i) b[at + i] = uint8_t(v >> (motorola ? 24 - 8 * i : 8 * i));
}
void Put16(Bytes& b, size_t at, uint16_t v, bool motorola) {
    b[at] = uint8_t(motorola ? v >> 8 : v);
    b[at + 1] = uint8_t(motorola ? v : v >> 8);
}

}  // namespace

TEST(ExifBlock, EveryFieldInBothByteOrders) {
    for (bool motorola : {false, true}) {
        SCOPED_TRACE(motorola ? "MM" : "II");
        ExifBuilder e(motorola);
        e.Text(271, "Canon").Text(272, "Canon EOS 5D").Short(274, 6).Rational(282, 300, 1);
        e.Rational(283, 150, 1).Short(296, 2).Text(305, "Firmware 1.1");
        e.Rational(33434, 1, 250, kSub).Rational(33437, 28, 10, kSub).Short(34850, 2, kSub);
        e.Short(34855, 400, kSub).Text(36864, "0230", kSub, ExifBuilder::kUndefined);
        e.Text(36867, "2024:05:06 07:08:09", kSub).Rational(37122, 5, 1, kSub);
        e.Rational(37379, 7, 2, kSub, true).Rational(37380, uint32_t(-2), 3, kSub, true);
        e.Rational(37382, 5, 2, kSub).Short(37383, 5, kSub).Short(37384, 1, kSub);
        e.Short(37385, 0x19, kSub).Rational(37386, 50, 1, kSub);
        e.Text(37510, WithNuls("ASCII\0\0\0Hello there  ", 22), kSub, ExifBuilder::kUndefined);
        e.Long(40962, 3000, kSub).Long(40963, 2000, kSub).Rational(41486, 4000, 1, kSub);
        e.Rational(41487, 3000, 1, kSub).Short(41488, 3, kSub);
        const Parsed p = ParseBlock(e.Build(true));
        ASSERT_TRUE(p.ok) << p.error;
        const ExifInfo& i = p.info;
        EXPECT_EQ(i.bIsExif, 1);
        EXPECT_EQ(p.error, "");
        EXPECT_STREQ(i.szCameraMake, "Canon");
        EXPECT_STREQ(i.szCameraModel, "Canon EOS 5D");
        EXPECT_STREQ(i.szSoftware, "Firmware 1.1");
        EXPECT_STREQ(i.szVersion, "0230");
        EXPECT_STREQ(i.szDateTime, "2024:05:06 07:08:09");
        EXPECT_STREQ(i.szComments, "Hello there");
        EXPECT_EQ(i.nOrientation, 6);
        EXPECT_EQ(i.nExposureProgram, 2);
        EXPECT_EQ(i.nISOequivalent, 400);
        EXPECT_EQ(i.nCompressionLevel, 5);
        EXPECT_EQ(i.nMeteringMode, 5);
        EXPECT_EQ(i.nWhitebalance, 1);
        EXPECT_EQ(i.nFlashUsed, 1);
        EXPECT_FLOAT_EQ(i.fXResolution, 300);
        EXPECT_FLOAT_EQ(i.fYResolution, 150);
        EXPECT_EQ(i.fResolutionUnit, 1.0f);
        EXPECT_FLOAT_EQ(i.fExposureTime, 0.004f);
        EXPECT_FLOAT_EQ(i.fApertureFNumber, 2.8f);
        EXPECT_FLOAT_EQ(i.fBrightness, 3.5f);
        EXPECT_FLOAT_EQ(i.fExposureBias, -2.0f / 3);
        EXPECT_FLOAT_EQ(i.fDistance, 2.5f);
        EXPECT_FLOAT_EQ(i.fFocalLength, 50);
        EXPECT_FLOAT_EQ(i.fFocalplaneXRes, 4000);
        EXPECT_FLOAT_EQ(i.fFocalplaneYRes, 3000);
        EXPECT_EQ(std::bit_cast<uint32_t>(i.fFocalplaneUnits), 0x3EC99326u);
        // The sensor width from the larger EXIF side: 3000 px at 4000 px per centimetre.
        EXPECT_FLOAT_EQ(i.fCCDWidth, 3000 * std::bit_cast<float>(0x3EC99326u) / 4000);
    }
}

TEST(ExifBlock, ConversionsOfUnitsApexIsoFlashOrientationAndText) {
    struct Case {
        const char* what;
        std::function<void(ExifBuilder&)> add;
        std::function<void(const Parsed&)> check;
    };
    auto bits = [](float f) { return std::bit_cast<uint32_t>(f); };
    std::vector<Case> cases;
    // Unit codes are kept as factors to inches; code 1 and unknown codes leave the field.
    const uint32_t unitBits[] = {0, 0x3F800000u, 0x3EC99326u, 0x3D214285u, 0x3825214Du, 0};
    for (uint16_t code = 1; code <= 6; ++code) {
        const uint32_t want = unitBits[code - 1];
        cases.push_back(
            {"resolution unit", [code](ExifBuilder& e) { e.Short(296, code); },
             [=](const Parsed& p) { EXPECT_EQ(bits(p.info.fResolutionUnit), want) << code; }});
        cases.push_back(
            {"focal plane unit", [code](ExifBuilder& e) { e.Short(41488, code, kSub); },
             [=](const Parsed& p) { EXPECT_EQ(bits(p.info.fFocalplaneUnits), want) << code; }});
    }
    cases.push_back({"shutter speed APEX 8 is 1/256 s",
                     [](ExifBuilder& e) { e.Rational(37377, 8, 1, kSub, true); },
                     [](const Parsed& p) { EXPECT_FLOAT_EQ(p.info.fExposureTime, 1.0f / 256); }});
    cases.push_back(
        {"an exposure time wins over a later shutter speed",
         [](ExifBuilder& e) { e.Rational(33434, 1, 60, kSub).Rational(37377, 8, 1, kSub, true); },
         [](const Parsed& p) { EXPECT_FLOAT_EQ(p.info.fExposureTime, 1.0f / 60); }});
    cases.push_back({"aperture APEX 4 is f/4",
                     [](ExifBuilder& e) { e.Rational(37378, 4, 1, kSub); },
                     [](const Parsed& p) { EXPECT_FLOAT_EQ(p.info.fApertureFNumber, 4); }});
    cases.push_back(
        {"largest aperture APEX 3 is f/2.83", [](ExifBuilder& e) { e.Rational(37381, 3, 1, kSub); },
         [](const Parsed& p) { EXPECT_FLOAT_EQ(p.info.fApertureFNumber, 2.8284271f); }});
    cases.push_back(
        {"an f-number wins over a later aperture",
         [](ExifBuilder& e) { e.Rational(33437, 56, 10, kSub).Rational(37378, 4, 1, kSub); },
         [](const Parsed& p) { EXPECT_FLOAT_EQ(p.info.fApertureFNumber, 5.6f); }});
    for (const auto& pair : {std::pair{2, 400}, {49, 9800}, {50, 50}, {800, 800}}) {
        const int iso = pair.first, want = pair.second;
        cases.push_back({"ISO under 50 counts in 200s",
                         [iso](ExifBuilder& e) { e.Short(34855, uint16_t(iso), kSub); },
                         [want](const Parsed& p) { EXPECT_EQ(p.info.nISOequivalent, want); }});
    }
    for (const auto& pair : {std::pair{0x18, 0}, {0x07, 1}, {0x01, 1}, {0x40, 0}}) {
        const int flash = pair.first, want = pair.second;
        cases.push_back({"flash from bits 0 to 2",
                         [flash](ExifBuilder& e) { e.Short(37385, uint16_t(flash), kSub); },
                         [want](const Parsed& p) { EXPECT_EQ(p.info.nFlashUsed, want); }});
    }
    cases.push_back({"no flash tag", [](ExifBuilder& e) { e.Short(274, 1); },
                     [](const Parsed& p) { EXPECT_EQ(p.info.nFlashUsed, -1); }});
    for (const auto& pair : {std::pair{8, 8}, {1, 1}, {9, 0}, {0, 0}}) {
        const int orientation = pair.first, want = pair.second;
        cases.push_back({"orientation",
                         [orientation](ExifBuilder& e) { e.Short(274, uint16_t(orientation)); },
                         [orientation, want](const Parsed& p) {
                             EXPECT_EQ(p.info.nOrientation, want);
                             EXPECT_EQ(p.error, want ? "" : "Undefined rotation value");
                             EXPECT_TRUE(p.ok) << orientation;
                         }});
    }
    const std::pair<std::string, std::string> comments[] = {
        {WithNuls("ASCII\0\0\0Hi  ", 12), "Hi"},        {"Plain words   ", "Plain words"},
        {WithNuls("ASCII \0 \0 X", 11), "X"},           {"      ", ""},
        {std::string(300, 'c'), std::string(199, 'c')},
    };
    for (const auto& pair : comments) {
        const std::string text = pair.first, want = pair.second;
        cases.push_back(
            {"user comment",
             [text](ExifBuilder& e) { e.Text(37510, text, kSub, ExifBuilder::kUndefined); },
             [want](const Parsed& p) { EXPECT_EQ(p.info.szComments, want); }});
    }
    cases.push_back({"texts are cut to their fields",
                     [](ExifBuilder& e) {
                         e.Text(271, std::string(40, 'm')).Text(36867, std::string(25, 'd'), kSub);
                     },
                     [](const Parsed& p) {
                         EXPECT_EQ(p.info.szCameraMake, std::string(31, 'm'));
                         EXPECT_EQ(p.info.szDateTime, std::string(19, 'd'));
                     }});

    for (bool motorola : {false, true})
        for (const Case& c : cases) {
            SCOPED_TRACE(::testing::Message() << c.what << (motorola ? " MM" : " II"));
            ExifBuilder e(motorola);
            c.add(e);
            const Parsed p = ParseBlock(e.Build(true));
            EXPECT_TRUE(p.ok) << p.error;
            c.check(p);
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
        const size_t ifd0 = 8, entries0 = 3;
        const size_t link0 = ifd0 + 2 + 12 * entries0;  // IFD0's next-directory link
        const size_t sub = link0 + 4;
        const size_t subSelfLink = sub + 2 + 12 * 1 + 8;  // the value of the sub's 34665
        auto patched = [&](std::function<void(Bytes&)> change) {
            Bytes b = valid;
            change(b);
            return b;
        };
        struct Case {
            const char* what;
            Bytes block;
            bool ok;
            const char* error;
        };
        const Case cases[] = {
            {"a valid block", valid, true, ""},
            {"no byte-order mark", patched([](Bytes& b) { b[0] = b[1] = 'X'; }), false,
             "Invalid Exif alignment marker."},
            {"not 42", patched([&](Bytes& b) { Put16(b, 2, 43, motorola); }), false,
             "Invalid Exif start (1)"},
            {"a first directory beyond the block",
             patched([&](Bytes& b) { Put32(b, 4, 0xFFFFFFF0u, motorola); }), false,
             "Illegally sized directory"},
            {"an entry count past the end",
             patched([&](Bytes& b) { Put16(b, ifd0, 0xFFFF, motorola); }), false,
             "Illegally sized directory"},
            {"format 0", patched([&](Bytes& b) { Put16(b, ifd0 + 2 + 2, 0, motorola); }), false,
             "Illegal format code in EXIF dir"},
            {"format 13", patched([&](Bytes& b) { Put16(b, ifd0 + 2 + 2, 13, motorola); }), false,
             "Illegal format code in EXIF dir"},
            {"a value pointer outside",
             patched([&](Bytes& b) { Put32(b, ifd0 + 2 + 8, 0xFFFFFFF0u, motorola); }), false,
             "Illegal pointer offset value in EXIF."},
            {"4 billion doubles", patched([&](Bytes& b) {
                 Put16(b, ifd0 + 2 + 2, 12, motorola);
                 Put32(b, ifd0 + 2 + 4, 0xFFFFFFFFu, motorola);
             }),
             false, "Illegal pointer offset value in EXIF."},
            {"a sub-directory link outside",
             patched([&](Bytes& b) { Put32(b, ifd0 + 2 + 24 + 8, 0x7FFFFFFF, motorola); }), false,
             "Illegal subdirectory link"},
            {"a broken sub-directory", patched([&](Bytes& b) { Put16(b, sub, 0xFFFF, motorola); }),
             false, "Illegally sized directory"},
            {"a next-directory link outside: kept",
             patched([&](Bytes& b) { Put32(b, link0, 0x7FFFFFFF, motorola); }), true,
             "Illegal subdirectory link"},
            {"a broken next directory: kept",
             patched([&](Bytes& b) { Put32(b, link0, uint32_t(b.size() - 3), motorola); }), true,
             "Illegally sized directory"},
            {"the next directory is the first",
             patched([&](Bytes& b) { Put32(b, link0, uint32_t(ifd0), motorola); }), true, ""},
            {"a sub-directory linking to itself",
             patched([&](Bytes& b) { Put32(b, subSelfLink, uint32_t(sub), motorola); }), true, ""},
            {"the next directory is the sub-directory, read already",
             patched([&](Bytes& b) { Put32(b, link0, uint32_t(sub), motorola); }), true, ""},
        };
        for (const Case& c : cases) {
            SCOPED_TRACE(c.what);
            const Parsed p = ParseBlock(c.block, false);
            EXPECT_EQ(p.ok, c.ok);
            EXPECT_EQ(p.info.bIsExif, c.ok ? 1 : 0);
            EXPECT_EQ(p.error, c.error);
            if (c.ok) {
                EXPECT_EQ(p.info.nOrientation, 3);
            }
        }
        for (size_t n = 0; n < valid.size(); ++n) {
            const Bytes prefix(valid.begin(), valid.begin() + std::ptrdiff_t(n));
            ParseBlock(prefix, false);
        }
        // The APP1 form needs its "Exif" and zero first.
        Bytes wrong = e.Build(true);
        wrong[3] = 'g';
        EXPECT_EQ(ParseBlock(wrong).error, "Incorrect Exif header");
        EXPECT_TRUE(ParseBlock(e.Build(true)).ok);
        EXPECT_FALSE(ParseBlock(Bytes{'E', 'x'}).ok);
    }
}

TEST(ExifBlock, ThumbnailInsideTheBlockOnly) {
    for (uint32_t size : {16u, 5000u}) {
        ExifBuilder e(false);
        e.Long(513, 8).Long(514, size);
        const Bytes block = e.Build(false);
        ExifInfo info;
        CJPEGMetaData meta(&info);
        ASSERT_TRUE(meta.ParseTiffExif(block.data(), block.size()));
        if (size <= block.size() - 8) {
            EXPECT_EQ(info.pThumbnail, block.data() + 8);
            EXPECT_EQ(info.nThumbnailSize, size);
        } else {
            EXPECT_EQ(info.pThumbnail, nullptr);
        }
    }
}

// The section pass: its limits, what it keeps and drops, and its texts.
TEST(JpegSections, PassRulesAndTexts) {
    const Bytes soi = {0xFF, 0xD8};
    const Bytes sos = jpegfix::Segment(0xDA, {1, 1, 0, 0, 63, 0});
    auto file = [&](std::initializer_list<Bytes> parts) {
        Bytes b = soi;
        for (const Bytes& p : parts) b.insert(b.end(), p.begin(), p.end());
        b.insert(b.end(), {0x12, 0x34, 0xFF, 0xD9});  // a little coded data, the end
        return b;
    };
    auto repeat = [](const Bytes& part, int n) {
        Bytes b;
        for (int i = 0; i < n; ++i) b.insert(b.end(), part.begin(), part.end());
        return b;
    };
    const Bytes com1 = jpegfix::Segment(0xFE, {'f', 'i', 'r', 's', 't'});
    const Bytes com2 = jpegfix::Segment(0xFE, {'s', 'e', 'c'});
    const Bytes dqt = jpegfix::Segment(0xDB, Bytes(65, 1));
    const Bytes app0 = jpegfix::Segment(0xE0, {'J', 'F', 'I', 'F', 0});
    const Bytes xmp = jpegfix::Segment(0xE1, {'h', 't', 't', 'p', ':'});
    const Bytes exif = jpegfix::Segment(0xE1, ExifBuilder(true).Short(274, 8).Build(true));
    const Bytes sof =
        jpegfix::Segment(0xC0, {8, 0, 16, 0, 32, 3, 1, 0x22, 0, 2, 0x11, 1, 3, 0x11, 1});
    struct Case {
        const char* what;
        Bytes bytes;
        bool ok;
        const char* error;
        const char* console;
        const char* comment;
        uint8_t isExif;
    };
    const Case cases[] = {
        {"a plain file", file({app0, exif, dqt, sof, com1, sos}), true, "", "", "first", 1},
        {"the first of two comments is kept", file({com1, com2, sos}), true, "", "", "first", 0},
        // The marker's own 0xFF counts: seven in a row end the pass.
        {"six 0xFF bytes before a marker", file({Bytes(5, 0xFF), com1, sos}), true, "", "", "first",
         0},
        {"seven 0xFF bytes before a marker", file({Bytes(6, 0xFF), com1, sos}), false,
         "too many padding bytes!", "too many padding bytes\n", "", 0},
        {"a marker without its 0xFF", file({Bytes(com1.begin() + 1, com1.end()), sos}), true, "",
         "", "first", 0},
        {"a length under 2", file({Bytes{0xFF, 0xFE, 0, 1}, sos}), false, "invalid marker", "", "",
         0},
        {"the end before any scan", file({com1, Bytes{0xFF, 0xD9, 0, 2}}), false,
         "No image in jpeg!", "No image in jpeg!\n", "first", 0},
        {"19 sections and the scan", file({repeat(dqt, 19), sos}), true, "", "", "", 0},
        {"20 sections and the scan", file({repeat(dqt, 20), sos}), false,
         "Too many sections in jpg file", "", "", 0},
        {"dropped sections don't count",
         file({repeat(app0, 30), com1, repeat(com2, 30), repeat(xmp, 30), sos}), true, "", "",
         "first", 0},
        {"a section cut short", Bytes{0xFF, 0xD8, 0xFF, 0xFE, 0x10, 0x00, 'a'}, false,
         "Premature end of file?", "", "", 0},
        {"no start of image", Bytes{0xFF, 0xD9, 0xFF, 0xDA}, false, "Not a jpeg file", "", "", 0},
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
        ::testing::internal::CaptureStderr();
        const bool ok = meta.Read(source);
        EXPECT_EQ(::testing::internal::GetCapturedStderr(), c.console);
        EXPECT_EQ(ok, c.ok);
        EXPECT_EQ(meta.GetError(), c.error);
        EXPECT_EQ(meta.GetComment(), c.comment);
        EXPECT_EQ(info.bIsExif, c.isExif);
        EXPECT_EQ(source.Tell(), 3);
        EXPECT_EQ(info.pThumbnail, nullptr) << "the sections are gone after the pass";
        if (c.isExif) {
            EXPECT_EQ(info.nOrientation, 8);
        }
    }
}
