#include "image/cmyk.h"

#include "image/colorman.h"
#include "image/xdib.h"

void ConvertCmykToBgr(XDib& dib) {
    if (dib.IsEmpty() || dib.nBpp != 32) return;
    const XColorMan* colorMan = dib.pColorMan && dib.pColorMan->IsOpen() ? dib.pColorMan : nullptr;
    const uint32_t width = dib.nWidth;
    const uint32_t stride24 = XDibStride(width, 24);
    // Rows are packed down into the same block: a 24-bit row never reaches past the 32-bit row
    // it is made from, nor into the next one, so reading and writing forwards is safe.
    for (uint32_t y = 0; y < dib.nHeight; ++y) {
        const uint8_t* src = dib.GetRow(y);
        uint8_t* dst = dib.pBits + size_t(y) * stride24;
        if (colorMan) {
            colorMan->TranslateCmykRow(src, dst, width, 3);  // reads the whole row first
            continue;
        }
        for (uint32_t x = 0; x < width; ++x, src += 4, dst += 3) {
            const uint32_t c = src[0], m = src[1], ye = src[2], k = src[3];
            dst[2] = uint8_t((c * k + 1) >> 8);
            dst[1] = uint8_t((m * k + 1) >> 8);
            dst[0] = uint8_t((ye * k + 1) >> 8);
        }
    }
    dib.nBpp = 24;
    dib.nStride = stride24;
    dib.nBytesPerPixel = 3;
}
