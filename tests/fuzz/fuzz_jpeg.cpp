// libFuzzer entry for the JPEG path: the decoder with the metadata pass in front of it,
// reduced or at full size, then the EXIF walk over the same bytes as a bare block.
#include <cstddef>
#include <cstdint>

#include "image/decoders.h"
#include "image/exifinfo.h"
#include "image/jpegmeta.h"
#include "image/xdib.h"
#include "image/xdib_testing.h"
#include "image/xdibio.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Mutated frame headers claim pictures of hundreds of megabytes that a plausible file may
    // honestly ask for; pretending memory ends at 16 MiB keeps the run fast and exercises the
    // failed-allocation paths too.
    xdib_testing::SetAllocationLimit(uint64_t(16) << 20);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CXDibMemIO source(data, int64_t(size));
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
