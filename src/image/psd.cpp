// PSD decoder: only the flattened composite at the end of the file is read, raw or PackBits,
// in grey, RGB (with a fourth plane as alpha) and CMYK, at 8 or 16 bits per sample.
#include <algorithm>
#include <cstring>
#include <vector>

#include "image/bytes.h"
#include "image/colorman.h"
#include "image/decoders.h"
#include "image/limits.h"
#include "image/xdib.h"
#include "image/xdibio.h"

namespace {

constexpr uint32_t kHeaderSize = 26;
constexpr uint32_t kModeGrey = 1, kModeRgb = 3, kModeCmyk = 4;

// PackBits over one plane at a time, delivered row by row. A packet may run on into the next
// row, but one that would overrun the plane ends the read with failure.
class PackBitsPlane {
public:
    explicit PackBitsPlane(XByteReader& reader) : in(reader) {}

    void Start(uint64_t planeBytes) { left = planeBytes, pending = 0; }

    bool Fill(uint8_t* out, size_t count) {
        while (count > 0) {
            if (pending == 0) {
                uint8_t n;
                if (!in.Byte(n)) return false;
                if (n == 128) continue;  // does nothing
                pending = n < 128 ? n + 1u : 257u - n;
                isRun = n > 128;
                if (pending > left || (isRun && !in.Byte(value))) return false;
                left -= pending;
            }
            const size_t k = std::min<size_t>(pending, count);
            if (isRun)
                std::memset(out, value, k);
            else if (!in.Read(out, k))
                return false;
            out += k, count -= k, pending -= uint32_t(k);
        }
        return true;
    }

private:
    XByteReader& in;
    uint64_t left = 0;
    uint32_t pending = 0;
    bool isRun = false;
    uint8_t value = 0;
};

// Where a plane goes in a B, G, R(, A) pixel.
int PlaneOffset(uint32_t mode, uint32_t plane) {
    if (mode == kModeGrey) return -1;  // copied to all three channels
    // RGB: plane 0 red, 1 green, 2 blue, 3 alpha. CMYK: C, M, Y are parked in the red, green
    // and blue slots until the K plane arrives.
    static const int kOffsets[4] = {2, 1, 0, 3};
    return kOffsets[plane];
}

}  // namespace

bool DecodePsd(XDib& dib, IXDibIO& source) {
    XColorMan* colorMan = dib.pColorMan;
    dib.Destroy();
    source.Seek(0, 0);
    uint8_t h[kHeaderSize];
    if (!source.Read(h, sizeof(h)) || std::memcmp(h, "8BPS", 4) != 0 || Be16(h + 4) != 1)
        return false;
    const uint32_t channels = Be16(h + 12);
    const uint32_t height = Be32(h + 14), width = Be32(h + 18);
    const uint32_t depth = Be16(h + 22), mode = Be16(h + 24);
    const uint32_t bpp = channels == 4 && mode == kModeRgb ? 32 : 24;

    const bool supported =
        (mode == kModeGrey && channels == 1) || mode == kModeRgb || mode == kModeCmyk;
    // Colour modes without a decoder (bitmap, indexed, Lab, ...) show as a blank picture.
    if (!supported) return dib.Create(width, height, bpp);
    if (depth != 8 && depth != 16) return false;
    if (mode == kModeCmyk && channels != 4 && channels != 5) return false;
    if (mode == kModeRgb && channels < 3) return false;

    // Colour mode data, image resources, layer and mask information: skipped by their lengths.
    for (int section = 0; section < 3; ++section) {
        uint8_t length[4];
        if (!source.Read(length, 4)) return false;
        source.Seek(Be32(length), 1);
    }
    uint8_t compressionWord[2];
    if (!source.Read(compressionWord, 2)) return false;
    const uint32_t compression = Be16(compressionWord);
    if (compression > 1) return false;

    const uint32_t planes = std::min(channels, 4u);
    const uint32_t sampleBytes = depth / 8;
    const uint64_t planeBytes = uint64_t(width) * height * sampleBytes;
    if (compression == 1) {
        // The table of compressed row lengths covers every channel; rows are decoded as one
        // stream per plane instead.
        source.Seek(int64_t(channels) * height * 2, 1);
    }
    const int64_t available = source.GetSize() - source.Tell();
    if (compression == 1 ? !PackedBodyPlausible(planeBytes * planes, kPackBitsExpansion, available)
                         : !RawBodyPlausible(planeBytes * planes, available))
        return false;
    if (!dib.Create(width, height, bpp)) return false;

    XByteReader in(source);
    PackBitsPlane unpack(in);
    const size_t rowBytes = size_t(width) * sampleBytes;
    std::vector<uint8_t> row(rowBytes);
    std::vector<uint8_t> cmyk(mode == kModeCmyk ? size_t(width) * 4 : 0);
    for (uint32_t plane = 0; plane < planes; ++plane) {
        unpack.Start(planeBytes);
        const int offset = PlaneOffset(mode, plane);
        const bool lastCmykPlane = mode == kModeCmyk && plane == 3;
        for (uint32_t y = 0; y < height; ++y) {
            if (!(compression == 1 ? unpack.Fill(row.data(), rowBytes)
                                   : in.Read(row.data(), rowBytes)))
                return false;
            const uint8_t* samples = row.data();
            uint8_t* out = dib.GetRow(y);
            const uint32_t step = dib.nBytesPerPixel;
            // 16-bit samples are big-endian: their high byte comes first and is the one kept.
            if (offset < 0) {
                for (uint32_t x = 0; x < width; ++x, out += step)
                    std::memset(out, samples[x * sampleBytes], 3);
            } else if (lastCmykPlane) {
                for (uint32_t x = 0; x < width; ++x) {
                    const uint8_t* p = out + x * step;
                    uint8_t* c = &cmyk[4 * x];
                    c[0] = p[2], c[1] = p[1], c[2] = p[0], c[3] = samples[x * sampleBytes];
                }
                if (colorMan && colorMan->IsOpen()) {
                    colorMan->TranslateCmykRow(cmyk.data(), out, width, step);
                } else {
                    // Without profiles: each of C, M, Y times K, on the values as stored.
                    for (uint32_t x = 0; x < width; ++x, out += step) {
                        const uint8_t* c = &cmyk[4 * x];
                        out[2] = uint8_t((c[0] * c[3]) >> 8);
                        out[1] = uint8_t((c[1] * c[3]) >> 8);
                        out[0] = uint8_t((c[2] * c[3]) >> 8);
                    }
                }
            } else if (offset < int(step)) {
                for (uint32_t x = 0; x < width; ++x, out += step)
                    out[offset] = samples[x * sampleBytes];
            }
        }
    }
    return true;
}
