#include "image/xdib.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "image/decoders.h"
#include "image/format.h"
#include "image/kernels/kernels.h"
#include "image/limits.h"
#include "image/storage.h"
#include "image/xdibio.h"

namespace {

bool ValidDepth(uint32_t bpp) {
    return bpp == 1 || bpp == 4 || bpp == 8 || bpp == 16 || bpp == 24 || bpp == 32;
}

// The one blend table of translucent blits, shared by all pictures.
struct BlendTable {
    std::mutex lock;  // held for the whole of a table blit
    uint32_t nLevel = 0xFFFFFFFF;
    uint8_t table[256 * 256];

    void Build(uint32_t level) {
        if (level == nLevel) return;
        for (uint32_t s = 0; s < 256; ++s)
            for (uint32_t t = 0; t < 256; ++t)
                table[s * 256 + t] = uint8_t((s * level + t * (255 - level) + 127) / 255);
        nLevel = level;
    }
};

BlendTable& SharedBlendTable() {
    static BlendTable table;
    return table;
}

// A blit region after clipping.
struct BlitRect {
    int32_t tx, ty, sx, sy, w, h;
};

// Clips one axis: the source span [s, s+len) inside [0, srcLen), the target span [t, t+len)
// inside [tMin, tMax).
void ClipAxis(int32_t& t, int32_t& s, int32_t& len, int32_t srcLen, int32_t tMin, int32_t tMax) {
    if (s < 0) t -= s, len += s, s = 0;
    len = std::min<int64_t>(len, int64_t(srcLen) - s);
    if (t < tMin) s += tMin - t, len -= tMin - t, t = tMin;
    len = std::min<int64_t>(len, int64_t(tMax) - t);
}

bool ClipBlit(const XDib& src, const XDib& dst, BlitRect& r) {
    if (r.w < 0) r.w = int32_t(src.nWidth) - r.sx;
    if (r.h < 0) r.h = int32_t(src.nHeight) - r.sy;
    ClipAxis(r.tx, r.sx, r.w, int32_t(src.nWidth), 0, int32_t(dst.nWidth));
    ClipAxis(r.ty, r.sy, r.h, int32_t(src.nHeight), 0, int32_t(dst.nHeight));
    if (dst.bHasPageRect) {
        ClipAxis(r.tx, r.sx, r.w, int32_t(src.nWidth), dst.rcPage.left, dst.rcPage.right);
        ClipAxis(r.ty, r.sy, r.h, int32_t(src.nHeight), dst.rcPage.top, dst.rcPage.bottom);
    }
    return r.w > 0 && r.h > 0;
}

uint8_t* PixelAt(const XDib& d, int32_t x, int32_t y) {
    return d.pBits + size_t(y) * d.nStride + size_t(x) * d.nBytesPerPixel;
}

// Index of a 1-, 4- or 8-bit pixel.
uint32_t IndexAt(const uint8_t* row, uint32_t x, uint32_t bpp) {
    switch (bpp) {
        case 1:
            return (row[x >> 3] >> (7 - (x & 7))) & 1;
        case 4:
            return (row[x >> 1] >> ((x & 1) ? 0 : 4)) & 15;
        default:
            return row[x];
    }
}

}  // namespace

void XDibStorageDeleter::operator()(uint8_t* block) const {
    xdib_storage::Release(block, nBlockBytes);
}

XDib::XDib(XDib&& other) noexcept {
    *this = std::move(other);
}

XDib& XDib::operator=(XDib&& other) noexcept {
    if (this == &other) return *this;
    hBitmap = std::move(other.hBitmap);
    nWidth = other.nWidth, nHeight = other.nHeight, nBpp = other.nBpp;
    nPaletteCount = other.nPaletteCount, pBits = other.pBits;
    bHasPageRect = other.bHasPageRect, rcPage = other.rcPage;
    clrTransparent = other.clrTransparent, nStride = other.nStride;
    nBytesPerPixel = other.nBytesPerPixel;
    pfnProgress = other.pfnProgress, pProgressData = other.pProgressData;
    pColorMan = other.pColorMan, bReduced = other.bReduced;
    nOrigWidth = other.nOrigWidth, nOrigHeight = other.nOrigHeight;
    nFormat = other.nFormat, clrBackground = other.clrBackground;
    XColorMan* colorMan = other.pColorMan;
    other.Destroy();
    other.pColorMan = colorMan;
    return *this;
}

