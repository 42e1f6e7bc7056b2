// The vector loops of the kernels, each dispatched to the best instruction set of the running
// processor. Plain types only: the callers know nothing of vectors.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kernels {

// One direction's windows: target pixel o reads pCount[o] source pixels from pStart[o] on, with
// the weights at pWeights + o * nTaps. Every window lies inside the source.
struct ResizeAxis {
    int32_t* pStart = nullptr;
    int32_t* pCount = nullptr;
    float* pWeights = nullptr;
    size_t nTaps = 0;
};

// row[i] = sum over k < count of weights[k] * first[k * stride + i], for i < samples.
void VerticalPass(const uint8_t* first, size_t stride, const float* weights, uint32_t count,
                  size_t samples, float* row);

// Target pixels of `channels` bytes from one float row through the windows of `axis`, rounded
// to nearest and limited to 0..255. The row has four floats of padding behind its samples.
void HorizontalPass(const float* row, const ResizeAxis& axis, uint32_t channels, uint32_t width,
                    uint8_t* dst);
// The same for two rows of 4 channels at once, which share the windows; the bytes are those of
// two HorizontalPass calls.
void HorizontalPass4x2(const float* rowA, const float* rowB, const ResizeAxis& axis, uint32_t width,
                       uint8_t* dstA, uint8_t* dstB);

// One row of the 3 x 3 sharpening over `bytes` bytes (width * channels); `src` is the centre
// row, `stride` reaches the rows above and below.
void SharpenRow(uint32_t channels, const uint8_t* src, size_t stride, uint8_t* dst, size_t bytes);

void Fill32Row(uint8_t* dst, uint32_t width, uint32_t value);
void Expand24To32Row(const uint8_t* src, uint8_t* dst, uint32_t count);
void Pack32To24Row(const uint8_t* src, uint8_t* dst, uint32_t count);

}  // namespace kernels
