#include <algorithm>

#include "imgwrite/bytes.h"
#include "imgwrite/imgwrite.h"

namespace imgwrite {

using namespace detail;

namespace {

uint16_t DefaultChannels(uint16_t mode) {
    return mode == 1 ? 1 : mode == 4 ? 4 : 3;
}

// A section of the given length filled with a recognisable pattern, preceded by its length.
void PutSection(Bytes& out, uint32_t length) {
    PutBe32(out, length);
    for (uint32_t i = 0; i < length; ++i) out.push_back(uint8_t(0xA5 ^ i));
}

}  // namespace

Bytes PackBits(const uint8_t* data, size_t size) {
    Bytes out;
    size_t i = 0;
    while (i < size) {
        size_t run = 1;
        while (i + run < size && run < 128 && data[i + run] == data[i]) ++run;
        if (run >= 2) {
            out.push_back(uint8_t(257 - run));  // 129..255: repeat the next byte
            out.push_back(data[i]);
            i += run;
            continue;
        }
        size_t n = 1;
        while (i + n < size && n < 128 && !(i + n + 1 < size && data[i + n] == data[i + n + 1]))
            ++n;
        out.push_back(uint8_t(n - 1));  // 0..127: n literal bytes follow
        out.insert(out.end(), data + i, data + i + n);
        i += n;
    }
    return out;
}

std::vector<Bytes> PsdPlanes(const Picture& picture, const PsdOptions& o) {
    const uint16_t channels = o.channels ? o.channels : DefaultChannels(o.mode);
    std::vector<Bytes> planes(channels, Bytes(picture.pixels.size(), 0));
    for (size_t i = 0; i < picture.pixels.size(); ++i) {
        const Rgba& c = picture.pixels[i];
        uint8_t values[5] = {c.r, c.g, c.b, c.a, c.a};
        if (o.mode == 1) {
            values[0] = GreyOf(c), values[1] = c.a;
        } else if (o.mode == 4) {
            // Stored as 255 minus ink: white paper is 255. Black goes to the K plane.
            const uint32_t k = std::max({c.r, c.g, c.b});
            const auto share = [&](uint8_t v) { return k ? uint8_t(v * 255 / k) : uint8_t(255); };
            values[0] = share(c.r), values[1] = share(c.g), values[2] = share(c.b);
            values[3] = uint8_t(k);
        }
        for (uint16_t ch = 0; ch < channels && ch < 5; ++ch) planes[ch][i] = values[ch];
    }
    return planes;
}

Bytes WritePsdPlanes(uint32_t width, uint32_t height, const std::vector<Bytes>& planes,
                     const PsdOptions& o) {
    if (width == 0 || height == 0 || planes.empty() || (o.depth != 8 && o.depth != 16)) return {};
    const size_t samples = size_t(width) * height;
    for (const Bytes& plane : planes)
        if (plane.size() != samples) return {};

    Bytes out = {'8', 'B', 'P', 'S'};
    PutBe16(out, 1);                // version
    out.resize(out.size() + 6, 0);  // reserved
    PutBe16(out, uint32_t(planes.size()));
    PutBe32(out, height);
    PutBe32(out, width);
    PutBe16(out, o.depth);
    PutBe16(out, o.mode);
    PutSection(out, o.colourModeBytes);
    PutSection(out, o.resourceBytes);
    PutSection(out, o.layerBytes);
    PutBe16(out, o.packBits ? 1 : 0);

    // Each plane row in file layout; 16-bit samples are big-endian with a low byte that is the
    // complement of the high byte.
    const size_t rowBytes = size_t(width) * (o.depth / 8);
    const auto row = [&](const Bytes& plane, uint32_t y) {
        Bytes r;
        r.reserve(rowBytes);
        for (uint32_t x = 0; x < width; ++x) {
            const uint8_t v = plane[size_t(y) * width + x];
            r.push_back(v);
            if (o.depth == 16) r.push_back(uint8_t(255 - v));
        }
        return r;
    };
    if (!o.packBits) {
        for (const Bytes& plane : planes)
            for (uint32_t y = 0; y < height; ++y) {
                const Bytes r = row(plane, y);
                out.insert(out.end(), r.begin(), r.end());
            }
        return out;
    }
    // The table of packed row lengths, every row of every plane, comes first.
    std::vector<Bytes> packed;
    for (const Bytes& plane : planes)
        for (uint32_t y = 0; y < height; ++y) {
            const Bytes r = row(plane, y);
            packed.push_back(PackBits(r.data(), r.size()));
        }
    for (const Bytes& p : packed) PutBe16(out, uint32_t(p.size()));
    for (const Bytes& p : packed) out.insert(out.end(), p.begin(), p.end());
    return out;
}

Bytes WritePsd(const Picture& picture, const PsdOptions& options) {
    return WritePsdPlanes(picture.width, picture.height, PsdPlanes(picture, options), options);
}

}  // namespace imgwrite
