#include <gtest/gtest.h>

#include <cstring>
#include <initializer_list>
#include <vector>

#include "image/format.h"
#include "image/xdibio.h"
#include "imgwrite/imgwrite.h"

namespace {

using Bytes = std::vector<uint8_t>;

// 26 bytes: `prefix` at `at`, zeros elsewhere.
Bytes Header(std::initializer_list<uint8_t> prefix, size_t at = 0, size_t size = 26) {
    Bytes b(size, 0);
    std::copy(prefix.begin(), prefix.end(), b.begin() + at);
    return b;
}

void Put(Bytes& b, size_t at, std::initializer_list<uint8_t> bytes) {
    std::copy(bytes.begin(), bytes.end(), b.begin() + at);
}

XDibFormat Sniff(const Bytes& b, const char* name = nullptr) {
    CXDibMemIO io(b.data(), int64_t(b.size()));
    return SniffFormat(io, name);
}

// A plausible TGA header: 24-bit true colour, 2 x 2.
Bytes TgaHeader() {
    Bytes b(26, 0);
    b[2] = 2;
    Put(b, 12, {2, 0, 2, 0, 24});
    return b;
}

// A valid PSD header: RGB, 8 bits, 3 channels, 2 x 2.
Bytes PsdHeader() {
    Bytes b(26, 0);
    Put(b, 0, {'8', 'B', 'P', 'S', 0, 1});
    Put(b, 12, {0, 3, 0, 0, 0, 2, 0, 0, 0, 2, 0, 8, 0, 3});
    return b;
}

}  // namespace

TEST(Sniffing, EachSignatureGivesItsFormat) {
    const Bytes png = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A, 0, 0, 0, 13, 'I',
                       'H',  'D', 'R', 0,   0,    0,    1,    0,    0, 0, 1, 8,  2};
    EXPECT_EQ(Sniff(Header({'B', 'M'})), FORMAT_BMP);
    EXPECT_EQ(Sniff(Header({0xFF, 0xD8, 0xFF, 0xE0})), FORMAT_JPEG);
    EXPECT_EQ(Sniff(png), FORMAT_PNG);
    EXPECT_EQ(Sniff(Header({'G', 'I', 'F', '8', '9', 'a'})), FORMAT_GIF);
    EXPECT_EQ(Sniff(Header({'G', 'I', 'F', '8', '7', 'a'})), FORMAT_GIF);
    EXPECT_EQ(Sniff(Header({'G', 'I', 'F', '8', '8', 'a'})), FORMAT_UNKNOWN);
    EXPECT_EQ(Sniff(Header({0x4D, 0x4D, 0x00, 0x2A})), FORMAT_TIFF);
    EXPECT_EQ(Sniff(Header({0x49, 0x49, 0x2A, 0x00})), FORMAT_TIFF);
    EXPECT_EQ(Sniff(Header({0, 0, 0, 12, 'j', 'P', ' ', ' '})), FORMAT_JP2);
    EXPECT_EQ(Sniff(Header({0xFF, 0x4F, 0xFF, 0x51})), FORMAT_J2K);
    EXPECT_EQ(Sniff(Header({0x49, 0x49, 0xBC, 0x01})), FORMAT_HDP);
    EXPECT_EQ(Sniff(PsdHeader()), FORMAT_PSD);
    EXPECT_EQ(Sniff(TgaHeader()), FORMAT_TGA);
    EXPECT_EQ(Sniff(Header({'h', 'e', 'l', 'l', 'o'})), FORMAT_UNKNOWN);
    // The name decides nothing but DNG: a JPEG called a.gif is a JPEG.
    EXPECT_EQ(Sniff(Header({0xFF, 0xD8, 0xFF}), "a.gif"), FORMAT_JPEG);
    EXPECT_STREQ(FormatName(FORMAT_PSD), "FORMAT_PSD");
    EXPECT_STREQ(FormatName(99), "FORMAT_UNKNOWN");
}

TEST(Sniffing, EarlierTestsWinOverLaterOnes) {
    // "BM" wins even when the rest is a plausible TGA header.
    Bytes bmTga = TgaHeader();
    Put(bmTga, 0, {'B', 'M'});
    EXPECT_EQ(Sniff(bmTga), FORMAT_BMP);
    // TIFF (test 5) before JP2 (6); JP2 before J2K (7) and HD Photo (8).
    EXPECT_EQ(Sniff(Header({0x49, 0x49, 0x2A, 0x00, 'j', 'P', ' ', ' '})), FORMAT_TIFF);
    EXPECT_EQ(Sniff(Header({0xFF, 0x4F, 0xFF, 0x51, 'j', 'P', ' ', ' '})), FORMAT_JP2);
    EXPECT_EQ(Sniff(Header({0x49, 0x49, 0xBC, 0x01, 'j', 'P', ' ', ' '})), FORMAT_JP2);
    // A JPEG start with a TGA-looking rest is a JPEG.
    Bytes jpegTga = TgaHeader();
    Put(jpegTga, 0, {0xFF, 0xD8, 0xFF});
    EXPECT_EQ(Sniff(jpegTga), FORMAT_JPEG);
}

TEST(Sniffing, PngSignatureNeedsTheHeaderChunkFirst) {
    Bytes png =
        Header({0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A, 0, 0, 0, 4, 'g', 'A', 'M', 'A'});
    EXPECT_EQ(Sniff(png), FORMAT_UNKNOWN);
    // Falling through, it meets the later tests like any other file.
    Put(png, 4, {'j', 'P', ' ', ' '});
    EXPECT_EQ(Sniff(png), FORMAT_JP2);
}

