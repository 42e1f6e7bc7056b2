#include <algorithm>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "imgwrite/bytes.h"
#include "imgwrite/imgwrite.h"

namespace imgwrite {

using detail::Put8;
using detail::PutLe16;

namespace {

constexpr uint32_t kCodeLimit = 4096;

// The smallest size field n (0..7) whose table of 2 << n entries holds `count` entries.
uint8_t SizeField(size_t count) {
    uint8_t n = 0;
    while (n < 7 && (size_t(2) << n) < count) ++n;
    return n;
}

// Writes 2 << field entries: the palette, then black.
void PutPalette(Bytes& out, const std::vector<Rgba>& palette, uint32_t field) {
    const size_t entries = size_t(2) << field;
    for (size_t i = 0; i < entries; ++i) {
        const Rgba c = i < palette.size() ? palette[i] : Rgba{0, 0, 0, 255};
        out.insert(out.end(), {c.r, c.g, c.b});
    }
}

void PutExtension(Bytes& out, const GifExtension& extension) {
    Put8(out, 0x21);
    Put8(out, extension.label);
    for (const Bytes& block : extension.subBlocks) {
        Put8(out, uint32_t(block.size()));
        out.insert(out.end(), block.begin(), block.end());
    }
    Put8(out, 0);
}

// Codes packed least significant bit first.
class CodeWriter {
public:
    void Put(uint32_t code, uint32_t bits) {
        nAcc |= code << nBits;
        nBits += bits;
        while (nBits >= 8) {
            bytes.push_back(uint8_t(nAcc));
            nAcc >>= 8;
            nBits -= 8;
        }
    }
    Bytes Finish() {
        if (nBits > 0) bytes.push_back(uint8_t(nAcc));
        nAcc = nBits = 0;
        return std::move(bytes);
    }

private:
    Bytes bytes;
    uint32_t nAcc = 0;
    uint32_t nBits = 0;
};

// The LZW coder. It keeps the table of the decoder in step with its own: a decoder defines
// each string one code later than the coder, so its next free code (`nDecoderNext`) runs one
// behind, and the code width grows when the entry the coder is about to add needs one more bit.
class LzwCoder {
public:
    LzwCoder(uint8_t minCodeSize, const GifLzwOptions& options)
        : o(options),
          nMin(minCodeSize),
          nClear(1u << minCodeSize),
          nEnd(nClear + 1),
          nFirstFree(nClear + 2),
          nCodeSize(minCodeSize + 1u) {}

    // False when `badCodeAt` found no place.
    bool Code(const std::vector<uint8_t>& indices) {
        Clear();
        if (!indices.empty()) {
            uint32_t prefix = indices[0];
            for (size_t i = 1; i < indices.size(); ++i) {
                const uint32_t c = indices[i];
                const auto found = table.find((prefix << 8) | c);
                if (found != table.end()) {
                    prefix = found->second;
                    continue;
                }
                PutData(prefix);
                if (nNext < kCodeLimit) {
                    if (nNext >= (1u << nCodeSize) && nCodeSize < 12) ++nCodeSize;
                    table[(prefix << 8) | c] = uint16_t(nNext++);
                } else if (o.clearWhenFull) {
                    Clear();
                }
                prefix = c;
                if (o.clearEvery > 0 && nSinceClear >= o.clearEvery) Clear();
            }
            PutData(prefix);
            // The decoder defines one more string on this last code and may widen its codes.
            if (nNext < kCodeLimit && nNext >= (1u << nCodeSize) && nCodeSize < 12) ++nCodeSize;
        }
        if (o.endCode) writer.Put(nEnd, nCodeSize);
        return o.badCodeAt == 0 || nStringCodes >= o.badCodeAt;
    }

    Bytes Finish() { return writer.Finish(); }

private:
    void Clear() {
        writer.Put(nClear, nCodeSize);
        table.clear();
        nCodeSize = nMin + 1u;
        nNext = nDecoderNext = nFirstFree;
        bFirst = true;
        nSinceClear = 0;
    }

    void PutData(uint32_t code) {
        const uint32_t widest = (1u << nCodeSize) - 1;
        if (!bFirst && code == nDecoderNext && o.badCodeAt > 0 && widest > nDecoderNext &&
            ++nStringCodes == o.badCodeAt)
            code = widest;
        writer.Put(code, nCodeSize);
        if (bFirst)
            bFirst = false;
        else if (nDecoderNext < kCodeLimit)
            ++nDecoderNext;
        ++nSinceClear;
    }

