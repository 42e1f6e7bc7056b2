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

// ---- Resizing -------------------------------------------------------------------------------

// Resize kernels by number; callers choose them by these values.
inline constexpr uint32_t kResizeNearest = 1;
inline constexpr uint32_t kResizeLinear = 2;
inline constexpr uint32_t kResizeCubic = 4;
inline constexpr uint32_t kResizeSuper = 8;  // area average, for reductions
inline constexpr uint32_t kResizeLanczos = 16;

// One scaling of a source rectangle into a target rectangle. Pixels are 3 (B, G, R) or 4 (B, G,
// R, A) bytes; a fourth channel is scaled like the others. The factors are target / source and
// fix the mapping: target pixel centre x + 0.5 samples the source at (x + 0.5) / xFactor relative
// to the source rectangle's left edge, so a rectangle cut by clipping keeps the geometry of the
// whole. Samples beyond the source rectangle repeat its edge pixels.
struct ResizeJob {
    uint32_t nKernel = kResizeLinear;
    uint32_t nChannels = 4;
    const uint8_t* pSrc = nullptr;  // first pixel of the source rectangle
    size_t nSrcStride = 0;
    uint32_t nSrcWidth = 0;
    uint32_t nSrcHeight = 0;
    uint8_t* pDst = nullptr;  // first pixel of the target rectangle
    size_t nDstStride = 0;
    uint32_t nDstWidth = 0;
    uint32_t nDstHeight = 0;
    double xFactor = 1.0;
    double yFactor = 1.0;
};

// Bytes of work memory Resize needs for this job when split into `threads` bands; 0 when the job
// is invalid (unknown kernel, channels other than 3 or 4, an empty rectangle, a factor <= 0).
size_t ResizeWorkSize(const ResizeJob& job, uint32_t threads);
// Scales with at most `threads` threads, each taking a band of target rows. False, with the target
// untouched, when the job is invalid or `workSize` is below ResizeWorkSize(job, threads).
bool Resize(const ResizeJob& job, uint8_t* work, size_t workSize, uint32_t threads);

// ---- Per-pixel filters ----------------------------------------------------------------------

// 3 x 3 sharpening, (16 * centre - sum of the 8 neighbours) / 8 per colour channel, limited to
// 0..255, over `width` x `height` pixels. `src` is the first pixel of the area in a picture that
// has one more pixel on every side (the neighbours are read there); `dst` must not overlap it.
// `channels` is 3 or 4; with 4 the alpha byte of the target is left alone.
bool Sharpen3x3(uint32_t channels, const uint8_t* src, size_t srcStride, uint8_t* dst,
                size_t dstStride, uint32_t width, uint32_t height);

// The forward gamma of video (Rec. 709): v = x / 255; 4.5 v below 0.018, else 1.099 v^0.45 - 0.099,
// back to 0..255 with rounding, per colour channel. `channels` 3 or 4; alpha is copied as it is.
// `src` and `dst` may be the same picture.
bool GammaForward(uint32_t channels, const uint8_t* src, size_t srcStride, uint8_t* dst,
                  size_t dstStride, uint32_t width, uint32_t height);

}  // namespace kernels
