#include "image/kernels/kernels.h"

#include <cstring>

#include "image/kernels/simd.h"

namespace kernels {

void CopyRows(const uint8_t* src, size_t srcStride, uint8_t* dst, size_t dstStride, size_t rowBytes,
              size_t rows) {
    const size_t total = rows * rowBytes;
    if (srcStride == rowBytes && dstStride == rowBytes &&
        (src + total <= dst || dst + total <= src)) {
        std::memcpy(dst, src, total);
        return;
    }
    for (size_t y = 0; y < rows; ++y)
        std::memmove(dst + y * dstStride, src + y * srcStride, rowBytes);
}

void Fill32(uint8_t* dst, size_t dstStride, uint32_t width, uint32_t rows, uint8_t b, uint8_t g,
            uint8_t r, uint8_t a) {
    const uint32_t value =
        uint32_t(b) | (uint32_t(g) << 8) | (uint32_t(r) << 16) | (uint32_t(a) << 24);
    for (uint32_t y = 0; y < rows; ++y) Fill32Row(dst + y * dstStride, width, value);
}

void Expand24To32(const uint8_t* src, uint8_t* dst, uint32_t count) {
    Expand24To32Row(src, dst, count);
}

void Pack32To24(const uint8_t* src, uint8_t* dst, uint32_t count) {
    Pack32To24Row(src, dst, count);
}

void AlphaBlend(const uint8_t* src, uint8_t* dst, uint32_t count, uint32_t dstBytes,
                uint32_t level) {
    for (uint32_t i = 0; i < count; ++i, src += 4, dst += dstBytes) {
        uint32_t a = src[3];
        if (level != kUnscaledAlpha) a = (a * level) >> 8;
        if (a == 255) {
            dst[0] = src[0], dst[1] = src[1], dst[2] = src[2];
        } else if (a != 0) {
            for (int c = 0; c < 3; ++c) dst[c] = uint8_t((dst[c] * (255 - a) + src[c] * a) >> 8);
        }
    }
}

void TableBlend(const uint8_t* src, uint32_t srcBytes, uint8_t* dst, uint32_t dstBytes,
                uint32_t count, const uint8_t* table) {
    for (uint32_t i = 0; i < count; ++i, src += srcBytes, dst += dstBytes) {
        for (int c = 0; c < 3; ++c) dst[c] = table[src[c] * 256 + dst[c]];
    }
}

}  // namespace kernels
