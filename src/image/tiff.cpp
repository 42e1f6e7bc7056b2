// TIFF through libtiff 4.5, opened over the byte source with the library's client callbacks.
//
// One directory becomes one picture, by one of three roads:
//  - palettes and greys of 1 to 8 bits keep their depth (2 bits and other odd depths are widened
//    to the next the picture can hold) with a palette of 256 entries, read by strips or tiles;
//  - 8-bit CMYK is read by strips or tiles and turned into screen colours by the colour manager,
//    like CMYK JPEG and PSD;
//  - everything else libtiff can render (RGB, YCbCr, LogL/LogLuv, 16-bit samples, other
//    separations) goes through its RGBA reader and comes out at 24 bits, alpha dropped.
#include <tiffio.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>

#include "image/cmyk.h"
#include "image/decoders.h"
#include "image/format.h"
#include "image/limits.h"
#include "image/xanimdib.h"
#include "image/xdib.h"
#include "image/xdibio.h"

namespace {

// TIFF's codecs share no bound on how far they expand (CCITT codes a blank row in one bit,
// LZW a long run in a few codes). PackBits' 64:1 is taken as the policy: together with the
// allowed shortfall, what the pages of a file claim may reach 4096 times its length.
inline constexpr uint64_t kTiffExpansion = 64;
// All pages of one file together; a book scanned at 600 dpi fits many times over.
inline constexpr uint64_t kMaxPagesBytes = 2 * kMaxPictureBytes;
// Pixels the RGBA reader renders per call: the raster stays small, whatever the picture.
inline constexpr uint64_t kRasterPixels = uint64_t(1) << 20;

tmsize_t ReadProc(thandle_t handle, void* buffer, tmsize_t size) {
    auto* source = static_cast<IXDibIO*>(handle);
    if (size <= 0) return 0;
    // libtiff may ask for a strip that runs past the end; it gets what there is.
    const int64_t left = source->GetSize() - source->Tell();
    const int64_t count = std::min<int64_t>({int64_t(size), left, int64_t(INT32_MAX)});
    if (count <= 0) return 0;
    return source->Read(buffer, uint32_t(count)) ? tmsize_t(count) : 0;
}

tmsize_t WriteProc(thandle_t, void*, tmsize_t) {
    return 0;
}

toff_t SeekProc(thandle_t handle, toff_t offset, int whence) {
    auto* source = static_cast<IXDibIO*>(handle);
    // libtiff passes negative relative offsets as wrapped unsigned values.
    const int64_t relative = static_cast<int64_t>(offset);
    int64_t target;
    switch (whence) {
        case SEEK_SET:
            target = relative;
            break;
        case SEEK_CUR:
            target = source->Tell() + relative;
            break;
        case SEEK_END:
            target = source->GetSize() + relative;
            break;
        default:
            return static_cast<toff_t>(-1);
    }
    if (target < 0) return static_cast<toff_t>(-1);
    // A target past the end comes back clamped; libtiff sees the difference and gives up.
    return static_cast<toff_t>(source->Seek(target, 0));
}

int CloseProc(thandle_t) {
    return 0;
}

toff_t SizeProc(thandle_t handle) {
    return static_cast<toff_t>(static_cast<IXDibIO*>(handle)->GetSize());
}

int MapProc(thandle_t, void**, toff_t*) {
    return 0;
}

void UnmapProc(thandle_t, void*, toff_t) {}

int Mute(TIFF*, void*, const char*, const char*, va_list) {
    return 1;  // handled: nothing goes on to the global handlers
}

struct TiffCloser {
    void operator()(TIFF* tif) const { TIFFClose(tif); }
};
using TiffPtr = std::unique_ptr<TIFF, TiffCloser>;

struct OptionsFree {
    void operator()(TIFFOpenOptions* options) const { TIFFOpenOptionsFree(options); }
};

TiffPtr OpenTiff(IXDibIO& source) {
    // Messages that arrive before a handle exists go to the process-wide handlers: they are
    // muted once, always the same way.
    static std::once_flag muted;
    std::call_once(muted, [] {
        TIFFSetErrorHandler(nullptr);
        TIFFSetWarningHandler(nullptr);
    });
    std::unique_ptr<TIFFOpenOptions, OptionsFree> options(TIFFOpenOptionsAlloc());
    if (!options) return nullptr;
    TIFFOpenOptionsSetMaxSingleMemAlloc(options.get(), tmsize_t(kMaxPictureBytes));
    TIFFOpenOptionsSetErrorHandlerExtR(options.get(), Mute, nullptr);
    TIFFOpenOptionsSetWarningHandlerExtR(options.get(), Mute, nullptr);
    source.Seek(0, 0);
    return TiffPtr(TIFFClientOpenExt("tiff image", "rb", &source, ReadProc, WriteProc, SeekProc,
                                     CloseProc, SizeProc, MapProc, UnmapProc, options.get()));
}

// What the pages of one file have claimed so far, against the file's length.
struct PageBudget {
    int64_t nFileSize = 0;
    uint64_t nClaimed = 0;

