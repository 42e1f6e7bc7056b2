// libFuzzer entry: every input goes through the viewer's load path from memory, then through
// what the cache and the page engine do first with a picture (its memory size, a 24-bit copy).
#include <cstddef>
#include <cstdint>

#include "image/xanimdib.h"
#include "image/xdib.h"
#include "image/xdib_testing.h"
#include "image/xdibio.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // A few mutated header bytes claim pictures of hundreds of megabytes, which decoders may
    // honestly allocate (a blank picture of an unsupported PSD mode, a short RLE body) and
    // then convert. Pretending memory ends at 16 MiB keeps a run at hundreds of inputs a
    // second instead of tens, and exercises the out-of-memory paths as well.
    xdib_testing::SetAllocationLimit(uint64_t(16) << 20);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CXDibMemIO source(data, int64_t(size));
    XAnimDib anim;
    anim.Load(source);

    volatile uint64_t sink = anim.GetMemorySize();
    for (size_t i = 0; i < anim.GetFrameCount(); ++i) {
        const XDib* frame = anim.GetFrame(i);
        if (frame->IsEmpty()) continue;
        // A frame must own at least the rows it claims: touch the first and the last byte.
        if (uint64_t(frame->nStride) * 8 < uint64_t(frame->nWidth) * frame->nBpp) __builtin_trap();
        const uint8_t* last = frame->GetRow(frame->nHeight - 1) + frame->nStride - 1;
        sink = sink + frame->pBits[0] + *last;
    }
    if (XDib* first = anim.GetFrame(0)) {
        XDib copy;
        if (copy.CopyFrom(*first)) copy.ConvertBpp(24);
        first->ConvertBpp(24);
    }
    (void)sink;
    return 0;
}
