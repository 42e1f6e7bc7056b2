// PNG through libpng 1.6, with the transformations the viewer has always asked for: every
// picture comes out as 8-bit B, G, R or B, G, R, A.
//
// libpng reports errors by longjmp. The jump lands in Guarded() below, whose frame holds nothing
// with a destructor; the steps it runs create no C++ objects either. Everything that needs
// cleaning up (the libpng structures, the picture) lives in DecodePng's frame, above the jump.
#include <png.h>

#include <cmath>
#include <csetjmp>
#include <cstdint>

#include "image/decoders.h"
#include "image/limits.h"
#include "image/xdib.h"
#include "image/xdibio.h"

namespace {

// Deflate turns at most 1032 bytes out of one input byte (a run of 258 coded in about two bits).
inline constexpr uint64_t kDeflateExpansion = 1032;

// Sides above this are refused by libpng itself, before it sizes its row buffers: a row of the
// widest picture the storage could hold at one row is far below it anyway.
inline constexpr uint32_t kMaxPngSide = 1u << 24;

// Everything the guarded steps share. Plain data: it must survive a longjmp unharmed.
struct PngJob {
    png_structp png = nullptr;
    png_infop info = nullptr;
    IXDibIO* source = nullptr;
    XDib* dib = nullptr;
    uint32_t width = 0;
    uint32_t height = 0;
    int passes = 1;
    bool alpha = false;
    uint32_t rowsDone = 0;  // rows of the last pass written; kept in memory across a jump
};

void ReadFromSource(png_structp png, png_bytep data, size_t length) {
    auto* source = static_cast<IXDibIO*>(png_get_io_ptr(png));
    // A file that ends early stops the read here; the rows read so far stay.
    if (length > UINT32_MAX || !source->Read(data, static_cast<uint32_t>(length)))
        png_error(png, "read past the end");
}

[[noreturn]] void JumpBack(png_structp png, png_const_charp) {
    png_longjmp(png, 1);
}

void IgnoreWarning(png_structp, png_const_charp) {}

// Runs one step under libpng's error jump; false when libpng gave up during it.
bool Guarded(PngJob& job, void (*step)(PngJob&)) {
    if (setjmp(png_jmpbuf(job.png))) return false;
    step(job);
    return true;
}

void ReadHeader(PngJob& job) {
    png_read_info(job.png, job.info);
    job.width = png_get_image_width(job.png, job.info);
    job.height = png_get_image_height(job.png, job.info);
}

// The transformations, in the order the viewer has always set them.
void SetTransformations(PngJob& job) {
    png_structp png = job.png;
    png_infop info = job.info;
    const int colourType = png_get_color_type(png, info);
    const int bitDepth = png_get_bit_depth(png, info);
    const bool hasTrns = png_get_valid(png, info, PNG_INFO_tRNS) != 0;

    // Small depths are widened, palettes become colours, and tRNS becomes an alpha channel.
    if (bitDepth < 8 || colourType == PNG_COLOR_TYPE_PALETTE || hasTrns) png_set_expand(png);
    if (colourType == PNG_COLOR_TYPE_GRAY || colourType == PNG_COLOR_TYPE_GRAY_ALPHA)
        png_set_gray_to_rgb(png);
    if (bitDepth == 16) png_set_strip_16(png);

    png_color_16p background = nullptr;
    if (png_get_bKGD(png, info, &background))
        png_set_background(png, background, PNG_BACKGROUND_GAMMA_FILE, 1, 1.0);

    double fileGamma = 0;
    if (png_get_gAMA(png, info, &fileGamma) && fileGamma > 0) {
        const bool paletteOrAlpha =
            colourType == PNG_COLOR_TYPE_PALETTE || (colourType & PNG_COLOR_MASK_ALPHA) != 0;
        if (paletteOrAlpha || std::fabs(fileGamma * 2.2 - 1.0) > 0.05)
            png_set_gamma(png, 2.2, fileGamma);
    }

    png_set_bgr(png);
    job.passes = png_set_interlace_handling(png);
    png_read_update_info(png, info);
    job.alpha = (png_get_color_type(png, info) & PNG_COLOR_MASK_ALPHA) != 0;
}

// Rows straight into the picture. An interlaced file combines each pass into the rows left by
// the one before, so its picture starts cleared.
void ReadRows(PngJob& job) {
    for (int pass = 0; pass < job.passes; ++pass) {
        job.rowsDone = 0;
        for (uint32_t y = 0; y < job.height; ++y) {
            png_read_row(job.png, job.dib->GetRow(y), nullptr);
            job.rowsDone = y + 1;
        }
    }
    // The chunks behind the last row (IEND, text) are not read: a file cut short there still
    // gives the whole picture.
}

struct PngStructs {
    PngJob& job;
    ~PngStructs() {
        if (job.png) png_destroy_read_struct(&job.png, job.info ? &job.info : nullptr, nullptr);
    }
};

}  // namespace

bool DecodePng(XDib& dib, IXDibIO& source) {
    dib.Destroy();
    PngJob job;
    job.source = &source;
    job.dib = &dib;
    PngStructs owner{job};
    job.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, JumpBack, IgnoreWarning);
    if (!job.png) return false;
    job.info = png_create_info_struct(job.png);
    if (!job.info) return false;
    png_set_read_fn(job.png, &source, ReadFromSource);
    png_set_user_limits(job.png, kMaxPngSide, kMaxPngSide);
    // Text, profiles and other metadata are never looked at: skipping them spares inflating a
    // hostile zTXt or iCCP chunk. What libpng still keeps is capped.
    static constexpr png_byte kSkipped[] = "iCCP\0iTXt\0tEXt\0zTXt\0sPLT\0eXIf\0tIME\0";
    png_set_keep_unknown_chunks(job.png, PNG_HANDLE_CHUNK_NEVER, kSkipped,
                                int(sizeof(kSkipped) / 5));
    png_set_chunk_cache_max(job.png, 128);
    png_set_chunk_malloc_max(job.png, 8u << 20);

    if (!Guarded(job, ReadHeader)) return false;

    // A few hundred bytes claiming 100000 x 100000 pixels: refused before libpng sizes its row
    // buffers and before the picture is made. The file must hold at least the smallest deflate
    // stream that could carry the filtered rows.
    const uint64_t pictureBytes = uint64_t(XDibStride(job.width, 24)) * job.height;
    const uint64_t filteredBytes = (uint64_t(png_get_rowbytes(job.png, job.info)) + 1) * job.height;
    if (pictureBytes > kMaxPictureBytes ||
        !PackedBodyPlausible(filteredBytes, kDeflateExpansion, source.GetSize()))
        return false;

    if (!Guarded(job, SetTransformations)) return false;
    if (png_get_bit_depth(job.png, job.info) != 8 ||
        png_get_channels(job.png, job.info) != (job.alpha ? 4 : 3))
        return false;
    const uint32_t bpp = job.alpha ? 32 : 24;
    const bool made = job.passes > 1 ? dib.Create(job.width, job.height, bpp)
                                     : dib.CreateDirty(job.width, job.height, bpp);
    if (!made) return false;
    if (Guarded(job, ReadRows)) return true;
    // Broken or cut short: the rows read so far stay, the rest is cleared.
    if (job.passes == 1) dib.ClearRows(job.rowsDone, job.height - job.rowsDone);
    return false;
}
