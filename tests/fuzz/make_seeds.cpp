// make-fuzz-seeds DIR: a small starting corpus for the load fuzzer, one or two files for each
// format the program decodes itself, small enough that every mutation is cheap.
#include <cstdio>
#include <filesystem>
#include <string>

#include "imgwrite/imgwrite.h"

using namespace imgwrite;

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: make-fuzz-seeds DIR\n");
        return 2;
    }
    const std::filesystem::path dir = argv[1];
    std::error_code error;
    std::filesystem::create_directories(dir, error);

    Picture p(7, 5);
    for (uint32_t y = 0; y < p.height; ++y)
        for (uint32_t x = 0; x < p.width; ++x)
            p.At(x, y) = {uint8_t(x * 40), uint8_t(y * 60), uint8_t(x < 3 ? 200 : 10),
                          uint8_t(x * y * 9)};
    Picture few(9, 4, Rgba{10, 20, 30, 255});
    for (uint32_t x = 2; x < 6; ++x)
        few.At(x, 1) = {200, 0, 0, 255}, few.At(x + 1, 2) = {0, 0, 0, 255};

    const struct {
        const char* name;
        Bytes bytes;
    } seeds[] = {
        {"bmp24.bmp", WriteBmp(p, {.bpp = 24})},
        {"bmp16-565.bmp", WriteBmp(p, {.bpp = 16, .header = BmpHeader::V5, .bitfields = 565})},
        {"rle8.bmp", WriteBmp(few, {.bpp = 8, .rle = true, .rleDelta = true})},
        {"rle4.bmp", WriteBmp(few, {.bpp = 4, .rle = true})},
        {"tga-rle.tga", WriteTga(p, {.type = 10, .depth = 32})},
        {"tga-mapped.tga", WriteTga(few, {.type = 9, .depth = 8, .mapDepth = 16, .id = "seed"})},
        {"psd-rgba.psd", WritePsd(p, {.mode = 3, .channels = 4, .packBits = true})},
        {"psd-cmyk16.psd", WritePsd(p, {.mode = 4, .depth = 16, .resourceBytes = 6})},
    };
    for (const auto& seed : seeds) {
        if (seed.bytes.empty() || !WriteFile((dir / seed.name).string(), seed.bytes)) {
            std::fprintf(stderr, "make-fuzz-seeds: can't write %s\n", seed.name);
            return 1;
        }
    }
    return 0;
}
