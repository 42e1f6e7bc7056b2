// Writers of tiny WebP, AVIF, HEIF and JPEG XL files for the decoder tests and the fuzz seeds,
// made with the encoders of the same libraries the decoders use. Each returns an empty result
// when its encoder is missing or refuses the options.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "imgwrite/imgwrite.h"

namespace modernfix {

using imgwrite::Bytes;
using imgwrite::Picture;
using imgwrite::Rgba;

// A little-endian TIFF-structured EXIF block, as containers other than JPEG store it: IFD0 with
// Make and Orientation.
Bytes TiffExif(uint16_t orientation, const std::string& make);

// Without `alpha` an opaque picture is written. Lossless coding keeps every value.
struct WebpOptions {
    bool alpha = false;
    bool lossless = true;
    Bytes exif = {};  // an EXIF chunk to add (the file then gets a VP8X header)
};
Bytes EncodeWebp(const Picture& picture, const WebpOptions& options = {});

struct WebpFrame {
    Picture picture;  // every frame is the whole canvas
    int durationMs = 100;
};
// A lossless animation. `bgcolor` is the ANIM chunk's colour as the file stores it (B, G, R, A
// from the low byte up).
Bytes EncodeWebpAnimation(const std::vector<WebpFrame>& frames, uint32_t bgcolor = 0xFFFFFFFF);

struct AvifOptions {
    bool alpha = false;
    bool lossless = true;   // 4:4:4 with the identity matrix and quantizer 0; else 4:2:0
    int irot = -1;          // 0..3 quarter turns anticlockwise, -1 for no irot box
    int imir = -1;          // 0 top and bottom exchanged, 1 left and right, -1 for no imir box
    Bytes exif = {};        // written without touching irot/imir
    bool sequence = false;  // write an image sequence (avis) of the picture, twice
};
Bytes EncodeAvif(const Picture& picture, const AvifOptions& options = {});

struct HeifOptions {
    bool alpha = false;
    int orientation = 1;  // 1..8 as in EXIF; libheif writes the irot/imir boxes for it
    Bytes exif = {};      // the item's offset field points at the TIFF header within it
};
Bytes EncodeHeif(const Picture& picture, const HeifOptions& options = {});

struct JxlOptions {
    bool alpha = false;
    bool lossless = true;
    int orientation = 1;  // the codestream's orientation, 1..8
    Bytes exif = {};      // an Exif box (forces the container format), offset as for HEIF
};
Bytes EncodeJxl(const Picture& picture, const JxlOptions& options = {});

}  // namespace modernfix