namespace {

// Makes the storage of a picture; `zeroed` clears palette and rows.
bool MakeStorage(XDib& dib, uint32_t width, uint32_t height, uint32_t bpp, uint32_t paletteCount,
                 const uint8_t* palette, bool zeroed) {
    dib.Destroy();
    if (width == 0 || height == 0 || width >= 0x7FFFFFFF || height >= 0x7FFFFFFF) return false;
    if (!ValidDepth(bpp)) return false;
    // The row length is worked out in 64 bits: the stride formula keeps only 29 bits, so a
    // row of over 512 MiB (a hostile width) would otherwise get a stride far shorter than
    // itself, and every write past it would leave the block.
    const uint64_t rowBytes = (uint64_t(width) * bpp + 31) / 32 * 4;
    if (rowBytes > 0x1FFFFFFC) return false;
    const uint32_t stride = static_cast<uint32_t>(rowBytes);
    const uint64_t pixelBytes = uint64_t(stride) * height;
    if (pixelBytes > kMaxPictureBytes) return false;
    const uint32_t paletteBytes = bpp <= 8 ? 4u << bpp : 0;
    size_t blockBytes = 0;
    uint8_t* block = xdib_storage::Acquire(pixelBytes + paletteBytes, zeroed, blockBytes);
    if (!block) return false;
    dib.hBitmap = std::unique_ptr<uint8_t, XDib::StorageDeleter>(block, {blockBytes});
    if (!zeroed) std::memset(block, 0, paletteBytes);  // entries no palette defines are black
    if (palette && paletteCount && paletteBytes) {
        dib.nPaletteCount = std::min(paletteCount, paletteBytes / 4);
        std::memcpy(block, palette, size_t(dib.nPaletteCount) * 4);
    }
    dib.nWidth = width;
    dib.nHeight = height;
    dib.nBpp = bpp;
    dib.nStride = stride;
    dib.nBytesPerPixel = bpp <= 8 ? 1 : bpp / 8;
    dib.pBits = block + paletteBytes;
    return true;
}

}  // namespace

bool XDib::Create(uint32_t width, uint32_t height, uint32_t bpp, uint32_t paletteCount,
                  const uint8_t* palette) {
    return MakeStorage(*this, width, height, bpp, paletteCount, palette, true);
}

bool XDib::CreateDirty(uint32_t width, uint32_t height, uint32_t bpp, uint32_t paletteCount,
                       const uint8_t* palette) {
    return MakeStorage(*this, width, height, bpp, paletteCount, palette, false);
}

void XDib::ClearRows(uint32_t first, uint32_t count) {
    if (!hBitmap || first >= nHeight) return;
    count = std::min(count, nHeight - first);
    std::memset(GetRow(first), 0, size_t(count) * nStride);
}

void XDib::Destroy() {
    // The colour manager belongs to whoever handed it in, not to the picture: it survives, so
    // that a decoder which starts by destroying its target can still convert CMYK.
    XColorMan* colorMan = pColorMan;
    hBitmap.reset();
    nWidth = nHeight = nBpp = nPaletteCount = 0;
    pBits = nullptr;
    bHasPageRect = 0;
    rcPage = XRect{};
    clrTransparent = kDefaultTransparent;
    nStride = nBytesPerPixel = 0;
    pfnProgress = nullptr;
    pProgressData = nullptr;
    bReduced = nOrigWidth = nOrigHeight = nFormat = clrBackground = 0;
    pColorMan = colorMan;
}

uint8_t* XDib::GetPixelPtr(uint32_t x, uint32_t y) const {
    if (!hBitmap || x >= nWidth || y >= nHeight) return nullptr;
    uint8_t* row = GetRow(y);
    switch (nBpp) {
        case 1:
            return row + x / 8;
        case 4:
            return row + x / 2;
        default:
            return row + size_t(x) * nBytesPerPixel;
    }
}

bool XDib::CopyFrom(const XDib& source) {
    if (&source == this) return true;
    if (source.IsEmpty()) {
        Destroy();
        return true;
    }
    const bool reuse = hBitmap && nWidth == source.nWidth && nHeight == source.nHeight &&
                       nBpp == source.nBpp && nBpp > 8;
    if (!reuse) {
        if (!Create(source.nWidth, source.nHeight, source.nBpp)) return false;
        if (source.nBpp <= 8) {
            std::memcpy(hBitmap.get(), source.hBitmap.get(), size_t(GetPaletteSize()) * 4);
            nPaletteCount = source.nPaletteCount;
        }
    }
    kernels::CopyRows(source.pBits, source.nStride, pBits, nStride, nStride, nHeight);
    clrTransparent = source.clrTransparent;
    bHasPageRect = source.bHasPageRect;
    rcPage = source.rcPage;
    bReduced = source.bReduced;
    nOrigWidth = source.nOrigWidth;
    nOrigHeight = source.nOrigHeight;
    nFormat = source.nFormat;
    clrBackground = source.clrBackground;
    return true;
}

