// JPEG 2000 through OpenJPEG 2.5: JP2 files and bare codestreams, read over the byte source
// with stream callbacks, decoded whole and brought to 24 bits.
#include <openjpeg.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "base/types.h"
#include "image/decoders.h"
#include "image/limits.h"
#include "image/xdib.h"
#include "image/xdibio.h"

namespace {

// JPEG 2000 has no fixed bound on how far it expands (an empty code block costs a bit or two);
// PackBits' 64:1 is taken as the policy, as for the other codecs without one.
inline constexpr uint64_t kJ2kExpansion = 64;
// OpenJPEG keeps every sample as a 32-bit integer until the end: all components together may
// take twice what the picture itself may.
inline constexpr uint64_t kMaxSampleBytes = 2 * kMaxPictureBytes;
inline constexpr OPJ_SIZE_T kStreamChunk = 64 * 1024;

OPJ_SIZE_T StreamRead(void* buffer, OPJ_SIZE_T count, void* user) {
    auto* source = static_cast<IXDibIO*>(user);
    const int64_t left = source->GetSize() - source->Tell();
    const int64_t n = std::min<int64_t>({int64_t(std::min<OPJ_SIZE_T>(count, INT32_MAX)), left});
    if (n <= 0) return OPJ_SIZE_T(-1);  // the end
    return source->Read(buffer, uint32_t(n)) ? OPJ_SIZE_T(n) : OPJ_SIZE_T(-1);
}

OPJ_OFF_T StreamSkip(OPJ_OFF_T count, void* user) {
    auto* source = static_cast<IXDibIO*>(user);
    const int64_t target = source->Tell() + count;
    if (target < 0) return -1;
    // Skipping past the end is allowed, as on a file; the next read finds the end.
    source->Seek(std::min(target, source->GetSize()), 0);
    return count;
}

OPJ_BOOL StreamSeek(OPJ_OFF_T position, void* user) {
    auto* source = static_cast<IXDibIO*>(user);
    if (position < 0 || position > source->GetSize()) return OPJ_FALSE;
    return source->Seek(position, 0) == position;
}

void Quiet(const char*, void*) {}

// What the codec reported besides its results.
struct Reports {
    bool bError = false;      // an error fails the load, whatever the call returned
    bool bTruncated = false;  // the stream ended early; what came is shown, but not as whole
};

void NoteError(const char*, void* reports) {
    static_cast<Reports*>(reports)->bError = true;
}

// Only the warnings of a stream that ends early matter ("Stream too short", "Tile part length
// size inconsistent with stream length"); the others are muted.
void NoteWarning(const char* message, void* reports) {
    if (std::strstr(message, "too short") || std::strstr(message, "with stream length"))
        static_cast<Reports*>(reports)->bTruncated = true;
}

struct CodecDestroy {
    void operator()(opj_codec_t* codec) const { opj_destroy_codec(codec); }
};
struct StreamDestroy {
    void operator()(opj_stream_t* stream) const { opj_stream_destroy(stream); }
};
struct ImageDestroy {
    void operator()(opj_image_t* image) const { opj_image_destroy(image); }
};

// The header's sizes, checked before anything is decoded: a codestream of a few bytes whose
// SIZ marker claims 100000 x 100000 pixels, or components of odd sampling, fails here.
bool HeaderPlausible(const opj_image_t& image, int64_t fileSize) {
    if (image.x1 <= image.x0 || image.y1 <= image.y0 || image.numcomps == 0 || !image.comps)
        return false;
    const uint64_t width = image.x1 - image.x0, height = image.y1 - image.y0;
    if (width >= 0x7FFFFFFF || height >= 0x7FFFFFFF ||
        uint64_t(XDibStride(uint32_t(width), 24)) * height > kMaxPictureBytes)
        return false;
    uint64_t sampleBytes = 0;
    for (uint32_t c = 0; c < image.numcomps; ++c) {
        const opj_image_comp_t& comp = image.comps[c];
        if (comp.dx == 0 || comp.dy == 0 || comp.prec == 0 || comp.prec > 31) return false;
        sampleBytes +=
            ((width + comp.dx - 1) / comp.dx + 1) * ((height + comp.dy - 1) / comp.dy + 1) * 4;
    }
    return sampleBytes <= kMaxSampleBytes &&
           PackedBodyPlausible(sampleBytes / 4, kJ2kExpansion, fileSize);
}

// One component as 8-bit samples for the picture's pixels: each pixel takes the sample whose
// area covers it, so subsampled components are repeated.
struct Plane {
    const opj_image_comp_t* comp = nullptr;
    std::vector<uint32_t> column;  // sample column of each pixel column
    int32_t offset = 0;            // brings signed samples to 0..max
    int32_t max = 0;
    int shift = 0;         // more than 8 bits: shifted down
    bool scaleUp = false;  // fewer than 8 bits: scaled up

    Plane(const opj_image_t& image, uint32_t index, uint32_t width) : comp(&image.comps[index]) {
        const uint32_t prec = comp->prec;
        offset = comp->sgnd ? int32_t(1u << (prec - 1)) : 0;
        max = int32_t((uint64_t(1) << prec) - 1);
        shift = prec > 8 ? int(prec - 8) : 0;
        scaleUp = prec < 8;
        column.resize(width);
        for (uint32_t x = 0; x < width; ++x)
            column[x] = SampleIndex(image.x0 + x, comp->dx, comp->x0, comp->w);
    }

