// AVIF through libavif: the primary image, or the first image of a sequence, converted from YUV
// straight into the picture's rows (24 bits, or 32 with alpha). libavif reports the container's
// rotation (irot) and mirror (imir) but doesn't apply them; this decoder does.
#include <avif/avif.h>

#include <algorithm>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "base/types.h"
#include "image/container.h"
#include "image/decoders.h"
#include "image/xdib.h"
#include "image/xdibio.h"

namespace {

// libavif's pixel cap, the program's own: a picture of kMaxPictureBytes at 32 bits.
constexpr uint32_t kMaxPixels = uint32_t(kMaxPictureBytes / 4);
// A sequence's sample table can claim billions of frames in a few bytes; libavif keeps a record
// per frame. An hour at 60 frames a second is far beyond any picture sequence a viewer shows.
constexpr uint32_t kMaxSequenceImages = 1u << 18;

// libavif reads through this: ranges of the source, copied into one buffer that stays valid
// until the next read.
struct SourceReader {
    avifIO io = {};
    IXDibIO* source = nullptr;
    uint64_t size = 0;
    std::vector<uint8_t> buffer;
};

avifResult ReadRange(avifIO* io, uint32_t readFlags, uint64_t offset, size_t size,
                     avifROData* out) {
    auto* reader = static_cast<SourceReader*>(io->data);
    if (readFlags != 0 || offset > reader->size) return AVIF_RESULT_IO_ERROR;
    // An item's extents may claim more than the file holds: only what is there is read.
    const uint64_t count = std::min<uint64_t>(size, reader->size - offset);
    try {
        reader->buffer.resize(size_t(count));
    } catch (const std::bad_alloc&) {
        return AVIF_RESULT_OUT_OF_MEMORY;
    }
    if (count > 0 && (reader->source->Seek(int64_t(offset), 0) != int64_t(offset) ||
                      !container::ReadFully(*reader->source, reader->buffer.data(), count)))
        return AVIF_RESULT_IO_ERROR;
    out->data = reader->buffer.data();
    out->size = size_t(count);
    return AVIF_RESULT_OK;
}

struct DecoderDeleter {
    void operator()(avifDecoder* d) const { avifDecoderDestroy(d); }
};

// Mirrors in place: rows exchanged top for bottom, or pixels left for right.
void FlipRows(XDib& dib) {
    std::vector<uint8_t> row(dib.nStride);
    for (uint32_t top = 0, bottom = dib.nHeight - 1; top < bottom; ++top, --bottom) {
        std::memcpy(row.data(), dib.GetRow(top), dib.nStride);
        std::memcpy(dib.GetRow(top), dib.GetRow(bottom), dib.nStride);
        std::memcpy(dib.GetRow(bottom), row.data(), dib.nStride);
    }
}

void MirrorColumns(XDib& dib) {
    const uint32_t bpp = dib.nBytesPerPixel;
    for (uint32_t y = 0; y < dib.nHeight; ++y) {
        uint8_t* row = dib.GetRow(y);
        for (uint32_t l = 0, r = dib.nWidth - 1; l < r; ++l, --r)
            std::swap_ranges(row + size_t(l) * bpp, row + size_t(l + 1) * bpp,
                             row + size_t(r) * bpp);
    }
}

// The container's transformations, in the order they apply: rotation, then mirror. irot turns
// anticlockwise by quarter turns; imir mode 0 exchanges top and bottom, mode 1 left and right.
// A half turn is both mirrors, done in place; quarter turns need a picture of their own.
bool ApplyTransforms(XDib& dib, const avifImage& image) {
    bool flipRows = false, mirrorColumns = false;
    if (image.transformFlags & AVIF_TRANSFORM_IROT) {
        switch (image.irot.angle & 3) {
            case 1:
                if (!dib.Rotate(1)) return false;
                break;
            case 2:
                flipRows = mirrorColumns = true;
                break;
            case 3:
                if (!dib.Rotate(0)) return false;
                break;
            default:
                break;
        }
    }
    if (image.transformFlags & AVIF_TRANSFORM_IMIR) {
        if (image.imir.mode == 0)
            flipRows = !flipRows;
        else
            mirrorColumns = !mirrorColumns;
    }
    if (flipRows) FlipRows(dib);
    if (mirrorColumns) MirrorColumns(dib);
    return true;
}

bool Decode(XDib& dib, IXDibIO& source, CJPEGMetaData* meta) {
    SourceReader reader;
    reader.source = &source;
    const int64_t size = source.GetSize();
    if (size <= 0) return false;
    reader.size = uint64_t(size);
    reader.io.read = ReadRange;
    reader.io.sizeHint = reader.size;
    reader.io.data = &reader;

    // Destroyed before the reader it reads through; without a destroy function of its own the
    // reader isn't freed by libavif.
    std::unique_ptr<avifDecoder, DecoderDeleter> decoder(avifDecoderCreate());
    if (!decoder) return false;
    decoder->maxThreads = int(std::max<uint32_t>(1, nThreadCount));
    decoder->imageSizeLimit = kMaxPixels;
    decoder->imageCountLimit = kMaxSequenceImages;
    // A viewer shows what it can: files of older encoders that miss a required box still decode.
    decoder->strictFlags = AVIF_STRICT_DISABLED;
    decoder->ignoreXMP = AVIF_TRUE;
    decoder->ignoreExif = meta ? AVIF_FALSE : AVIF_TRUE;
    avifDecoderSetIO(decoder.get(), &reader.io);
    if (avifDecoderParse(decoder.get()) != AVIF_RESULT_OK) return false;

    // The container's size, checked before the AV1 decoder makes its planes.
    const avifImage* image = decoder->image;
    if (!container::PictureFits(image->width, image->height, decoder->alphaPresent ? 32 : 24))
        return false;
    // libavif hands the EXIF item over without its offset field. The picture is turned by
    // irot/imir below, which AVIF defines as the orientation that counts.
    if (meta && image->exif.size > 0)
        container::ParseExif(meta, image->exif.data, image->exif.size,
                             container::Orientation::kApplied);

    if (avifDecoderNextImage(decoder.get()) != AVIF_RESULT_OK) return false;
    image = decoder->image;  // the AV1 payload's own size may differ from the container's
    const bool alpha = image->alphaPlane != nullptr;
    if (!container::PictureFits(image->width, image->height, alpha ? 32 : 24)) return false;
    if (!dib.CreateDirty(image->width, image->height, alpha ? 32 : 24)) return false;

    avifRGBImage rgb;
    avifRGBImageSetDefaults(&rgb, image);
    rgb.format = alpha ? AVIF_RGB_FORMAT_BGRA : AVIF_RGB_FORMAT_BGR;
    rgb.depth = 8;
    rgb.alphaPremultiplied = AVIF_FALSE;  // straight alpha; libavif undoes premultiplied files
    rgb.pixels = dib.pBits;
    rgb.rowBytes = dib.nStride;
    if (avifImageYUVToRGB(image, &rgb) != AVIF_RESULT_OK || !ApplyTransforms(dib, *image)) {
        dib.Destroy();
        return false;
    }
    return true;
}

}  // namespace

bool DecodeAvif(XDib& dib, IXDibIO& source, CJPEGMetaData* meta) {
    dib.Destroy();
    try {
        if (Decode(dib, source, meta)) return true;
    } catch (const std::bad_alloc&) {
    }
    dib.Destroy();
    return false;
}
