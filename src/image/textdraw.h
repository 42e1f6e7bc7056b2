// Text onto pictures: faces found by family through fontconfig, a UTF-8 run shaped with
// HarfBuzz and rasterised by FreeType into a coverage mask, and the mask blended in a colour onto
// a 24- or 32-bit XDib. Code points the chosen face lacks (Hangul in DejaVu, say) are taken from
// a face that has them. Faces are kept once opened. Every call may come from any thread: the
// font machinery is used under one lock, and blending runs outside it.
//
// The skin's rich text builds on these pieces; the image cache draws its error picture with
// XDrawTextLine.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base/types.h"

class XDib;

// A font as asked for: family name (fontconfig's names; "Sans" and the like work too), size in
// pixels (the em square), weight and slant. An unknown family falls back to a sans face.
struct XFontSpec {
    std::string sFamily = "Sans";
    uint32_t nPixelSize = 16;
    bool bBold = false;
    bool bItalic = false;
    friend bool operator==(const XFontSpec&, const XFontSpec&) = default;
};

// Vertical measures of a font's line, in pixels.
struct XFontMetrics {
    int32_t nAscent = 0;   // baseline below the line's top
    int32_t nDescent = 0;  // line's bottom below the baseline
    int32_t nHeight = 0;   // nAscent + nDescent
};

// A rasterised run: coverage 0..255, rows top first, nWidth bytes a row. Placed at a pen
// position (x, baseline), its pixel (0, 0) lands at (x + nLeft, baseline + nTop).
struct XTextMask {
    int32_t nWidth = 0;
    int32_t nHeight = 0;
    int32_t nLeft = 0;
    int32_t nTop = 0;      // negative: above the baseline
    int32_t nAdvance = 0;  // where the pen stands after the run
    std::vector<uint8_t> coverage;
};

// Flags of XDrawTextLine.
enum : uint32_t {
    XTEXT_CENTRE = 1,           // centred in both directions; else left and top
    XTEXT_MIDDLE_ELLIPSIS = 2,  // a too-long text loses its middle to "…"
};

// Line measures of the font; false (all zero) when no face can be had.
bool XGetFontMetrics(const XFontSpec& font, XFontMetrics* metrics);

// The advance of the shaped run in pixels; 0 for an empty text or without a face.
int32_t XMeasureText(const XFontSpec& font, std::string_view utf8);

// Shapes and rasterises the run. False when no face can be had or the run is too large to
// hold (wider than 32767 or taller than 4096 pixels); an empty text gives an empty mask.
bool XRenderText(const XFontSpec& font, std::string_view utf8, XTextMask* mask);

// Blends `colour` (0x00BBGGRR) by the mask onto a 24- or 32-bit picture with the pen at
// (x, baseline), touching only pixels inside `clip` and the picture. On 32 bits the alpha grows
// as the text covers the pixel. False for other depths.
bool XBlendMask(XDib& target, const XTextMask& mask, int32_t x, int32_t baseline, uint32_t colour,
                const XRect& clip);

// The longest form of `utf8` that fits `maxWidth`: the whole text when it fits, else its start
// and end around "…", as a long path is shortened. Whole code points only; at the least "…".
std::string XEllipsizeMiddle(const XFontSpec& font, std::string_view utf8, int32_t maxWidth);

// Draws one line into `rect`, clipped to it, by the flags above.
bool XDrawTextLine(XDib& target, const XRect& rect, const XFontSpec& font, std::string_view utf8,
                   uint32_t colour, uint32_t flags);
