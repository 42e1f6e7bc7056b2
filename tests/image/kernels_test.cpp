// The image kernels against plain double-precision references written out here: every resize
// kernel at odd sizes, 3 and 4 channels, enlarging and shrinking; the banded runs; the filters.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include <hwy/targets.h>

#include "image/kernels/kernels.h"

namespace {

using namespace kernels;

constexpr uint32_t kKernels[] = {kResizeNearest, kResizeLinear, kResizeCubic, kResizeSuper,
                                 kResizeLanczos};
constexpr uint8_t kCanary = 0xA5;

// A picture as the kernels see it: rows with some slack behind each, to catch writes past a row.
struct Plane {
    uint32_t w, h, ch;
    size_t stride;
    std::vector<uint8_t> bytes;
    Plane(uint32_t width, uint32_t height, uint32_t channels, uint8_t fill = kCanary)
        : w(width), h(height), ch(channels), stride(size_t(w) * ch + 7), bytes(stride * h, fill) {}
    uint8_t* At(uint32_t x, uint32_t y) { return bytes.data() + y * stride + size_t(x) * ch; }
    const uint8_t* At(uint32_t x, uint32_t y) const { return const_cast<Plane*>(this)->At(x, y); }
    bool SlackIntact() const {
        for (uint32_t y = 0; y < h; ++y)
            if (std::any_of(At(w, y), At(0, y) + stride, [](uint8_t b) { return b != kCanary; }))
                return false;
        return true;
    }
};

Plane Noise(uint32_t w, uint32_t h, uint32_t ch, uint32_t seed) {
    Plane p(w, h, ch);
    std::mt19937 rng(seed);
    for (uint32_t y = 0; y < h; ++y) std::generate(p.At(0, y), p.At(w, y), [&] { return rng(); });
    return p;
}

// A smooth picture with some edges, closer to a page than noise is.
Plane Page(uint32_t w, uint32_t h, uint32_t ch) {
    Plane p(w, h, ch);
    for (uint32_t y = 0; y < h; ++y)
        for (uint32_t x = 0; x < w; ++x)
            for (uint32_t c = 0; c < ch; ++c) {
                const double v = 128 + 100 * std::sin(x * 0.05 + c) * std::cos(y * 0.031) +
                                 ((x / 37 + y / 23) % 2 ? 20 : -20);
                p.At(x, y)[c] = uint8_t(std::clamp(v, 0.0, 255.0));
            }
    return p;
}

// Runs `check` once on every instruction set the kernels were built for that this processor has,
// so that the vector code of each, not only the best one, meets the reference.
template <typename Check>
void OnEveryInstructionSet(Check check) {
    for (int64_t target : hwy::SupportedAndGeneratedTargets()) {
        SCOPED_TRACE(hwy::TargetName(target));
        hwy::SetSupportedTargetsForTest(target);
        check();
    }
    hwy::SetSupportedTargetsForTest(0);
}

// The reference: what each kernel computes, one target pixel at a time.

double RefKernel(uint32_t kernel, double t) {
    t = std::fabs(t);
    switch (kernel) {
        case kResizeLinear:
            return t < 1 ? 1 - t : 0;
        case kResizeCubic:
            return t < 1   ? 1.5 * t * t * t - 2.5 * t * t + 1
                   : t < 2 ? -0.5 * t * t * t + 2.5 * t * t - 4 * t + 2
                           : 0;
        default:
            if (t == 0) return 1;
            if (t >= 3) return 0;
            return std::sin(M_PI * t) / (M_PI * t) * std::sin(M_PI * t / 3) / (M_PI * t / 3);
    }
}

// (source index, weight) pairs of target index o, indices repeated at the edges.
std::vector<std::pair<int, double>> RefTaps(uint32_t kernel, double f, uint32_t n, uint32_t o) {
    std::vector<std::pair<int, double>> taps;
    const auto edge = [&](long i) { return int(std::clamp<long>(i, 0, long(n) - 1)); };
    if (kernel == kResizeNearest) return {{edge(long(std::floor((o + 0.5) / f))), 1.0}};
    if (kernel == kResizeSuper && f < 1) {
        const double a = o / f, b = (o + 1) / f;
        for (long i = long(std::floor(a)); i < long(std::ceil(b)); ++i)
            taps.push_back({edge(i), (std::min(b, i + 1.0) - std::max(a, double(i))) * f});
        return taps;
    }
    if (kernel == kResizeSuper) kernel = kResizeLinear;
    const double centre = (o + 0.5) / f - 0.5;
    const double s = kernel == kResizeLanczos && f < 1 ? f : 1;
    double total = 0;
    for (long i = long(std::floor(centre)) - 40; i <= long(std::ceil(centre)) + 40; ++i) {
        const double w = RefKernel(kernel, (i - centre) * s);
        if (w != 0) taps.push_back({edge(i), w}), total += w;
    }
    for (auto& t : taps) t.second /= total;
    return taps;
}

std::vector<double> RefResize(const ResizeJob& job) {
    std::vector<double> out;
    for (uint32_t y = 0; y < job.nDstHeight; ++y) {
        const auto ty = RefTaps(job.nKernel, job.yFactor, job.nSrcHeight, y);
        for (uint32_t x = 0; x < job.nDstWidth; ++x) {
            const auto tx = RefTaps(job.nKernel, job.xFactor, job.nSrcWidth, x);
            for (uint32_t c = 0; c < job.nChannels; ++c) {
                double v = 0;
                for (auto [sy, wy] : ty)
                    for (auto [sx, wx] : tx)
                        v += wy * wx *
                             job.pSrc[sy * job.nSrcStride + size_t(sx) * job.nChannels + c];
                out.push_back(v);
            }
        }
    }
    return out;
}

ResizeJob MakeJob(uint32_t kernel, const Plane& src, Plane& dst) {
    return {kernel, src.ch, src.bytes.data(),      src.stride,
            src.w,  src.h,  dst.bytes.data(),      dst.stride,
            dst.w,  dst.h,  double(dst.w) / src.w, double(dst.h) / src.h};
}

bool RunResize(const ResizeJob& job, uint32_t threads) {
    std::vector<uint8_t> work(ResizeWorkSize(job, threads) + 3);
    // An odd offset: the kernel aligns its memory itself.
    return Resize(job, work.data() + 3, work.size() - 3, threads);
}

// The largest difference from the reference as the kernels store it (rounded and limited), and
// the PSNR against the unrounded reference.
struct Error {
    int worst = 0;
    double psnr = 0;
};
Error Compare(const ResizeJob& job, const Plane& dst) {
    const std::vector<double> ref = RefResize(job);
    Error e;
    double squares = 0;
    size_t k = 0;
    for (uint32_t y = 0; y < job.nDstHeight; ++y)
        for (size_t i = 0; i < size_t(job.nDstWidth) * job.nChannels; ++i, ++k) {
            const int got = dst.bytes[y * dst.stride + i];
            e.worst = std::max(
                e.worst, std::abs(int(std::clamp(std::floor(ref[k] + 0.5), 0.0, 255.0)) - got));
            squares += (ref[k] - got) * (ref[k] - got);
        }
    e.psnr = 10 * std::log10(255.0 * 255.0 / (squares / double(k)));
    return e;
}

TEST(ResizeTest, EveryKernelFollowsTheReferenceAtOddSizes) {
    OnEveryInstructionSet([&] {
        struct Size {
            uint32_t sw, sh, dw, dh;
        };
        const Size sizes[] = {{7, 3, 11, 5}, {23, 17, 9, 6},   {1, 9, 3, 4},   {9, 1, 4, 1},
                              {5, 5, 5, 5},  {40, 30, 13, 29}, {3, 2, 17, 11}, {64, 48, 21, 15}};
        uint32_t seed = 1;
        for (uint32_t kernel : kKernels)
            for (uint32_t ch : {3u, 4u})
                for (const Size& s : sizes) {
                    SCOPED_TRACE(testing::Message()
                                 << "kernel " << kernel << " channels " << ch << " " << s.sw << "x"
                                 << s.sh << " -> " << s.dw << "x" << s.dh);
                    const Plane src = Noise(s.sw, s.sh, ch, seed++);
                    Plane dst(s.dw, s.dh, ch);
                    const ResizeJob job = MakeJob(kernel, src, dst);
                    ASSERT_TRUE(RunResize(job, 1));
                    EXPECT_LE(Compare(job, dst).worst, kernel == kResizeNearest ? 0 : 1);
                    EXPECT_TRUE(dst.SlackIntact());
                }
    });
}

TEST(ResizeTest, ClippedRectanglesKeepTheGeometryOfTheWhole) {
    // A source rectangle inside a larger picture with factors that aren't its own size ratio:
    // samples are placed by the factors from the rectangle's left and top edge, and what lies
    // beyond the rectangle repeats its edge pixels, not the picture's pixels around it.
    const Plane whole = Noise(60, 40, 4, 77);
    for (uint32_t kernel : kKernels) {
        SCOPED_TRACE(kernel);
        Plane part(17, 9, 4);
        ResizeJob job = MakeJob(kernel, whole, part);
        job.pSrc = whole.At(8, 6);
        job.nSrcWidth = 30;
        job.nSrcHeight = 20;
        job.xFactor = 0.43;
        job.yFactor = 0.61;
        ASSERT_TRUE(RunResize(job, 2));
        EXPECT_LE(Compare(job, part).worst, kernel == kResizeNearest ? 0 : 1);
    }
    // Halving with the target cut at x 4, y 3 and the source cut by the same ratio gives the
    // whole picture's pixels there, for the kernels whose windows stay inside the cut.
    for (uint32_t kernel : {kResizeNearest, kResizeLinear, kResizeSuper}) {
        SCOPED_TRACE(kernel);
        Plane full(30, 20, 4);
        ASSERT_TRUE(RunResize(MakeJob(kernel, whole, full), 1));
        Plane cut(10, 8, 4);
        ResizeJob job = MakeJob(kernel, whole, cut);
        job.pSrc = whole.At(8, 6);
        job.nSrcWidth = 20;
        job.nSrcHeight = 16;
        job.xFactor = job.yFactor = 0.5;
        ASSERT_TRUE(RunResize(job, 1));
        for (uint32_t y = 0; y < cut.h; ++y)
            EXPECT_EQ(0, std::memcmp(cut.At(0, y), full.At(4, y + 3), cut.w * 4)) << "row " << y;
    }
}

TEST(ResizeTest, SuperSamplingIsTheAreaAverage) {
    OnEveryInstructionSet([&] {
        // Against the unrounded area average: only the final rounding may differ.
        const Plane src = Page(180, 270, 4);
        Plane dst(72, 108, 4);
        const ResizeJob job = MakeJob(kResizeSuper, src, dst);
        ASSERT_TRUE(RunResize(job, 2));
        EXPECT_GE(Compare(job, dst).psnr, 50.0);
        // An area of one flat colour averages to that colour, whatever the coverage.
        Plane flat(31, 17, 3, 0);
        for (uint32_t y = 0; y < flat.h; ++y)
            for (uint32_t x = 0; x < flat.w; ++x) std::memcpy(flat.At(x, y), "\x10\x80\xF0", 3);
        Plane small(7, 6, 3);
        ASSERT_TRUE(RunResize(MakeJob(kResizeSuper, flat, small), 1));
        for (uint32_t y = 0; y < small.h; ++y)
            for (uint32_t x = 0; x < small.w; ++x)
                EXPECT_EQ(0, std::memcmp(small.At(x, y), "\x10\x80\xF0", 3)) << x << "," << y;
    });
}

TEST(ResizeTest, BandsGiveTheSameBytesAsOneThread) {
    const Plane src = Page(161, 97, 4);
    for (uint32_t kernel : kKernels)
        for (auto [dw, dh] : {std::pair{61u, 47u}, {290u, 131u}, {50u, 2u}}) {
            SCOPED_TRACE(testing::Message() << kernel << " " << dw << "x" << dh);
            Plane one(dw, dh, 4);
            ASSERT_TRUE(RunResize(MakeJob(kernel, src, one), 1));
            for (uint32_t threads : {2u, 4u}) {
                Plane banded(dw, dh, 4);
                ASSERT_TRUE(RunResize(MakeJob(kernel, src, banded), threads));
                EXPECT_EQ(one.bytes, banded.bytes) << threads;
            }
        }
}

TEST(ResizeTest, InvalidJobsAreRefusedAndLeaveTheTarget) {
    const Plane src = Noise(8, 8, 4, 5);
    Plane dst(4, 4, 4);
    const ResizeJob good = MakeJob(kResizeLinear, src, dst);
    ASSERT_GT(ResizeWorkSize(good, 1), 0u);
    std::vector<ResizeJob> bad(10, good);
    bad[0].nKernel = 3;
    bad[1].nChannels = 2;
    bad[2].nSrcWidth = 0;
    bad[3].nDstHeight = 0;
    bad[4].xFactor = 0;
    bad[5].yFactor = -1;
    bad[6].xFactor = std::nan("");
    bad[7].pSrc = nullptr;
    bad[8].nSrcStride = 8 * 4 - 1;
    bad[9].nDstStride = 4 * 4 - 1;
    for (size_t i = 0; i < bad.size(); ++i) {
        EXPECT_EQ(ResizeWorkSize(bad[i], 1), 0u) << i;
        std::vector<uint8_t> work(ResizeWorkSize(good, 1));
        EXPECT_FALSE(Resize(bad[i], work.data(), work.size(), 1)) << i;
    }
    std::vector<uint8_t> work(ResizeWorkSize(good, 2));
    EXPECT_FALSE(Resize(good, work.data(), work.size() - 1, 2));
    EXPECT_FALSE(Resize(good, nullptr, work.size(), 2));
    EXPECT_TRUE(
        std::all_of(dst.bytes.begin(), dst.bytes.end(), [](uint8_t b) { return b == kCanary; }));
    EXPECT_TRUE(Resize(good, work.data(), work.size(), 2));
}

TEST(SharpenTest, SixteenCentreLessNeighboursOverEightLimited) {
    OnEveryInstructionSet([&] {
        for (uint32_t ch : {3u, 4u}) {
            SCOPED_TRACE(ch);
            const Plane src = Noise(19, 7, ch, 40 + ch);
            Plane dst(17, 5, ch);
            ASSERT_TRUE(
                Sharpen3x3(ch, src.At(1, 1), src.stride, dst.bytes.data(), dst.stride, 17, 5));
            for (uint32_t y = 0; y < 5; ++y)
                for (uint32_t x = 0; x < 17; ++x)
                    for (uint32_t c = 0; c < ch; ++c) {
                        int sum = 0;
                        for (int dy = 0; dy < 3; ++dy)
                            for (int dx = 0; dx < 3; ++dx)
                                if (dx != 1 || dy != 1) sum += src.At(x + dx, y + dy)[c];
                        const int want =
                            c == 3 ? kCanary
                                   : std::clamp((16 * src.At(x + 1, y + 1)[c] - sum) / 8, 0, 255);
                        ASSERT_EQ(dst.At(x, y)[c], want) << x << "," << y << " channel " << c;
                    }
            EXPECT_TRUE(dst.SlackIntact());
        }
        // A bright dot on grey: the dot saturates, its neighbours darken, the grey stays.
        Plane dot(5, 5, 3, 100);
        std::memset(dot.At(2, 2), 200, 3);
        Plane out(3, 3, 3);
        ASSERT_TRUE(Sharpen3x3(3, dot.At(1, 1), dot.stride, out.bytes.data(), out.stride, 3, 3));
        EXPECT_EQ(out.At(1, 1)[0], 255);
        EXPECT_EQ(out.At(0, 0)[1], 87);  // (1600 - 900) / 8
        EXPECT_FALSE(Sharpen3x3(2, dot.At(1, 1), dot.stride, out.bytes.data(), out.stride, 3, 3));
    });
}

TEST(GammaTest, VideoGammaPerColourChannelAlphaCopied) {
    Plane p(256, 1, 4);
    for (uint32_t x = 0; x < 256; ++x)
        p.At(x, 0)[0] = p.At(x, 0)[1] = p.At(x, 0)[2] = uint8_t(x),
                p.At(x, 0)[3] = uint8_t(255 - x);
    ASSERT_TRUE(
        GammaForward(4, p.bytes.data(), p.stride, p.bytes.data(), p.stride, 256, 1));  // in place
    const std::pair<int, int> known[] = {{0, 0}, {4, 18}, {64, 125}, {128, 180}, {255, 255}};
    for (auto [in, out] : known) {
        EXPECT_EQ(p.At(in, 0)[0], out) << in;
        EXPECT_EQ(p.At(in, 0)[2], out) << in;
        EXPECT_EQ(p.At(in, 0)[3], 255 - in) << in;
    }
    for (uint32_t x = 1; x < 256; ++x) EXPECT_GE(p.At(x, 0)[0], p.At(x - 1, 0)[0]);
    Plane rgb(3, 2, 3, 128), out(3, 2, 3);
    ASSERT_TRUE(GammaForward(3, rgb.bytes.data(), rgb.stride, out.bytes.data(), out.stride, 3, 2));
    EXPECT_EQ(out.At(2, 1)[2], 180);
    EXPECT_TRUE(out.SlackIntact());
}

TEST(PixelCopyTest, FillExpandPackAtEveryTailLength) {
    OnEveryInstructionSet([&] {
        for (uint32_t n = 0; n < 70; ++n) {
            SCOPED_TRACE(n);
            std::vector<uint8_t> fill(4 * n + 8, kCanary);
            Fill32(fill.data(), 4 * n, n, 1, 1, 2, 3, 4);
            for (uint32_t i = 0; i < n; ++i)
                ASSERT_EQ(0, std::memcmp(&fill[4 * i], "\x01\x02\x03\x04", 4));
            EXPECT_EQ(fill[4 * n], kCanary);

            std::vector<uint8_t> rgb(3 * n + 1);
            for (size_t i = 0; i < rgb.size(); ++i) rgb[i] = uint8_t(i * 7 + 1);
            std::vector<uint8_t> rgba(4 * n + 8, kCanary), back(3 * n + 8, kCanary);
            Expand24To32(rgb.data(), rgba.data(), n);
            Pack32To24(rgba.data(), back.data(), n);
            for (uint32_t i = 0; i < n; ++i) {
                ASSERT_EQ(0, std::memcmp(&rgba[4 * i], &rgb[3 * i], 3));
                ASSERT_EQ(rgba[4 * i + 3], 255);
            }
            EXPECT_EQ(rgba[4 * n], kCanary);
            EXPECT_EQ(0, std::memcmp(back.data(), rgb.data(), 3 * n));
            EXPECT_EQ(back[3 * n], kCanary);
        }
        // Several rows with a stride wider than the row.
        std::vector<uint8_t> rows(3 * 40, 0);
        Fill32(rows.data(), 40, 7, 3, 9, 8, 7, 6);
        for (uint32_t y = 0; y < 3; ++y) {
            EXPECT_EQ(rows[y * 40 + 27], 6);
            EXPECT_EQ(rows[y * 40 + 28], 0);
        }
    });
}

}  // namespace
