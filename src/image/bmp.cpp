// BMP decoder: uncompressed 1/4/8/16/24/32-bit pictures, RLE8 and RLE4, with the OS/2 core
// header, the plain info header, the 64-byte OS/2 2.x header and the larger V4/V5 headers.
#include <bit>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "image/bytes.h"
#include "image/decoders.h"
#include "image/limits.h"
#include "image/xdib.h"
#include "image/xdibio.h"

namespace {

constexpr uint32_t kFileHeaderSize = 14;
constexpr uint32_t kInfoHeaderSize = 40;

struct BmpInfo {
    int64_t width = 0;
    int64_t height = 0;
    uint32_t planes = 0;
    uint32_t bits = 0;
    uint32_t compression = 0;
    uint32_t imageSize = 0;
    uint32_t paletteCount = 0;
    bool os2Core = false;
};

// One channel described by a bit mask of a BI_BITFIELDS picture.
struct MaskChannel {
    uint32_t mask = 0;
    int shift = 0;
    int bits = 0;

    explicit MaskChannel(uint32_t m) : mask(m) {
        if (m) shift = std::countr_zero(m), bits = std::popcount(m >> shift);
    }
    // Brought to 8 bits the way 5-bit channels are: shifted up, low bits left at zero.
    uint8_t operator()(uint32_t v) const {
        if (!bits) return 0;
        const uint32_t c = (v & mask) >> shift;
        return uint8_t(bits >= 8 ? c >> (bits - 8) : c << (8 - bits));
    }
};

// Writes index `value` at pixel x of an RLE row; pixels beyond the row are dropped.
void PutIndex(uint8_t* row, uint32_t width, uint32_t bits, uint32_t x, uint8_t value) {
    if (x >= width) return;
    if (bits == 8) {
        row[x] = value;
    } else if (x & 1) {
        row[x >> 1] = uint8_t((row[x >> 1] & 0xF0) | (value & 0x0F));
    } else {
        row[x >> 1] = uint8_t((row[x >> 1] & 0x0F) | (value << 4));
    }
}

// RLE8 / RLE4. The stream ends at end-of-bitmap, at the last row, or where the data runs out;
// a file cut short keeps what was drawn and still counts as read.
bool DecodeRle(XDib& dib, IXDibIO& source, uint32_t bits, bool bottomUp) {
    XByteReader in(source);
    const uint32_t width = dib.nWidth, height = dib.nHeight;
    uint32_t x = 0, y = 0;
    uint8_t absolute[256];
    const auto row = [&]() { return dib.GetRow(bottomUp ? height - 1 - y : y); };
    while (y < height) {
        uint8_t pair[2];
        if (!in.Read(pair, 2)) return true;
        const uint32_t count = pair[0];
        const uint8_t value = pair[1];
        if (count > 0) {
            uint8_t* r = row();
            for (uint32_t i = 0; i < count && x < width; ++i, ++x) {
                // RLE4 runs alternate the value's two nibbles, high first.
                const uint8_t v = bits == 8 ? value : ((i & 1) ? value & 0x0F : value >> 4);
                PutIndex(r, width, bits, x, v);
            }
            continue;
        }
        switch (value) {
            case 0:  // end of line
                x = 0, ++y;
                break;
            case 1:  // end of bitmap
                return true;
            case 2: {  // move right and up by a delta
                uint8_t delta[2];
                if (!in.Read(delta, 2)) return true;
                x += delta[0], y += delta[1];
                break;
            }
            default: {  // absolute run, padded to an even number of bytes
                const uint32_t bytes = bits == 8 ? value : (value + 1u) / 2;
                if (!in.Read(absolute, (bytes + 1) & ~1u)) return true;
                uint8_t* r = row();
                for (uint32_t i = 0; i < value; ++i, ++x) {
                    const uint8_t v =
                        bits == 8 ? absolute[i]
                                  : ((i & 1) ? absolute[i / 2] & 0x0F : absolute[i / 2] >> 4);
                    PutIndex(r, width, bits, x, v);
                }
                break;
            }
        }
    }
    return true;
}

}  // namespace

