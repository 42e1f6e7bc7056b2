// The per-pixel filters of the kernels: 3 x 3 sharpening and the video gamma.
#include <algorithm>
#include <array>
#include <cmath>

#include "image/kernels/kernels.h"
#include "image/kernels/simd.h"

namespace kernels {
namespace {

// v = x / 255; 4.5 v below 0.018, else 1.099 v^0.45 - 0.099; back to 0..255, rounded.
std::array<uint8_t, 256> MakeGammaTable() {
    std::array<uint8_t, 256> table{};
    for (int x = 0; x < 256; ++x) {
        const double v = x / 255.0;
        const double g = v < 0.018 ? 4.5 * v : 1.099 * std::pow(v, 0.45) - 0.099;
        table[size_t(x)] = uint8_t(std::lround(std::clamp(g, 0.0, 1.0) * 255));
    }
    return table;
}

}  // namespace

bool Sharpen3x3(uint32_t channels, const uint8_t* src, size_t srcStride, uint8_t* dst,
                size_t dstStride, uint32_t width, uint32_t height) {
    if ((channels != 3 && channels != 4) || !src || !dst || !width || !height) return false;
    for (uint32_t y = 0; y < height; ++y)
        SharpenRow(channels, src + size_t(y) * srcStride, srcStride, dst + size_t(y) * dstStride,
                   size_t(width) * channels);
    return true;
}

bool GammaForward(uint32_t channels, const uint8_t* src, size_t srcStride, uint8_t* dst,
                  size_t dstStride, uint32_t width, uint32_t height) {
    if ((channels != 3 && channels != 4) || !src || !dst || !width || !height) return false;
    static const std::array<uint8_t, 256> table = MakeGammaTable();
    for (uint32_t y = 0; y < height; ++y) {
        const uint8_t* s = src + size_t(y) * srcStride;
        uint8_t* d = dst + size_t(y) * dstStride;
        if (channels == 4) {
            for (uint32_t x = 0; x < width; ++x, s += 4, d += 4) {
                d[0] = table[s[0]], d[1] = table[s[1]], d[2] = table[s[2]], d[3] = s[3];
            }
        } else {
            for (size_t i = 0; i < size_t(width) * 3; ++i) d[i] = table[s[i]];
        }
    }
    return true;
}

}  // namespace kernels
