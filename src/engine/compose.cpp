#include "engine/compose.h"

#include <algorithm>
#include <vector>

#include "base/types.h"
#include "engine/filters.h"
#include "image/kernels/kernels.h"

namespace {

// Sizes in the layout are doubles until they become pixels; two ways of making pixels occur
// and are kept apart on purpose: Cut drops the fraction, Rnd rounds half up.
int32_t Cut(double x) {
    constexpr double kMax = 0x7FFFFFFE;  // beyond any picture XDib can hold
    return x >= kMax ? int32_t(kMax) : x <= -kMax ? -int32_t(kMax) : int32_t(x);
}
int32_t Rnd(double x) {
    return Cut(x + 0.5);
}

// The larger of a canvas size and a needed size, kept within what a picture can have.
uint32_t AtLeast(uint32_t value, int64_t other) {
    return uint32_t(std::min<int64_t>(std::max<int64_t>(value, other), 0x7FFFFFFE));
}

// The fitted size of a w x h page in a slot of slotW x slotH, keeping its aspect.
struct Fitted {
    int32_t width, height;
    bool bWidthRules;
};
Fitted FitInto(int32_t slotW, int32_t slotH, const ComposeSize& page) {
    const double aspect = double(page.w) / page.h;
    if (double(slotW) / slotH >= aspect)
        return {Rnd(double(slotH) * page.w / page.h), slotH, false};
    return {slotW, Rnd(slotW / aspect), true};
}

void LayoutNone(const ComposeSize& pic, const ViewSettings& s, ComposeLayout& out) {
    out.nGrowWidth = AtLeast(s.nCanvasWidth, pic.W);
    out.nGrowHeight = AtLeast(s.nCanvasHeight, pic.H);
    out.bFill = true;
    out.bLinearUpscale = pic.w < pic.W;
    const XRect drawn = out.bLinearUpscale ? XRect{0, 0, int32_t(pic.W), int32_t(pic.H)}
                                           : XRect{0, 0, int32_t(pic.w), int32_t(pic.h)};
    out.nPageCount = 1;
    out.pages[0] = {0, drawn};
    out.rcPage = {0, 0, int32_t(pic.W), int32_t(pic.H)};
}

void LayoutStretch(const ComposeSize& pic, const XRect& area, ComposeLayout& out) {
    // The window paints only rcPage, so the canvas needs no background.
    out.nGrowWidth = uint32_t(area.Width());
    out.nGrowHeight = uint32_t(area.Height());
    XRect rect = area;
    const double aspect = double(pic.w) / pic.h;
    if (double(area.Width()) / area.Height() >= aspect)
        rect.right = area.left + Rnd(double(area.Height()) * pic.w / pic.h);
    else
        rect.bottom = area.top + Rnd(area.Width() / aspect);
    out.nPageCount = 1;
    out.pages[0] = {0, rect};
    out.rcPage = rect;
}

void LayoutFitWidth(const ComposeSize& pic, const XRect& area, const ViewSettings& s,
                    ComposeLayout& out) {
    XRect rect = area;
    rect.bottom = Cut(double(area.Width()) / pic.w * pic.h + area.top);
    out.nGrowWidth = uint32_t(area.Width());
    out.nGrowHeight = AtLeast(s.nCanvasHeight, rect.Height());
    out.bFill = true;
    out.nPageCount = 1;
    out.pages[0] = {0, rect};
    out.rcPage = rect;
}

void LayoutSpread(const ComposeSize& first, const ComposeSize& second, const XRect& area,
                  ComposeLayout& out) {
    const uint32_t maxW = std::max(first.w, second.w), maxH = std::max(first.h, second.h);
    const double aspect = 2.0 * maxW / maxH;
    XRect spread = area;
    if (double(area.Width()) / area.Height() >= aspect)
        spread.right = area.left + Rnd(area.Height() * aspect);
    else
        spread.bottom = area.top + Rnd(area.Width() / aspect);
    out.nGrowWidth = uint32_t(std::max(spread.Width(), 0));
    out.nGrowHeight = uint32_t(std::max(spread.Height(), 0));
    out.bFill = true;

    // Both pages lean on the middle, so the gutter stays closed and free space gathers outside.
    const int32_t mid = spread.left + spread.Width() / 2;
    const int32_t slotW = spread.Width() / 2, slotH = spread.Height();
    const auto place = [&](const ComposeSize& page, bool bLeft) {
        const Fitted fit = FitInto(slotW, slotH, page);
        const int32_t top = spread.top + (fit.bWidthRules ? (slotH - fit.height) / 2 : 0);
        return bLeft ? XRect{mid - fit.width, top, mid, top + fit.height}
                     : XRect{mid, top, mid + fit.width, top + fit.height};
    };
    const bool bFirstLeft = out.nMode == SHOW_TWO_PAGE_L2R;
    out.nPageCount = 2;
    out.pages[0] = {0, place(first, bFirstLeft)};
    out.pages[1] = {1, place(second, !bFirstLeft)};
    out.rcPage = spread;
}

void LayoutOnePage(ComposeSize pic, const XRect& area, const ViewSettings& s, ComposeLayout& out) {
    if (!IsUpright(pic.w, pic.h)) {
        // A landscape page becomes two strips of 53 per cent each, stacked; they share the
        // middle 6 per cent, so nothing at the fold is lost.
        out.bStrips = true;
        out.nStripWidth = uint32_t(Cut(pic.w * 0.53));
        const uint32_t leftX = 0, rightX = pic.w - out.nStripWidth;
        const bool bLeftOnTop = out.nMode == SHOW_ONE_PAGE_L2R;
        out.nStripSourceX[0] = bLeftOnTop ? leftX : rightX;
        out.nStripSourceX[1] = bLeftOnTop ? rightX : leftX;
        pic.w = out.nStripWidth;
        pic.h *= 2;
    }
    XRect rect = area;
    rect.bottom = Cut(pic.h * (double(area.Width()) / pic.w) + area.top);
    out.nGrowWidth = AtLeast(s.nCanvasWidth, area.right);
    out.nGrowHeight = AtLeast(s.nCanvasHeight, rect.bottom);
    out.bFill = true;
    out.nPageCount = 1;
    out.pages[0] = {0, rect};
    out.rcPage = rect;
}

// Work memory of the resize kernel, kept across calls: a steady view allocates nothing.
std::vector<uint8_t>& ResizeWork() {
    thread_local std::vector<uint8_t> work;
    return work;
}

// Scales with a given kernel; the rectangles are clipped first, the factors stay those of the
// whole rectangles so that a clipped part keeps the geometry of the whole.
void ScaleWithKernel(const XDib& source, XDib& target, XRect rect, XRect sourceRect,
                     uint32_t kernel) {
    const uint32_t tw = uint32_t(rect.Width()), th = uint32_t(rect.Height());
    const uint32_t sw = uint32_t(sourceRect.Width()), sh = uint32_t(sourceRect.Height());
    if (!ClipScaleRects(rect, sourceRect, target.nWidth, target.nHeight)) return;
    kernels::ResizeJob job;
    job.nKernel = kernel;
    job.nChannels = source.nBytesPerPixel;
    job.pSrc = source.GetPixelPtr(uint32_t(sourceRect.left), uint32_t(sourceRect.top));
    job.nSrcStride = source.nStride;
    job.nSrcWidth = uint32_t(sourceRect.Width());
    job.nSrcHeight = uint32_t(sourceRect.Height());
    job.pDst = target.GetPixelPtr(uint32_t(rect.left), uint32_t(rect.top));
    job.nDstStride = target.nStride;
    job.nDstWidth = uint32_t(rect.Width());
    job.nDstHeight = uint32_t(rect.Height());
    job.xFactor = double(tw) / sw;
    job.yFactor = double(th) / sh;
    const uint32_t threads = std::max<uint32_t>(nThreadCount, 1);
    const size_t need = kernels::ResizeWorkSize(job, threads);
    if (need == 0 || !job.pSrc || !job.pDst) return;
    std::vector<uint8_t>& work = ResizeWork();
    if (work.size() < need) work.resize(need);
    kernels::Resize(job, work.data(), work.size(), threads);
}

bool Inside(const XRect& r, const XDib& dib) {
    return r.left >= 0 && r.top >= 0 && !r.IsEmpty() && uint32_t(r.right) <= dib.nWidth &&
           uint32_t(r.bottom) <= dib.nHeight;
}

const XDib* FrameZero(const XAnimDib* pictures) {
    if (!pictures || pictures->GetFrameCount() == 0) return nullptr;
    const XDib* dib = pictures->GetFrame(0);
    return dib && !dib->IsEmpty() ? dib : nullptr;
}

void SharpenCanvas(XDib& target, const ViewSettings& s) {
    if (!s.bUseStrongSharpen)
        Sharpen(target);
    else if (target.nBytesPerPixel == 3)
        StrongSharpen24(target);
    else if (target.nBytesPerPixel == 4)
        StrongSharpen32(target);
}

}  // namespace