    bool Allows(uint64_t bytes) const {
        return nClaimed + bytes <= kMaxPagesBytes &&
               PackedBodyPlausible(nClaimed + bytes, kTiffExpansion, nFileSize);
    }
};

struct Directory {
    uint32_t width = 0;
    uint32_t height = 0;
    uint16_t samples = 1;
    uint16_t bits = 1;
    uint16_t photometric = PHOTOMETRIC_MINISBLACK;
    uint16_t planar = PLANARCONFIG_CONTIG;
    uint16_t sampleFormat = SAMPLEFORMAT_UINT;
    uint16_t inkSet = INKSET_CMYK;
};

bool ReadDirectory(TIFF* tif, Directory& d) {
    if (!TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &d.width) ||
        !TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &d.height) || d.width == 0 || d.height == 0)
        return false;
    TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLESPERPIXEL, &d.samples);
    TIFFGetFieldDefaulted(tif, TIFFTAG_BITSPERSAMPLE, &d.bits);
    TIFFGetFieldDefaulted(tif, TIFFTAG_PLANARCONFIG, &d.planar);
    TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLEFORMAT, &d.sampleFormat);
    TIFFGetFieldDefaulted(tif, TIFFTAG_INKSET, &d.inkSet);
    if (!TIFFGetField(tif, TIFFTAG_PHOTOMETRIC, &d.photometric))
        d.photometric = d.samples >= 3 ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK;
    return d.samples > 0 && d.bits > 0;
}

// How a directory's pixels are cut into strips or tiles, and the buffer one of them needs.
struct BlockLayout {
    bool bTiled = false;
    uint32_t nBlockWidth = 0;   // tile width, or the picture's width
    uint32_t nBlockHeight = 0;  // tile height, or rows per strip
    size_t nRowBytes = 0;       // bytes of one row of a block
    size_t nBlockBytes = 0;
};

// A page of a few pixels whose tiles claim 60000 x 60000 is refused here, before anything is
// allocated: a block must fit the storage cap and be plausible against the file's length.
bool GetLayout(TIFF* tif, const Directory& d, const PageBudget& budget, BlockLayout& layout) {
    layout.bTiled = TIFFIsTiled(tif) != 0;
    tmsize_t rowBytes = 0;
    if (layout.bTiled) {
        TIFFGetField(tif, TIFFTAG_TILEWIDTH, &layout.nBlockWidth);
        TIFFGetField(tif, TIFFTAG_TILELENGTH, &layout.nBlockHeight);
        rowBytes = TIFFTileRowSize(tif);
    } else {
        layout.nBlockWidth = d.width;
        TIFFGetFieldDefaulted(tif, TIFFTAG_ROWSPERSTRIP, &layout.nBlockHeight);
        layout.nBlockHeight = std::min(layout.nBlockHeight, d.height);
        rowBytes = TIFFScanlineSize(tif);
    }
    if (layout.nBlockWidth == 0 || layout.nBlockHeight == 0 || rowBytes <= 0) return false;
    const uint64_t blockBytes = uint64_t(rowBytes) * layout.nBlockHeight;
    if (blockBytes > kMaxPictureBytes ||
        !PackedBodyPlausible(blockBytes, kTiffExpansion, budget.nFileSize))
        return false;
    layout.nRowBytes = size_t(rowBytes);
    layout.nBlockBytes = size_t(blockBytes);
    return true;
}

