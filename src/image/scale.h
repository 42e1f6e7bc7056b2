// The choice of a reduced decode for decoders that can scale while decoding (JPEG, HD Photo).
#pragma once

#include <cstdint>

#include "image/xdib.h"

// The divisor s (1, 2, 4 or 8) for a picture of width x height and a scale request. s starts at
// 1 and doubles up to three times while the picture divided by 2s still covers the target:
// first by width when a target width is given, else by height when a target height is given.
// The picture thus stays at least as large as the target in one direction, not in both.
// A null or disabled request, or one without any target, gives 1.
inline uint32_t ChooseScale(uint32_t width, uint32_t height, const XDibScaleRequest* request) {
    if (!request || !request->bEnable) return 1;
    if (request->nTargetWidth == 0 && request->nTargetHeight == 0) return 1;
    uint32_t s = 1;
    for (int step = 0; step < 4 && s < 8; ++step) {
        if (request->nTargetWidth != 0 && width / (2 * s) >= request->nTargetWidth) {
            s *= 2;
        } else if (request->nTargetHeight != 0 && height / (2 * s) >= request->nTargetHeight) {
            s *= 2;
        } else {
            break;
        }
    }
    return s;
}
