#include "engine/filters.h"

#include <algorithm>
#include <atomic>
#include <system_error>
#include <thread>
#include <vector>

#include "base/types.h"
#include "image/kernels/kernels.h"

namespace {

bool IsColour(const XDib& dib) {
    return !dib.IsEmpty() && (dib.nBpp == 24 || dib.nBpp == 32);
}

// A second picture with the same rows, for filters that read their neighbours while writing.
bool CopyPixels(const XDib& dib, XDib& copy) {
    if (!copy.CreateDirty(dib.nWidth, dib.nHeight, dib.nBpp)) return false;
    kernels::CopyRows(dib.pBits, dib.nStride, copy.pBits, copy.nStride, dib.nStride, dib.nHeight);
    return true;
}

void RestorePixels(const XDib& copy, XDib& dib) {
    kernels::CopyRows(copy.pBits, copy.nStride, dib.pBits, dib.nStride, dib.nStride, dib.nHeight);
}

uint8_t Limit(int v) {
    return uint8_t(std::clamp(v, 0, 255));
}

// The colour channels of the inner pixels of row y, from `copy` into `dib`.
void StrongRow24(const XDib& copy, XDib& dib, uint32_t y) {
    const ptrdiff_t s = copy.nStride;
    const uint8_t* p = copy.GetRow(y) + 3;
    uint8_t* d = dib.GetRow(y) + 3;
    for (size_t i = 0; i < size_t(dib.nWidth - 2) * 3; ++i, ++p, ++d) {
        const int sum = p[-s - 3] + p[-s] + p[-s + 3] + p[-3] + p[3] + p[s - 3] + p[s] + p[s + 3];
        *d = Limit((p[0] * 2662 - sum * 204) >> 10);
    }
}

void StrongRow32(const XDib& copy, XDib& dib, uint32_t y) {
    const ptrdiff_t s = copy.nStride;
    const uint8_t* p = copy.GetRow(y) + 4;
    uint8_t* d = dib.GetRow(y) + 4;
    for (uint32_t x = 1; x + 1 < dib.nWidth; ++x, p += 4, d += 4) {
        for (int c = 0; c < 3; ++c) {
            const uint8_t* q = p + c;
            const int sum =
                q[-s - 4] + q[-s] + q[-s + 4] + q[-4] + q[4] + q[s - 4] + q[s] + q[s + 4];
            *(d + c) = Limit(int(q[0] * 2.6 - 0.2 * sum));
        }
    }
}

// Runs `row` over the inner rows in nThreadCount bands: the first bands on threads of their own,
// the last on the caller's, which asks the picture's progress function at each of its rows.
// A stop there ends the other bands early and puts the copy back.
template <typename RowFn>
bool StrongSharpen(XDib& dib, uint32_t bpp, RowFn row) {
    if (dib.IsEmpty() || dib.nBpp != bpp || dib.nWidth < 3 || dib.nHeight < 3) return false;
    XDib copy;
    if (!CopyPixels(dib, copy)) return false;

    const uint32_t bands = std::clamp<uint32_t>(nThreadCount, 1, 4);
    const uint32_t bandRows = dib.nHeight / bands;
    std::atomic<bool> stop{false};
    const auto runBand = [&](uint32_t b, bool caller) {
        const uint32_t first = std::max<uint32_t>(b * bandRows, 1);
        const uint32_t end =
            std::min(b + 1 == bands ? dib.nHeight : (b + 1) * bandRows, dib.nHeight - 1);
        for (uint32_t y = first; y < end; ++y) {
            if (caller) {
                if (dib.pfnProgress && dib.pfnProgress(y, dib.nHeight, dib.pProgressData)) {
                    stop = true;
                    return;
                }
            } else if (stop) {
                return;
            }
            row(copy, dib, y);
        }
    };
    std::vector<std::thread> helpers;
    for (uint32_t b = 0; b + 1 < bands; ++b) {
        try {
            helpers.emplace_back(runBand, b, false);
        } catch (const std::system_error&) {
            runBand(b, false);  // no thread to be had: the band runs here
        }
    }
    runBand(bands - 1, true);
    for (std::thread& helper : helpers) helper.join();
    if (stop) {
        RestorePixels(copy, dib);
        return false;
    }
    return true;
}

}  // namespace

bool Negative(XDib& dib) {
    if (!IsColour(dib)) return true;
    for (uint32_t y = 0; y < dib.nHeight; ++y) {
        uint8_t* p = dib.GetRow(y);
        if (dib.nBpp == 24) {
            for (size_t i = 0; i < size_t(dib.nWidth) * 3; ++i) p[i] = uint8_t(~p[i]);
        } else {
            for (uint32_t x = 0; x < dib.nWidth; ++x, p += 4) {
                p[0] = uint8_t(~p[0]), p[1] = uint8_t(~p[1]), p[2] = uint8_t(~p[2]);
            }
        }
    }
    return true;
}

bool Gamma(XDib& dib) {
    if (!IsColour(dib)) return false;
    XDib corrected;
    if (!corrected.CreateDirty(dib.nWidth, dib.nHeight, dib.nBpp)) return false;
    if (!kernels::GammaForward(dib.nBytesPerPixel, dib.pBits, dib.nStride, corrected.pBits,
                               corrected.nStride, dib.nWidth, dib.nHeight))
        return false;
    RestorePixels(corrected, dib);
    return true;
}

bool Sharpen(XDib& dib) {
    if (!IsColour(dib) || dib.nWidth < 3 || dib.nHeight < 3) return false;
    XDib copy;
    if (!CopyPixels(dib, copy)) return false;
    return kernels::Sharpen3x3(dib.nBytesPerPixel, copy.GetPixelPtr(1, 1), copy.nStride,
                               dib.GetPixelPtr(1, 1), dib.nStride, dib.nWidth - 2, dib.nHeight - 2);
}

bool StrongSharpen24(XDib& dib) {
    return StrongSharpen(dib, 24, StrongRow24);
}

bool StrongSharpen32(XDib& dib) {
    return StrongSharpen(dib, 32, StrongRow32);
}
