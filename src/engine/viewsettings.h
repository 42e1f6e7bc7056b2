// What the page engine composes by. The window writes these under the page list's lock; the
// engine takes a private copy when it applies settings.
#pragma once

#include <cstdint>

struct ViewSettings {
    uint32_t nStretchMode = 4;       // show mode
    uint32_t nFilterMode = 0;        // 0 none, 1 interpolate, 2 interpolate and sharpen
    uint32_t nInterpolateMode = 0;   // 0 linear, 1 cubic, 2 Lanczos
    uint32_t nRotate = 0;            // 0 none, 1 quarter anticlockwise, 2 quarter clockwise, 3 half
    uint32_t bStretchWhenLarge = 0;  // scale large pictures down, never up
    uint32_t bExifRotation = 1;
    uint32_t bImageProcessingNegative = 0;
    uint32_t bImageProcessingGamma = 0;
    uint32_t nGifTransOption = 0;    // background behind GIF transparency
    uint32_t nAlphaTransOption = 2;  // background behind other alpha
    uint32_t bUseStrongSharpen = 0;
    uint32_t nCanvasWidth = 0;   // client area to fill, in pixels
    uint32_t nCanvasHeight = 0;  // likewise, less a docked control bar
    uint32_t clrBkgnd = 0x282828;
    uint32_t clrEmptyBkgnd = 0x282828;  // all bits set: use clrBkgnd
};
