// libFuzzer entry for the GIF decoder: every input as an animation and as a single picture,
// then what the cache does first with the frames (their memory size, a 24-bit copy).
#include <cstddef>
#include <cstdint>

#include "image/decoders.h"
#include "image/xanimdib.h"
#include "image/xdib.h"
#include "image/xdib_testing.h"
#include "image/xdibio.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // A few mutated header bytes claim screens of hundreds of megabytes; pretending memory ends
    // at 16 MiB a picture keeps the run fast and exercises the out-of-memory paths.
    xdib_testing::SetAllocationLimit(uint64_t(16) << 20);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CXDibMemIO source(data, int64_t(size));
    XAnimDib anim;
    LoadGifFrames(anim, source);
    volatile uint64_t sink = anim.GetMemorySize();
    for (size_t i = 0; i < anim.GetFrameCount(); ++i) {
        const XDib* frame = anim.GetFrame(i);
        // Every frame kept is a whole 32-bit canvas: touch its first and last byte.
        if (frame->IsEmpty() || frame->nBpp != 32 || frame->nWidth != anim.GetFrame(0)->nWidth)
            __builtin_trap();
        const uint8_t* last = frame->GetRow(frame->nHeight - 1) + frame->nStride - 1;
        sink = sink + frame->pBits[0] + *last;
    }
    if (XDib* first = anim.GetFrame(0)) {
        XDib copy;
        if (copy.CopyFrom(*first)) copy.ConvertBpp(24);
    }

    CXDibMemIO again(data, int64_t(size));
    XDib single;
    if (DecodeGifFirst(single, again) && single.IsEmpty()) __builtin_trap();
    (void)sink;
    return 0;
}
