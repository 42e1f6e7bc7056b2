// libFuzzer entry for the library bridges: every input is sniffed, and what sniffs as PNG,
// TIFF, JPEG 2000 or HD Photo goes to its bridge; other formats are left to their own targets.
// TIFF-like input goes to the page loader and to the DNG developer both, as a file named .dng
// would. HD Photo is decoded reduced for odd sizes, so the thumbnail path is run too.
#include <cstddef>
#include <cstdint>

#include "image/decoders.h"
#include "image/format.h"
#include "image/xanimdib.h"
#include "image/xdib.h"
#include "image/xdib_testing.h"
#include "image/xdibio.h"

namespace {

// A picture must own every row it claims: touch the first and the last byte.
void Touch(const XDib& dib) {
    if (dib.IsEmpty()) return;
    if (uint64_t(dib.nStride) * 8 < uint64_t(dib.nWidth) * dib.nBpp) __builtin_trap();
    volatile uint8_t sink = dib.pBits[0];
    sink = sink + dib.GetRow(dib.nHeight - 1)[dib.nStride - 1];
    (void)sink;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // As for the load fuzzer: memory pretends to end at 16 MiB, so that lying headers are cheap
    // and the out-of-memory paths are run as well.
    xdib_testing::SetAllocationLimit(uint64_t(16) << 20);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CXDibMemIO source(data, int64_t(size));
    const XDibFormat format = SniffFormat(source, nullptr);
    XDib dib;
    switch (format) {
        case FORMAT_PNG:
            DecodePng(dib, source);
            break;
        case FORMAT_TIFF: {
            XAnimDib pages;
            LoadTiffPages(pages, source);
            for (size_t i = 0; i < pages.GetFrameCount(); ++i) Touch(*pages.GetFrame(i));
            source.Seek(0, 0);
            DecodeDng(dib, source);
            break;
        }
        case FORMAT_JP2:
        case FORMAT_J2K:
            DecodeJpeg2000(dib, source, format);
            break;
        case FORMAT_HDP: {
            const XDibScaleRequest request{.bEnable = 1, .nTargetWidth = 16, .nTargetHeight = 16};
            DecodeHdp(dib, source, size % 2 ? &request : nullptr);
            break;
        }
        default:
            return 0;
    }
    Touch(dib);
    return 0;
}
