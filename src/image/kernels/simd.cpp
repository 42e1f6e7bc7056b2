// Compiled once per instruction set by Highway's foreach_target; the plain entry points at the
// end pick the best one at run time. Every loop finishes its row with scalar code of the same
// arithmetic, so no row needs padding but the float rows of resizing.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "image/kernels/simd.cpp"
#include <hwy/foreach_target.h>  // must come before highway.h

#include <hwy/highway.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "image/kernels/simd.h"

HWY_BEFORE_NAMESPACE();
namespace kernels {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

void VerticalPassImpl(const uint8_t* first, size_t stride, const float* weights, uint32_t count,
                      size_t samples, float* row) {
    const hn::ScalableTag<float> df;
    const hn::Rebind<int32_t, decltype(df)> di;
    const hn::Rebind<uint8_t, decltype(df)> du8;
    const size_t n = hn::Lanes(df);
    const auto load = [&](const uint8_t* p) {
        return hn::ConvertTo(df, hn::PromoteTo(di, hn::LoadU(du8, p)));
    };
    size_t i = 0;
    // Four vectors at a time keep four independent sums in flight.
    for (; i + 4 * n <= samples; i += 4 * n) {
        auto a0 = hn::Zero(df), a1 = hn::Zero(df), a2 = hn::Zero(df), a3 = hn::Zero(df);
        const uint8_t* p = first + i;
        for (uint32_t k = 0; k < count; ++k, p += stride) {
            const auto w = hn::Set(df, weights[k]);
            a0 = hn::MulAdd(w, load(p), a0);
            a1 = hn::MulAdd(w, load(p + n), a1);
            a2 = hn::MulAdd(w, load(p + 2 * n), a2);
            a3 = hn::MulAdd(w, load(p + 3 * n), a3);
        }
        hn::StoreU(a0, df, row + i);
        hn::StoreU(a1, df, row + i + n);
        hn::StoreU(a2, df, row + i + 2 * n);
        hn::StoreU(a3, df, row + i + 3 * n);
    }
    for (; i + n <= samples; i += n) {
        auto a = hn::Zero(df);
        const uint8_t* p = first + i;
        for (uint32_t k = 0; k < count; ++k, p += stride)
            a = hn::MulAdd(hn::Set(df, weights[k]), load(p), a);
        hn::StoreU(a, df, row + i);
    }
    for (; i < samples; ++i) {
        float a = 0;
        for (uint32_t k = 0; k < count; ++k)
            a = std::fma(weights[k], float(first[k * stride + i]), a);
        row[i] = a;
    }
}

#if HWY_TARGET == HWY_SCALAR
// The fallback without vectors of four lanes: the same sums, one channel at a time.
void HorizontalPassImpl(const float* row, const ResizeAxis& axis, uint32_t channels, uint32_t width,
                        uint8_t* dst) {
    for (uint32_t x = 0; x < width; ++x, dst += channels) {
        const float* w = axis.pWeights + size_t(x) * axis.nTaps;
        const float* p = row + size_t(axis.pStart[x]) * channels;
        float acc[4] = {0, 0, 0, 0};
        for (int32_t k = 0; k < axis.pCount[x]; ++k, p += channels)
            for (uint32_t c = 0; c < channels; ++c) acc[c] = std::fma(w[k], p[c], acc[c]);
        for (uint32_t c = 0; c < channels; ++c)
            dst[c] = uint8_t(std::clamp(std::nearbyint(acc[c]), 0.0f, 255.0f));
    }
}

void HorizontalPass4x2Impl(const float* rowA, const float* rowB, const ResizeAxis& axis,
                           uint32_t width, uint8_t* dstA, uint8_t* dstB) {
    HorizontalPassImpl(rowA, axis, 4, width, dstA);
    HorizontalPassImpl(rowB, axis, 4, width, dstB);
}
#else
// Four floats of a pixel to bytes, rounded to nearest even and limited to 0..255.
HWY_INLINE hn::Vec<hn::FixedTag<uint8_t, 4>> PixelBytes(hn::Vec<hn::FixedTag<float, 4>> v) {
    return hn::DemoteTo(hn::FixedTag<uint8_t, 4>(), hn::NearestInt(v));
}

HWY_INLINE hn::Vec<hn::FixedTag<float, 4>> HorizontalPixel(const float* row, const ResizeAxis& axis,
                                                           uint32_t channels, uint32_t x) {
    const hn::FixedTag<float, 4> d4;
    const float* w = axis.pWeights + size_t(x) * axis.nTaps;
    const float* p = row + size_t(axis.pStart[x]) * channels;
    auto acc = hn::Zero(d4);
    for (int32_t k = 0; k < axis.pCount[x]; ++k, p += channels)
        acc = hn::MulAdd(hn::Set(d4, w[k]), hn::LoadU(d4, p), acc);
    return acc;
}

void HorizontalPassImpl(const float* row, const ResizeAxis& axis, uint32_t channels, uint32_t width,
                        uint8_t* dst) {
    const hn::FixedTag<uint8_t, 4> d4u8;
    if (channels == 4) {
        for (uint32_t x = 0; x < width; ++x)
            hn::StoreU(PixelBytes(HorizontalPixel(row, axis, 4, x)), d4u8, dst + 4 * size_t(x));
        return;
    }
    // Three channels: each pixel writes four bytes, the fourth overwritten by the next pixel;
    // the last goes through a small buffer so that nothing beyond the row is touched.
    for (uint32_t x = 0; x + 1 < width; ++x)
        hn::StoreU(PixelBytes(HorizontalPixel(row, axis, 3, x)), d4u8, dst + 3 * size_t(x));
    uint8_t last[4];
    hn::StoreU(PixelBytes(HorizontalPixel(row, axis, 3, width - 1)), d4u8, last);
    std::memcpy(dst + 3 * size_t(width - 1), last, 3);
}

void HorizontalPass4x2Impl(const float* rowA, const float* rowB, const ResizeAxis& axis,
                           uint32_t width, uint8_t* dstA, uint8_t* dstB) {
#if HWY_MAX_BYTES >= 32
    // One pixel of each row per vector half: the weights are loaded once for both.
    const hn::FixedTag<float, 8> d8;
    const hn::FixedTag<float, 4> d4;
    const hn::FixedTag<uint8_t, 8> d8u8;
    for (uint32_t x = 0; x < width; ++x) {
        const float* w = axis.pWeights + size_t(x) * axis.nTaps;
        const size_t offset = size_t(axis.pStart[x]) * 4;
        const float* a = rowA + offset;
        const float* b = rowB + offset;
        auto acc = hn::Zero(d8);
        for (int32_t k = 0; k < axis.pCount[x]; ++k, a += 4, b += 4)
            acc = hn::MulAdd(hn::Set(d8, w[k]), hn::Combine(d8, hn::LoadU(d4, b), hn::LoadU(d4, a)),
                             acc);
        uint8_t bytes[8];
        hn::StoreU(hn::DemoteTo(d8u8, hn::NearestInt(acc)), d8u8, bytes);
        std::memcpy(dstA + 4 * size_t(x), bytes, 4);
        std::memcpy(dstB + 4 * size_t(x), bytes + 4, 4);
    }
#else
    HorizontalPassImpl(rowA, axis, 4, width, dstA);
    HorizontalPassImpl(rowB, axis, 4, width, dstB);
#endif
}

#endif  // HWY_TARGET == HWY_SCALAR

void SharpenRowImpl(uint32_t channels, const uint8_t* src, size_t stride, uint8_t* dst,
                    size_t bytes) {
    const hn::ScalableTag<int16_t> d16;
    const hn::Rebind<uint8_t, decltype(d16)> d8;
    const size_t n = hn::Lanes(d16);
    const ptrdiff_t ch = channels;
    const ptrdiff_t s = ptrdiff_t(stride);
    const auto at = [&](const uint8_t* p) { return hn::PromoteTo(d16, hn::LoadU(d8, p)); };
    // Alpha bytes of a 4-channel row keep the target's value. Vectors of a multiple of 4 lanes
    // start on a pixel; the one-lane fallback leaves the whole row to the scalar loop.
    const auto alpha = hn::Eq(hn::And(hn::Iota(d8, 0), hn::Set(d8, 3)), hn::Set(d8, 3));
    size_t i = 0;
    for (; n % 4 == 0 && i + n <= bytes; i += n) {
        const uint8_t* p = src + i;
        const auto sum = hn::Add(
            hn::Add(hn::Add(at(p - s - ch), at(p - s)), hn::Add(at(p - s + ch), at(p - ch))),
            hn::Add(hn::Add(at(p + ch), at(p + s - ch)), hn::Add(at(p + s), at(p + s + ch))));
        const auto v = hn::ShiftRight<3>(hn::Sub(hn::ShiftLeft<4>(at(p)), sum));
        auto out = hn::DemoteTo(d8, v);  // saturates to 0..255
        if (channels == 4) out = hn::IfThenElse(alpha, hn::LoadU(d8, dst + i), out);
        hn::StoreU(out, d8, dst + i);
    }
    for (; i < bytes; ++i) {
        if (channels == 4 && i % 4 == 3) continue;
        const uint8_t* p = src + i;
        const int sum =
            p[-s - ch] + p[-s] + p[-s + ch] + p[-ch] + p[ch] + p[s - ch] + p[s] + p[s + ch];
        dst[i] = uint8_t(std::clamp((16 * p[0] - sum) >> 3, 0, 255));
    }
}

void Fill32RowImpl(uint8_t* dst, uint32_t width, uint32_t value) {
    const hn::ScalableTag<uint32_t> d;
    const size_t n = hn::Lanes(d);
    const auto v = hn::Set(d, value);
    size_t x = 0;
    // Rows start on 4-byte boundaries, so the pixels can be stored as 32-bit lanes.
    for (; x + n <= width; x += n) hn::StoreU(v, d, reinterpret_cast<uint32_t*>(dst + 4 * x));
    for (; x < width; ++x) std::memcpy(dst + 4 * x, &value, 4);
}

void Expand24To32RowImpl(const uint8_t* src, uint8_t* dst, uint32_t count) {
    const hn::ScalableTag<uint8_t> d;
    const size_t n = hn::Lanes(d);
    const auto opaque = hn::Set(d, 255);
    size_t i = 0;
    for (; i + n <= count; i += n) {
        hn::Vec<decltype(d)> b, g, r;
        hn::LoadInterleaved3(d, src + 3 * i, b, g, r);
        hn::StoreInterleaved4(b, g, r, opaque, d, dst + 4 * i);
    }
    for (; i < count; ++i) {
        dst[4 * i] = src[3 * i], dst[4 * i + 1] = src[3 * i + 1], dst[4 * i + 2] = src[3 * i + 2];
        dst[4 * i + 3] = 255;
    }
}

void Pack32To24RowImpl(const uint8_t* src, uint8_t* dst, uint32_t count) {
    const hn::ScalableTag<uint8_t> d;
    const size_t n = hn::Lanes(d);
    size_t i = 0;
    for (; i + n <= count; i += n) {
        hn::Vec<decltype(d)> b, g, r, a;
        hn::LoadInterleaved4(d, src + 4 * i, b, g, r, a);
        hn::StoreInterleaved3(b, g, r, d, dst + 3 * i);
    }
    for (; i < count; ++i)
        dst[3 * i] = src[4 * i], dst[3 * i + 1] = src[4 * i + 1], dst[3 * i + 2] = src[4 * i + 2];
}

}  // namespace HWY_NAMESPACE
}  // namespace kernels
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace kernels {

HWY_EXPORT(VerticalPassImpl);
HWY_EXPORT(HorizontalPassImpl);
HWY_EXPORT(HorizontalPass4x2Impl);
HWY_EXPORT(SharpenRowImpl);
HWY_EXPORT(Fill32RowImpl);
HWY_EXPORT(Expand24To32RowImpl);
HWY_EXPORT(Pack32To24RowImpl);

void VerticalPass(const uint8_t* first, size_t stride, const float* weights, uint32_t count,
                  size_t samples, float* row) {
    HWY_DYNAMIC_DISPATCH(VerticalPassImpl)(first, stride, weights, count, samples, row);
}

void HorizontalPass(const float* row, const ResizeAxis& axis, uint32_t channels, uint32_t width,
                    uint8_t* dst) {
    HWY_DYNAMIC_DISPATCH(HorizontalPassImpl)(row, axis, channels, width, dst);
}

void HorizontalPass4x2(const float* rowA, const float* rowB, const ResizeAxis& axis, uint32_t width,
                       uint8_t* dstA, uint8_t* dstB) {
    HWY_DYNAMIC_DISPATCH(HorizontalPass4x2Impl)(rowA, rowB, axis, width, dstA, dstB);
}

void SharpenRow(uint32_t channels, const uint8_t* src, size_t stride, uint8_t* dst, size_t bytes) {
    HWY_DYNAMIC_DISPATCH(SharpenRowImpl)(channels, src, stride, dst, bytes);
}

void Fill32Row(uint8_t* dst, uint32_t width, uint32_t value) {
    HWY_DYNAMIC_DISPATCH(Fill32RowImpl)(dst, width, value);
}

void Expand24To32Row(const uint8_t* src, uint8_t* dst, uint32_t count) {
    HWY_DYNAMIC_DISPATCH(Expand24To32RowImpl)(src, dst, count);
}

void Pack32To24Row(const uint8_t* src, uint8_t* dst, uint32_t count) {
    HWY_DYNAMIC_DISPATCH(Pack32To24RowImpl)(src, dst, count);
}

}  // namespace kernels
#endif  // HWY_ONCE
