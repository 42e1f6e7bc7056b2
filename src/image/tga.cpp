// TGA decoder: colour-mapped, true-colour and grey pictures, raw or run-length coded, always
// delivered as 24 bits (alpha of 32-bit files is dropped).
#include <algorithm>
#include <cstring>
#include <vector>

#include "image/bytes.h"
#include "image/decoders.h"
#include "image/limits.h"
#include "image/xdib.h"
#include "image/xdibio.h"

namespace {

constexpr uint32_t kHeaderSize = 18;

// 5-5-5 in a little-endian 16-bit value, each channel shifted up by 3.
void Expand555(const uint8_t* p, uint8_t* bgr) {
    const uint32_t v = Le16(p);
    bgr[0] = uint8_t((v << 3) & 0xF8);
    bgr[1] = uint8_t((v >> 2) & 0xF8);
    bgr[2] = uint8_t((v >> 7) & 0xF8);
}

struct TgaPixels {
    uint32_t bytesPerPixel;
    uint32_t depth;
    const uint8_t* table;  // 256 entries of B, G, R for 8-bit pixels

    void ToBgr(const uint8_t* p, uint8_t* bgr) const {
        switch (depth) {
            case 8:
                std::memcpy(bgr, table + 3 * p[0], 3);
                break;
            case 15:
            case 16:
                Expand555(p, bgr);
                break;
            default:
                std::memcpy(bgr, p, 3);
                break;  // 24 and 32: B, G, R (, A dropped)
        }
    }
};

// Run-length packets are a stream of pixels that may run across the end of a row: what is
// left of a packet carries over to the next row.
class TgaRleStream {
public:
    TgaRleStream(IXDibIO& source, const TgaPixels& pixels) : in(source), px(pixels) {}

    bool Fill(uint8_t* out, uint32_t count) {
        while (count > 0) {
            if (pending == 0) {
                uint8_t header;
                if (!in.Byte(header)) return false;
                pending = (header & 127u) + 1;
                isRun = (header & 0x80) != 0;
                if (isRun && !in.Read(runPixel, px.bytesPerPixel)) return false;
            }
            const uint32_t n = std::min(pending, count);
            if (isRun) {
                uint8_t bgr[3];
                px.ToBgr(runPixel, bgr);
                for (uint32_t i = 0; i < n; ++i, out += 3) std::memcpy(out, bgr, 3);
            } else {
                uint8_t raw[128 * 4];
                if (!in.Read(raw, n * px.bytesPerPixel)) return false;
                for (uint32_t i = 0; i < n; ++i, out += 3)
                    px.ToBgr(raw + i * px.bytesPerPixel, out);
            }
            pending -= n;
            count -= n;
        }
        return true;
    }

private:
    XByteReader in;
    const TgaPixels& px;
    uint32_t pending = 0;
    bool isRun = false;
    uint8_t runPixel[4] = {};
};

}  // namespace

bool DecodeTga(XDib& dib, IXDibIO& source) {
    dib.Destroy();
    source.Seek(0, 0);
    uint8_t h[kHeaderSize];
    if (!source.Read(h, sizeof(h))) return false;
    const uint32_t idLength = h[0], mapType = h[1], type = h[2];
    const uint32_t mapFirst = Le16(h + 3), mapLength = Le16(h + 5), mapDepth = h[7];
    const uint32_t width = Le16(h + 12), height = Le16(h + 14), depth = h[16];
    const uint32_t descriptor = h[17];
    if (width == 0 || height == 0 || mapLength > 256) return false;
    if (depth != 8 && depth != 15 && depth != 16 && depth != 24 && depth != 32) return false;
    if (type != 1 && type != 2 && type != 3 && type != 9 && type != 10 && type != 11) return false;
    source.Seek(idLength, 1);

    // 8-bit pixels look up this table: the colour map, or a grey ramp for grey pictures.
    uint8_t table[256 * 3] = {};
    if (mapType == 1) {
        const uint32_t entryBytes = mapDepth == 15 || mapDepth == 16 ? 2 : mapDepth == 32 ? 4 : 3;
        std::vector<uint8_t> raw(size_t(mapLength) * entryBytes);
        if (!raw.empty() && !source.Read(raw.data(), uint32_t(raw.size()))) return false;
        // Entry i of the map stands for pixel value mapFirst + i.
        for (uint32_t i = 0; i < mapLength && mapFirst + i < 256; ++i) {
            uint8_t* dst = table + 3 * (mapFirst + i);
            if (entryBytes == 2)
                Expand555(&raw[2 * i], dst);
            else
                std::memcpy(dst, &raw[entryBytes * i], 3);
        }
    }
    if (type == 3 || type == 11) {
        for (uint32_t i = 0; i < 256; ++i) std::memset(table + 3 * i, int(i), 3);
    }

    const TgaPixels pixels{depth == 15 ? 2u : (depth + 7) / 8, depth, table};
    const bool rle = type >= 9;
    const uint64_t rawBytes = uint64_t(width) * height * pixels.bytesPerPixel;
    const int64_t available = source.GetSize() - source.Tell();
    if (rle ? !PackedBodyPlausible(rawBytes, kTgaRleExpansion, available)
            : !RawBodyPlausible(rawBytes, available))
        return false;
    if (!dib.Create(width, height, 24)) return false;

    const bool topFirst = (descriptor & 0x20) != 0;
    const bool rightToLeft = (descriptor & 0x10) != 0;
    TgaRleStream stream(source, pixels);
    std::vector<uint8_t> raw(rle ? 0 : size_t(width) * pixels.bytesPerPixel);
    for (uint32_t y = 0; y < height; ++y) {
        uint8_t* row = dib.GetRow(topFirst ? y : height - 1 - y);
        if (rle) {
            if (!stream.Fill(row, width)) return false;
        } else {
            if (!source.Read(raw.data(), uint32_t(raw.size()))) return false;
            for (uint32_t x = 0; x < width; ++x)
                pixels.ToBgr(&raw[size_t(x) * pixels.bytesPerPixel], row + 3 * x);
        }
        if (rightToLeft) {
            for (uint32_t a = 0, b = width - 1; a < b; ++a, --b)
                std::swap_ranges(row + 3 * a, row + 3 * a + 3, row + 3 * b);
        }
    }
    return true;
}
