#include <cstring>

#include "imgwrite/bytes.h"
#include "imgwrite/imgwrite.h"

namespace imgwrite {

using namespace detail;

namespace {

// One pixel or map entry of `depth` bits in file layout.
void PutColour(Bytes& out, const Rgba& c, uint32_t depth) {
    switch (depth) {
        case 15:
        case 16:  // 5-5-5, the top bit is the attribute (alpha) bit in 16-bit files
            PutLe16(out, Pack555(c.r, c.g, c.b) | (depth == 16 && c.a >= 128 ? 0x8000 : 0));
            break;
        case 24:
            out.insert(out.end(), {c.b, c.g, c.r});
            break;
        default:
            out.insert(out.end(), {c.b, c.g, c.r, c.a});
            break;
    }
}

// Packets over `count` pixels of `size` bytes each: a run of 2 to 128 equal pixels becomes a
// run packet, anything else raw packets of up to 128 pixels.
void EncodePackets(Bytes& out, const uint8_t* pixels, size_t count, size_t size) {
    const auto same = [&](size_t a, size_t b) {
        return std::memcmp(pixels + a * size, pixels + b * size, size) == 0;
    };
    size_t i = 0;
    while (i < count) {
        size_t run = 1;
        while (i + run < count && run < 128 && same(i, i + run)) ++run;
        if (run >= 2) {
            out.push_back(uint8_t(0x80 | (run - 1)));
            out.insert(out.end(), pixels + i * size, pixels + (i + 1) * size);
            i += run;
            continue;
        }
        size_t n = 1;
        while (i + n < count && n < 128 && !(i + n + 1 < count && same(i + n, i + n + 1))) ++n;
        out.push_back(uint8_t(n - 1));
        out.insert(out.end(), pixels + i * size, pixels + (i + n) * size);
        i += n;
    }
}

}  // namespace

Bytes WriteTga(const Picture& picture, const TgaOptions& o) {
    const uint32_t w = picture.width, h = picture.height;
    if (w == 0 || h == 0 || w > 0xFFFF || h > 0xFFFF || o.id.size() > 255) return {};
    const uint8_t base = o.type > 8 ? uint8_t(o.type - 8) : o.type;
    if (o.type != base && o.type != base + 8) return {};
    const bool mapped = base == 1;
    if (base < 1 || base > 3) return {};
    if (base == 2 && o.depth != 15 && o.depth != 16 && o.depth != 24 && o.depth != 32) return {};
    if (base != 2 && o.depth != 8) return {};
    if (mapped && o.mapDepth != 16 && o.mapDepth != 24 && o.mapDepth != 32) return {};

    std::vector<Rgba> palette = o.palette;
    std::vector<uint8_t> indices;
    if (mapped) {
        if (palette.empty()) {
            if (!BuildPalette(picture, 256, palette, indices)) return {};
        } else {
            if (palette.size() > 256) return {};
            indices.resize(picture.pixels.size());
            for (size_t i = 0; i < picture.pixels.size(); ++i) {
                const Rgba& c = picture.pixels[i];
                size_t k = 0;
                while (k < palette.size() &&
                       !(palette[k].r == c.r && palette[k].g == c.g && palette[k].b == c.b))
                    ++k;
                if (k == palette.size()) return {};
                indices[i] = uint8_t(k);
            }
        }
    }

    Bytes out;
    Put8(out, uint32_t(o.id.size()));
    Put8(out, mapped ? 1 : 0);
    Put8(out, o.type);
    PutLe16(out, 0);  // first map entry
    PutLe16(out, mapped ? uint32_t(palette.size()) : 0);
    Put8(out, mapped ? o.mapDepth : 0);
    PutLe16(out, 0), PutLe16(out, 0);  // origin
    PutLe16(out, w), PutLe16(out, h);
    Put8(out, o.depth);
    const uint32_t alphaBits = o.depth == 32 ? 8 : o.depth == 16 ? 1 : 0;
    Put8(out, alphaBits | (o.rightToLeft ? 0x10 : 0) | (o.topFirst ? 0x20 : 0));
    out.insert(out.end(), o.id.begin(), o.id.end());
    if (mapped)
        for (const Rgba& c : palette) PutColour(out, c, o.mapDepth);

    // All pixels in file order: rows bottom first unless top first, each row left to right
    // unless right to left.
    const size_t size = o.depth == 8 ? 1 : (o.depth + 1) / 8;
    Bytes pixels;
    pixels.reserve(size_t(w) * h * size);
    for (uint32_t i = 0; i < h; ++i) {
        const uint32_t y = o.topFirst ? i : h - 1 - i;
        for (uint32_t j = 0; j < w; ++j) {
            const uint32_t x = o.rightToLeft ? w - 1 - j : j;
            const Rgba& c = picture.At(x, y);
            if (mapped)
                pixels.push_back(indices[size_t(y) * w + x]);
            else if (base == 3)
                pixels.push_back(GreyOf(c));
            else
                PutColour(pixels, c, o.depth);
        }
    }
    if (o.type < 9) {
        out.insert(out.end(), pixels.begin(), pixels.end());
    } else if (o.packetsCrossRows) {
        EncodePackets(out, pixels.data(), size_t(w) * h, size);
    } else {
        for (uint32_t y = 0; y < h; ++y)
            EncodePackets(out, pixels.data() + size_t(y) * w * size, w, size);
    }
    return out;
}

}  // namespace imgwrite