// Decodes every strip or tile of a directory whose samples are contiguous and hands each row
// piece to `place` as (picture row, first column, pixel count, bytes). A block that fails
// reaches `place` as zeros, so every row is written and the picture keeps its shape; the
// result says whether every block was whole.
template <class Place>
bool ReadBlocks(TIFF* tif, const BlockLayout& layout, uint32_t width, uint32_t height,
                Place&& place) {
    bool whole = true;
    auto buffer = std::make_unique_for_overwrite<uint8_t[]>(layout.nBlockBytes);
    for (uint64_t y = 0; y < height; y += layout.nBlockHeight) {
        const uint32_t rows = uint32_t(std::min<uint64_t>(layout.nBlockHeight, height - y));
        for (uint64_t x = 0; x < width; x += layout.nBlockWidth) {
            const uint32_t columns = uint32_t(std::min<uint64_t>(layout.nBlockWidth, width - x));
            const size_t wanted = layout.bTiled ? layout.nBlockBytes : rows * layout.nRowBytes;
            const tmsize_t got =
                layout.bTiled
                    ? TIFFReadEncodedTile(tif, TIFFComputeTile(tif, uint32_t(x), uint32_t(y), 0, 0),
                                          buffer.get(), tmsize_t(wanted))
                    : TIFFReadEncodedStrip(tif, TIFFComputeStrip(tif, uint32_t(y), 0), buffer.get(),
                                           tmsize_t(wanted));
            if (got < tmsize_t(wanted)) {
                // A broken block, or one cut short: what came stays, the rest is zeros.
                whole = false;
                const size_t kept = got > 0 ? size_t(got) : 0;
                std::memset(buffer.get() + kept, 0, wanted - kept);
            }
            for (uint32_t r = 0; r < rows; ++r)
                place(uint32_t(y) + r, uint32_t(x), columns, buffer.get() + r * layout.nRowBytes);
        }
    }
    return whole;
}

uint32_t GetBits(const uint8_t* bytes, uint64_t bitOffset, uint32_t bits) {
    uint32_t value = 0;
    for (uint32_t i = 0; i < bits; ++i, ++bitOffset)
        value = (value << 1) | ((bytes[bitOffset >> 3] >> (7 - (bitOffset & 7))) & 1);
    return value;
}

void PutBits(uint8_t* bytes, uint64_t bitOffset, uint32_t bits, uint32_t value) {
    for (uint32_t i = 0; i < bits; ++i, ++bitOffset) {
        const uint8_t mask = uint8_t(0x80 >> (bitOffset & 7));
        const bool set = (value >> (bits - 1 - i)) & 1;
        bytes[bitOffset >> 3] = set ? bytes[bitOffset >> 3] | mask : bytes[bitOffset >> 3] & ~mask;
    }
}

// Palettes and greys of 1 to 8 bits, at the file's depth when the picture can hold it.
bool DecodeIndexed(TIFF* tif, const Directory& d, const BlockLayout& layout, XDib& dib) {
    const uint32_t bits = d.bits;
    const uint32_t depth = bits == 1 ? 1 : bits <= 4 ? 4 : 8;
    const uint32_t entries = 1u << bits;
    uint8_t palette[256 * 4] = {};
    if (d.photometric == PHOTOMETRIC_PALETTE) {
        uint16_t *red = nullptr, *green = nullptr, *blue = nullptr;
        if (!TIFFGetField(tif, TIFFTAG_COLORMAP, &red, &green, &blue)) return false;
        // The map holds 16-bit values; some writers put 8-bit values in it, which shows as
        // no entry reaching 256.
        bool sixteen = false;
        for (uint32_t i = 0; i < entries; ++i)
            sixteen = sixteen || red[i] >= 256 || green[i] >= 256 || blue[i] >= 256;
        const int shift = sixteen ? 8 : 0;
        for (uint32_t i = 0; i < entries; ++i) {
            palette[4 * i + 0] = uint8_t(blue[i] >> shift);
            palette[4 * i + 1] = uint8_t(green[i] >> shift);
            palette[4 * i + 2] = uint8_t(red[i] >> shift);
        }
    } else {
        const bool whiteFirst = d.photometric == PHOTOMETRIC_MINISWHITE;
        for (uint32_t i = 0; i < entries; ++i) {
            const uint8_t v = uint8_t(i * 255 / (entries - 1));
            palette[4 * i] = palette[4 * i + 1] = palette[4 * i + 2] = whiteFirst ? 255 - v : v;
        }
    }
    if (!dib.CreateDirty(d.width, d.height, depth, 256, palette)) return false;
    return ReadBlocks(tif, layout, d.width, d.height,
                      [&](uint32_t y, uint32_t x0, uint32_t count, const uint8_t* src) {
                          uint8_t* row = dib.GetRow(y);
                          if (bits == depth && (uint64_t(x0) * bits) % 8 == 0) {
                              std::memcpy(row + uint64_t(x0) * bits / 8, src,
                                          (uint64_t(count) * bits + 7) / 8);
                              return;
                          }
                          for (uint32_t i = 0; i < count; ++i)
                              PutBits(row, uint64_t(x0 + i) * depth, depth,
                                      GetBits(src, uint64_t(i) * bits, bits));
                      });
}

