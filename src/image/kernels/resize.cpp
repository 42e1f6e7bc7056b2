// Separable resizing. Each direction gets a table of source windows and weights, made once per
// call; every target row is then a vertical pass over the source rows its window names, into a
// float row as wide as the source, followed by a horizontal pass from that row into the target.
// Rows don't depend on each other, so bands of rows can run on any thread in any order and give
// the same bytes.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>

#include "image/kernels/bandpool.h"
#include "image/kernels/kernels.h"
#include "image/kernels/simd.h"

namespace kernels {
namespace {

constexpr size_t kAlign = 64;
constexpr double kPi = 3.14159265358979323846;
// Work memory never needs more than this; larger jobs are refused, not attempted.
constexpr size_t kMaxWork = size_t(1) << 40;

bool ValidKernel(uint32_t kernel) {
    return kernel == kResizeNearest || kernel == kResizeLinear || kernel == kResizeCubic ||
           kernel == kResizeSuper || kernel == kResizeLanczos;
}

bool ValidJob(const ResizeJob& job) {
    if (!ValidKernel(job.nKernel) || (job.nChannels != 3 && job.nChannels != 4)) return false;
    if (!job.pSrc || !job.pDst || !job.nSrcWidth || !job.nSrcHeight || !job.nDstWidth ||
        !job.nDstHeight)
        return false;
    if (!(job.xFactor > 0) || !(job.yFactor > 0) || !std::isfinite(job.xFactor) ||
        !std::isfinite(job.yFactor))
        return false;
    return job.nSrcStride >= size_t(job.nSrcWidth) * job.nChannels &&
           job.nDstStride >= size_t(job.nDstWidth) * job.nChannels;
}

// The largest window one target pixel can need in a direction of `srcSize` pixels. Folding the
// samples beyond the edges onto the edge pixels never makes a window longer than the source.
size_t MaxTaps(uint32_t kernel, double factor, uint32_t srcSize) {
    double taps = 1;
    switch (kernel) {
        case kResizeLinear:
            taps = 2;
            break;
        case kResizeCubic:
            taps = 4;
            break;
        case kResizeSuper:
            taps = factor >= 1 ? 2 : std::ceil(1 / factor) + 1;
            break;
        case kResizeLanczos:
            taps = factor >= 1 ? 6 : std::ceil(6 / factor) + 1;
            break;
        default:
            break;
    }
    return size_t(std::min(taps, double(srcSize)));
}

size_t AlignUp(size_t n) {
    return (n + kAlign - 1) & ~(kAlign - 1);
}

// Work memory of one direction's table: window starts, window lengths and the weights.
bool AxisBytes(size_t dst, size_t taps, size_t& bytes) {
    size_t weights = 0;
    if (__builtin_mul_overflow(dst, taps * sizeof(float), &weights) || weights > kMaxWork)
        return false;
    bytes = 2 * AlignUp(dst * sizeof(int32_t)) + AlignUp(weights);
    return true;
}

// The float row of one band: the source row's samples, plus padding so that a 3-channel pixel
// can be read as four floats.
size_t FloatRowBytes(const ResizeJob& job) {
    return AlignUp((size_t(job.nSrcWidth) * job.nChannels + 16) * sizeof(float));
}

// A band works on two float rows, so that 4-channel rows can pass the horizontal step in pairs.
size_t BandRowBytes(const ResizeJob& job) {
    return 2 * FloatRowBytes(job);
}

uint32_t BandCount(const ResizeJob& job, uint32_t threads) {
    return std::clamp<uint32_t>(threads, 1, job.nDstHeight);
}

double Cubic(double t) {  // Catmull-Rom
    t = std::fabs(t);
    if (t < 1) return (1.5 * t - 2.5) * t * t + 1;
    if (t < 2) return ((-0.5 * t + 2.5) * t - 4) * t + 2;
    return 0;
}

double Lanczos3(double t) {
    if (t == 0) return 1;
    if (std::fabs(t) >= 3) return 0;
    const double p = kPi * t;
    return 3 * std::sin(p) * std::sin(p / 3) / (p * p);
}

// Makes the window of every target pixel of one direction. Samples beyond the source repeat its
// edge pixels, so their weights are added to the edge pixel's; windows are then cut to the
// pixels with a weight, and the weights are normalised to a sum of 1.
void BuildAxis(uint32_t kernel, double factor, uint32_t srcSize, uint32_t dstSize,
               ResizeAxis& axis) {
    const int64_t last = int64_t(srcSize) - 1;
    const auto clampIndex = [&](int64_t i) { return std::clamp<int64_t>(i, 0, last); };
    if (kernel == kResizeSuper && factor >= 1) kernel = kResizeLinear;
    for (uint32_t o = 0; o < dstSize; ++o) {
        float* w = axis.pWeights + size_t(o) * axis.nTaps;
        std::fill(w, w + axis.nTaps, 0.0f);
        int64_t lo = 0;
        int64_t hi = 0;
        double total = 0;
        if (kernel == kResizeNearest) {
            lo = hi = clampIndex(int64_t(std::floor((o + 0.5) / factor)));
            w[0] = 1;
            total = 1;
        } else if (kernel == kResizeSuper) {
            // The target pixel covers [a, b) of the source, source pixel i covering [i, i + 1).
            const double a = o / factor;
            const double b = (o + 1) / factor;
            lo = clampIndex(int64_t(std::floor(a)));
            hi = clampIndex(int64_t(std::ceil(b)) - 1);
            if (a < 0) w[0] += float((std::min(b, 0.0) - a) * factor);
            if (b > double(srcSize))
                w[hi - lo] += float((b - std::max(a, double(srcSize))) * factor);
            const int64_t first = std::max<int64_t>(int64_t(std::floor(a)), 0);
            const int64_t end = std::min<int64_t>(int64_t(std::ceil(b)), srcSize);
            for (int64_t i = first; i < end; ++i) {
                const double cover = std::min(b, double(i + 1)) - std::max(a, double(i));
                w[i - lo] += float(cover * factor);
            }
            for (size_t k = 0; k <= size_t(hi - lo); ++k) total += w[k];
        } else {
            const double centre = (o + 0.5) / factor - 0.5;
            double support = kernel == kResizeLinear ? 1 : kernel == kResizeCubic ? 2 : 3;
            // Lanczos widens its support when it shrinks, so that it filters what the smaller
            // grid can't hold; the other kernels sample as they are.
            const double scale = kernel == kResizeLanczos && factor < 1 ? factor : 1;
            support /= scale;
            const int64_t first = int64_t(std::floor(centre - support)) + 1;
            const int64_t end = int64_t(std::ceil(centre + support));
            lo = clampIndex(first);
            hi = clampIndex(end - 1);
            for (int64_t i = first; i < end; ++i) {
                const double t = (double(i) - centre) * scale;
                const double k = kernel == kResizeLinear  ? 1 - std::fabs(t)
                                 : kernel == kResizeCubic ? Cubic(t)
                                                          : Lanczos3(t);
                w[clampIndex(i) - lo] += float(k);
                total += k;
            }
        }
        // Exact zeros at the ends (a linear or cubic sample on a pixel centre) cost work only.
        size_t count = size_t(hi - lo) + 1;
        size_t skip = 0;
        while (count > 1 && w[skip] == 0) ++skip, --count;
        while (count > 1 && w[skip + count - 1] == 0) --count;
        const float scaleW = total != 0 ? float(1 / total) : 1.0f;
        for (size_t k = 0; k < count; ++k) w[k] = w[k + skip] * scaleW;
        std::fill(w + count, w + axis.nTaps, 0.0f);
        axis.pStart[o] = int32_t(lo + int64_t(skip));
        axis.pCount[o] = int32_t(count);
    }
}

// Lays out one direction's table in the work memory at `pos`.
ResizeAxis PlaceAxis(uint8_t*& pos, uint32_t dst, size_t taps) {
    ResizeAxis axis;
    axis.nTaps = taps;
    axis.pStart = reinterpret_cast<int32_t*>(pos);
    pos += AlignUp(dst * sizeof(int32_t));
    axis.pCount = reinterpret_cast<int32_t*>(pos);
    pos += AlignUp(dst * sizeof(int32_t));
    axis.pWeights = reinterpret_cast<float*>(pos);
    pos += AlignUp(dst * taps * sizeof(float));
    return axis;
}

void NearestRows(const ResizeJob& job, const ResizeAxis& ax, const ResizeAxis& ay, uint32_t y0,
                 uint32_t y1) {
    const uint32_t ch = job.nChannels;
    for (uint32_t y = y0; y < y1; ++y) {
        const uint8_t* src = job.pSrc + size_t(ay.pStart[y]) * job.nSrcStride;
        uint8_t* dst = job.pDst + size_t(y) * job.nDstStride;
        if (ch == 4) {
            for (uint32_t x = 0; x < job.nDstWidth; ++x)
                std::memcpy(dst + 4 * size_t(x), src + 4 * size_t(ax.pStart[x]), 4);
        } else {
            for (uint32_t x = 0; x < job.nDstWidth; ++x)
                std::memcpy(dst + 3 * size_t(x), src + 3 * size_t(ax.pStart[x]), 3);
        }
    }
}

void FilteredRows(const ResizeJob& job, const ResizeAxis& ax, const ResizeAxis& ay, float* rowA,
                  float* rowB, uint32_t y0, uint32_t y1) {
    const size_t samples = size_t(job.nSrcWidth) * job.nChannels;
    const auto vertical = [&](uint32_t y, float* row) {
        VerticalPass(job.pSrc + size_t(ay.pStart[y]) * job.nSrcStride, job.nSrcStride,
                     ay.pWeights + size_t(y) * ay.nTaps, uint32_t(ay.pCount[y]), samples, row);
    };
    uint8_t* const dst = job.pDst;
    uint32_t y = y0;
    if (job.nChannels == 4) {
        for (; y + 2 <= y1; y += 2) {
            vertical(y, rowA);
            vertical(y + 1, rowB);
            HorizontalPass4x2(rowA, rowB, ax, job.nDstWidth, dst + size_t(y) * job.nDstStride,
                              dst + size_t(y + 1) * job.nDstStride);
        }
    }
    for (; y < y1; ++y) {
        vertical(y, rowA);
        HorizontalPass(rowA, ax, job.nChannels, job.nDstWidth, dst + size_t(y) * job.nDstStride);
    }
}

}  // namespace

size_t ResizeWorkSize(const ResizeJob& job, uint32_t threads) {
    if (!ValidJob(job)) return 0;
    size_t xBytes = 0;
    size_t yBytes = 0;
    if (!AxisBytes(job.nDstWidth, MaxTaps(job.nKernel, job.xFactor, job.nSrcWidth), xBytes) ||
        !AxisBytes(job.nDstHeight, MaxTaps(job.nKernel, job.yFactor, job.nSrcHeight), yBytes))
        return 0;
    const size_t rows =
        job.nKernel == kResizeNearest ? 0 : BandCount(job, threads) * BandRowBytes(job);
    // kAlign more, so that the caller's memory can be of any alignment.
    const size_t total = kAlign + xBytes + yBytes + rows;
    return total > kMaxWork ? 0 : total;
}

bool Resize(const ResizeJob& job, uint8_t* work, size_t workSize, uint32_t threads) {
    const size_t needed = ResizeWorkSize(job, threads);
    if (!needed || !work || workSize < needed) return false;
    uint8_t* pos = work + (kAlign - reinterpret_cast<uintptr_t>(work) % kAlign) % kAlign;
    ResizeAxis ax = PlaceAxis(pos, job.nDstWidth, MaxTaps(job.nKernel, job.xFactor, job.nSrcWidth));
    ResizeAxis ay =
        PlaceAxis(pos, job.nDstHeight, MaxTaps(job.nKernel, job.yFactor, job.nSrcHeight));
    BuildAxis(job.nKernel, job.xFactor, job.nSrcWidth, job.nDstWidth, ax);
    BuildAxis(job.nKernel, job.yFactor, job.nSrcHeight, job.nDstHeight, ay);

    const uint32_t bands = BandCount(job, threads);
    const size_t rowBytes = BandRowBytes(job);
    const std::function<void(uint32_t)> band = [&](uint32_t b) {
        const uint32_t y0 = uint32_t(uint64_t(job.nDstHeight) * b / bands);
        const uint32_t y1 = uint32_t(uint64_t(job.nDstHeight) * (b + 1) / bands);
        if (job.nKernel == kResizeNearest) {
            NearestRows(job, ax, ay, y0, y1);
        } else {
            const size_t floatRow = FloatRowBytes(job);
            float* rowA = reinterpret_cast<float*>(pos + b * rowBytes);
            float* rowB = reinterpret_cast<float*>(pos + b * rowBytes + floatRow);
            // The padding behind the samples is read by 3-channel pixels and must be numbers.
            const size_t samples = size_t(job.nSrcWidth) * job.nChannels;
            std::fill(rowA + samples, rowA + floatRow / sizeof(float), 0.0f);
            FilteredRows(job, ax, ay, rowA, rowB, y0, y1);
        }
    };
    BandPool::Shared().Run(bands, band);
    return true;
}

}  // namespace kernels
