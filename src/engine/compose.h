// Page composition: draws the one or two pictures of a view, scaled by the show mode, into one
// canvas picture, and records where the page lies in it. A pure function of the pictures and the
// view's settings; the window then only copies the canvas.
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

// Composes frame 0 of `first` (and of `second`, which may be null) into `target`, which only
// grows. Sets target.bHasPageRect and target.rcPage. `bActualSize` shows the picture at its true
// size, unfiltered. `bUseSuperSampling` lets strong reductions use the area-average kernel.
ComposeReport ComposeView(const XAnimDib* first, const XAnimDib* second, XDib& target,
                          bool bPrepare, bool bActualSize, const ViewSettings& settings,
                          bool bUseSuperSampling = true);

// Scales `sourceRect` of `source` into `rect` of `target` by the view's filter and interpolation
// settings (filter 0: nearest). Different depths draw nothing; equal sizes go by Blit.
void ScaleBlit(const XDib& source, XDib& target, const XRect& rect, const XRect& sourceRect,
               uint32_t nFilterMode, uint32_t nInterpolateMode, bool bUseSuperSampling);