void XDib::Swap(XDib& other, bool withRect) {
    std::swap(hBitmap, other.hBitmap);
    std::swap(nWidth, other.nWidth);
    std::swap(nHeight, other.nHeight);
    std::swap(nBpp, other.nBpp);
    std::swap(nPaletteCount, other.nPaletteCount);
    std::swap(pBits, other.pBits);
    std::swap(clrTransparent, other.clrTransparent);
    std::swap(nStride, other.nStride);
    std::swap(nBytesPerPixel, other.nBytesPerPixel);
    std::swap(pfnProgress, other.pfnProgress);
    std::swap(pProgressData, other.pProgressData);
    if (withRect) {
        std::swap(bHasPageRect, other.bHasPageRect);
        std::swap(rcPage, other.rcPage);
    }
}

void XDib::Fill(uint32_t colour, uint8_t alpha) {
    if (!hBitmap) return;
    const uint8_t r = colour & 0xFF, g = (colour >> 8) & 0xFF, b = (colour >> 16) & 0xFF;
    if (nBpp == 32) {
        kernels::Fill32(pBits, nStride, nWidth, nHeight, b, g, r, alpha);
    } else if (nBpp == 24) {
        uint8_t* first = pBits;
        for (uint32_t x = 0; x < nWidth; ++x) {
            first[3 * x] = b, first[3 * x + 1] = g, first[3 * x + 2] = r;
        }
        if (nHeight > 1)
            kernels::CopyRows(first, 0, first + nStride, nStride, size_t(nWidth) * 3, nHeight - 1);
    }
}

bool XDib::Blit(XDib& target, int32_t targetX, int32_t targetY, int32_t sourceX, int32_t sourceY,
                int32_t width, int32_t height, bool useAlpha) const {
    if (IsEmpty() || target.IsEmpty()) return false;
    const uint32_t s = nBpp, t = target.nBpp;
    const bool supported = (s == 32 && t == 24) || (s == 24 && t == 32) || (s == 8 && t == 8) ||
                           (s == t && (s == 16 || s == 24 || s == 32));
    if (!supported) return false;
    BlitRect r{targetX, targetY, sourceX, sourceY, width, height};
    if (!ClipBlit(*this, target, r)) return true;

    if (s == 8) {
        // Each source entry takes the nearest target entry (least squared distance over blue,
        // green and red; the first of equals wins), then indices are mapped.
        const uint8_t* sp = GetPalette();
        const uint8_t* tp = target.GetPalette();
        const uint32_t targetCount = target.nPaletteCount ? target.nPaletteCount : 256;
        uint8_t map[256];
        for (uint32_t i = 0; i < 256; ++i) {
            uint32_t best = 0x30000, bestIndex = 0;
            for (uint32_t j = 0; j < targetCount; ++j) {
                const int db = sp[4 * i] - tp[4 * j], dg = sp[4 * i + 1] - tp[4 * j + 1],
                          dr = sp[4 * i + 2] - tp[4 * j + 2];
                const uint32_t d = uint32_t(db * db + dg * dg + dr * dr);
                if (d < best) best = d, bestIndex = j;
            }
            map[i] = uint8_t(bestIndex);
        }
        for (int32_t y = 0; y < r.h; ++y) {
            const uint8_t* src = PixelAt(*this, r.sx, r.sy + y);
            uint8_t* dst = PixelAt(target, r.tx, r.ty + y);
            for (int32_t x = 0; x < r.w; ++x) dst[x] = map[src[x]];
        }
        return true;
    }
    for (int32_t y = 0; y < r.h; ++y) {
        const uint8_t* src = PixelAt(*this, r.sx, r.sy + y);
        uint8_t* dst = PixelAt(target, r.tx, r.ty + y);
        if (s == 32 && (t == 24 || useAlpha)) {
            kernels::AlphaBlend(src, dst, uint32_t(r.w), target.nBytesPerPixel,
                                kernels::kUnscaledAlpha);
        } else if (s == 24 && t == 32) {
            kernels::Expand24To32(src, dst, uint32_t(r.w));
        } else {
            kernels::CopyRows(src, 0, dst, 0, size_t(r.w) * nBytesPerPixel, 1);
        }
    }
    return true;
}

