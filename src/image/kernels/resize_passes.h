// The inner loops of resizing, shared by the resize driver and its vector implementation.
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

// Target pixel x of `channels` bytes from the float row through the windows of `axis`, rounded
// and limited to 0..255. The row has at least one float of padding behind its samples.
void HorizontalPass(const float* row, const ResizeAxis& axis, uint32_t channels, uint32_t width,
                    uint8_t* dst);

}  // namespace kernels
