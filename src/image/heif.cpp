// HEIF and HEIC through libheif: the primary image, decoded to interleaved 8-bit RGB(A) and
// copied into the picture's rows as B, G, R(, A). libheif applies the container's rotation,
// mirror and crop itself, and keeps its own security limits (image size, box counts) on.
#include <libheif/heif.h>

#include <algorithm>
#include <memory>
#include <new>
#include <vector>

#include "base/types.h"
#include "image/container.h"
#include "image/decoders.h"
#include "image/xdib.h"
#include "image/xdibio.h"

namespace {

// The longest side a picture can have within the storage cap (16384 x 16384 at 32 bits).
constexpr uint32_t kMaxHeifSide = 16384;

// libheif reads the file through the source, never more than the file holds.
struct SourceReader {
    IXDibIO* source = nullptr;
    int64_t size = 0;
};

int64_t ReaderPosition(void* userdata) {
    return static_cast<SourceReader*>(userdata)->source->Tell();
}

int ReaderRead(void* data, size_t size, void* userdata) {
    auto* reader = static_cast<SourceReader*>(userdata);
    const int64_t at = reader->source->Tell();
    if (at < 0 || at > reader->size || size > uint64_t(reader->size - at)) return 1;
    return container::ReadFully(*reader->source, static_cast<uint8_t*>(data), size) ? 0 : 1;
}

int ReaderSeek(int64_t position, void* userdata) {
    auto* reader = static_cast<SourceReader*>(userdata);
    if (position < 0 || position > reader->size) return 1;
    return reader->source->Seek(position, 0) == position ? 0 : 1;
}

heif_reader_grow_status ReaderWait(int64_t target, void* userdata) {
    return target > static_cast<SourceReader*>(userdata)->size
               ? heif_reader_grow_status_size_beyond_eof
               : heif_reader_grow_status_size_reached;
}

const heif_reader kReader = {1, ReaderPosition, ReaderRead, ReaderSeek, ReaderWait};

struct ContextDeleter {
    void operator()(heif_context* c) const { heif_context_free(c); }
};
struct HandleDeleter {
    void operator()(heif_image_handle* h) const { heif_image_handle_release(h); }
};
struct ImageDeleter {
    void operator()(heif_image* i) const { heif_image_release(i); }
};
struct OptionsDeleter {
    void operator()(heif_decoding_options* o) const { heif_decoding_options_free(o); }
};

// libheif registers its codecs once per process; the registration is never undone.
void InitLibrary() {
    static const bool done = [] {
        heif_init(nullptr);
        return true;
    }();
    (void)done;
}

uint8_t Unpremultiply(uint8_t colour, uint8_t alpha) {
    if (alpha == 0) return 0;
    return uint8_t(std::min(255u, (colour * 255u + alpha / 2u) / alpha));
}

// The first EXIF block of the image. libheif applies irot/imir, which HEIF defines as the
// orientation that counts, so the EXIF orientation is reported as 1.
void ReadExif(const heif_image_handle* handle, CJPEGMetaData* meta) {
    if (!meta) return;
    heif_item_id id = 0;
    if (heif_image_handle_get_list_of_metadata_block_IDs(handle, "Exif", &id, 1) < 1) return;
    const size_t size = heif_image_handle_get_metadata_size(handle, id);
    if (size < 4 || size > container::kMaxExifBytes + 4) return;
    std::vector<uint8_t> block(size);
    if (heif_image_handle_get_metadata(handle, id, block.data()).code != heif_error_Ok) return;
    container::ParseIsoExif(meta, block.data(), block.size(), container::Orientation::kApplied);
}

// Copies interleaved R, G, B(, A) rows into the picture as B, G, R(, A).
void CopyRows(XDib& dib, const uint8_t* plane, size_t stride, bool alpha, bool premultiplied) {
    const uint32_t w = dib.nWidth;
    for (uint32_t y = 0; y < dib.nHeight; ++y) {
        const uint8_t* src = plane + y * stride;
        uint8_t* dst = dib.GetRow(y);
        if (alpha && premultiplied) {
            for (uint32_t x = 0; x < w; ++x, src += 4, dst += 4)
                dst[0] = Unpremultiply(src[2], src[3]), dst[1] = Unpremultiply(src[1], src[3]),
                dst[2] = Unpremultiply(src[0], src[3]), dst[3] = src[3];
        } else if (alpha) {
            for (uint32_t x = 0; x < w; ++x, src += 4, dst += 4)
                dst[0] = src[2], dst[1] = src[1], dst[2] = src[0], dst[3] = src[3];
        } else {
            for (uint32_t x = 0; x < w; ++x, src += 3, dst += 3)
                dst[0] = src[2], dst[1] = src[1], dst[2] = src[0];
        }
    }
}

bool Decode(XDib& dib, IXDibIO& source, CJPEGMetaData* meta) {
    SourceReader reader{&source, source.GetSize()};
    if (reader.size <= 0) return false;
    source.Seek(0, 0);
    InitLibrary();
    std::unique_ptr<heif_context, ContextDeleter> context(heif_context_alloc());
    if (!context) return false;
    // A grid picture takes its canvas size from the grid's own record, not from the size
    // checked below: the library's limit keeps a hostile grid from asking for gigabytes.
    heif_context_set_maximum_image_size_limit(context.get(), int(kMaxHeifSide) + 1);
    // 0: grid tiles are decoded on the calling thread.
    heif_context_set_max_decoding_threads(context.get(), nThreadCount > 1 ? int(nThreadCount) : 0);
    if (heif_context_read_from_reader(context.get(), &kReader, &reader, nullptr).code !=
        heif_error_Ok)
        return false;
    heif_image_handle* rawHandle = nullptr;
    if (heif_context_get_primary_image_handle(context.get(), &rawHandle).code != heif_error_Ok)
        return false;
    std::unique_ptr<heif_image_handle, HandleDeleter> handle(rawHandle);

    const bool alpha = heif_image_handle_has_alpha_channel(handle.get()) != 0;
    const int width = heif_image_handle_get_width(handle.get());
    const int height = heif_image_handle_get_height(handle.get());
    // The size the file claims, checked before anything is decoded.
    if (width <= 0 || height <= 0 || !container::PictureFits(uint32_t(width), uint32_t(height), 32))
        return false;
    ReadExif(handle.get(), meta);

    std::unique_ptr<heif_decoding_options, OptionsDeleter> options(heif_decoding_options_alloc());
    if (!options) return false;
    options->convert_hdr_to_8bit = 1;  // 10- and 12-bit pictures come out at 8 bits
    heif_image* rawImage = nullptr;
    if (heif_decode_image(handle.get(), &rawImage, heif_colorspace_RGB,
                          alpha ? heif_chroma_interleaved_RGBA : heif_chroma_interleaved_RGB,
                          options.get())
            .code != heif_error_Ok)
        return false;
    std::unique_ptr<heif_image, ImageDeleter> image(rawImage);
    int stride = 0;
    const uint8_t* plane =
        heif_image_get_plane_readonly(image.get(), heif_channel_interleaved, &stride);
    const int w = heif_image_get_width(image.get(), heif_channel_interleaved);
    const int h = heif_image_get_height(image.get(), heif_channel_interleaved);
    const uint32_t channels = alpha ? 4 : 3;
    if (!plane || w <= 0 || h <= 0 || stride < w * int(channels) ||
        heif_image_get_bits_per_pixel_range(image.get(), heif_channel_interleaved) != 8)
        return false;
    if (!container::PictureFits(uint32_t(w), uint32_t(h), channels * 8) ||
        !dib.CreateDirty(uint32_t(w), uint32_t(h), channels * 8))
        return false;
    // Pictures hold straight alpha; a file may say its colours are premultiplied.
    const bool premultiplied = alpha && heif_image_is_premultiplied_alpha(image.get());
    CopyRows(dib, plane, size_t(stride), alpha, premultiplied);
    return true;
}

}  // namespace

bool DecodeHeif(XDib& dib, IXDibIO& source, CJPEGMetaData* meta) {
    dib.Destroy();
    // libheif is C++ behind a C interface; whatever it or this bridge throws stops here.
    try {
        if (Decode(dib, source, meta)) return true;
    } catch (...) {
    }
    dib.Destroy();
    return false;
}
