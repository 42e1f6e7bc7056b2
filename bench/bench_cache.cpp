// The image cache's own costs: a lookup in a full ring (every page turn that hits pays it) and
// the error picture with its line of text (every undecodable page pays it once).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "engine/imageman.h"
#include "image/textdraw.h"

namespace {

// A 24-bit BMP of 4 x 4 pixels of one shade.
std::vector<uint8_t> TinyBmp(uint8_t shade) {
    std::vector<uint8_t> file(54 + 4 * 4 * 3, shade);
    const auto put32 = [&](size_t at, uint32_t v) {
        for (int i = 0; i < 4; ++i) file[at + size_t(i)] = uint8_t(v >> (8 * i));
    };
    std::fill(file.begin(), file.begin() + 54, 0);
    file[0] = 'B', file[1] = 'M';
    put32(2, uint32_t(file.size())), put32(10, 54), put32(14, 40), put32(18, 4), put32(22, 4);
    file[26] = 1, file[28] = 24;
    return file;
}

void BM_FindBucketInFullRing(benchmark::State& state) {
    CImageMan cache;
    cache.Start();
    cache.nBudgetMB = 300;
    const std::string prefix = "books/some series/volume 03/page ";
    for (int i = 0; i < CImageMan::kBucketCount; ++i) {
        const std::string path = prefix + std::to_string(i) + ".jpg";
        const std::vector<uint8_t> bmp = TinyBmp(uint8_t(i));
        bool timedOut = false;
        cache.DecodeMemory(path, cache.MakeKey(path, ""), bmp.data(), bmp.size(), -1, &timedOut,
                           false);
    }
    // The oldest page: the scan goes over all 50 slots.
    const std::string path = prefix + std::to_string(CImageMan::kBucketCount - 1) + ".jpg";
    const std::string key = cache.MakeKey(path, "");
    for (auto _ : state) benchmark::DoNotOptimize(cache.FindBucket(path, key));
}
BENCHMARK(BM_FindBucketInFullRing);

void BM_ErrorPicture(benchmark::State& state) {
    const std::string path =
        "books/a series with a rather long name/volume 12/chapter 3/page 0042.jpg";
    for (auto _ : state) {
        XAnimDib ani;
        benchmark::DoNotOptimize(CImageMan::MakeErrorPicture(ani, path));
    }
}
BENCHMARK(BM_ErrorPicture)->Unit(benchmark::kMicrosecond);

void BM_TextLine(benchmark::State& state) {
    XDib dib;
    dib.Create(640, 40, 32);
    const XFontSpec font;
    for (auto _ : state)
        XDrawTextLine(dib, {0, 0, 640, 40}, font, "Page 17 of 240 - Chapter Three.jpg", 0,
                      XTEXT_CENTRE);
}
BENCHMARK(BM_TextLine)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