bool XDib::TranslucentBlit(XDib& target, int32_t targetX, int32_t targetY, int32_t sourceX,
                           int32_t sourceY, int32_t width, int32_t height, uint32_t level) const {
    if (level == 0) return true;
    if (level >= 255) return Blit(target, targetX, targetY, sourceX, sourceY, width, height, true);
    if (IsEmpty() || target.IsEmpty()) return false;
    if ((nBpp != 24 && nBpp != 32) || (target.nBpp != 24 && target.nBpp != 32)) return false;
    BlitRect r{targetX, targetY, sourceX, sourceY, width, height};
    if (!ClipBlit(*this, target, r)) return true;

    if (nBpp == 32) {
        // The source's own alpha is folded into the level; no table is needed.
        for (int32_t y = 0; y < r.h; ++y)
            kernels::AlphaBlend(PixelAt(*this, r.sx, r.sy + y), PixelAt(target, r.tx, r.ty + y),
                                uint32_t(r.w), target.nBytesPerPixel, level);
        return true;
    }
    BlendTable& shared = SharedBlendTable();
    std::lock_guard<std::mutex> hold(shared.lock);
    shared.Build(level);
    for (int32_t y = 0; y < r.h; ++y)
        kernels::TableBlend(PixelAt(*this, r.sx, r.sy + y), 3, PixelAt(target, r.tx, r.ty + y),
                            target.nBytesPerPixel, uint32_t(r.w), shared.table);
    return true;
}

// Takes over the storage of `other`, keeping this picture's other facts.
static void AdoptStorage(XDib& self, XDib& other) {
    self.hBitmap = std::move(other.hBitmap);
    self.pBits = other.pBits;
    self.nWidth = other.nWidth;
    self.nHeight = other.nHeight;
    self.nBpp = other.nBpp;
    self.nPaletteCount = other.nPaletteCount;
    self.nStride = other.nStride;
    self.nBytesPerPixel = other.nBytesPerPixel;
    other.Destroy();
}

bool XDib::ConvertBpp(uint32_t newBpp) {
    if (IsEmpty()) return false;
    if (newBpp == nBpp) return true;
    const bool fromIndexed = nBpp == 1 || nBpp == 4 || nBpp == 8;
    const bool supported = (fromIndexed && (newBpp == 24 || newBpp == 32)) ||
                           (nBpp == 24 && newBpp == 32) || (nBpp == 32 && newBpp == 24);
    if (!supported) return false;
    XDib converted;
    if (!converted.CreateDirty(nWidth, nHeight, newBpp)) return false;
    const uint8_t* palette = GetPalette();
    const uint32_t outBytes = newBpp / 8;
    for (uint32_t y = 0; y < nHeight; ++y) {
        const uint8_t* src = GetRow(y);
        uint8_t* dst = converted.GetRow(y);
        if (fromIndexed) {
            for (uint32_t x = 0; x < nWidth; ++x, dst += outBytes) {
                const uint8_t* entry = palette + 4 * IndexAt(src, x, nBpp);
                dst[0] = entry[0], dst[1] = entry[1], dst[2] = entry[2];
                if (outBytes == 4) dst[3] = 255;
            }
        } else if (nBpp == 24) {
            kernels::Expand24To32(src, dst, nWidth);
        } else {
            kernels::Pack32To24(src, dst, nWidth);
        }
    }
    AdoptStorage(*this, converted);
    return true;
}

bool XDib::Rotate(int direction) {
    if (IsEmpty() || (nBpp != 24 && nBpp != 32) || direction < 0 || direction > 2) return false;
    const bool quarter = direction != 2;
    XDib rotated;
    if (!rotated.CreateDirty(quarter ? nHeight : nWidth, quarter ? nWidth : nHeight, nBpp))
        return false;
    const uint32_t bpp = nBytesPerPixel;
    // Tiles keep both the rows read and the rows written in cache for quarter turns.
    constexpr uint32_t kTile = 64;
    for (uint32_t ty = 0; ty < nHeight; ty += kTile) {
        for (uint32_t tx = 0; tx < nWidth; tx += kTile) {
            const uint32_t yEnd = std::min(nHeight, ty + kTile),
                           xEnd = std::min(nWidth, tx + kTile);
            for (uint32_t y = ty; y < yEnd; ++y) {
                const uint8_t* src = GetRow(y) + size_t(tx) * bpp;
                for (uint32_t x = tx; x < xEnd; ++x, src += bpp) {
                    uint32_t dx, dy;
                    if (direction == 0)
                        dx = nHeight - 1 - y, dy = x;  // clockwise
                    else if (direction == 1)
                        dx = y, dy = nWidth - 1 - x;  // anticlockwise
                    else
                        dx = nWidth - 1 - x, dy = nHeight - 1 - y;  // half turn
                    std::memcpy(rotated.GetRow(dy) + size_t(dx) * bpp, src, bpp);
                }
            }
        }
    }
    AdoptStorage(*this, rotated);
    return true;
}

