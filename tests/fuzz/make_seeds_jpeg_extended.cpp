// Writes the seed corpus of fuzz_jpeg_extended into the folder given: the reference streams of
// the decoder's tests and lossless streams of our own writer in the shapes the tests don't keep
// as files (restart intervals, scans per component, subsampling, four components).
#include <cstdio>
#include <filesystem>
#include <string>

#include "jpeg_extended_writer.h"

using namespace jpegxtest;

namespace {

bool Write(const std::filesystem::path& path, const Bytes& b) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return false;
    const bool ok = std::fwrite(b.data(), 1, b.size(), f) == b.size();
    return std::fclose(f) == 0 && ok;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s FOLDER\n", argv[0]);
        return 2;
    }
    const std::filesystem::path out = argv[1];
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(ORLIMO_JPEGX_FIXTURES, ec))
        if (entry.path().extension() == ".jpg")
            std::filesystem::copy_file(entry.path(), out / entry.path().filename(),
                                       std::filesystem::copy_options::overwrite_existing, ec);
    if (ec) {
        std::fprintf(stderr, "can't copy the reference streams: %s\n", ec.message().c_str());
        return 1;
    }
    bool ok = Write(out / "lossless6_restart.jpg", WriteLossless(GreyFrame(24, 10, 6, 7, 1, 24)));
    ok = ok &&
         Write(out / "lossless16_midrow_restart.jpg", WriteLossless(GreyFrame(17, 9, 16, 4, 0, 5)));
    LosslessFrame sub;
    sub.width = 13, sub.height = 9, sub.precision = 10, sub.predictor = 6;
    sub.restartInterval = 7;
    sub.comps.push_back({'R', 2, 2, TestPlane(13, 9, 10, 1)});
    sub.comps.push_back({'G', 1, 1, TestPlane(7, 5, 10, 2)});
    sub.comps.push_back({'B', 1, 2, TestPlane(7, 9, 10, 3)});
    ok = ok && Write(out / "lossless_subsampled.jpg", WriteLossless(sub));
    sub.interleaved = false;
    ok = ok && Write(out / "lossless_scan_per_component.jpg", WriteLossless(sub));
    LosslessFrame ycck;
    ycck.width = 8, ycck.height = 6, ycck.precision = 8, ycck.predictor = 2;
    ycck.marker = ColourMarker::kAdobe, ycck.adobeTransform = 2;
    for (uint8_t id = 1; id <= 4; ++id) ycck.comps.push_back({id, 1, 1, TestPlane(8, 6, 8, id)});
    ok = ok && Write(out / "lossless_ycck.jpg", WriteLossless(ycck));
    if (!ok) {
        std::fprintf(stderr, "can't write the seeds into %s\n", argv[1]);
        return 1;
    }
    return 0;
}
