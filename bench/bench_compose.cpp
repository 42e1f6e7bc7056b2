// What composing a view costs at a page turn: fitting one page or a spread into a full-HD
// window, by filter and kernel, with the canvas reused as the engine reuses it.
// Run: build/bin/bench_compose [--benchmark_filter=...]
#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>

#include "base/types.h"
#include "engine/compose.h"
#include "image/xanimdib.h"

namespace {

// A scanned-page sized picture with some texture, 32 bits as the cache stores pictures.
std::unique_ptr<XAnimDib> Page(uint32_t w, uint32_t h) {
    auto page = std::make_unique<XAnimDib>();
    XDib* dib = page->AddEmptyFrame();
    dib->Create(w, h, 32);
    for (uint32_t y = 0; y < h; ++y) {
        uint8_t* row = dib->GetRow(y);
        for (uint32_t x = 0; x < w * 4; ++x) row[x] = uint8_t((x * 7) ^ (y * 13));
    }
    return page;
}

// Arguments: show mode, filter, interpolation.
void BM_ComposeView(benchmark::State& state) {
    static const auto first = Page(1400, 2000), second = Page(1400, 2000);
    ViewSettings settings;
    settings.nStretchMode = uint32_t(state.range(0));
    settings.nFilterMode = uint32_t(state.range(1));
    settings.nInterpolateMode = uint32_t(state.range(2));
    settings.nCanvasWidth = 1920;
    settings.nCanvasHeight = 1080;
    nThreadCount = 2;
    XDib canvas;
    for (auto _ : state) {
        ComposeView(first.get(), second.get(), canvas, false, false, settings);
        benchmark::DoNotOptimize(canvas.pBits);
    }
}
BENCHMARK(BM_ComposeView)
    ->ArgNames({"mode", "filter", "interp"})
    ->Args({SHOW_STRETCH, 0, 0})
    ->Args({SHOW_STRETCH, 1, 0})  // a shrink to 54%: area average
    ->Args({SHOW_TWO_PAGE_L2R, 1, 0})
    ->Args({SHOW_TWO_PAGE_L2R, 1, 2})
    ->Args({SHOW_TWO_PAGE_L2R, 2, 1})  // with sharpening of the whole canvas
    ->Args({SHOW_FIT_WIDTH, 1, 1})
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
