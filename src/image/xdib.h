// XDib: one picture in memory, the unit every decoder fills and every filter works on.
//
// Pixel rules every part of the program relies on:
//  - rows are stored top first, row 0 is the top row, whatever order the file used;
//  - nStride = ((nWidth * nBpp + 31) >> 3) & 0x1FFFFFFC, so rows start on 4-byte boundaries;
//  - 24-bit pixels are B, G, R; 32-bit pixels are B, G, R, A with straight alpha, 255 opaque;
//  - pictures of up to 8 bits carry a palette of B, G, R, reserved quads;
//  - colours passed in and out are 0x00BBGGRR.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

#include "base/types.h"

class IXDibIO;
class XColorMan;
class CJPEGMetaData;

// The wish for a reduced decode. A target of 0 means no wish in that direction. Only decoders
// that can decode at a reduced size read it; the picture may come back larger, never smaller.
struct XDibScaleRequest {
    uint32_t bEnable = 0;
    uint32_t nTargetWidth = 0;
    uint32_t nTargetHeight = 0;
};

// Called by long filters with (row, total rows, data); a non-zero result stops the filter.
using XDibProgressFn = int (*)(uint32_t row, uint32_t total, void* data);

// Hands a picture's block back to the picture storage, which may keep it for the next picture.
struct XDibStorageDeleter {
    size_t nBlockBytes = 0;
    void operator()(uint8_t* block) const;
};

class XDib {
public:
    static constexpr uint32_t kDefaultTransparent = 0xFF00FF;

    XDib() = default;
    XDib(const XDib&) = delete;  // deep copies go through CopyFrom
    XDib& operator=(const XDib&) = delete;
    XDib(XDib&& other) noexcept;
    XDib& operator=(XDib&& other) noexcept;
    ~XDib() = default;

    // Makes zeroed storage. `palette` holds `paletteCount` B, G, R, reserved quads; a null
    // palette or a count of 0 gives none (entries read as black). Refuses zero sizes, sizes of
    // 0x7FFFFFFF and above, depths other than 1, 4, 8, 16, 24, 32, and storage the program
    // can't make; the record is then clean and the result false.
    bool Create(uint32_t width, uint32_t height, uint32_t bpp, uint32_t paletteCount = 0,
                const uint8_t* palette = nullptr);
    // The same without clearing the rows, for decoders that write every row themselves; one
    // that stops early clears the rest with ClearRows. A decoder may write up to 64 bytes past
    // the end of the last row.
    bool CreateDirty(uint32_t width, uint32_t height, uint32_t bpp, uint32_t paletteCount = 0,
                     const uint8_t* palette = nullptr);
    // Sets `count` rows from `first` on (cut to the picture) to zero.
    void ClearRows(uint32_t first, uint32_t count);
    // Clears every field to the state of a new record.
    void Destroy();
    bool IsEmpty() const { return !hBitmap; }

    // The byte of pixel (x, y); for 1 bit x is divided by 8, for 4 bits by 2. Null outside.
    uint8_t* GetPixelPtr(uint32_t x, uint32_t y) const;
    uint8_t* GetRow(uint32_t y) const { return pBits + size_t(y) * nStride; }
    // The palette quads (1 << nBpp of them for depths up to 8), null for deeper pictures.
    uint8_t* GetPalette() const { return nBpp <= 8 && hBitmap ? hBitmap.get() : nullptr; }
    uint32_t GetPaletteSize() const { return nBpp <= 8 && hBitmap ? 1u << nBpp : 0; }

    // Deep copy. Storage is reused when sizes and depth agree and the depth is above 8 bits.
    // Copying an empty picture destroys this one.
    bool CopyFrom(const XDib& source);
    // Exchanges storage, sizes, depth, clrTransparent, stride and the progress pair;
    // with `withRect` also bHasPageRect and rcPage.
    void Swap(XDib& other, bool withRect);
    // Fills 24- and 32-bit pictures; other depths are left alone.
    void Fill(uint32_t colour, uint8_t alpha = 255);

    // Draws this picture into `target`. Width and height -1 mean the whole source. The
    // rectangles are clipped against both pictures, then against the target's rcPage.
    bool Blit(XDib& target, int32_t targetX, int32_t targetY, int32_t sourceX = 0,
              int32_t sourceY = 0, int32_t width = -1, int32_t height = -1,
              bool useAlpha = false) const;
    // Blends at level / 255: 0 does nothing, 255 is Blit.
    bool TranslucentBlit(XDib& target, int32_t targetX, int32_t targetY, int32_t sourceX,
                         int32_t sourceY, int32_t width, int32_t height, uint32_t level) const;

    // In place: 1/4/8 -> 24 or 32, 24 -> 32, 32 -> 24. True at once when the depth agrees.
    bool ConvertBpp(uint32_t newBpp);
    // 24 and 32 bits: 0 a quarter turn clockwise, 1 anticlockwise, 2 a half turn.
    bool Rotate(int direction);
    // Makes the storage at least this large (each direction keeps the larger of old and new).
    // When storage can't be made, both sizes are halved until the area falls under 1000.
    bool Grow(uint32_t width, uint32_t height);

    // Writes a 24-bit picture as an uncompressed BMP; other depths fail.
    bool SaveBmp(const char* path) const;

    // Sniffs the source and runs the decoder of its format. nFormat is set when the decoder
    // reports a whole picture. A failed decoder may leave a partial picture behind.
    bool LoadFromIO(IXDibIO& source, const char* name = nullptr, CJPEGMetaData* jpegMeta = nullptr,
                    const XDibScaleRequest* scaleRequest = nullptr);
    bool LoadFromMemory(const void* data, size_t size);

    using StorageDeleter = XDibStorageDeleter;

    // The storage: the palette (for depths up to 8) followed by the rows, and a few bytes of
    // slack behind the last row. Null: no picture.
    std::unique_ptr<uint8_t, StorageDeleter> hBitmap;
    uint32_t nWidth = 0;
    uint32_t nHeight = 0;
    uint32_t nBpp = 0;
    uint32_t nPaletteCount = 0;
    uint8_t* pBits = nullptr;
    uint32_t bHasPageRect = 0;
    XRect rcPage;
    uint32_t clrTransparent = kDefaultTransparent;
    uint32_t nStride = 0;
    uint32_t nBytesPerPixel = 0;
    XDibProgressFn pfnProgress = nullptr;
    void* pProgressData = nullptr;
    XColorMan* pColorMan = nullptr;
    uint32_t bReduced = 0;
    uint32_t nOrigWidth = 0;
    uint32_t nOrigHeight = 0;
    uint32_t nFormat = 0;
    uint32_t clrBackground = 0;
};

// Stride of a row of `width` pixels at `bpp`, as every picture lays its rows out.
inline constexpr uint32_t XDibStride(uint32_t width, uint32_t bpp) {
    return static_cast<uint32_t>(((uint64_t(width) * bpp + 31) >> 3) & 0x1FFFFFFC);
}
