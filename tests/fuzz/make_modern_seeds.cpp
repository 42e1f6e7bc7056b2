// make-modern-seeds DIR: the starting corpus of the WebP, AVIF, HEIF and JPEG XL fuzzer, one
// tiny file of each kind, made by the libraries' own encoders.
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "image/modern_fixtures.h"

using namespace modernfix;

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: make-modern-seeds DIR\n");
        return 2;
    }
    const std::filesystem::path dir = argv[1];
    std::error_code error;
    std::filesystem::create_directories(dir, error);

    Picture p(8, 6), q(8, 6);
    for (uint32_t y = 0; y < p.height; ++y)
        for (uint32_t x = 0; x < p.width; ++x) {
            p.At(x, y) = {uint8_t(x * 30), uint8_t(y * 40), 90, uint8_t(40 + x * y * 5)};
            q.At(x, y) = {uint8_t(200 - x * 20), 10, uint8_t(y * 40), 255};
        }
    const Bytes exif = TiffExif(6, "seed");
    const struct {
        const char* name;
        Bytes bytes;
    } seeds[] = {
        {"lossless.webp", EncodeWebp(p, {.alpha = true, .exif = exif})},
        {"lossy.webp", EncodeWebp(p, {.lossless = false})},
        {"anim.webp", EncodeWebpAnimation({{p, 40}, {q, 0}})},
        {"alpha.avif", EncodeAvif(p, {.alpha = true, .irot = 1, .imir = 0, .exif = exif})},
        {"still.heic", EncodeHeif(p, {.orientation = 6, .exif = exif})},
        {"codestream.jxl", EncodeJxl(p, {.alpha = true})},
        {"boxed.jxl", EncodeJxl(p, {.orientation = 8, .exif = exif})},
    };
    int written = 0;
    for (const auto& seed : seeds) {
        if (seed.bytes.empty()) {
            std::fprintf(stderr, "make-modern-seeds: no encoder for %s\n", seed.name);
            continue;
        }
        std::ofstream out(dir / seed.name, std::ios::binary);
        out.write(reinterpret_cast<const char*>(seed.bytes.data()),
                  std::streamsize(seed.bytes.size()));
        written += out.good() ? 1 : 0;
    }
    return written > 0 ? 0 : 1;
}
