// make-bridges-seeds DIR: a small starting corpus for the bridges fuzzer, written by the
// libraries' own encoders: a few PNG, TIFF, HD Photo, JPEG 2000 files and one DNG.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "bridge_writers.h"

using namespace bridgewrite;

namespace {

template <class Fn>
std::vector<uint16_t> Samples(uint32_t w, uint32_t h, uint32_t channels, Fn value) {
    std::vector<uint16_t> s;
    for (uint32_t y = 0; y < h; ++y)
        for (uint32_t x = 0; x < w; ++x)
            for (uint32_t c = 0; c < channels; ++c) s.push_back(uint16_t(value(x, y, c)));
    return s;
}

Bytes ToBytes(const std::vector<uint16_t>& samples) {
    return Bytes(samples.begin(), samples.end());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: make-bridges-seeds DIR\n");
        return 2;
    }
    const std::filesystem::path dir = argv[1];
    std::error_code error;
    std::filesystem::create_directories(dir, error);

    const auto colour = [](uint32_t x, uint32_t y, uint32_t c) {
        return (x * 40 + y * 25 + c * 90) & 255;
    };
    const auto index = [](uint32_t x, uint32_t y, uint32_t) { return (x + 2 * y) % 4; };
    const std::vector<Rgb> palette = {{200, 0, 0}, {0, 200, 0}, {0, 0, 200}, {9, 9, 9}};
    std::vector<uint16_t> map(3 * 4);
    for (uint32_t i = 0; i < 4; ++i)
        map[i] = uint16_t(palette[i].r * 257), map[4 + i] = uint16_t(palette[i].g * 257),
        map[8 + i] = uint16_t(palette[i].b * 257);
    std::vector<uint16_t> cfa(24 * 24);
    for (uint32_t i = 0; i < cfa.size(); ++i) cfa[i] = uint16_t(200 + (i % 24) * 100);

    const struct {
        const char* name;
        Bytes bytes;
    } seeds[] = {
        {"rgba16-interlaced.png",
         WritePng({.width = 7,
                   .height = 5,
                   .colourType = 6,
                   .bitDepth = 16,
                   .interlaced = true,
                   .samples = Samples(
                       7, 5, 4,
                       [&](uint32_t x, uint32_t y, uint32_t c) { return colour(x, y, c) * 257; }),
                   .gamma = 1.0})},
        {"palette-trns-bkgd.png", WritePng({.width = 9,
                                            .height = 4,
                                            .colourType = 3,
                                            .bitDepth = 2,
                                            .samples = Samples(9, 4, 1, index),
                                            .palette = palette,
                                            .paletteAlpha = {0, 128},
                                            .backgroundIndex = 3})},
        {"grey-trns.png", WritePng({.width = 6,
                                    .height = 6,
                                    .colourType = 0,
                                    .samples = Samples(6, 6, 1, colour),
                                    .transparent = 40})},
        {"pages.tif",
         WriteTiff(
             {{.width = 9,
               .height = 4,
               .photometric = 3,
               .bits = 4,
               .rowsPerStrip = 2,
               .colourMap = std::vector<uint16_t>(3 * 16, 0x8000),
               .data = ToBytes(Samples(
                   5, 4, 1, [](uint32_t x, uint32_t, uint32_t) { return x % 2 ? 0x12 : 0x30; }))},
              {.width = 8,
               .height = 6,
               .photometric = 2,
               .samples = 3,
               .compression = 5,
               .rowsPerStrip = 3,
               .data = ToBytes(Samples(8, 6, 3, colour))}})},
        {"tiles-cmyk.tif", WriteTiff({{.width = 20,
                                       .height = 17,
                                       .photometric = 5,
                                       .samples = 4,
                                       .compression = 8,
                                       .tileWidth = 16,
                                       .tileHeight = 16,
                                       .data = ToBytes(Samples(20, 17, 4, colour))}})},
        {"bilevel.tif", WriteTiff({{.width = 20,
                                    .height = 5,
                                    .photometric = 0,
                                    .bits = 1,
                                    .compression = 32773,
                                    .data = Bytes(15, 0x5A)}})},
        {"raw.dng", WriteDng(24, 24, cfa, 4095)},
        {"bgr.jxr", WriteJxr(20, 18, JxrFormat::kBgr24, ToBytes(Samples(20, 18, 3, colour)))},
        {"bgra.jxr", WriteJxr(9, 7, JxrFormat::kBgra32, ToBytes(Samples(9, 7, 4, colour)))},
        {"rgb.jp2", WriteJ2k({.width = 11,
                              .height = 7,
                              .components = {{.samples = std::vector<int32_t>(77, 10)},
                                             {.samples = std::vector<int32_t>(77, 200)},
                                             {.samples = std::vector<int32_t>(77, 90)}}})},
        {"ycc.jp2",
         WriteJ2k({.width = 8,
                   .height = 6,
                   .sycc = true,
                   .components = {{.samples = std::vector<int32_t>(48, 120)},
                                  {.dx = 2, .dy = 2, .samples = std::vector<int32_t>(12, 100)},
                                  {.dx = 2, .dy = 2, .samples = std::vector<int32_t>(12, 160)}}})},
        {"grey12.j2k",
         WriteJ2k({.width = 10,
                   .height = 9,
                   .jp2 = false,
                   .components = {{.precision = 12, .samples = std::vector<int32_t>(90, 3000)}}})},
    };
    for (const auto& seed : seeds) {
        std::ofstream out(dir / seed.name, std::ios::binary);
        out.write(reinterpret_cast<const char*>(seed.bytes.data()),
                  std::streamsize(seed.bytes.size()));
        if (!out) {
            std::fprintf(stderr, "make-bridges-seeds: can't write %s\n", seed.name);
            return 1;
        }
    }
    return 0;
}
