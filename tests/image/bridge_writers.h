// Writers of PNG, TIFF, DNG, JPEG XR and JPEG 2000 files for the tests and fuzz seeds of the
// library bridges, made with the libraries' own encoders. Each writes exactly what it is
// given, so that a test can compare a decoded picture with the samples it started from. They
// stop the program on a library error: a writer that can't write is a broken test.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

namespace bridgewrite {

using Bytes = std::vector<uint8_t>;

struct Rgb {
    uint8_t r = 0, g = 0, b = 0;
};

// ---- PNG ----------------------------------------------------------------------------------

struct PngBackground {
    uint8_t index = 0;  // palette pictures
    uint16_t red = 0, green = 0, blue = 0, grey = 0;
};

struct PngFixture {
    uint32_t width = 0;
    uint32_t height = 0;
    int colourType = 2;  // 0 grey, 2 RGB, 3 palette, 4 grey + alpha, 6 RGBA
    int bitDepth = 8;
    bool interlaced = false;
    // Row after row, channel after channel, one value per sample at the file's depth
    // (palette pictures: the indices).
    std::vector<uint16_t> samples = {};
    std::vector<Rgb> palette = {};
    std::vector<uint8_t> paletteAlpha = {};    // tRNS of a palette picture
    std::optional<uint16_t> transparent = {};  // tRNS of grey: the grey, of RGB: red = green = blue
    std::optional<PngBackground> background = {};
    double gamma = 0;  // gAMA; 0 writes none
};

Bytes WritePng(const PngFixture& fixture);

// ---- TIFF and DNG -------------------------------------------------------------------------

struct TiffPage {
    uint32_t width = 0;
    uint32_t height = 0;
    uint16_t photometric = 1;  // 0 min-is-white, 1 min-is-black, 2 RGB, 3 palette, 5 CMYK
    uint16_t bits = 8;
    uint16_t samples = 1;
    uint16_t extraSamples = 0;  // the last samples are alpha (unassociated)
    uint16_t planar = 1;        // 2: one plane after the other
    uint16_t compression = 1;   // 1 none, 5 LZW, 8 deflate, 32773 PackBits
    uint16_t orientation = 1;
    uint32_t rowsPerStrip = 0;  // 0: one strip
    uint32_t tileWidth = 0;     // tiled when both are set (multiples of 16)
    uint32_t tileHeight = 0;
    std::vector<uint16_t> colourMap = {};  // palette: all reds, all greens, all blues (16 bits)
    // Packed rows (a row starts on a byte); with planar 2, one plane after the other.
    Bytes data = {};
    // When set, written as the page's only strip instead of `data`, as it is: for pages whose
    // bytes can't be what they claim (broken coding, sizes far beyond the file).
    std::optional<Bytes> rawStrip = {};
};

// Every page in order, one directory each.
Bytes WriteTiff(const std::vector<TiffPage>& pages);

// A minimal DNG: one 16-bit Bayer (RGGB) raw image of `width` x `height` in the first
// directory, with the tags LibRaw needs to develop it, white at `white`.
Bytes WriteDng(uint32_t width, uint32_t height, const std::vector<uint16_t>& cfa, uint16_t white);

// ---- JPEG XR ------------------------------------------------------------------------------

enum class JxrFormat { kBgr24, kBgra32, kGrey8, kRgb48 };

// Lossless; `pixels` are rows without padding in the format's own layout.
Bytes WriteJxr(uint32_t width, uint32_t height, JxrFormat format, const Bytes& pixels);

// ---- JPEG 2000 ----------------------------------------------------------------------------

struct J2kComponent {
    uint32_t precision = 8;
    bool isSigned = false;
    uint32_t dx = 1, dy = 1;            // subsampling
    std::vector<int32_t> samples = {};  // ceil(width / dx) x ceil(height / dy)
};

struct J2kFixture {
    uint32_t width = 0;
    uint32_t height = 0;
    bool jp2 = true;    // a JP2 file, else a bare codestream
    bool sycc = false;  // colour space sYCC (JP2 only), else sRGB or grey
    std::vector<J2kComponent> components = {};
};

// Lossless (reversible 5/3 wavelet, no colour transform).
Bytes WriteJ2k(const J2kFixture& fixture);

}  // namespace bridgewrite
