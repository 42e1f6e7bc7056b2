// Writers of PNG, TIFF, DNG, JPEG XR and JPEG 2000 files for the tests and fuzz seeds of the
// library bridges, made with the libraries' own encoders. Each writes exactly what it is
// given, so that a test can compare a decoded picture with the samples it started from. They
// stop the program on a library error: a writer that can't write is a broken test.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

namespace bridgewrite {

using Bytes = std::vector<uint8_t>;

struct Rgb {
    uint8_t r = 0, g = 0, b = 0;
};

struct PngFixture {
    uint32_t width = 0, height = 0;
    int colourType = 2;  // 0 grey, 2 RGB, 3 palette, 6 RGBA
    int bitDepth = 8;
    bool interlaced = false;
    // Row after row, channel after channel, one value per sample at the file's depth
    // (palette pictures: the indices).
    std::vector<uint16_t> samples = {};
    std::vector<Rgb> palette = {};
    std::vector<uint8_t> paletteAlpha = {};       // tRNS of a palette picture
    std::optional<uint16_t> transparent = {};     // tRNS of a grey picture
    std::optional<uint8_t> backgroundIndex = {};  // bKGD of a palette picture
    double gamma = 0;                             // gAMA; 0 writes none
};

Bytes WritePng(const PngFixture& fixture);

struct TiffPage {
    uint32_t width = 0, height = 0;
    uint16_t photometric = 1;  // 0 min-is-white, 1 min-is-black, 2 RGB, 3 palette, 5 CMYK
    uint16_t bits = 8;
    uint16_t samples = 1;
    uint16_t compression = 1;   // 1 none, 5 LZW, 8 deflate, 32773 PackBits
    uint32_t rowsPerStrip = 0;  // 0: one strip
    uint32_t tileWidth = 0;     // tiled when both are set (multiples of 16)
    uint32_t tileHeight = 0;
    std::vector<uint16_t> colourMap = {};  // palette: all reds, all greens, all blues (16 bits)
    Bytes data = {};                       // packed rows, each starting on a byte
    // When set, written as the page's only strip instead of `data`, as it is: for pages whose
    // bytes can't be what they claim (broken coding, sizes far beyond the file).
    std::optional<Bytes> rawStrip = {};
};

// Every page in order, one directory each.
Bytes WriteTiff(const std::vector<TiffPage>& pages);

// A minimal DNG: one 16-bit Bayer (RGGB) raw image of `width` x `height` in the first
// directory, with the tags LibRaw needs to develop it, white at `white`. Without `dngVersion`,
// the same camera raw TIFF without the tag that makes it a DNG.
Bytes WriteDng(uint32_t width, uint32_t height, const std::vector<uint16_t>& cfa, uint16_t white,
               bool dngVersion = true);

enum class JxrFormat { kBgr24, kBgra32, kGrey8, kRgb48 };

// Lossless; `pixels` are rows without padding in the format's own layout.
Bytes WriteJxr(uint32_t width, uint32_t height, JxrFormat format, const Bytes& pixels);

struct J2kComponent {
    uint32_t precision = 8;
    bool isSigned = false;
    uint32_t dx = 1, dy = 1;            // subsampling
    std::vector<int32_t> samples = {};  // ceil(width / dx) x ceil(height / dy)
};

struct J2kFixture {
    uint32_t width = 0, height = 0;
    bool jp2 = true;    // a JP2 file, else a bare codestream
    bool sycc = false;  // colour space sYCC (JP2 only), else sRGB or grey
    std::vector<J2kComponent> components = {};
};

// Lossless (reversible 5/3 wavelet, no colour transform).
Bytes WriteJ2k(const J2kFixture& fixture);

// For the writers themselves: the end of one that can't write, and what `write` leaves in a
// file in memory that it opens by `path`, for the libraries that write only to files.
[[noreturn]] void Die(const char* what);
Bytes ThroughMemoryFile(const std::function<void(const char* path)>& write);

}  // namespace bridgewrite
