#include <gtest/gtest.h>

#include <initializer_list>
#include <vector>

#include "image/format.h"
#include "image/xdibio.h"
#include "imgwrite/imgwrite.h"

namespace {

using Bytes = std::vector<uint8_t>;

// `base` (26 bytes, zeros when empty) with `bytes` written at `at`.
Bytes With(Bytes base, size_t at, std::initializer_list<uint8_t> bytes) {
    base.resize(26);
    std::copy(bytes.begin(), bytes.end(), base.begin() + at);
    return base;
}
Bytes Start(std::initializer_list<uint8_t> bytes) {
    return With({}, 0, bytes);
}

XDibFormat Sniff(const Bytes& b, const char* name = nullptr) {
    CXDibMemIO io(b.data(), int64_t(b.size()));
    return SniffFormat(io, name);
}

}  // namespace

TEST(Sniffing, SignaturesInTheirOrder) {
    const Bytes tga = With({}, 2, {2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 2, 0, 24});  // 2 x 2
    const Bytes psd = With(Start({'8', 'B', 'P', 'S', 0, 1}), 12,
                           {0, 3, 0, 0, 0, 2, 0, 0, 0, 2, 0, 8, 0, 3});  // RGB, 2 x 2
    const Bytes png =
        With(Start({0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A}), 12, {'I', 'H', 'D', 'R'});
    const Bytes tiff = Start({0x49, 0x49, 0x2A, 0x00});
    struct Case {
        const char* what;
        Bytes bytes;
        XDibFormat expected;
        const char* name = nullptr;
    };
    const Case cases[] = {
        {"BMP", Start({'B', 'M'}), FORMAT_BMP},
        {"BMP over a plausible TGA header", With(tga, 0, {'B', 'M'}), FORMAT_BMP},
        {"JPEG", Start({0xFF, 0xD8, 0xFF}), FORMAT_JPEG},
        {"JPEG over TGA", With(tga, 0, {0xFF, 0xD8, 0xFF}), FORMAT_JPEG},
        {"PNG", png, FORMAT_PNG},
        {"PNG without IHDR first", With(png, 12, {'g', 'A', 'M', 'A'}), FORMAT_UNKNOWN},
        {"GIF89a", Start({'G', 'I', 'F', '8', '9', 'a'}), FORMAT_GIF},
        {"GIF87a", Start({'G', 'I', 'F', '8', '7', 'a'}), FORMAT_GIF},
        {"TIFF big-endian", Start({0x4D, 0x4D, 0x00, 0x2A}), FORMAT_TIFF},
        {"TIFF over JP2", With(tiff, 4, {'j', 'P', ' ', ' '}), FORMAT_TIFF},
        {"JP2", Start({0, 0, 0, 12, 'j', 'P', ' ', ' '}), FORMAT_JP2},
        {"JP2 over J2K", Start({0xFF, 0x4F, 0xFF, 0x51, 'j', 'P', ' ', ' '}), FORMAT_JP2},
        {"J2K", Start({0xFF, 0x4F, 0xFF, 0x51}), FORMAT_J2K},
        {"HD Photo", Start({0x49, 0x49, 0xBC, 0x01}), FORMAT_HDP},
        {"DNG", tiff, FORMAT_DNG, "PHOTO.dng"},
        {"DNG in any case", tiff, FORMAT_DNG, "/photos/PHOTO.DnG"},
        {"a dot in a folder name", tiff, FORMAT_TIFF, "my.folder/PHOTO.dng"},
        {"DNG after a later dot", tiff, FORMAT_TIFF, "PHOTO.old.dng"},
        {"DNG not at the end", tiff, FORMAT_TIFF, "PHOTO.dng.bak"},
        {"no name", tiff, FORMAT_TIFF},
        {"DNG name on a BMP", Start({'B', 'M'}), FORMAT_BMP, "PHOTO.dng"},
        {"PSD", psd, FORMAT_PSD},
        {"PSD mode 4", With(psd, 24, {0, 4}), FORMAT_PSD},
        {"PSD height 0x01000000", With(psd, 14, {1, 0, 0, 0}), FORMAT_PSD},
        {"PSD mode 9 falls to TGA, whose type 'P' fails", With(psd, 24, {0, 9}), FORMAT_UNKNOWN},
        {"PSD version 2", With(psd, 4, {0, 2}), FORMAT_UNKNOWN},
        {"PSD height 0", With(psd, 14, {0, 0, 0, 0}), FORMAT_UNKNOWN},
        {"TGA", tga, FORMAT_TGA},
        {"TGA mapped RLE, 15 bits", With(With(tga, 2, {9}), 16, {15}), FORMAT_TGA},
        {"TGA map of 256", With(tga, 5, {0x00, 0x01}), FORMAT_TGA},
        {"TGA type 4", With(tga, 2, {4}), FORMAT_UNKNOWN},
        {"TGA depth 12", With(tga, 16, {12}), FORMAT_UNKNOWN},
        {"TGA width 0", With(tga, 12, {0, 0}), FORMAT_UNKNOWN},
        {"TGA map of 257", With(tga, 5, {0x01, 0x01}), FORMAT_UNKNOWN},
        {"text", Start({'h', 'e', 'l', 'l', 'o'}), FORMAT_UNKNOWN},
    };
    for (const Case& c : cases) EXPECT_EQ(Sniff(c.bytes, c.name), c.expected) << c.what;
}

TEST(Sniffing, TwentyFiveBytesAreUnreadAndThePositionIsAlwaysReset) {
    const Bytes full = imgwrite::WriteBmp(imgwrite::Picture(2, 2), {}), unknown(40, '?');
    const Bytes cut(full.begin(), full.begin() + 25), header(full.begin(), full.begin() + 26);
    EXPECT_EQ(Sniff(cut), FORMAT_UNREAD);
    EXPECT_EQ(Sniff(header), FORMAT_BMP);
    for (const Bytes* b : {&full, &cut, &unknown}) {
        CXDibMemIO io(b->data(), int64_t(b->size()));
        io.Seek(7, 0);
        SniffFormat(io, nullptr);
        EXPECT_EQ(io.Tell(), 0) << b->size() << " bytes";
    }
}
