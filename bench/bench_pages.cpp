// Baseline costs of opening a folder and of the picture operations a page turn performs.
// Run: build/bin/bench_pages [--benchmark_filter=...]
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "engine/naturalcompare.h"
#include "engine/pagelist.h"
#include "image/xanimdib.h"
#include "image/xdib.h"
#include "image/xdibio.h"

namespace fs = std::filesystem;

namespace {

// A folder of `count` empty pages with names that need the natural order, plus some non-pages.
fs::path MakeFolder(int count) {
    const fs::path dir = fs::temp_directory_path() /
                         ("orlimo-bench-" + std::to_string(getpid()) + "-" + std::to_string(count));
    fs::create_directories(dir);
    for (int i = 0; i < count; ++i) {
        std::ofstream(dir / ("Chapter " + std::to_string(i % 17) + " page" + std::to_string(i) +
                             (i % 3 ? ".jpg" : ".PNG")));
        if (i % 10 == 0) std::ofstream(dir / ("notes" + std::to_string(i) + ".txt"));
    }
    return dir;
}

void BM_OpenFolder(benchmark::State& state) {
    const fs::path dir = MakeFolder(int(state.range(0)));
    for (auto _ : state) {
        CPageList list;
        std::lock_guard hold(list.cs);
        list.AddFolder(dir.string());
        list.Sort();
        benchmark::DoNotOptimize(list.GetCount());
    }
    fs::remove_all(dir);
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_OpenFolder)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

void BM_NaturalCompare(benchmark::State& state) {
    const std::string a = "Some Comic Vol 03 - Chapter 0012 page 0045.jpg";
    const std::string b = "Some Comic Vol 03 - Chapter 0012 page 0046.jpg";
    for (auto _ : state) benchmark::DoNotOptimize(NaturalCompare(a, b));
}
BENCHMARK(BM_NaturalCompare);

// A photo-sized page.
XDib MakePicture(uint32_t bpp) {
    XDib dib;
    dib.Create(3000, 2000, bpp);
    for (uint32_t y = 0; y < dib.nHeight; ++y)
        for (uint32_t x = 0; x < dib.nStride; ++x) dib.GetRow(y)[x] = uint8_t(x * 7 + y);
    return dib;
}

void BM_DecodeBmp24(benchmark::State& state) {
    XDib source = MakePicture(24);
    const fs::path file =
        fs::temp_directory_path() / ("orlimo-bench-" + std::to_string(getpid()) + ".bmp");
    source.SaveBmp(file.c_str());
    std::ifstream in(file, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), {});
    fs::remove(file);
    for (auto _ : state) {
        XAnimDib pic;
        CXDibMemIO io(bytes.data(), int64_t(bytes.size()));
        benchmark::DoNotOptimize(pic.Load(io));
    }
    state.SetBytesProcessed(state.iterations() * int64_t(bytes.size()));
}
BENCHMARK(BM_DecodeBmp24)->Unit(benchmark::kMillisecond);

void BM_CopyFrom32(benchmark::State& state) {
    XDib source = MakePicture(32), target;
    for (auto _ : state) benchmark::DoNotOptimize(target.CopyFrom(source));
    state.SetBytesProcessed(state.iterations() * int64_t(source.nStride) * source.nHeight);
}
BENCHMARK(BM_CopyFrom32)->Unit(benchmark::kMillisecond);

void BM_Convert24To32(benchmark::State& state) {
    const XDib source = MakePicture(24);
    XDib work;
    for (auto _ : state) {
        work.CopyFrom(source);
        benchmark::DoNotOptimize(work.ConvertBpp(32));
    }
}
BENCHMARK(BM_Convert24To32)->Unit(benchmark::kMillisecond);

void BM_AlphaBlit32To32(benchmark::State& state) {
    const XDib source = MakePicture(32);
    XDib target = MakePicture(32);
    for (auto _ : state) benchmark::DoNotOptimize(source.Blit(target, 0, 0, 0, 0, -1, -1, true));
}
BENCHMARK(BM_AlphaBlit32To32)->Unit(benchmark::kMillisecond);

void BM_RotateQuarter32(benchmark::State& state) {
    XDib dib = MakePicture(32);
    for (auto _ : state) benchmark::DoNotOptimize(dib.Rotate(0));
}
BENCHMARK(BM_RotateQuarter32)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