bool XDib::Grow(uint32_t width, uint32_t height) {
    uint32_t w = width, h = height, bpp = 32;
    if (hBitmap) {
        if (nWidth >= width && nHeight >= height) return true;
        w = std::max(width, nWidth), h = std::max(height, nHeight), bpp = nBpp;
    }
    // Canvases must survive low memory: settle for less rather than fail. The size asked for
    // is always tried, however small; only the halving stops under 1000 pixels.
    for (;;) {
        XDib grown;
        grown.pColorMan = pColorMan;
        if (grown.Create(w, h, bpp)) {
            AdoptStorage(*this, grown);
            return true;
        }
        w /= 2, h /= 2;
        if (uint64_t(w) * h < 1000) return false;
    }
}

bool XDib::SaveBmp(const char* path) const {
    if (IsEmpty() || nBpp != 24) return false;
    std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path, "wb"), std::fclose);
    if (!file) return false;
    const uint32_t imageSize = nStride * nHeight;
    uint8_t header[54] = {'B', 'M'};
    const auto put32 = [&](int at, uint32_t v) {
        for (int i = 0; i < 4; ++i) header[at + i] = uint8_t(v >> (8 * i));
    };
    put32(2, 54 + imageSize);
    put32(10, 54);
    put32(14, 40);
    put32(18, nWidth);
    put32(22, nHeight);
    header[26] = 1;  // planes
    header[28] = 24;
    put32(34, imageSize);
    if (std::fwrite(header, 1, sizeof(header), file.get()) != sizeof(header)) return false;
    // Row padding is written as zeros, whatever the storage holds there.
    std::vector<uint8_t> row(nStride, 0);
    for (uint32_t y = nHeight; y-- > 0;) {
        std::memcpy(row.data(), GetRow(y), size_t(nWidth) * 3);
        if (std::fwrite(row.data(), 1, nStride, file.get()) != nStride) return false;
    }
    return std::fflush(file.get()) == 0;
}

bool XDib::LoadFromIO(IXDibIO& source, const char* name, CJPEGMetaData* jpegMeta,
                      const XDibScaleRequest* scaleRequest) {
    return DecodeByFormat(*this, source, SniffFormat(source, name), jpegMeta, scaleRequest);
}

bool XDib::LoadFromMemory(const void* data, size_t size) {
    CXDibMemIO source(data, int64_t(size));
    return LoadFromIO(source);
}

bool DecodeByFormat(XDib& dib, IXDibIO& source, XDibFormat format, CJPEGMetaData* jpegMeta,
                    const XDibScaleRequest* scaleRequest) {
    bool whole = false;
    switch (format) {
        case FORMAT_BMP:
            whole = DecodeBmp(dib, source);
            break;
        case FORMAT_JPEG:
            whole = DecodeJpeg(dib, source, jpegMeta, scaleRequest);
            break;
        case FORMAT_GIF:
            whole = DecodeGifFirst(dib, source);
            break;
        case FORMAT_TIFF:
            whole = DecodeTiffFirst(dib, source);
            break;
        case FORMAT_PNG:
            whole = DecodePng(dib, source);
            break;
        case FORMAT_TGA:
            whole = DecodeTga(dib, source);
            break;
        case FORMAT_PSD:
            whole = DecodePsd(dib, source);
            break;
        case FORMAT_JP2:
        case FORMAT_J2K:
            whole = DecodeJpeg2000(dib, source, format);
            break;
        case FORMAT_HDP:
            whole = DecodeHdp(dib, source, scaleRequest);
            break;
        case FORMAT_DNG:
            whole = DecodeDng(dib, source);
            break;
        case FORMAT_WEBP:
            whole = DecodeWebpFirst(dib, source, jpegMeta);
            break;
        case FORMAT_AVIF:
            whole = DecodeAvif(dib, source, jpegMeta);
            break;
        case FORMAT_HEIF:
            whole = DecodeHeif(dib, source, jpegMeta);
            break;
        case FORMAT_JXL:
            whole = DecodeJxl(dib, source, jpegMeta);
            break;
        default:
            return false;
    }
    if (whole) dib.nFormat = format;
    return whole;
}