ComposeSize ComposeSizeOf(const XDib& dib) {
    ComposeSize size{dib.nWidth, dib.nHeight, dib.nWidth, dib.nHeight};
    if (dib.bReduced) size.W = dib.nOrigWidth, size.H = dib.nOrigHeight;
    return size;
}

bool IsUpright(uint32_t w, uint32_t h) {
    return h != 0 && !(double(w) / h > 1.0);
}

ComposeLayout LayoutView(const ComposeSize* first, const ComposeSize* second, const ViewSettings& s,
                         bool bActualSize) {
    ComposeLayout out;
    XRect area{0, 0, int32_t(std::min<uint32_t>(s.nCanvasWidth, 0x7FFFFFFE)),
               int32_t(std::min<uint32_t>(s.nCanvasHeight, 0x7FFFFFFE))};
    if (area.IsEmpty() || !first || first->w == 0 || first->h == 0) return out;
    if (second && (second->w == 0 || second->h == 0)) second = nullptr;

    uint32_t mode = bActualSize ? SHOW_NONE : s.nStretchMode;
    out.nFilter = bActualSize ? 0 : s.nFilterMode;
    const bool bSpread = mode == SHOW_TWO_PAGE_L2R || mode == SHOW_TWO_PAGE_R2L;
    if (bSpread && (!second || !IsUpright(first->w, first->h) || !IsUpright(second->w, second->h)))
        mode = SHOW_STRETCH;
    out.report.bTwoPageMode =
        s.nStretchMode == SHOW_TWO_PAGE_L2R || s.nStretchMode == SHOW_TWO_PAGE_R2L;
    out.report.bTwoPageShown = mode == SHOW_TWO_PAGE_L2R || mode == SHOW_TWO_PAGE_R2L;

    if (s.bStretchWhenLarge) {
        // A picture that fits isn't enlarged.
        const int64_t areaW = area.Width(), areaH = area.Height();
        if (mode == SHOW_STRETCH && areaW >= first->W && areaH >= first->H) {
            mode = SHOW_NONE;
        } else if (mode == SHOW_FIT_WIDTH && areaW >= first->W) {
            mode = SHOW_NONE;
        } else if (out.report.bTwoPageShown) {
            const int64_t spreadW = 2 * int64_t(std::max(first->W, second->W));
            const int64_t spreadH = std::max(first->H, second->H);
            if (spreadW < areaW && spreadH < areaH)
                area = {0, 0, int32_t(spreadW), int32_t(spreadH)};
        }
    }
    out.nMode = mode;

    switch (mode) {
        case SHOW_NONE:
            LayoutNone(*first, s, out);
            break;
        case SHOW_STRETCH:
            LayoutStretch(*first, area, out);
            break;
        case SHOW_FIT_WIDTH:
            LayoutFitWidth(*first, area, s, out);
            break;
        case SHOW_TWO_PAGE_L2R:
        case SHOW_TWO_PAGE_R2L:
            LayoutSpread(*first, *second, area, out);
            break;
        case SHOW_ONE_PAGE_L2R:
        case SHOW_ONE_PAGE_R2L:
            LayoutOnePage(*first, area, s, out);
            break;
        default:
            return out;  // an unknown mode draws nothing
    }
    out.report.bComposed = true;
    return out;
}

