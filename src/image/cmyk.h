// CMYK pictures to screen colours.
#pragma once

class XDib;

// Turns a 32-bit picture whose pixels hold C, M, Y, K as Adobe stores them (inverted: 255 is no
// ink) into a 24-bit B, G, R picture, in place, keeping its storage. Through the picture's
// colour manager when it is open; otherwise (c * k + 1) >> 8 per channel on the stored values.
// Other pictures are left alone.
void ConvertCmykToBgr(XDib& dib);
