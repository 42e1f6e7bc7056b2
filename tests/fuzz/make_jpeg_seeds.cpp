// Writes the seed corpus of fuzz_jpeg into the folder given: small files of each JPEG form the
// decoder takes, one with EXIF and a comment, and a bare EXIF block.
#include <cstdio>
#include <string>

#include "jpeg_fixtures.h"

namespace {

bool Write(const std::string& path, const jpegfix::Bytes& bytes) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return false;
    const bool ok = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    return std::fclose(f) == 0 && ok;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s FOLDER\n", argv[0]);
        return 2;
    }
    using namespace jpegfix;
    const std::string dir = argv[1];
    const uint32_t w = 40, h = 24;
    const Bytes rgb = DrawPixels(w, h, 3), grey = DrawPixels(w, h, 1), ink = DrawPixels(w, h, 4);
    ExifBuilder exif(true);
    exif.Text(271, "Maker").Text(272, "Model").Short(274, 6).Rational(282, 72, 1).Short(296, 2);
    exif.Rational(33434, 1, 125, true).Rational(33437, 40, 10, true).Short(34855, 200, true);
    exif.Text(37510, std::string("ASCII\0\0\0a comment", 17), true, ExifBuilder::kUndefined);
    exif.Long(40962, 40, true).Rational(41486, 300, 1, true).Short(41488, 3, true);
    const Bytes baseline = EncodeTj(rgb, w, h, TJPF_BGR);
    const struct {
        const char* name;
        Bytes bytes;
    } seeds[] = {
        {"baseline.jpg", baseline},
        {"progressive.jpg", EncodeTj(rgb, w, h, TJPF_BGR, {.progressive = true})},
        {"grey.jpg", EncodeTj(grey, w, h, TJPF_GRAY)},
        {"ycck.jpg", EncodeTj(ink, w, h, TJPF_CMYK, {.subsamp = TJSAMP_444})},
        {"cmyk-arith.jpg",
         EncodeLib(ink, w, h,
                   {.components = 4, .in = JCS_CMYK, .stored = JCS_CMYK, .arithmetic = true})},
        {"restarts.jpg", EncodeLib(rgb, w, h, {.restartRows = 1})},
        {"exif.jpg",
         Insert(Insert(baseline, Segment(0xFE, {'h', 'i'})), Segment(0xE1, exif.Build(true)))},
        {"exif.tif", exif.Build(false)},
    };
    for (const auto& seed : seeds) {
        if (seed.bytes.empty() || !Write(dir + "/" + seed.name, seed.bytes)) {
            std::fprintf(stderr, "could not write %s\n", seed.name);
            return 1;
        }
    }
    return 0;
}