    const GifLzwOptions& o;
    const uint32_t nMin, nClear, nEnd, nFirstFree;
    uint32_t nCodeSize;
    CodeWriter writer;
    std::unordered_map<uint32_t, uint16_t> table;  // (prefix << 8 | byte) -> code
    uint32_t nNext = 0;
    uint32_t nDecoderNext = 0;
    bool bFirst = true;
    uint32_t nSinceClear = 0;
    uint32_t nStringCodes = 0;  // codes that named the string being defined, where a larger fit
};

GifExtension GifControlBlock(const GifControl& control) {
    const bool transparent = control.transparentIndex >= 0;
    const uint8_t flags = uint8_t(((control.disposal & 7) << 2) | (transparent ? 1 : 0));
    return {0xF9,
            {{flags, uint8_t(control.delay), uint8_t(control.delay >> 8),
              uint8_t(transparent ? control.transparentIndex : 0)}}};
}

// The rows of an interlaced frame in the order they are stored.
std::vector<uint8_t> Interlaced(const GifFrame& frame) {
    std::vector<uint8_t> out;
    out.reserve(frame.indices.size());
    static constexpr uint32_t kStart[4] = {0, 4, 2, 1}, kStep[4] = {8, 8, 4, 2};
    for (int pass = 0; pass < 4; ++pass)
        for (uint32_t y = kStart[pass]; y < frame.height; y += kStep[pass]) {
            const auto row = frame.indices.begin() + std::ptrdiff_t(size_t(y) * frame.width);
            out.insert(out.end(), row, row + frame.width);
        }
    return out;
}

}  // namespace

GifExtension GifComment(const std::vector<std::string>& texts) {
    GifExtension e{0xFE, {}};
    for (const std::string& t : texts) e.subBlocks.emplace_back(t.begin(), t.end());
    return e;
}

GifExtension GifLoop(uint16_t count) {
    const std::string name = "NETSCAPE2.0";
    return {0xFF, {Bytes(name.begin(), name.end()), {1, uint8_t(count), uint8_t(count >> 8)}}};
}

Bytes GifPackCodes(const std::vector<GifCode>& codes) {
    CodeWriter writer;
    for (const GifCode& c : codes) writer.Put(c.code, c.bits);
    return writer.Finish();
}

Bytes GifImageData(uint8_t minCodeSize, const Bytes& packed, uint8_t blockSize) {
    Bytes out{minCodeSize};
    const size_t step = std::max<size_t>(blockSize, 1);
    for (size_t at = 0; at < packed.size(); at += step) {
        const size_t n = std::min(step, packed.size() - at);
        Put8(out, uint32_t(n));
        out.insert(out.end(), packed.begin() + std::ptrdiff_t(at),
                   packed.begin() + std::ptrdiff_t(at + n));
    }
    Put8(out, 0);
    return out;
}

Bytes GifLzw(const std::vector<uint8_t>& indices, const GifLzwOptions& options) {
    uint8_t largest = 0;
    for (uint8_t i : indices) largest = std::max(largest, i);
    uint8_t minimum = options.minCodeSize;
    if (minimum == 0) {
        minimum = 2;
        while ((1u << minimum) <= largest) ++minimum;
    }
    if (minimum < 2 || minimum > 11 || (1u << minimum) <= largest) return {};
    LzwCoder coder(minimum, options);
    if (!coder.Code(indices)) return {};
    return GifImageData(minimum, coder.Finish(), options.blockSize);
}

Bytes WriteGif(const GifOptions& options, const std::vector<GifFrame>& frames) {
    Bytes out;
    const char* signature = options.gif87a ? "GIF87a" : "GIF89a";
    out.insert(out.end(), signature, signature + 6);
    PutLe16(out, options.width);
    PutLe16(out, options.height);
    const bool global = !options.globalPalette.empty();
    const uint8_t globalField = global ? SizeField(options.globalPalette.size()) : 0;
    Put8(out, global ? 0xF0u | globalField : 0x70u);  // colour resolution 8 bits
    Put8(out, options.background);
    Put8(out, 0);  // no aspect ratio
    if (global) PutPalette(out, options.globalPalette, globalField);

    for (const GifFrame& frame : frames) {
        for (const GifExtension& e : frame.extensions) PutExtension(out, e);
        if (frame.hasControl) PutExtension(out, GifControlBlock(frame.control));
        Put8(out, 0x2C);
        PutLe16(out, frame.left);
        PutLe16(out, frame.top);
        PutLe16(out, frame.width);
        PutLe16(out, frame.height);
        const bool local = !frame.localPalette.empty();
        const uint32_t field = frame.localSizeField >= 0 ? uint32_t(frame.localSizeField & 15)
                               : local                   ? SizeField(frame.localPalette.size())
                                                         : 0;
        Put8(out, (local ? 0x80u : 0) | (frame.interlaced ? 0x40u : 0) | field);
        if (local) PutPalette(out, frame.localPalette, field);
        if (!frame.imageData.empty()) {
            out.insert(out.end(), frame.imageData.begin(), frame.imageData.end());
            continue;
        }
        if (frame.indices.size() != size_t(frame.width) * frame.height) return {};
        const Bytes data = GifLzw(frame.interlaced ? Interlaced(frame) : frame.indices, frame.lzw);
        if (data.empty()) return {};
        out.insert(out.end(), data.begin(), data.end());
    }
    for (const GifExtension& e : options.tail) PutExtension(out, e);
    if (options.trailer) Put8(out, 0x3B);
    return out;
}

Bytes WriteGif(const Picture& picture) {
    std::vector<Rgba> palette;
    std::vector<uint8_t> indices;
    if (!BuildPalette(picture, 256, palette, indices)) return {};
    GifFrame frame{.width = uint16_t(picture.width), .height = uint16_t(picture.height)};
    frame.indices = std::move(indices);
    return WriteGif({.width = frame.width, .height = frame.height, .globalPalette = palette},
                    {frame});
}

}  // namespace imgwrite
