// libFuzzer entry for WebP, AVIF, HEIF and JPEG XL: every input is sniffed and handed to the
// decoder of its format, with the EXIF collector attached; WebP also through its frame loader.
// Inputs of other formats are left to the other targets.
#include <cstddef>
#include <cstdint>

#include "image/decoders.h"
#include "image/exifinfo.h"
#include "image/format.h"
#include "image/jpegmeta.h"
#include "image/xanimdib.h"
#include "image/xdib.h"
#include "image/xdib_testing.h"
#include "image/xdibio.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // As in the load target: pictures beyond 16 MiB fail as if memory had run out, which keeps
    // a run fast and exercises the out-of-memory paths.
    xdib_testing::SetAllocationLimit(uint64_t(16) << 20);
    return 0;
}

namespace {

// A picture must own the rows it claims: touch its first and last byte.
void Touch(const XDib& dib) {
    if (dib.IsEmpty()) return;
    if (uint64_t(dib.nStride) * 8 < uint64_t(dib.nWidth) * dib.nBpp) __builtin_trap();
    volatile uint8_t sink = dib.pBits[0];
    sink = dib.GetRow(dib.nHeight - 1)[dib.nStride - 1];
    (void)sink;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CXDibMemIO source(data, int64_t(size));
    const XDibFormat format = SniffFormat(source, nullptr);
    ExifInfo info{};
    CJPEGMetaData meta(&info);
    XDib dib;
    switch (format) {
        case FORMAT_WEBP: {
            DecodeWebpFirst(dib, source, &meta);
            XAnimDib anim;
            source.Seek(0, 0);
            LoadWebpFrames(anim, source, &meta);
            for (size_t i = 0; i < anim.GetFrameCount(); ++i) Touch(*anim.GetFrame(i));
            break;
        }
        case FORMAT_AVIF:
            DecodeAvif(dib, source, &meta);
            break;
        case FORMAT_HEIF:
            DecodeHeif(dib, source, &meta);
            break;
        case FORMAT_JXL:
            DecodeJxl(dib, source, &meta);
            break;
        default:
            return 0;
    }
    Touch(dib);
    return 0;
}
