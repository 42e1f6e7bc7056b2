// The JPEG path against raw TurboJPEG on scanned-page sized pictures, at full size and at each
// reduced scale. Both decode the same file from memory with the same transform (accurate
// integer) and upsampling (smooth); the raw side writes into a buffer allocated once, ours goes
// the whole way a page takes: sniffing, XAnimDib::Load and a picture from the storage.
//
// Run: build/bin/bench_jpeg [--benchmark_filter=...] [--benchmark_repetitions=N]
// After the usual report a table gives the fastest repetition of each side (processor time)
// and their ratio.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include <turbojpeg.h>

#include "image/xanimdib.h"
#include "image/xdib.h"
#include "image/xdibio.h"

namespace {

using Bytes = std::vector<uint8_t>;

// A page as a scanner or a comic gives it: white paper, black ink lines and frames, grey
// screen tones, blocks of text-like strokes, and a photo-like gradient panel.
Bytes DrawPage(uint32_t w, uint32_t h) {
    Bytes p(size_t(w) * h * 3, 250);
    uint32_t seed = 1;
    auto noise = [&seed] {
        seed = seed * 1664525 + 1013904223;
        return seed >> 24;
    };
    for (uint32_t y = 0; y < h; ++y) {
        uint8_t* row = &p[size_t(y) * w * 3];
        for (uint32_t x = 0; x < w; ++x) {
            uint8_t* q = row + 3 * x;
            const uint32_t panelX = x * 3 / w, panelY = y * 4 / h;
            const bool frame = x % (w / 3) < 6 || y % (h / 4) < 6;
            int v = 245 + int(noise() % 8);
            if (frame) {
                v = 20;
            } else if ((panelX + panelY) % 3 == 0) {
                // Screen tone: a dot grid.
                v = ((x / 4) % 2 == (y / 4) % 2) ? 90 : 230;
            } else if ((panelX + panelY) % 3 == 1) {
                // Text: short strokes in lines.
                const bool line = (y % 40) < 22, glyph = (x % 14) < 9 && ((x / 14 + y / 40) % 5);
                if (line && glyph && ((x + y) % 5 < 2 || (x % 14) < 2)) v = 30;
            } else {
                // A photo panel: colour gradients with a disc.
                const int dx = int(x % (w / 3)) - int(w / 6), dy = int(y % (h / 4)) - int(h / 8);
                const bool disc = dx * dx + dy * dy < int(w * w / 100);
                q[0] = uint8_t(disc ? 200 : x * 255 / w);
                q[1] = uint8_t(disc ? 60 : y * 255 / h);
                q[2] = uint8_t(disc ? 40 : (x + y) * 127 / (w + h) + noise() % 16);
                continue;
            }
            q[0] = q[1] = q[2] = uint8_t(v);
        }
    }
    return p;
}

Bytes Encode(const Bytes& pixels, uint32_t w, uint32_t h) {
    tjhandle tj = tjInitCompress();
    unsigned char* out = nullptr;
    unsigned long size = 0;
    Bytes jpeg;
    if (tjCompress2(tj, pixels.data(), int(w), 0, int(h), TJPF_BGR, &out, &size, TJSAMP_420, 90,
                    0) == 0)
        jpeg.assign(out, out + size);
    tjFree(out);
    tjDestroy(tj);
    return jpeg;
}

struct Page {
    uint32_t w, h;
    Bytes jpeg;
};

const std::vector<Page>& Pages() {
    static const std::vector<Page> pages = [] {
        std::vector<Page> v;
        for (auto [w, h] : {std::pair{1800u, 2700u}, {3500u, 5000u}})
            v.push_back({w, h, Encode(DrawPage(w, h), w, h)});
        return v;
    }();
    return pages;
}

void Raw(benchmark::State& state, const Page& page, int s) {
    tjhandle tj = tjInitDecompress();
    const int w = int((page.w + s - 1) / s), h = int((page.h + s - 1) / s);
    Bytes out(size_t(w) * h * 3);
    for (auto _ : state) {
        if (tjDecompress2(tj, page.jpeg.data(), page.jpeg.size(), out.data(), w, 0, h, TJPF_BGR,
                          0) != 0) {
            state.SkipWithError(tjGetErrorStr2(tj));
            break;
        }
        benchmark::DoNotOptimize(out.data());
    }
    tjDestroy(tj);
}

void Ours(benchmark::State& state, const Page& page, int s) {
    // A width target of exactly 1/s of the page makes the decoder choose s.
    const XDibScaleRequest request{1, page.w / uint32_t(s), 0};
    XAnimDib anim;
    for (auto _ : state) {
        CXDibMemIO source(page.jpeg.data(), int64_t(page.jpeg.size()));
        if (!anim.Load(source, nullptr, nullptr, s > 1 ? &request : nullptr) ||
            anim.GetFrame(0)->nWidth != page.w / uint32_t(s)) {
            state.SkipWithError("decode failed or not reduced as asked");
            break;
        }
        benchmark::DoNotOptimize(anim.GetFrame(0)->pBits);
    }
}

// Collects the fastest repetition of every benchmark beside the usual console report.
class TableReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.error_occurred || run.run_type != Run::RT_Iteration) continue;
            // Processor time of the one decoding thread: on a machine shared with other work
            // the wall clock mostly measures waiting for a core.
            const double ms = run.GetAdjustedCPUTime();  // every benchmark reports in ms
            auto [it, fresh] = fastest.emplace(run.run_name.function_name, ms);
            if (!fresh) it->second = std::min(it->second, ms);
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> fastest;
};

std::string Name(const char* side, const Page& page, int s) {
    return std::string(side) + "/" + std::to_string(page.w) + "x" + std::to_string(page.h) +
           "/1:" + std::to_string(s);
}

}  // namespace

int main(int argc, char** argv) {
    for (const Page& page : Pages())
        for (int s : {1, 2, 4, 8}) {
            // The two sides of a pair run back to back, so that load from other programs hits
            // both alike.
            benchmark::RegisterBenchmark(Name("raw", page, s).c_str(), Raw, page, s)
                ->Unit(benchmark::kMillisecond);
            benchmark::RegisterBenchmark(Name("ours", page, s).c_str(), Ours, page, s)
                ->Unit(benchmark::kMillisecond);
        }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    TableReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    std::printf("\n%-12s %-6s %10s %10s %7s\n", "page", "scale", "raw ms", "ours ms", "ratio");
    for (const Page& page : Pages())
        for (int s : {1, 2, 4, 8}) {
            const auto raw = reporter.fastest.find(Name("raw", page, s));
            const auto ours = reporter.fastest.find(Name("ours", page, s));
            if (raw == reporter.fastest.end() || ours == reporter.fastest.end()) continue;
            std::printf("%-12s 1:%-4d %10.3f %10.3f %7.3f\n",
                        (std::to_string(page.w) + "x" + std::to_string(page.h)).c_str(), s,
                        raw->second, ours->second, ours->second / raw->second);
        }
    return 0;
}