bool DecodeBmp(XDib& dib, IXDibIO& source) {
    dib.Destroy();
    source.Seek(0, 0);
    uint8_t fileHeader[kFileHeaderSize];
    uint8_t ih[kInfoHeaderSize];
    if (!source.Read(fileHeader, sizeof(fileHeader)) || fileHeader[0] != 'B' ||
        fileHeader[1] != 'M')
        return false;
    if (!source.Read(ih, sizeof(ih))) return false;
    const uint32_t pixelOffset = Le32(fileHeader + 10);
    const uint32_t headerSize = Le32(ih);

    BmpInfo info;
    if (headerSize == 12) {
        // OS/2 core header: 16-bit fields, no compression, 3-byte palette entries.
        info.width = Le16(ih + 4);
        info.height = int16_t(Le16(ih + 6));
        info.planes = Le16(ih + 8);
        info.bits = Le16(ih + 10);
        info.os2Core = true;
        source.Seek(-28, 1);
    } else {
        info.width = int32_t(Le32(ih + 4));
        info.height = int32_t(Le32(ih + 8));
        info.planes = Le16(ih + 12);
        info.bits = Le16(ih + 14);
        info.compression = Le32(ih + 16);
        info.imageSize = Le32(ih + 20);
        info.paletteCount = Le32(ih + 32);
        if (headerSize == 64) {
            source.Seek(24, 1);
        } else if (headerSize < 40) {
            return false;
        } else if (headerSize > 40) {
            // Larger headers are trusted only when they describe a plain, consistent picture.
            const uint64_t rowBytes =
                (uint64_t(info.bits) * uint64_t(std::abs(info.width)) + 31) / 32;
            const uint64_t required = rowBytes * uint64_t(std::abs(info.height)) * 4;
            if (info.imageSize < required || info.planes != 1 || info.paletteCount != 0)
                return false;
            if (info.compression == 0) source.Seek(headerSize - 40, 1);
        }
    }

    const uint32_t bits = info.bits;
    if (bits != 1 && bits != 4 && bits != 8 && bits != 16 && bits != 24 && bits != 32) return false;
    const uint32_t compression = info.compression;
    const bool rle = compression == 1 || compression == 2;
    if (!(compression == 0 || (compression == 1 && bits == 8) || (compression == 2 && bits == 4) ||
          (compression == 3 && (bits == 16 || bits == 32))))
        return false;

    bool bottomUp = true;
    if (info.height < 0) {
        info.height = -info.height;
        bottomUp = false;
    }
    if (info.width <= 0 || info.height == 0) return false;
    const uint32_t width = uint32_t(info.width), height = uint32_t(info.height);
    const uint32_t fileStride = XDibStride(width, bits);
    if (info.imageSize == 0) info.imageSize = fileStride * height;

    // Masks of a BI_BITFIELDS picture follow the 40-byte header, also inside V4/V5 headers.
    uint32_t masks[3] = {0x7C00, 0x03E0, 0x001F};  // 5-5-5, the 16-bit default
    if (compression == 3) {
        uint8_t raw[12];
        const int64_t resume = source.Tell();
        if (source.Seek(kFileHeaderSize + kInfoHeaderSize, 0) !=
                kFileHeaderSize + kInfoHeaderSize ||
            !source.Read(raw, sizeof(raw)))
            return false;
        masks[0] = Le32(raw), masks[1] = Le32(raw + 4), masks[2] = Le32(raw + 8);
        source.Seek(resume, 0);
    }

    uint8_t palette[256 * 4] = {};
    uint32_t paletteCount = 0;
    if (bits <= 8) {
        paletteCount = info.paletteCount;
        if (paletteCount == 0 || paletteCount > (1u << bits)) paletteCount = 1u << bits;
        const uint32_t entryBytes = info.os2Core ? 3 : 4;
        uint8_t raw[256 * 4];
        if (!source.Read(raw, paletteCount * entryBytes)) return false;
        for (uint32_t i = 0; i < paletteCount; ++i)
            std::memcpy(palette + 4 * i, raw + entryBytes * i, 3);
    }

    // The pixel data starts at the offset the file header states, when that is sane: it skips
    // the bit masks and any palette that deeper pictures may carry.
    const int64_t fileSize = source.GetSize();
    if (pixelOffset >= source.Tell() && pixelOffset < fileSize) source.Seek(pixelOffset, 0);

    const uint64_t claimed = uint64_t(fileStride) * height;
    const int64_t available = fileSize - source.Tell();
    if (rle ? !PackedBodyPlausible(claimed, kBmpRleExpansion, available)
            : !RawBodyPlausible(claimed, available))
        return false;
    const uint32_t targetBits = bits == 16 ? 24 : bits;
    if (!dib.Create(width, height, targetBits, paletteCount, palette)) return false;

    if (rle) return DecodeRle(dib, source, bits, bottomUp);

    const auto targetRow = [&](uint32_t y) { return dib.GetRow(bottomUp ? height - 1 - y : y); };
    bool whole = true;
    if (bits == 16) {
        const MaskChannel red(masks[0]), green(masks[1]), blue(masks[2]);
        std::vector<uint8_t> line((width + 1) / 2 * 4);
        for (uint32_t y = 0; y < height && whole; ++y) {
            if (!source.Read(line.data(), uint32_t(line.size()))) {
                whole = false;
                break;
            }
            uint8_t* out = targetRow(y);
            for (uint32_t x = 0; x < width; ++x, out += 3) {
                const uint32_t v = Le16(&line[2 * x]);
                out[0] = blue(v), out[1] = green(v), out[2] = red(v);
            }
        }
        return whole;
    }
    for (uint32_t y = 0; y < height; ++y) {
        if (!source.Read(targetRow(y), fileStride)) {
            whole = false;
            break;
        }
    }
    if (bits == 32) {
        // BMP alpha isn't used: every pixel is opaque. Pictures with unusual masks are
        // rearranged into B, G, R here too.
        const bool plain =
            compression != 3 || (masks[0] == 0xFF0000 && masks[1] == 0xFF00 && masks[2] == 0xFF);
        const MaskChannel red(masks[0]), green(masks[1]), blue(masks[2]);
        for (uint32_t y = 0; y < height; ++y) {
            uint8_t* p = dib.GetRow(y);
            for (uint32_t x = 0; x < width; ++x, p += 4) {
                if (!plain) {
                    const uint32_t v = Le32(p);
                    p[0] = blue(v), p[1] = green(v), p[2] = red(v);
                }
                p[3] = 255;
            }
        }
    }
    return whole;
}
