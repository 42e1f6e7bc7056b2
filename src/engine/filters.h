// Pixel filters that run after decoding (negative, gamma: once, on the cache thread, so that the
// stored picture holds their result) or after composition (sharpening, at every view).
#pragma once

#include "image/xdib.h"

// Bitwise complement of blue, green and red; alpha stays. Pictures of other than 24 and 32 bits
// are left alone and count as done.
bool Negative(XDib& dib);

// The forward gamma kernel over the whole picture, through a temporary copy; 24 and 32 bits
// (alpha kept). On failure the picture stays as it was.
bool Gamma(XDib& dib);

// The 3 x 3 sharpening kernel from a full copy into the picture, on the inner area (width and
// height less 2, from (1, 1)); border pixels stay. 24 and 32 bits.
bool Sharpen(XDib& dib);

// Strong sharpening: centre 2.6, each of the 8 neighbours -0.2, limited to 0..255, border rows
// and columns kept. The 24-bit form works in fixed point, (centre * 2662 - sum * 204) >> 10; the
// 32-bit form in double precision, cut to an integer, alpha untouched. Both refuse pictures
// under 3 pixels in either direction or of the wrong depth. The rows are split into
// nThreadCount bands, each on its own thread, the caller's thread taking the last; the caller
// asks dib.pfnProgress at each of its rows, and a non-zero answer stops the filter and puts the
// unchanged copy back.
bool StrongSharpen24(XDib& dib);
bool StrongSharpen32(XDib& dib);
