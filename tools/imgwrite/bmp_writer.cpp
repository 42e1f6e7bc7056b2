#include <algorithm>

#include "imgwrite/bytes.h"
#include "imgwrite/imgwrite.h"

namespace imgwrite {

using namespace detail;

namespace {

constexpr uint32_t kRgb = 0, kRle8 = 1, kRle4 = 2, kBitfields = 3;

// Length of the run starting at `x`. With `period` 2 a run may alternate between two values,
// which is what one RLE4 run byte (two nibbles) repeats.
uint32_t RunAt(const std::vector<uint8_t>& v, uint32_t x, uint32_t period) {
    uint32_t n = 1;
    while (x + n < v.size() && n < 255 && v[x + n] == v[x + (n % period)]) ++n;
    return n;
}

uint32_t ZerosAt(const std::vector<uint8_t>& v, uint32_t x) {
    uint32_t n = 0;
    while (x + n < v.size() && v[x + n] == 0) ++n;
    return n;
}

// Emits a move by (dx, dy) as delta codes of at most 255 each.
void EmitDelta(Bytes& out, uint32_t dx, uint32_t dy) {
    while (dx || dy) {
        const uint32_t sx = std::min(dx, 255u), sy = std::min(dy, 255u);
        out.insert(out.end(), {0, 2, uint8_t(sx), uint8_t(sy)});
        dx -= sx, dy -= sy;
    }
}

// One row of RLE8 or RLE4 (`nibbles`), without its end-of-line code. Runs of three or more
// become run codes, other stretches absolute runs (one or two pixels as short runs, since
// absolute counts under 3 are escape codes). With `delta`, spans of index 0 inside the row are
// jumped over; a zero tail is left to the end-of-line code.
void EncodeRleRow(Bytes& out, const std::vector<uint8_t>& v, bool nibbles, bool delta) {
    const uint32_t width = uint32_t(v.size()), period = nibbles ? 2 : 1;
    const auto runByte = [&](uint32_t x, uint32_t n) {
        if (!nibbles) return v[x];
        return uint8_t((v[x] << 4) | (n > 1 ? v[x + 1] : 0));
    };
    uint32_t x = 0;
    while (x < width) {
        if (delta && v[x] == 0) {
            const uint32_t z = ZerosAt(v, x);
            if (x + z == width) return;
            if (z >= 2) {
                EmitDelta(out, z, 0);
                x += z;
                continue;
            }
        }
        const uint32_t run = RunAt(v, x, period);
        if (run >= 3) {
            out.push_back(uint8_t(run));
            out.push_back(runByte(x, run));
            x += run;
            continue;
        }
        uint32_t n = 0;
        while (x + n < width && n < 255 && RunAt(v, x + n, period) < 3 &&
               !(delta && ZerosAt(v, x + n) >= 2))
            ++n;
        if (n < 3) {
            // Too short for an absolute run: one run code holds two nibbles, but at 8 bits
            // each pixel needs a run of its own.
            n = std::max(n, 1u);
            for (uint32_t i = 0; i < n; i += period) {
                const uint32_t k = std::min(period, n - i);
                out.push_back(uint8_t(k));
                out.push_back(runByte(x + i, k));
            }
        } else {
            const size_t start = out.size();
            out.push_back(0);
            out.push_back(uint8_t(n));
            for (uint32_t i = 0; i < n; i += period)
                out.push_back(nibbles ? uint8_t((v[x + i] << 4) | (i + 1 < n ? v[x + i + 1] : 0))
                                      : v[x + i]);
            if ((out.size() - start) & 1) out.push_back(0);  // absolute runs end on a word
        }
        x += n;
    }
}

// The whole RLE body, rows bottom first. With `delta`, rows of index 0 are jumped over and
// a zero end of the picture is cut short by the end-of-bitmap code.
Bytes EncodeRle(const std::vector<uint8_t>& indices, uint32_t width, uint32_t height, bool nibbles,
                bool delta) {
    std::vector<std::vector<uint8_t>> rows(height);
    for (uint32_t y = 0; y < height; ++y)  // file row y is picture row height - 1 - y
        rows[y].assign(indices.begin() + size_t(height - 1 - y) * width,
                       indices.begin() + size_t(height - y) * width);
    const auto blank = [&](uint32_t y) {
        return std::all_of(rows[y].begin(), rows[y].end(), [](uint8_t i) { return i == 0; });
    };
    Bytes out;
    uint32_t y = 0;
    while (y < height) {
        EncodeRleRow(out, rows[y], nibbles, delta);
        uint32_t next = y + 1;
        while (delta && next < height && blank(next)) ++next;
        if (next == height) break;
        out.insert(out.end(), {0, 0});  // end of line
        if (next > y + 1) EmitDelta(out, 0, next - y - 1);
        y = next;
    }
    out.insert(out.end(), {0, 1});  // end of bitmap
    return out;
}

// Indices of each pixel into `palette` (exact colour, alpha ignored); false if one is missing.
bool MapToPalette(const Picture& picture, const std::vector<Rgba>& palette,
                  std::vector<uint8_t>& indices) {
    indices.resize(picture.pixels.size());
    for (size_t i = 0; i < picture.pixels.size(); ++i) {
        const Rgba& c = picture.pixels[i];
        auto it = std::find_if(palette.begin(), palette.end(), [&](const Rgba& p) {
            return p.r == c.r && p.g == c.g && p.b == c.b;
        });
        if (it == palette.end()) return false;
        indices[i] = uint8_t(it - palette.begin());
    }
    return true;
}

// One uncompressed row in file layout, padded to four bytes.
void EncodeRow(Bytes& out, const Picture& picture, const std::vector<uint8_t>& indices, uint32_t y,
               uint32_t bpp, uint32_t bitfields) {
    const size_t start = out.size();
    const uint32_t w = picture.width;
    const uint8_t* idx = indices.empty() ? nullptr : indices.data() + size_t(y) * w;
    if (bpp <= 8) {
        const uint32_t perByte = 8 / bpp;
        for (uint32_t x = 0; x < w; x += perByte) {
            uint32_t byte = 0;
            for (uint32_t k = 0; k < perByte; ++k) {
                const uint32_t value = x + k < w ? idx[x + k] : 0;
                byte |= value << (8 - bpp * (k + 1));  // first pixel in the high bits
            }
            out.push_back(uint8_t(byte));
        }
    } else {
        for (uint32_t x = 0; x < w; ++x) {
            const Rgba& c = picture.At(x, y);
            if (bpp == 16) {
                PutLe16(out, bitfields == 565 ? ((c.r >> 3) << 11) | ((c.g >> 2) << 5) | (c.b >> 3)
                                              : Pack555(c.r, c.g, c.b));
            } else {
                out.insert(out.end(), {c.b, c.g, c.r});
                if (bpp == 32) out.push_back(c.a);
            }
        }
    }
    while ((out.size() - start) % 4) out.push_back(0);
}

uint32_t HeaderSize(BmpHeader header) {
    switch (header) {
        case BmpHeader::Os2Core12:
            return 12;
        case BmpHeader::V4:
            return 108;
        case BmpHeader::V5:
            return 124;
        default:
            return 40;
    }
}

// File header, info header of `headerSize` bytes, masks, palette; fills in the pixel offset and
// file size once the body is appended by the caller.
Bytes Assemble(int32_t width, int32_t height, uint16_t bpp, uint32_t compression,
               uint32_t headerSize, uint32_t stateCount, const std::vector<Rgba>& palette,
               uint32_t bitfields, const Bytes& body) {
    Bytes out = {'B', 'M'};
    PutLe32(out, 0);  // file size, set below
    PutLe32(out, 0);  // reserved
    PutLe32(out, 0);  // pixel offset, set below
    PutLe32(out, headerSize);
    uint32_t masks[4] = {0, 0, 0, 0};
    if (bitfields == 555) masks[0] = 0x7C00, masks[1] = 0x03E0, masks[2] = 0x001F;
    if (bitfields == 565) masks[0] = 0xF800, masks[1] = 0x07E0, masks[2] = 0x001F;
    if (headerSize == 12) {
        PutLe16(out, uint32_t(width));
        PutLe16(out, uint32_t(height));
        PutLe16(out, 1);
        PutLe16(out, bpp);
    } else {
        PutLe32(out, uint32_t(width));
        PutLe32(out, uint32_t(height));
        PutLe16(out, 1);  // planes
        PutLe16(out, bpp);
        PutLe32(out, compression);
        PutLe32(out, uint32_t(body.size()));
        PutLe32(out, 2835);  // 72 dpi
        PutLe32(out, 2835);
        PutLe32(out, stateCount);
        PutLe32(out, 0);  // all colours important
        if (headerSize >= 108) {
            if (bpp == 32 && compression == kRgb) masks[3] = 0xFF000000;
            for (uint32_t m : masks) PutLe32(out, m);
            PutLe32(out, 0x73524742);             // 'sRGB'
            out.resize(out.size() + 36 + 12, 0);  // end points and gamma, unused with sRGB
        }
        if (headerSize >= 124) {
            PutLe32(out, 4);                                    // rendering intent: perceptual
            PutLe32(out, 0), PutLe32(out, 0), PutLe32(out, 0);  // no profile, reserved
        }
        if (headerSize == 40 && compression == kBitfields)
            for (int i = 0; i < 3; ++i) PutLe32(out, masks[i]);
    }
    for (const Rgba& c : palette) {
        out.insert(out.end(), {c.b, c.g, c.r});
        if (headerSize != 12) out.push_back(0);
    }
    SetLe32(out, 10, uint32_t(out.size()));
    out.insert(out.end(), body.begin(), body.end());
    SetLe32(out, 2, uint32_t(out.size()));
    return out;
}

}  // namespace

Bytes WriteBmp(const Picture& picture, const BmpOptions& o) {
    const uint32_t bpp = o.bpp;
    const bool os2 = o.header == BmpHeader::Os2Core12;
    if (picture.width == 0 || picture.height == 0 || picture.width > 0x7FFFFFF ||
        picture.height > 0x7FFFFFF)
        return {};
    if (bpp != 1 && bpp != 4 && bpp != 8 && bpp != 16 && bpp != 24 && bpp != 32) return {};
    if (o.rle && (o.topDown || (bpp != 4 && bpp != 8))) return {};
    if (o.bitfields != 0 && (bpp != 16 || (o.bitfields != 555 && o.bitfields != 565))) return {};
    // OS/2 1.x knows neither compression nor 16 and 32 bits nor top-first rows.
    if (os2 && (o.rle || bpp == 16 || bpp == 32 || o.topDown || picture.width > 0xFFFF ||
                picture.height > 0xFFFF))
        return {};

    std::vector<Rgba> palette;
    std::vector<uint8_t> indices;
    if (bpp <= 8) {
        const uint32_t capacity = 1u << bpp;
        palette = o.palette;
        if (palette.empty() ? !BuildPalette(picture, capacity, palette, indices)
                            : !MapToPalette(picture, palette, indices))
            return {};
        if (palette.size() > capacity) return {};
        if (!o.compactPalette) palette.resize(capacity, Rgba{0, 0, 0, 255});
    }

    Bytes body;
    uint32_t compression = o.bitfields ? kBitfields : kRgb;
    if (o.rle) {
        compression = bpp == 8 ? kRle8 : kRle4;
        body = EncodeRle(indices, picture.width, picture.height, bpp == 4, o.rleDelta);
    } else {
        for (uint32_t i = 0; i < picture.height; ++i)
            EncodeRow(body, picture, indices, o.topDown ? i : picture.height - 1 - i, bpp,
                      o.bitfields);
    }
    const int32_t height = o.topDown ? -int32_t(picture.height) : int32_t(picture.height);
    const uint32_t stated = bpp <= 8 && o.compactPalette ? uint32_t(palette.size()) : 0;
    return Assemble(int32_t(picture.width), height, uint16_t(bpp), compression,
                    HeaderSize(o.header), stated, palette, o.bitfields, body);
}

Bytes BmpFromBody(int32_t width, int32_t height, uint16_t bpp, uint32_t compression,
                  const std::vector<Rgba>& palette, const Bytes& body) {
    return Assemble(width, height, bpp, compression, 40, uint32_t(palette.size()), palette, 0,
                    body);
}

}  // namespace imgwrite
