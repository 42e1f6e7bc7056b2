// Pixel primitives that pictures and filters are built on. The interface is plain C++ with no
// vector types, so that faster implementations can replace the bodies without touching callers.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kernels {

// Copies `rows` rows of `rowBytes` bytes; source and target may overlap within a row.
void CopyRows(const uint8_t* src, size_t srcStride, uint8_t* dst, size_t dstStride, size_t rowBytes,
              size_t rows);

// Fills `width` x `rows` pixels of 32 bits with B, G, R, A.
void Fill32(uint8_t* dst, size_t dstStride, uint32_t width, uint32_t rows, uint8_t b, uint8_t g,
            uint8_t r, uint8_t a);

// 24-bit B, G, R to 32-bit B, G, R, 255.
void Expand24To32(const uint8_t* src, uint8_t* dst, uint32_t count);
// 32-bit B, G, R, A to 24-bit B, G, R; alpha is dropped.
void Pack32To24(const uint8_t* src, uint8_t* dst, uint32_t count);

// Blends 32-bit source pixels over `count` target pixels of `dstBytes` (3 or 4) bytes.
// The source alpha is first scaled: a = (a * level) >> 8, unless `level` is 256 (unscaled).
// Then alpha 255 copies the colour, 0 leaves the target, anything else gives
// (target * (255 - a) + source * a) >> 8 per colour channel. The target's alpha stays.
void AlphaBlend(const uint8_t* src, uint8_t* dst, uint32_t count, uint32_t dstBytes,
                uint32_t level);
inline constexpr uint32_t kUnscaledAlpha = 256;

// Blends colour channels through a 256 x 256 table indexed [source * 256 + target].
// `srcBytes` and `dstBytes` are 3 or 4; alpha bytes are neither read nor written.
void TableBlend(const uint8_t* src, uint32_t srcBytes, uint8_t* dst, uint32_t dstBytes,
                uint32_t count, const uint8_t* table);

}  // namespace kernels