    static uint32_t SampleIndex(uint32_t pos, uint32_t step, uint32_t first, uint32_t count) {
        const uint32_t at = pos / step;
        return at < first ? 0 : std::min(at - first, count - 1);
    }

    const int32_t* Row(const opj_image_t& image, uint32_t y) const {
        const uint32_t r = SampleIndex(image.y0 + y, comp->dy, comp->y0, comp->h);
        return comp->data + size_t(r) * comp->w;
    }

    uint8_t Sample(const int32_t* row, uint32_t x) const {
        const int64_t v = std::clamp<int64_t>(int64_t(row[column[x]]) + offset, 0, max);
        if (scaleUp) return uint8_t(v * 255 / max);
        return uint8_t(v >> shift);
    }
};

uint8_t Clamp8(int32_t v) {
    return uint8_t(std::clamp(v, 0, 255));
}

// The decoded components into a 24-bit picture: grey is repeated, the first three components
// are red, green and blue (or Y, Cb, Cr when the file says sYCC), further ones (alpha) dropped.
bool Convert(const opj_image_t& image, XDib& dib) {
    const uint32_t width = image.x1 - image.x0, height = image.y1 - image.y0;
    const bool colour = image.numcomps >= 3;
    const uint32_t planes = colour ? 3 : 1;
    for (uint32_t c = 0; c < planes; ++c)
        if (!image.comps[c].data || image.comps[c].w == 0 || image.comps[c].h == 0) return false;
    if (!dib.CreateDirty(width, height, 24)) return false;
    std::vector<Plane> plane;
    for (uint32_t c = 0; c < planes; ++c) plane.emplace_back(image, c, width);
    const bool ycc = colour && image.color_space == OPJ_CLRSPC_SYCC;
    for (uint32_t y = 0; y < height; ++y) {
        uint8_t* dst = dib.GetRow(y);
        if (!colour) {
            const int32_t* g = plane[0].Row(image, y);
            for (uint32_t x = 0; x < width; ++x, dst += 3)
                dst[0] = dst[1] = dst[2] = plane[0].Sample(g, x);
            continue;
        }
        const int32_t* r0 = plane[0].Row(image, y);
        const int32_t* r1 = plane[1].Row(image, y);
        const int32_t* r2 = plane[2].Row(image, y);
        for (uint32_t x = 0; x < width; ++x, dst += 3) {
            const int32_t a = plane[0].Sample(r0, x), b = plane[1].Sample(r1, x),
                          c = plane[2].Sample(r2, x);
            if (!ycc) {
                dst[0] = uint8_t(c), dst[1] = uint8_t(b), dst[2] = uint8_t(a);
                continue;
            }
            // sYCC to sRGB (ITU-R BT.601 full range), in 16.16 fixed point.
            const int32_t cb = b - 128, cr = c - 128;
            dst[2] = Clamp8(a + ((91881 * cr + 32768) >> 16));
            dst[1] = Clamp8(a - ((22554 * cb + 46802 * cr + 32768) >> 16));
            dst[0] = Clamp8(a + ((116130 * cb + 32768) >> 16));
        }
    }
    return true;
}

bool Decode(XDib& dib, IXDibIO& source, XDibFormat format) {
    source.Seek(0, 0);
    std::unique_ptr<opj_stream_t, StreamDestroy> stream(opj_stream_create(kStreamChunk, OPJ_TRUE));
    if (!stream) return false;
    opj_stream_set_user_data(stream.get(), &source, nullptr);
    opj_stream_set_user_data_length(stream.get(), OPJ_UINT64(source.GetSize()));
    opj_stream_set_read_function(stream.get(), StreamRead);
    opj_stream_set_skip_function(stream.get(), StreamSkip);
    opj_stream_set_seek_function(stream.get(), StreamSeek);

    std::unique_ptr<opj_codec_t, CodecDestroy> codec(
        opj_create_decompress(format == FORMAT_JP2 ? OPJ_CODEC_JP2 : OPJ_CODEC_J2K));
    if (!codec) return false;
    Reports reports;
    opj_set_error_handler(codec.get(), NoteError, &reports);
    opj_set_warning_handler(codec.get(), NoteWarning, &reports);
    opj_set_info_handler(codec.get(), Quiet, nullptr);
    opj_dparameters_t parameters;
    opj_set_default_decoder_parameters(&parameters);
    if (!opj_setup_decoder(codec.get(), &parameters)) return false;
    // A stream cut short decodes as far as it goes, as other truncated pictures are shown.
    opj_decoder_set_strict_mode(codec.get(), OPJ_FALSE);
    opj_codec_set_threads(codec.get(), int(std::max<uint32_t>(nThreadCount, 1)));

    opj_image_t* header = nullptr;
    const bool read = opj_read_header(stream.get(), codec.get(), &header);
    std::unique_ptr<opj_image_t, ImageDestroy> image(header);
    if (!read || reports.bError || !image || !HeaderPlausible(*image, source.GetSize()))
        return false;

    const bool decoded = opj_decode(codec.get(), stream.get(), image.get()) &&
                         opj_end_decompress(codec.get(), stream.get());
    // A stream cut short may still have filled its components as far as it went.
    if (!Convert(*image, dib)) return false;
    return decoded && !reports.bError && !reports.bTruncated;
}

}  // namespace

bool DecodeJpeg2000(XDib& dib, IXDibIO& source, XDibFormat format) {
    dib.Destroy();
    try {
        return Decode(dib, source, format);
    } catch (const std::bad_alloc&) {
        return false;
    }
}