ComposeReport ComposeView(const XAnimDib* first, const XAnimDib* second, XDib& target,
                          bool /*bPrepare*/, bool bActualSize, const ViewSettings& s,
                          bool bUseSuperSampling) {
    const XDib* pictures[2] = {FrameZero(first), FrameZero(second)};
    if (!pictures[0]) return {};
    const ComposeSize firstSize = ComposeSizeOf(*pictures[0]);
    ComposeSize secondSize;
    if (pictures[1]) secondSize = ComposeSizeOf(*pictures[1]);
    const ComposeLayout layout =
        LayoutView(&firstSize, pictures[1] ? &secondSize : nullptr, s, bActualSize);
    if (!layout.report.bComposed) return layout.report;

    target.bHasPageRect = 0;
    target.rcPage = {};
    XDib strips;
    if (layout.bStrips) {
        const XDib& page = *pictures[0];
        if (strips.Create(layout.nStripWidth, page.nHeight * 2, 32)) {
            for (int32_t i = 0; i < 2; ++i)
                page.Blit(strips, 0, i * int32_t(page.nHeight), int32_t(layout.nStripSourceX[i]), 0,
                          int32_t(layout.nStripWidth), int32_t(page.nHeight));
        }
        pictures[0] = &strips;
    }
    target.Grow(layout.nGrowWidth, layout.nGrowHeight);
    if (layout.bFill) target.Fill(s.clrBkgnd, 255);

    for (uint32_t i = 0; i < layout.nPageCount; ++i) {
        const XDib& page = *pictures[layout.pages[i].nPicture];
        const XRect& rect = layout.pages[i].rect;
        const XRect whole{0, 0, int32_t(page.nWidth), int32_t(page.nHeight)};
        if (layout.nMode != SHOW_NONE)
            ScaleBlit(page, target, rect, whole, layout.nFilter, s.nInterpolateMode,
                      bUseSuperSampling);
        else if (layout.bLinearUpscale) {
            if (page.nBpp == target.nBpp)
                ScaleWithKernel(page, target, rect, whole, kernels::kResizeLinear);
        } else
            page.Blit(target, 0, 0);
    }
    target.rcPage = layout.rcPage;
    target.bHasPageRect = 1;
    if (layout.nFilter == 2) SharpenCanvas(target, s);
    return layout.report;
}

