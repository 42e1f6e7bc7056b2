// Page writers for the formats whose encoders come from libraries: JPEG (TurboJPEG), PNG
// (libpng), TIFF (libtiff) and WebP (libwebp). Used by the sample book generator only.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "imgwrite/imgwrite.h"

namespace samplewrite {

using imgwrite::Bytes;
using imgwrite::Picture;

struct JpegOptions {
    int quality = 90;
    bool progressive = false;
    // Stored as CMYK with Adobe's inverted values, the way print workflows write it.
    bool cmyk = false;
    // 1..8: an EXIF block stating this orientation goes behind the SOI marker; 0: none.
    int exifOrientation = 0;
};
Bytes WriteJpeg(const Picture& picture, const JpegOptions& options = {});

// RGBA with its alpha as it stands.
Bytes WritePng(const Picture& picture);

// One directory per picture, RGB, Deflate-compressed. Written to `path` directly.
bool WriteTiffPages(const std::string& path, const std::vector<Picture>& pages);

// Lossy at `quality`, without alpha.
Bytes WriteWebp(const Picture& picture, float quality = 85);

}  // namespace samplewrite
