// make-gif-seeds DIR: a small starting corpus for the GIF fuzzer, written by our GIF writer:
// animations with every disposal and transparency, interlacing, local palettes, extension
// blocks, and LZW streams with clear codes, a full table and a code beyond the table.
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "imgwrite/imgwrite.h"

using namespace imgwrite;

namespace {

std::vector<uint8_t> Noise(size_t count, uint32_t colours, uint32_t seed) {
    std::vector<uint8_t> v(count);
    for (uint8_t& i : v) {
        seed = seed * 1103515245u + 12345u;
        i = uint8_t((seed >> 16) % colours);
    }
    return v;
}

GifFrame Frame(uint16_t left, uint16_t top, uint16_t width, uint16_t height, uint32_t colours,
               uint32_t seed) {
    GifFrame f{.left = left, .top = top, .width = width, .height = height};
    f.indices = Noise(size_t(width) * height, colours, seed);
    return f;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: make-gif-seeds DIR\n");
        return 2;
    }
    const std::filesystem::path dir = argv[1];
    std::error_code error;
    std::filesystem::create_directories(dir, error);

    std::vector<Rgba> palette;
    for (uint32_t k = 0; k < 256; ++k)
        palette.push_back({uint8_t(k * 37 + 11), uint8_t(k * 89 + 3), uint8_t(k * 151 + 7), 255});
    const std::vector<Rgba> four(palette.begin(), palette.begin() + 4);

    // An animation: every disposal, transparency, delays, a looping block and a comment.
    std::vector<GifFrame> animation = {Frame(0, 0, 8, 6, 4, 1)};
    animation[0].extensions = {GifLoop(0), GifComment({"seed"})};
    for (uint8_t disposal = 0; disposal < 5; ++disposal) {
        GifFrame f = Frame(disposal, 1, 3, 4, 4, disposal + 2);
        f.hasControl = true;
        f.control = {.disposal = disposal,
                     .transparentIndex = disposal % 2 ? 1 : -1,
                     .delay = uint16_t(disposal * 3)};
        animation.push_back(f);
    }
    GifFrame interlaced = Frame(1, 0, 5, 6, 4, 9);
    interlaced.interlaced = true;
    GifFrame local = Frame(0, 0, 4, 3, 8, 10);
    local.localPalette = std::vector<Rgba>(palette.begin() + 100, palette.begin() + 108);
    GifFrame bigTable = Frame(0, 0, 40, 30, 256, 11);
    bigTable.lzw = {.clearWhenFull = false};
    GifFrame clears = Frame(0, 0, 8, 6, 4, 12);
    clears.lzw = {.clearEvery = 7, .blockSize = 5};
    GifFrame badCode = Frame(0, 0, 8, 6, 1, 13);
    badCode.lzw = {.badCodeAt = 2, .endCode = false};

    const struct {
        const char* name;
        Bytes bytes;
    } seeds[] = {
        {"animation.gif", WriteGif({.width = 8, .height = 6, .globalPalette = four}, animation)},
        {"interlaced.gif",
         WriteGif({.width = 6, .height = 6, .globalPalette = four}, {interlaced})},
        {"local.gif", WriteGif({.width = 4, .height = 3, .gif87a = true}, {local})},
        {"full-table.gif",
         WriteGif({.width = 40, .height = 30, .globalPalette = palette}, {bigTable})},
        {"clears.gif",
         WriteGif({.width = 8, .height = 6, .globalPalette = four, .trailer = false}, {clears})},
        {"bad-code.gif", WriteGif({.width = 8, .height = 6, .globalPalette = four}, {badCode})},
    };
    for (const auto& seed : seeds) {
        if (seed.bytes.empty() || !WriteFile((dir / seed.name).string(), seed.bytes)) {
            std::fprintf(stderr, "make-gif-seeds: can't write %s\n", seed.name);
            return 1;
        }
    }
    return 0;
}
