// Costs of the image kernels on page-sized pictures: a 1800 x 2700 scan reduced to 720 x 1080
// by each resize kernel, and the sharpening filters on a 1920 x 1080 canvas. Before the timings
// it prints how close super-sampling comes to the exact area average (PSNR).
// Run: build-rel/bin/bench_kernels [--benchmark_repetitions=5 --benchmark_report_aggregates_only]
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <random>
#include <vector>

#include "base/types.h"
#include "engine/filters.h"
#include "image/kernels/kernels.h"
#include "image/xdib.h"

namespace {

constexpr uint32_t kSrcW = 1800, kSrcH = 2700, kDstW = 720, kDstH = 1080;

// A scanned page: smooth shading, hard-edged panels and a little grain.
XDib MakePage(uint32_t w, uint32_t h, uint32_t bpp) {
    XDib dib;
    dib.Create(w, h, bpp);
    std::mt19937 rng(7);
    for (uint32_t y = 0; y < h; ++y) {
        uint8_t* p = dib.GetRow(y);
        for (uint32_t x = 0; x < w; ++x, p += bpp / 8) {
            const bool ink = (x / 90 + y / 130) % 5 == 0 || (x % 300 < 4) || (y % 450 < 4);
            for (uint32_t c = 0; c < 3; ++c) {
                const double v = ink ? 20 : 150 + 80 * std::sin(x * 0.01 + c) * std::cos(y * 0.007);
                p[c] = uint8_t(std::clamp(v + int(rng() % 9) - 4, 0.0, 255.0));
            }
            if (bpp == 32) p[3] = 255;
        }
    }
    return dib;
}

const XDib& Page() {
    static const XDib page = MakePage(kSrcW, kSrcH, 32);
    return page;
}

kernels::ResizeJob PageJob(uint32_t kernel, XDib& target) {
    const XDib& page = Page();
    if (target.IsEmpty()) target.Create(kDstW, kDstH, 32);
    kernels::ResizeJob job;
    job.nKernel = kernel;
    job.nChannels = 4;
    job.pSrc = page.pBits;
    job.nSrcStride = page.nStride;
    job.nSrcWidth = page.nWidth;
    job.nSrcHeight = page.nHeight;
    job.pDst = target.pBits;
    job.nDstStride = target.nStride;
    job.nDstWidth = target.nWidth;
    job.nDstHeight = target.nHeight;
    job.xFactor = double(kDstW) / kSrcW;
    job.yFactor = double(kDstH) / kSrcH;
    return job;
}

void BM_Resize(benchmark::State& state, uint32_t kernel) {
    XDib target;
    const kernels::ResizeJob job = PageJob(kernel, target);
    const uint32_t threads = uint32_t(state.range(0));
    std::vector<uint8_t> work(kernels::ResizeWorkSize(job, threads));
    for (auto _ : state) {
        if (!kernels::Resize(job, work.data(), work.size(), threads))
            state.SkipWithError("refused");
        benchmark::DoNotOptimize(target.pBits[0]);
    }
}
BENCHMARK_CAPTURE(BM_Resize, super, kernels::kResizeSuper)
    ->Arg(1)
    ->Arg(2)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_Resize, lanczos, kernels::kResizeLanczos)
    ->Arg(1)
    ->Arg(2)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_Resize, linear, kernels::kResizeLinear)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_Resize, cubic, kernels::kResizeCubic)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_Resize, nearest, kernels::kResizeNearest)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void BM_Sharpen3x3(benchmark::State& state) {
    const XDib canvas = MakePage(1920, 1080, 32);
    XDib out;
    out.Create(1920, 1080, 32);
    for (auto _ : state) {
        kernels::Sharpen3x3(4, canvas.GetPixelPtr(1, 1), canvas.nStride, out.GetPixelPtr(1, 1),
                            out.nStride, 1918, 1078);
        benchmark::DoNotOptimize(out.pBits[0]);
    }
}
BENCHMARK(BM_Sharpen3x3)->Unit(benchmark::kMillisecond)->UseRealTime();

// Strong sharpening with nThreadCount set to the argument, on a canvas of the argument's depth.
void BM_StrongSharpen(benchmark::State& state) {
    const uint32_t bpp = uint32_t(state.range(0));
    const uint32_t saved = nThreadCount;
    nThreadCount = uint32_t(state.range(1));
    XDib canvas = MakePage(1920, 1080, bpp);
    for (auto _ : state) {
        const bool done = bpp == 24 ? StrongSharpen24(canvas) : StrongSharpen32(canvas);
        benchmark::DoNotOptimize(done);
    }
    nThreadCount = saved;
}
BENCHMARK(BM_StrongSharpen)
    ->ArgsProduct({{24, 32}, {1, 2}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// The exact area average of the page reduction, in double precision, one direction at a time.
std::vector<double> AreaAverage() {
    const XDib& page = Page();
    const auto weights = [](uint32_t src, uint32_t dst) {
        std::vector<std::vector<std::pair<uint32_t, double>>> out(dst);
        const double f = double(dst) / src;
        for (uint32_t o = 0; o < dst; ++o) {
            const double a = o / f, b = (o + 1) / f;
            for (uint32_t i = uint32_t(a); i < src && i < b; ++i)
                out[o].push_back({i, (std::min(b, i + 1.0) - std::max(a, double(i))) * f});
        }
        return out;
    };
    const auto wx = weights(kSrcW, kDstW), wy = weights(kSrcH, kDstH);
    std::vector<double> columns(size_t(kDstH) * kSrcW * 4, 0.0), out(size_t(kDstH) * kDstW * 4);
    for (uint32_t y = 0; y < kDstH; ++y)
        for (auto [sy, w] : wy[y])
            for (size_t i = 0; i < size_t(kSrcW) * 4; ++i)
                columns[y * kSrcW * 4 + i] += w * page.GetRow(sy)[i];
    for (uint32_t y = 0; y < kDstH; ++y)
        for (uint32_t x = 0; x < kDstW; ++x)
            for (uint32_t c = 0; c < 4; ++c) {
                double v = 0;
                for (auto [sx, w] : wx[x]) v += w * columns[(y * kSrcW + sx) * 4 + c];
                out[(y * kDstW + x) * 4 + c] = v;
            }
    return out;
}

void PrintSuperSamplingPsnr() {
    XDib target;
    const kernels::ResizeJob job = PageJob(kernels::kResizeSuper, target);
    std::vector<uint8_t> work(kernels::ResizeWorkSize(job, 1));
    kernels::Resize(job, work.data(), work.size(), 1);
    const std::vector<double> ref = AreaAverage();
    double squares = 0;
    for (uint32_t y = 0; y < kDstH; ++y)
        for (uint32_t i = 0; i < kDstW * 4; ++i) {
            const double d = ref[size_t(y) * kDstW * 4 + i] - target.GetRow(y)[i];
            squares += d * d;
        }
    const double mse = squares / (double(kDstW) * kDstH * 4);
    std::printf("super-sampling %ux%u -> %ux%u against the exact area average: PSNR %.2f dB\n",
                kSrcW, kSrcH, kDstW, kDstH, 10 * std::log10(255.0 * 255.0 / mse));
}

}  // namespace

int main(int argc, char** argv) {
    PrintSuperSamplingPsnr();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