// 8-bit CMYK: stored inverted, as Adobe writes it, then turned into screen colours through
// the colour manager when it is open.
bool DecodeCmyk(TIFF* tif, const Directory& d, const BlockLayout& layout, XDib& dib) {
    if (!dib.CreateDirty(d.width, d.height, 32)) return false;
    const uint32_t samples = d.samples;
    const bool whole = ReadBlocks(tif, layout, d.width, d.height,
                                  [&](uint32_t y, uint32_t x0, uint32_t count, const uint8_t* src) {
                                      uint8_t* dst = dib.GetRow(y) + size_t(x0) * 4;
                                      for (uint32_t i = 0; i < count; ++i, src += samples, dst += 4)
                                          dst[0] = uint8_t(~src[0]), dst[1] = uint8_t(~src[1]),
                                          dst[2] = uint8_t(~src[2]), dst[3] = uint8_t(~src[3]);
                                  });
    ConvertCmykToBgr(dib);
    return whole;
}

struct RgbaImageEnd {
    void operator()(TIFFRGBAImage* image) const { TIFFRGBAImageEnd(image); }
};

// libtiff 4.5.0's RGBA reader refuses every uncompressed tile of a file it doesn't map into
// memory unless its raw buffer is exactly one tile long ("Invalid tile byte count"); its own
// buffer is rounded up to whole kilobytes. For those files the reader is lent a buffer of one
// tile, and libtiff gets a buffer of its own back when the directory is done.
class ExactTileBuffer {
public:
    ExactTileBuffer(TIFF* tif, const BlockLayout& layout) : tif(tif) {
        uint16_t compression = COMPRESSION_NONE;
        TIFFGetFieldDefaulted(tif, TIFFTAG_COMPRESSION, &compression);
        const tmsize_t tileBytes = layout.bTiled ? TIFFTileSize(tif) : 0;
        if (compression != COMPRESSION_NONE || tileBytes <= 0 ||
            uint64_t(tileBytes) > kMaxPictureBytes)
            return;
        buffer = std::make_unique_for_overwrite<uint8_t[]>(size_t(tileBytes));
        if (!TIFFReadBufferSetup(tif, buffer.get(), tileBytes)) buffer.reset();
    }
    ExactTileBuffer(const ExactTileBuffer&) = delete;
    ExactTileBuffer& operator=(const ExactTileBuffer&) = delete;
    ~ExactTileBuffer() {
        if (buffer) TIFFReadBufferSetup(tif, nullptr, 1);
    }

private:
    TIFF* tif;
    std::unique_ptr<uint8_t[]> buffer;
};

// libtiff's RGBA reader, a band of rows at a time. It is asked for rows top first; for files
// stored bottom first it flips each band, and the bands are placed from the bottom up.
bool DecodeRgba(TIFF* tif, const Directory& d, const BlockLayout& layout, XDib& dib) {
    char message[1024];
    if (!TIFFRGBAImageOK(tif, message)) return false;
    TIFFRGBAImage image;
    if (!TIFFRGBAImageBegin(&image, tif, 1, message)) return false;
    std::unique_ptr<TIFFRGBAImage, RgbaImageEnd> ender(&image);
    image.req_orientation = ORIENTATION_TOPLEFT;
    const bool bottomFirst =
        image.orientation == ORIENTATION_BOTRIGHT || image.orientation == ORIENTATION_BOTLEFT ||
        image.orientation == ORIENTATION_RIGHTBOT || image.orientation == ORIENTATION_LEFTBOT;

    // Bands are whole strips or rows of tiles, so that no strip is decoded twice.
    const uint32_t width = d.width, height = d.height;
    const uint32_t unit = std::min(layout.nBlockHeight, height);
    const uint64_t units = std::max<uint64_t>(1, kRasterPixels / (uint64_t(width) * unit));
    const uint32_t band = uint32_t(std::min<uint64_t>(uint64_t(unit) * units, height));
    if (uint64_t(width) * band * 4 > kMaxPictureBytes) return false;

    if (!dib.CreateDirty(width, height, 24)) return false;
    const ExactTileBuffer tileBuffer(tif, layout);
    auto raster = std::make_unique_for_overwrite<uint32_t[]>(size_t(width) * band);
    bool whole = true;
    for (uint32_t top = 0; top < height; top += band) {
        const uint32_t rows = std::min(band, height - top);
        std::memset(raster.get(), 0, size_t(width) * rows * 4);
        image.row_offset = int(top);
        image.col_offset = 0;
        // A broken strip stops the band; its rows stay black and the next band carries on.
        if (!TIFFRGBAImageGet(&image, raster.get(), width, rows)) whole = false;
        const uint32_t first = bottomFirst ? height - top - rows : top;
        for (uint32_t r = 0; r < rows; ++r) {
            const uint32_t* src = raster.get() + size_t(r) * width;
            uint8_t* dst = dib.GetRow(first + r);
            for (uint32_t x = 0; x < width; ++x, dst += 3) {
                const uint32_t p = src[x];
                dst[0] = uint8_t(TIFFGetB(p)), dst[1] = uint8_t(TIFFGetG(p)),
                dst[2] = uint8_t(TIFFGetR(p));
            }
        }
    }
    return whole;
}

