#include "image/kernels/resize_passes.h"

#include <algorithm>
#include <cmath>

namespace kernels {

void VerticalPass(const uint8_t* first, size_t stride, const float* weights, uint32_t count,
                  size_t samples, float* row) {
    for (size_t i = 0; i < samples; ++i) row[i] = weights[0] * first[i];
    for (uint32_t k = 1; k < count; ++k) {
        const uint8_t* src = first + k * stride;
        const float w = weights[k];
        for (size_t i = 0; i < samples; ++i) row[i] += w * src[i];
    }
}

void HorizontalPass(const float* row, const ResizeAxis& axis, uint32_t channels, uint32_t width,
                    uint8_t* dst) {
    for (uint32_t x = 0; x < width; ++x, dst += channels) {
        const float* w = axis.pWeights + size_t(x) * axis.nTaps;
        const float* src = row + size_t(axis.pStart[x]) * channels;
        float acc[4] = {0, 0, 0, 0};
        for (int32_t k = 0; k < axis.pCount[x]; ++k, src += channels)
            for (uint32_t c = 0; c < channels; ++c) acc[c] += w[k] * src[c];
        for (uint32_t c = 0; c < channels; ++c)
            dst[c] = uint8_t(std::clamp(std::lrint(acc[c]), 0L, 255L));
    }
}

}  // namespace kernels