uint32_t ScaleKernel(uint32_t nFilterMode, uint32_t nInterpolateMode, bool bUseSuperSampling,
                     uint32_t tw, uint32_t th, uint32_t sw, uint32_t sh) {
    if (nFilterMode == 0) return kernels::kResizeNearest;
    // Shrinks to 70 per cent and below average areas, but only when both directions shrink so far.
    if (bUseSuperSampling && sw && sh && 100 * uint64_t(tw) / sw < 71 &&
        100 * uint64_t(th) / sh < 71)
        return kernels::kResizeSuper;
    switch (nInterpolateMode) {
        case 1:
            return kernels::kResizeCubic;
        case 2:
            return kernels::kResizeLanczos;
        default:
            return kernels::kResizeLinear;
    }
}

bool ClipScaleRects(XRect& rect, XRect& sourceRect, uint32_t width, uint32_t height) {
    if (rect.IsEmpty() || sourceRect.IsEmpty()) return false;
    const int64_t tw = rect.Width(), th = rect.Height();
    const int64_t sw = sourceRect.Width(), sh = sourceRect.Height();
    // Each clipped edge moves the source's edge by clip * source / target, cut towards zero.
    const auto clip = [](int32_t& t0, int32_t& t1, int32_t& s0, int32_t& s1, int64_t limit,
                         int64_t tLen, int64_t sLen) {
        if (t0 < 0) s0 += int32_t(-int64_t(t0) * sLen / tLen), t0 = 0;
        if (t1 > limit) s1 -= int32_t((t1 - limit) * sLen / tLen), t1 = int32_t(limit);
    };
    clip(rect.left, rect.right, sourceRect.left, sourceRect.right, width, tw, sw);
    clip(rect.top, rect.bottom, sourceRect.top, sourceRect.bottom, height, th, sh);
    return !rect.IsEmpty() && !sourceRect.IsEmpty();
}

void ScaleBlit(const XDib& source, XDib& target, const XRect& rect, const XRect& sourceRect,
               uint32_t nFilterMode, uint32_t nInterpolateMode, bool bUseSuperSampling) {
    if (source.IsEmpty() || target.IsEmpty() || source.nBpp != target.nBpp) return;
    if (!Inside(sourceRect, source) || rect.IsEmpty()) return;
    const uint32_t tw = uint32_t(rect.Width()), th = uint32_t(rect.Height());
    const uint32_t sw = uint32_t(sourceRect.Width()), sh = uint32_t(sourceRect.Height());
    if (tw == sw && th == sh) {
        source.Blit(target, rect.left, rect.top, sourceRect.left, sourceRect.top, int32_t(sw),
                    int32_t(sh));
        return;
    }
    ScaleWithKernel(source, target, rect, sourceRect,
                    ScaleKernel(nFilterMode, nInterpolateMode, bUseSuperSampling, tw, th, sw, sh));
}
