// Writers of BMP, TGA, PSD and GIF files, for the decoder tests and the sample book generator.
//
// They are deliberately plain: each writes exactly what its options say, so that a test can
// compare a decoded picture with the picture it started from. Nothing in the program uses them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace imgwrite {

using Bytes = std::vector<uint8_t>;

struct Rgba {
    uint8_t r = 0, g = 0, b = 0, a = 255;
    friend bool operator==(const Rgba&, const Rgba&) = default;
};

// A picture of straight-alpha RGBA pixels, rows top first, no padding.
struct Picture {
    uint32_t width = 0;
    uint32_t height = 0;
    std::vector<Rgba> pixels;

    Picture() = default;
    Picture(uint32_t w, uint32_t h, Rgba fill = {})
        : width(w), height(h), pixels(size_t(w) * h, fill) {}
    Rgba& At(uint32_t x, uint32_t y) { return pixels[size_t(y) * width + x]; }
    const Rgba& At(uint32_t x, uint32_t y) const { return pixels[size_t(y) * width + x]; }
};

// The grey value the grey formats store for a pixel: the mean of red, green and blue.
uint8_t GreyOf(const Rgba& c);

// The distinct colours of `picture` in order of first appearance (alpha ignored), and each
// pixel's index into them. False when there are more than `maxEntries` colours.
bool BuildPalette(const Picture& picture, uint32_t maxEntries, std::vector<Rgba>& palette,
                  std::vector<uint8_t>& indices);

// ---- BMP ----------------------------------------------------------------------------------

enum class BmpHeader {
    Info40,     // BITMAPINFOHEADER
    Os2Core12,  // OS/2 1.x core header: 16-bit sizes, 3-byte palette entries
    V4,         // 108 bytes
    V5,         // 124 bytes
};

struct BmpOptions {
    uint32_t bpp = 24;  // 1, 4, 8, 16, 24 or 32
    BmpHeader header = BmpHeader::Info40;
    bool topDown = false;  // negative height; not allowed with RLE
    // 8 bits: RLE8, 4 bits: RLE4. Runs, absolute runs and, with `rleDelta`, deltas.
    bool rle = false;
    // With RLE: spans of palette index 0 are skipped with delta and end-of-line codes instead
    // of being written, since a decoder leaves skipped pixels at index 0.
    bool rleDelta = false;
    // 16 bits: 0 writes 5-5-5 without masks; 555 or 565 write BI_BITFIELDS with those masks.
    uint32_t bitfields = 0;
    // Indexed depths: the palette to use. Empty: built from the picture's colours.
    std::vector<Rgba> palette = {};
    // Indexed depths: write only the palette's own entries and state their count, instead of
    // a full table of 1 << bpp entries with a stated count of 0.
    bool compactPalette = false;
};

// Empty on options that can't be written (too many colours, RLE with a wrong depth, ...).
Bytes WriteBmp(const Picture& picture, const BmpOptions& options = {});

// Wraps a hand-made pixel body in a BITMAPINFOHEADER file: for bodies a writer would never
// produce (overrunning RLE runs, short bodies). `height` may be negative (top first).
Bytes BmpFromBody(int32_t width, int32_t height, uint16_t bpp, uint32_t compression,
                  const std::vector<Rgba>& palette, const Bytes& body);

// ---- TGA ----------------------------------------------------------------------------------

struct TgaOptions {
    uint8_t type = 2;          // 1 mapped, 2 true colour, 3 grey; 9, 10, 11 their RLE forms
    uint8_t depth = 24;        // true colour: 15, 16, 24, 32; mapped and grey: 8
    uint8_t mapDepth = 24;     // mapped: 16, 24 or 32 bits per map entry
    bool topFirst = false;     // descriptor bit 5
    bool rightToLeft = false;  // descriptor bit 4: pixels of a row run from the right
    std::string id = {};       // written after the header, skipped by readers
    // RLE: packets run over the ends of rows (allowed by the format) or stop at each row end.
    bool packetsCrossRows = true;
    std::vector<Rgba> palette = {};  // mapped: the map to use; empty: built from the picture
};

Bytes WriteTga(const Picture& picture, const TgaOptions& options = {});

// ---- PSD ----------------------------------------------------------------------------------

struct PsdOptions {
    uint16_t mode = 3;  // 1 grey, 3 RGB, 4 CMYK (any other number is written as stated)
    // Channels written: grey 1, RGB 3 or 4 (the fourth is alpha), CMYK 4 or 5 (the fifth is
    // alpha). 0 picks 1, 3 or 4 by mode.
    uint16_t channels = 0;
    uint16_t depth = 8;  // 8 or 16 bits per sample
    bool packBits = false;
    // Sizes of filler in the colour mode, image resources and layer sections, which readers skip.
    uint32_t colourModeBytes = 0;
    uint32_t resourceBytes = 0;
    uint32_t layerBytes = 0;
};