// The current directory into `dib`. False when the page isn't whole; a partial picture may
// remain. A page claiming more than the file could hold fails before anything is allocated.
bool DecodeDirectory(TIFF* tif, XDib& dib, const PageBudget& budget) {
    dib.Destroy();
    Directory d;
    if (!ReadDirectory(tif, d)) return false;
    const bool indexed =
        d.samples == 1 && d.bits <= 8 &&
        (d.sampleFormat == SAMPLEFORMAT_UINT || d.sampleFormat == SAMPLEFORMAT_VOID) &&
        (d.photometric == PHOTOMETRIC_MINISWHITE || d.photometric == PHOTOMETRIC_MINISBLACK ||
         d.photometric == PHOTOMETRIC_PALETTE);
    const bool cmyk = d.photometric == PHOTOMETRIC_SEPARATED && d.bits == 8 && d.samples >= 4 &&
                      d.planar == PLANARCONFIG_CONTIG && d.inkSet == INKSET_CMYK;
    const uint32_t depth = indexed ? (d.bits == 1 ? 1 : d.bits <= 4 ? 4 : 8) : cmyk ? 32 : 24;
    BlockLayout layout;
    if (!budget.Allows(uint64_t(XDibStride(d.width, depth)) * d.height) ||
        !GetLayout(tif, d, budget, layout))
        return false;
    if (indexed) return DecodeIndexed(tif, d, layout, dib);
    if (cmyk) return DecodeCmyk(tif, d, layout, dib);
    return DecodeRgba(tif, d, layout, dib);
}

// Every directory in order, each into a new frame of delay 0.
void LoadPages(XAnimDib& anim, IXDibIO& source) {
    TiffPtr tif = OpenTiff(source);
    if (!tif) return;
    // The count is kept in 16 bits, as it always was: a file of 65536 pages counts as none.
    const uint16_t count = static_cast<uint16_t>(TIFFNumberOfDirectories(tif.get()));
    PageBudget budget{source.GetSize(), 0};
    for (uint32_t index = 0; index < count; ++index) {
        // Directories are walked in order rather than selected by number: selecting walks the
        // chain from the start each time, which a file of thousands of pages turns into a hang.
        if (index > 0) {
            const uint64_t before = TIFFCurrentDirOffset(tif.get());
            if (!TIFFReadDirectory(tif.get())) {
                // A directory that was read but lacks what a page needs is left out like a page
                // that fails. One that couldn't be read at all leaves libtiff where it was: the
                // chain can't be followed past it, and asking again would read it again.
                if (TIFFCurrentDirOffset(tif.get()) == before || TIFFLastDirectory(tif.get()))
                    break;
                continue;
            }
        }
        auto dib = std::make_unique<XDib>();
        dib->pColorMan = anim.pColorMan;
        // A page that fails is left out; the next takes its place.
        if (!DecodeDirectory(tif.get(), *dib, budget)) continue;
        budget.nClaimed += uint64_t(dib->nStride) * dib->nHeight;
        dib->nFormat = FORMAT_TIFF;
        anim.pLastDib = dib.get();
        anim.frames.push_back(XAnimFrame{std::move(dib), 0});
    }
}

}  // namespace

bool DecodeTiffFirst(XDib& dib, IXDibIO& source) {
    dib.Destroy();
    try {
        TiffPtr tif = OpenTiff(source);
        if (!tif) return false;
        const PageBudget budget{source.GetSize(), 0};
        return DecodeDirectory(tif.get(), dib, budget);
    } catch (const std::bad_alloc&) {
        return false;  // a block or band buffer; the picture so far stays
    }
}

bool LoadTiffPages(XAnimDib& anim, IXDibIO& source) {
    anim.Clear();
    try {
        LoadPages(anim, source);
    } catch (const std::bad_alloc&) {
        // the pages decoded so far stay
    }
    return anim.GetFrameCount() > 0;
}
