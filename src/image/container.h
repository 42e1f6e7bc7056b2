// Helpers shared by the bridges to the newer picture formats (WebP, AVIF, HEIF, JPEG XL): the
// size check before a picture is made, reading a source whole, and EXIF blocks as these
// containers carry them.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "image/bytes.h"
#include "image/exifinfo.h"
#include "image/jpegmeta.h"
#include "image/limits.h"
#include "image/xdibio.h"

namespace container {

// True when a picture of width x height at `bpp` bits fits the program's picture cap. Worked
// in 64 bits without overflow: a header may claim 2^31 x 2^31, whose row length times its
// height doesn't fit even 64 bits.
inline bool PictureFits(uint64_t width, uint64_t height, uint32_t bpp) {
    if (width == 0 || height == 0 || width >= 0x7FFFFFFF || height >= 0x7FFFFFFF) return false;
    const uint64_t rowBytes = (width * bpp + 31) / 32 * 4;
    return rowBytes <= kMaxPictureBytes && height <= kMaxPictureBytes / rowBytes;
}

// Reads `count` bytes at the current position; the source reads at most 4 GiB at a time.
inline bool ReadFully(IXDibIO& source, uint8_t* out, uint64_t count) {
    constexpr uint64_t kStep = uint64_t(1) << 30;
    while (count > 0) {
        const uint32_t n = static_cast<uint32_t>(std::min(count, kStep));
        if (!source.Read(out, n)) return false;
        out += n, count -= n;
    }
    return true;
}

// The largest EXIF block taken from a container. JPEG bounds its block by the 64 KB of a
// segment; these containers don't, and a block claiming gigabytes is no camera's.
inline constexpr size_t kMaxExifBytes = size_t(4) << 20;

// Whether the decoder already turned the picture as the file asks.
enum class Orientation {
    // The container has no transformation of its own (WebP): the EXIF orientation stands,
    // and the cache turns the page by it.
    kFromExif,
    // The container's own transformation was applied (HEIF and AVIF irot/imir, JPEG XL's
    // codestream orientation), and those formats define that transformation as the one that
    // counts. The picture is delivered upright, so its EXIF orientation is reported as 1: a
    // page is never turned twice.
    kApplied,
};

// A bare EXIF block: the TIFF structure, or the same behind "Exif\0\0" as JPEG's APP1 holds it
// (some writers keep that prefix in other containers too).
inline bool ParseExif(CJPEGMetaData* meta, const uint8_t* data, size_t size,
                      Orientation orientation) {
    if (!meta || !data || size == 0 || size > kMaxExifBytes) return false;
    const bool parsed = size >= 6 && std::memcmp(data, "Exif\0\0", 6) == 0
                            ? meta->ParseExifBlock(data, size)
                            : meta->ParseTiffExif(data, size);
    ExifInfo* info = meta->GetInfo();
    if (parsed && info && orientation == Orientation::kApplied && info->nOrientation != 0)
        info->nOrientation = 1;
    return parsed;
}

// An ISO media EXIF item (HEIF, AVIF, JPEG XL's Exif box): a big-endian u32 counting the bytes
// from its end to the TIFF header, then the block.
inline bool ParseIsoExif(CJPEGMetaData* meta, const uint8_t* data, size_t size,
                         Orientation orientation) {
    if (!data || size < 4) return false;
    const uint32_t offset = Be32(data);
    if (offset > size - 4) return false;  // an offset pointing past the item's end
    return ParseExif(meta, data + 4 + offset, size - 4 - offset, orientation);
}

}  // namespace container