TEST(Sniffing, DngIsATiffNamedByTheExtensionAfterTheFirstDot) {
    const Bytes tiff = Header({0x49, 0x49, 0x2A, 0x00});
    EXPECT_EQ(Sniff(tiff, "PHOTO.dng"), FORMAT_DNG);
    EXPECT_EQ(Sniff(tiff, "/photos/PHOTO.DnG"), FORMAT_DNG);
    EXPECT_EQ(Sniff(tiff, "my.folder/PHOTO.dng"), FORMAT_TIFF);
    EXPECT_EQ(Sniff(tiff, "PHOTO.old.dng"), FORMAT_TIFF);
    EXPECT_EQ(Sniff(tiff, "PHOTO.dng.bak"), FORMAT_TIFF);
    EXPECT_EQ(Sniff(tiff, "PHOTO.tif"), FORMAT_TIFF);
    EXPECT_EQ(Sniff(tiff, "dng"), FORMAT_TIFF);
    EXPECT_EQ(Sniff(tiff, nullptr), FORMAT_TIFF);
    // The name never makes a non-TIFF a DNG.
    EXPECT_EQ(Sniff(Header({'B', 'M'}), "PHOTO.dng"), FORMAT_BMP);
}

TEST(Sniffing, PsdHeaderFieldsAreChecked) {
    EXPECT_EQ(Sniff(PsdHeader()), FORMAT_PSD);
    for (uint8_t mode : {0, 1, 2, 3, 4}) {
        Bytes b = PsdHeader();
        b[25] = mode;
        EXPECT_EQ(Sniff(b), FORMAT_PSD) << int(mode);
    }
    // Colour mode 9 (Lab) falls through: the TGA test sees type 'P' and refuses too.
    Bytes lab = PsdHeader();
    lab[25] = 9;
    EXPECT_EQ(Sniff(lab), FORMAT_UNKNOWN);
    Bytes version2 = PsdHeader();
    version2[5] = 2;
    EXPECT_EQ(Sniff(version2), FORMAT_UNKNOWN);
    Bytes noHeight = PsdHeader();
    noHeight[17] = 0;
    EXPECT_EQ(Sniff(noHeight), FORMAT_UNKNOWN);
    Bytes noWidth = PsdHeader();
    noWidth[21] = 0;
    EXPECT_EQ(Sniff(noWidth), FORMAT_UNKNOWN);
    // Big-endian fields: a height of 0x01000000 is not zero.
    Bytes tall = PsdHeader();
    Put(tall, 14, {1, 0, 0, 0});
    EXPECT_EQ(Sniff(tall), FORMAT_PSD);
}

TEST(Sniffing, TgaIsRecognisedByAPlausibleHeaderOnly) {
    for (uint8_t type : {1, 2, 3, 9, 10, 11}) {
        Bytes b = TgaHeader();
        b[2] = type;
        EXPECT_EQ(Sniff(b), FORMAT_TGA) << int(type);
    }
    for (uint8_t depth : {8, 15, 16, 24, 32}) {
        Bytes b = TgaHeader();
        b[16] = depth;
        EXPECT_EQ(Sniff(b), FORMAT_TGA) << int(depth);
    }
    Bytes map256 = TgaHeader();
    Put(map256, 5, {0x00, 0x01});  // map length 256, little-endian
    EXPECT_EQ(Sniff(map256), FORMAT_TGA);

    struct Broken {
        size_t at;
        std::initializer_list<uint8_t> bytes;
    };
    for (const Broken& broken :
         {Broken{2, {0}}, Broken{2, {4}}, Broken{2, {12}}, Broken{16, {0}}, Broken{16, {12}},
          Broken{16, {33}}, Broken{12, {0, 0}}, Broken{14, {0, 0}}, Broken{5, {0x01, 0x01}}}) {
        Bytes b = TgaHeader();
        Put(b, broken.at, broken.bytes);
        EXPECT_EQ(Sniff(b), FORMAT_UNKNOWN) << "byte " << broken.at;
    }
}

TEST(Sniffing, TwentyFiveBytesAreUnreadAndThePositionIsAlwaysReset) {
    // A valid BMP start, one byte short of what sniffing reads.
    const Bytes full = imgwrite::WriteBmp(imgwrite::Picture(2, 2), {});
    const Bytes cut(full.begin(), full.begin() + 25);
    EXPECT_EQ(Sniff(cut), FORMAT_UNREAD);
    EXPECT_EQ(Sniff(Bytes{}), FORMAT_UNREAD);
    const Bytes header26(full.begin(), full.begin() + 26);
    EXPECT_EQ(Sniff(header26), FORMAT_BMP);

    for (const Bytes* b : {&full, &cut}) {
        CXDibMemIO io(b->data(), int64_t(b->size()));
        io.Seek(7, 0);
        SniffFormat(io, nullptr);
        EXPECT_EQ(io.Tell(), 0);
    }
    const Bytes unknown = Header({'?'}, 0, 40);
    CXDibMemIO io(unknown.data(), int64_t(unknown.size()));
    io.Seek(30, 0);
    EXPECT_EQ(SniffFormat(io, nullptr), FORMAT_UNKNOWN);
    EXPECT_EQ(io.Tell(), 0);
}