// The planes PsdOptions would write for `picture`, 8 bits a sample. CMYK is stored the way the
// format keeps it, as 255 minus ink, with black pulled out: k = max(r, g, b), c = r * 255 / k.
std::vector<Bytes> PsdPlanes(const Picture& picture, const PsdOptions& options);

// Writes the given planes (width * height samples each, 8 bits; 16-bit files get each sample as
// its high byte, with a low byte that varies so a reader taking the wrong byte is caught).
Bytes WritePsdPlanes(uint32_t width, uint32_t height, const std::vector<Bytes>& planes,
                     const PsdOptions& options);
Bytes WritePsd(const Picture& picture, const PsdOptions& options = {});

// PackBits of one row: literal runs (n < 128: n + 1 bytes follow) and repeats (257 - n copies).
Bytes PackBits(const uint8_t* data, size_t size);

// ---- GIF ----------------------------------------------------------------------------------

// One extension block: 0x21, the label, each sub-block with its size, then a size of 0.
// Comments are label 0xFE, application blocks 0xFF (their first sub-block is the 11 bytes of
// name and code), graphic control 0xF9, plain text 0x01.
struct GifExtension {
    uint8_t label = 0xFE;
    std::vector<Bytes> subBlocks = {};
};

// A comment of one sub-block per text.
GifExtension GifComment(const std::vector<std::string>& texts);
// The looping application block ("NETSCAPE2.0", sub-block 1 with the loop count).
GifExtension GifLoop(uint16_t count);

// A graphic control block.
struct GifControl {
    uint8_t disposal = 0;           // 0..7, as stored in bits 2-4
    int32_t transparentIndex = -1;  // -1: no transparent colour
    uint16_t delay = 0;             // hundredths of a second
};

// How the LZW data of a frame is coded.
struct GifLzwOptions {
    uint8_t minCodeSize = 0;  // 0: from the largest index (at least 2); else 2..11
    // When the table reaches 4096 codes: write a clear code and start over, or (false) go on
    // with 12-bit codes and a full table, as the format allows.
    bool clearWhenFull = true;
    uint32_t clearEvery = 0;  // > 0: a clear code after every this many data codes
    // > 0: the n-th time a code names the string being defined (the code right after the
    // last defined one), a larger code is written in its place; readers that treat every code
    // beyond the table as that string decode the same pixels.
    uint32_t badCodeAt = 0;
    bool endCode = true;      // write the end code
    uint8_t blockSize = 255;  // data sub-blocks of at most this many bytes (1..255)
};

struct GifFrame {
    uint16_t left = 0, top = 0, width = 0, height = 0;
    std::vector<uint8_t> indices = {};    // width * height palette indices, rows top first
    std::vector<Rgba> localPalette = {};  // empty: no local palette
    // The palette size field (low bits of the frame's flags); -1: the smallest that holds the
    // palette. The writer stores 2 << (field & 15) entries, padded with black: the reserved
    // bit 3 widens the table for readers that mask with 15 instead of 7.
    int32_t localSizeField = -1;
    bool interlaced = false;
    std::vector<GifExtension> extensions = {};  // written before the control block
    bool hasControl = false;
    GifControl control = {};
    GifLzwOptions lzw = {};
    // When not empty: written in place of the coded indices, from the minimum code size byte
    // on (see GifImageData), for streams no encoder writes.
    Bytes imageData = {};
};

struct GifOptions {
    uint16_t width = 0, height = 0;        // logical screen
    std::vector<Rgba> globalPalette = {};  // empty: no global palette
    uint8_t background = 0;                // background index
    bool gif87a = false;
    std::vector<GifExtension> tail = {};  // written after the last frame
    bool trailer = true;
};

Bytes WriteGif(const GifOptions& options, const std::vector<GifFrame>& frames);
// A still picture of at most 256 colours (alpha ignored) as one frame with a global palette.
// Empty when the picture has more colours.
Bytes WriteGif(const Picture& picture);

// LZW data of `indices` (the minimum code size byte, sub-blocks, the terminating 0). Empty
// when an index doesn't fit the minimum code size or `badCodeAt` found no place.
Bytes GifLzw(const std::vector<uint8_t>& indices, const GifLzwOptions& options = {});

// Codes of the given widths packed least significant bit first, as GIF stores them.
struct GifCode {
    uint16_t code = 0;
    uint8_t bits = 0;
};
Bytes GifPackCodes(const std::vector<GifCode>& codes);
// Image data from packed bytes: the minimum code size, sub-blocks of at most `blockSize`
// bytes, and the closing 0.
Bytes GifImageData(uint8_t minCodeSize, const Bytes& packed, uint8_t blockSize = 255);

// ---- Files --------------------------------------------------------------------------------

bool WriteFile(const std::string& path, const Bytes& bytes);

}  // namespace imgwrite
