// libFuzzer entry for the JPEG path: the decoder with the metadata pass in front of it,
// reduced or at full size, from memory or from a stream, then the EXIF walk over the same bytes
// as a bare block.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "image/decoders.h"
#include "image/exifinfo.h"
#include "image/jpegmeta.h"
#include "image/xdib.h"
#include "image/xdib_testing.h"
#include "image/xdibio.h"

namespace {

// A source that only streams, as a file does, so that the decoder's buffered reading is fuzzed
// too (a memory source is handed to the library whole).
class StreamIO final : public IXDibIO {
public:
    StreamIO(const uint8_t* d, size_t n) : data(d), size(n) {}
    bool Read(void* buffer, uint32_t count) override {
        if (count > size - pos) return false;
        std::memcpy(buffer, data + pos, count);
        pos += count;
        return true;
    }
    bool Write(const void*, uint32_t) override { return false; }
    int64_t Seek(int64_t offset, int origin) override {
        const int64_t base = origin == 0 ? 0 : origin == 1 ? int64_t(pos) : int64_t(size);
        const int64_t at = origin == 2 ? base - offset : base + offset;
        pos = size_t(std::clamp<int64_t>(at, 0, int64_t(size)));
        return int64_t(pos);
    }
    int64_t Tell() override { return int64_t(pos); }
    int64_t GetSize() override { return int64_t(size); }

private:
    const uint8_t* data;
    size_t size;
    size_t pos = 0;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Mutated frame headers claim pictures of hundreds of megabytes that a plausible file may
    // honestly ask for; pretending memory ends at 16 MiB keeps the run fast and exercises the
    // failed-allocation paths too.
    xdib_testing::SetAllocationLimit(uint64_t(16) << 20);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CXDibMemIO memory(data, int64_t(size));
    StreamIO stream(data, size);
    IXDibIO& source = size & 2 ? static_cast<IXDibIO&>(stream) : memory;
    ExifInfo info;
    CJPEGMetaData meta(&info);
    // Odd sizes ask for a reduced picture, so both paths get their share of inputs.
    const XDibScaleRequest request{1, 24, 24};
    XDib dib;
    DecodeJpeg(dib, source, &meta, size % 2 ? &request : nullptr);
    if (!dib.IsEmpty()) {
        // Every row the picture claims must be its own: touch the first and the last byte.
        const uint8_t* last = dib.GetRow(dib.nHeight - 1) + dib.nStride - 1;
        volatile uint8_t sink = uint8_t(dib.pBits[0] + *last);
        (void)sink;
    }

    ExifInfo bare;
    CJPEGMetaData exif(&bare);
    exif.ParseTiffExif(data, size);
    exif.ParseExifBlock(data, size);
    return 0;
}
