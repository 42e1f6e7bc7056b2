// Page composition: draws the one or two pictures of a view, scaled by the show mode, into one
// canvas picture, and records where the page lies in it. A pure function of the pictures and the
// view's settings; the window then only copies the canvas.
//
// The arithmetic lives in LayoutView, which needs sizes only; ComposeView draws by its result.
#pragma once

#include <cstdint>

#include "engine/viewsettings.h"
#include "image/xanimdib.h"
#include "image/xdib.h"

// Show modes, the values of nStretchMode.
enum : uint32_t {
    SHOW_NONE = 0,          // full size, scrollable
    SHOW_STRETCH = 1,       // whole picture fitted into the client area
    SHOW_FIT_WIDTH = 2,     // fitted to the width, scrollable downwards
    SHOW_TWO_PAGE_L2R = 3,  // two pages side by side, the earlier on the left
    SHOW_TWO_PAGE_R2L = 4,  // the earlier on the right
    SHOW_ONE_PAGE_L2R = 5,  // fit width; a landscape page cut in two halves, left on top
    SHOW_ONE_PAGE_R2L = 6,  // likewise, right half on top
};

// What a composition tells the caller, who records it under the page list's lock (or, for a
// prepared view, in the prepared record).
struct ComposeReport {
    bool bComposed = false;      // false: nothing drawn (empty canvas area or no picture)
    bool bTwoPageMode = false;   // nStretchMode asks for spreads
    bool bTwoPageShown = false;  // the two pictures really were drawn as a spread
};

// The sizes of a picture that layout works with: w x h as stored, W x H its true size (the
// file's size when the decoder delivered a reduced picture, else the stored one).
struct ComposeSize {
    uint32_t w = 0;
    uint32_t h = 0;
    uint32_t W = 0;
    uint32_t H = 0;
};
ComposeSize ComposeSizeOf(const XDib& dib);

// A picture is upright when it is at least as high as wide; a height of 0 isn't upright.
// Only upright pictures pair into spreads, and only landscape pages are cut in the one-page modes.
bool IsUpright(uint32_t w, uint32_t h);

// One picture placed in the canvas: which one (0 first, 1 second) and where. Its source is
// always the whole picture (in the one-page modes, the picture of stacked strips).
struct ComposePage {
    uint32_t nPicture = 0;
    XRect rect;
};

// Everything ComposeView does, worked out from sizes alone.
struct ComposeLayout {
    ComposeReport report;
    uint32_t nMode = SHOW_NONE;  // the mode really drawn (after pairing, bActualSize, fitting)
    uint32_t nFilter = 0;        // 0 with bActualSize
    uint32_t nGrowWidth = 0;     // the canvas is grown to at least this size
    uint32_t nGrowHeight = 0;
    bool bFill = false;  // the canvas is filled with clrBkgnd (alpha 255) before drawing
    // SHOW_NONE only: the reduced picture is scaled up to its true size by linear interpolation,
    // whatever the filter; otherwise it is copied as it is.
    bool bLinearUpscale = false;
    // One-page modes with a landscape page: the picture is replaced by a 32-bit one of
    // nStripWidth x 2h holding two strips of it stacked, taken at nStripSourceX[0] (upper) and
    // nStripSourceX[1] (lower). The strips overlap in the middle of the page.
    bool bStrips = false;
    uint32_t nStripWidth = 0;
    uint32_t nStripSourceX[2] = {};
    uint32_t nPageCount = 0;
    ComposePage pages[2];
    XRect rcPage;  // the picture's rectangle inside the canvas
};

// The layout of a view. `second` may be null; a null `first` or an empty canvas area gives a
// layout whose report says nothing was composed.
ComposeLayout LayoutView(const ComposeSize* first, const ComposeSize* second,
                         const ViewSettings& settings, bool bActualSize);

// Composes frame 0 of `first` (and of `second`, which may be null) into `target`, which only
// grows. Sets target.bHasPageRect and target.rcPage. `bActualSize` shows the picture at its true
// size, unfiltered. `bUseSuperSampling` lets strong reductions use the area-average kernel.
// `bPrepare` marks a composition for the prepared view; the report is the same either way and
// the caller stores it where it belongs.
ComposeReport ComposeView(const XAnimDib* first, const XAnimDib* second, XDib& target,
                          bool bPrepare, bool bActualSize, const ViewSettings& settings,
                          bool bUseSuperSampling = true);

// Scales `sourceRect` of `source` into `rect` of `target` by the view's filter and interpolation
// settings (filter 0: nearest). Different depths draw nothing; equal sizes go by Blit. `rect` is
// clipped to the target; `sourceRect` must lie inside the source, or nothing is drawn.
void ScaleBlit(const XDib& source, XDib& target, const XRect& rect, const XRect& sourceRect,
               uint32_t nFilterMode, uint32_t nInterpolateMode, bool bUseSuperSampling);

// The resize kernel (kernels::kResize*) that ScaleBlit uses for a scaling of sw x sh to tw x th:
// nearest without filter, else linear, cubic or Lanczos by nInterpolateMode, replaced by the
// area average when super-sampling is allowed and both directions shrink under 71 per cent.
uint32_t ScaleKernel(uint32_t nFilterMode, uint32_t nInterpolateMode, bool bUseSuperSampling,
                     uint32_t tw, uint32_t th, uint32_t sw, uint32_t sh);

// Clips `rect` to a canvas of width x height and moves the edges of `sourceRect` by the same
// ratio, each move cut towards zero. False when nothing of either rectangle remains.
bool ClipScaleRects(XRect& rect, XRect& sourceRect, uint32_t width, uint32_t height);
