// libFuzzer entry for the decoder of lossless and 12-bit JPEG frames, straight from memory,
// then what the viewer does first with a picture (touch its rows, a 24-bit copy).
#include <cstddef>
#include <cstdint>

#include "image/decoders.h"
#include "image/xdib.h"
#include "image/xdib_testing.h"
#include "image/xdibio.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // As for the whole load path: pretend picture storage ends at 16 MiB, so that mutated
    // headers claiming large frames are cheap and the out-of-memory paths run too.
    xdib_testing::SetAllocationLimit(uint64_t(16) << 20);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CXDibMemIO source(data, int64_t(size));
    XDib dib;
    DecodeJpegExtended(dib, source);
    if (dib.IsEmpty()) return 0;
    if (uint64_t(dib.nStride) * 8 < uint64_t(dib.nWidth) * dib.nBpp) __builtin_trap();
    volatile uint32_t sink = dib.pBits[0] + dib.GetRow(dib.nHeight - 1)[dib.nStride - 1];
    (void)sink;
    XDib copy;
    if (copy.CopyFrom(dib)) copy.ConvertBpp(24);
    return 0;
}
