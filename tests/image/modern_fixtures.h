// Writers of tiny WebP, AVIF, HEIF and JPEG XL files for the decoder tests and the fuzz seeds,
// made with the encoders of the same libraries the decoders use. Each returns an empty result
// when its encoder is missing or refuses the options, so a caller can skip with a message.
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
// Make and, when not 0, Orientation.
Bytes TiffExif(uint16_t orientation, const std::string& make);

// ---- WebP ---------------------------------------------------------------------------------

struct WebpOptions {
    bool alpha = false;    // keep the picture's alpha; otherwise an opaque picture is written
    bool lossless = true;  // lossless keeps every value (also RGB under alpha 0)
    float quality = 90;    // lossy quality
    Bytes exif = {};       // an EXIF chunk to add (the file then gets a VP8X header)
};
Bytes EncodeWebp(const Picture& picture, const WebpOptions& options = {});

struct WebpFrame {
    Picture picture;  // every frame is the whole canvas
    int durationMs = 100;
};
// A lossless animation. `bgcolor` is the ANIM chunk's colour as the file stores it (B, G, R, A
// from the low byte up).
Bytes EncodeWebpAnimation(const std::vector<WebpFrame>& frames, uint32_t bgcolor = 0xFFFFFFFF,
                          const Bytes& exif = {});

// ---- AVIF ---------------------------------------------------------------------------------

struct AvifOptions {
    bool alpha = false;
    bool lossless = true;   // 4:4:4 with the identity matrix and quantizer 0: every value kept
    int irot = -1;          // 0..3 quarter turns anticlockwise, -1 for no irot box
    int imir = -1;          // 0 top and bottom exchanged, 1 left and right, -1 for no imir box
    Bytes exif = {};        // TIFF-structured; written without touching irot/imir
    bool sequence = false;  // write an image sequence (avis) of the picture, twice
};
Bytes EncodeAvif(const Picture& picture, const AvifOptions& options = {});

// ---- HEIF ---------------------------------------------------------------------------------

struct HeifOptions {
    bool alpha = false;
    int quality = 95;
    int orientation = 1;  // 1..8 as in EXIF; libheif writes the irot/imir boxes for it
    Bytes exif = {};      // TIFF-structured; the item gets the 4-byte offset prefix
};
Bytes EncodeHeif(const Picture& picture, const HeifOptions& options = {});

// ---- JPEG XL ------------------------------------------------------------------------------

struct JxlOptions {
    bool alpha = false;
    bool lossless = true;
    int orientation = 1;  // the codestream's orientation, 1..8
    Bytes exif = {};      // an Exif box (forces the container format); a block starting with
                          // "Exif\0\0" gets the offset to the TIFF header past it
    bool container = false;
    std::vector<Picture> moreFrames = {};  // further frames of an animation
};
Bytes EncodeJxl(const Picture& picture, const JxlOptions& options = {});

}  // namespace modernfix
