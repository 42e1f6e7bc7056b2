#include "bridge_writers.h"

#include <openjpeg.h>
#include <png.h>
#include <tiffio.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace bridgewrite {

namespace {

[[noreturn]] void Die(const char* what) {
    std::fprintf(stderr, "fixture writer: %s\n", what);
    std::abort();
}

// ---- PNG ----------------------------------------------------------------------------------

[[noreturn]] void PngError(png_structp, png_const_charp message) {
    Die(message);
}

void PngAppend(png_structp png, png_bytep data, size_t length) {
    auto* out = static_cast<Bytes*>(png_get_io_ptr(png));
    out->insert(out->end(), data, data + length);
}

void PngFlush(png_structp) {}

int PngChannels(int colourType) {
    switch (colourType) {
        case 2:
            return 3;
        case 4:
            return 2;
        case 6:
            return 4;
        default:
            return 1;
    }
}

// Samples of `depth` bits packed into bytes, most significant first; 16 bits big-endian.
void PackSamples(const uint16_t* samples, size_t count, int depth, uint8_t* out) {
    if (depth == 16) {
        for (size_t i = 0; i < count; ++i)
            out[2 * i] = uint8_t(samples[i] >> 8), out[2 * i + 1] = uint8_t(samples[i]);
        return;
    }
    std::memset(out, 0, (count * depth + 7) / 8);
    for (size_t i = 0; i < count; ++i) {
        const size_t bit = i * depth;
        out[bit / 8] |= uint8_t(samples[i] << (8 - depth - bit % 8));
    }
}

// ---- TIFF in memory -----------------------------------------------------------------------

struct MemFile {
    Bytes bytes;
    uint64_t pos = 0;
};

tmsize_t MemRead(thandle_t handle, void* buffer, tmsize_t size) {
    auto* file = static_cast<MemFile*>(handle);
    const uint64_t n = std::min<uint64_t>(
        uint64_t(size), file->bytes.size() - std::min<uint64_t>(file->pos, file->bytes.size()));
    std::memcpy(buffer, file->bytes.data() + file->pos, n);
    file->pos += n;
    return tmsize_t(n);
}

tmsize_t MemWrite(thandle_t handle, void* buffer, tmsize_t size) {
    auto* file = static_cast<MemFile*>(handle);
    if (file->pos + size > file->bytes.size()) file->bytes.resize(file->pos + size);
    std::memcpy(file->bytes.data() + file->pos, buffer, size_t(size));
    file->pos += size;
    return size;
}

toff_t MemSeek(thandle_t handle, toff_t offset, int whence) {
    auto* file = static_cast<MemFile*>(handle);
    const int64_t base = whence == SEEK_CUR   ? int64_t(file->pos)
                         : whence == SEEK_END ? int64_t(file->bytes.size())
                                              : 0;
    file->pos = uint64_t(base + int64_t(offset));
    return file->pos;
}

int MemClose(thandle_t) {
    return 0;
}

toff_t MemSize(thandle_t handle) {
    return static_cast<MemFile*>(handle)->bytes.size();
}

int MemMap(thandle_t, void**, toff_t*) {
    return 0;
}

void MemUnmap(thandle_t, void*, toff_t) {}

TIFF* OpenForWriting(MemFile& file) {
    TIFF* tif = TIFFClientOpen("fixture", "w", &file, MemRead, MemWrite, MemSeek, MemClose, MemSize,
                               MemMap, MemUnmap);
    if (!tif) Die("TIFFClientOpen");
    return tif;
}

template <class... Args>
void Set(TIFF* tif, uint32_t tag, Args... args) {
    if (!TIFFSetField(tif, tag, args...)) Die("TIFFSetField");
}

void SetPageFields(TIFF* tif, const TiffPage& page, bool multiPage, uint16_t index,
                   uint16_t count) {
    Set(tif, TIFFTAG_IMAGEWIDTH, page.width);
    Set(tif, TIFFTAG_IMAGELENGTH, page.height);
    Set(tif, TIFFTAG_BITSPERSAMPLE, page.bits);
    Set(tif, TIFFTAG_SAMPLESPERPIXEL, page.samples);
    Set(tif, TIFFTAG_PHOTOMETRIC, page.photometric);
    Set(tif, TIFFTAG_PLANARCONFIG, page.planar);
    Set(tif, TIFFTAG_COMPRESSION, page.compression);
    Set(tif, TIFFTAG_ORIENTATION, page.orientation);
    if (page.compression == COMPRESSION_LZW || page.compression == COMPRESSION_ADOBE_DEFLATE)
        Set(tif, TIFFTAG_PREDICTOR, uint16_t(page.bits == 8 ? 2 : 1));
    if (page.extraSamples) {
        std::vector<uint16_t> kinds(page.extraSamples, EXTRASAMPLE_UNASSALPHA);
        Set(tif, TIFFTAG_EXTRASAMPLES, page.extraSamples, kinds.data());
    }
    if (!page.colourMap.empty()) {
        const size_t n = size_t(1) << page.bits;
        Set(tif, TIFFTAG_COLORMAP, page.colourMap.data(), page.colourMap.data() + n,
            page.colourMap.data() + 2 * n);
    }
    if (page.tileWidth && page.tileHeight) {
        Set(tif, TIFFTAG_TILEWIDTH, page.tileWidth);
        Set(tif, TIFFTAG_TILELENGTH, page.tileHeight);
    } else {
        Set(tif, TIFFTAG_ROWSPERSTRIP, page.rowsPerStrip ? page.rowsPerStrip : page.height);
    }
    if (multiPage) {
        Set(tif, TIFFTAG_SUBFILETYPE, uint32_t(FILETYPE_PAGE));
        Set(tif, TIFFTAG_PAGENUMBER, index, count);
    }
}

void WritePageData(TIFF* tif, const TiffPage& page) {
    const bool separate = page.planar == PLANARCONFIG_SEPARATE;
    const uint32_t planes = separate ? page.samples : 1;
    const uint32_t samplesPerRow = separate ? page.width : page.width * page.samples;
    const size_t rowBytes = (size_t(samplesPerRow) * page.bits + 7) / 8;
    if (page.data.size() < rowBytes * page.height * planes) Die("TIFF page data too short");
    if (page.tileWidth && page.tileHeight) {
        const size_t pixelBits = size_t(page.samples) * page.bits;
        const size_t tileRowBytes = (page.tileWidth * pixelBits + 7) / 8;
        Bytes tile(tileRowBytes * page.tileHeight);
        for (uint32_t ty = 0; ty < page.height; ty += page.tileHeight)
            for (uint32_t tx = 0; tx < page.width; tx += page.tileWidth) {
                std::fill(tile.begin(), tile.end(), 0);
                const uint32_t columns = std::min(page.tileWidth, page.width - tx);
                for (uint32_t r = 0; r < page.tileHeight && ty + r < page.height; ++r)
                    std::memcpy(tile.data() + r * tileRowBytes,
                                page.data.data() + (ty + r) * rowBytes + tx * pixelBits / 8,
                                (columns * pixelBits + 7) / 8);
                if (TIFFWriteEncodedTile(tif, TIFFComputeTile(tif, tx, ty, 0, 0), tile.data(),
                                         tmsize_t(tile.size())) < 0)
                    Die("TIFFWriteEncodedTile");
            }
        return;
    }
    const uint32_t rowsPerStrip = page.rowsPerStrip ? page.rowsPerStrip : page.height;
    const uint32_t strips = (page.height + rowsPerStrip - 1) / rowsPerStrip;
    for (uint32_t plane = 0; plane < planes; ++plane)
        for (uint32_t s = 0; s < strips; ++s) {
            const uint32_t first = s * rowsPerStrip;
            const uint32_t rows = std::min(rowsPerStrip, page.height - first);
            const uint8_t* from =
                page.data.data() + (size_t(plane) * page.height + first) * rowBytes;
            if (TIFFWriteEncodedStrip(tif, plane * strips + s, const_cast<uint8_t*>(from),
                                      tmsize_t(rows * rowBytes)) < 0)
                Die("TIFFWriteEncodedStrip");
        }
}

Bytes Finish(TIFF* tif, MemFile& file) {
    TIFFClose(tif);
    return std::move(file.bytes);
}

// ---- JPEG 2000 in memory ------------------------------------------------------------------

OPJ_SIZE_T J2kWrite(void* buffer, OPJ_SIZE_T count, void* user) {
    auto* file = static_cast<MemFile*>(user);
    MemWrite(file, buffer, tmsize_t(count));
    return count;
}

OPJ_OFF_T J2kSkip(OPJ_OFF_T count, void* user) {
    auto* file = static_cast<MemFile*>(user);
    file->pos += count;
    return count;
}

OPJ_BOOL J2kSeek(OPJ_OFF_T position, void* user) {
    static_cast<MemFile*>(user)->pos = uint64_t(position);
    return OPJ_TRUE;
}

void J2kError(const char* message, void*) {
    Die(message);
}

}  // namespace

Bytes WritePng(const PngFixture& fixture) {
    Bytes out;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, PngError, nullptr);
    png_infop info = png_create_info_struct(png);
    png_set_write_fn(png, &out, PngAppend, PngFlush);
    png_set_IHDR(png, info, fixture.width, fixture.height, fixture.bitDepth, fixture.colourType,
                 fixture.interlaced ? PNG_INTERLACE_ADAM7 : PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    std::vector<png_color> palette;
    for (const Rgb& c : fixture.palette) palette.push_back({c.r, c.g, c.b});
    if (!palette.empty()) png_set_PLTE(png, info, palette.data(), int(palette.size()));
    if (!fixture.paletteAlpha.empty())
        png_set_tRNS(png, info, fixture.paletteAlpha.data(), int(fixture.paletteAlpha.size()),
                     nullptr);
    if (fixture.transparent) {
        png_color_16 c{0, *fixture.transparent, *fixture.transparent, *fixture.transparent,
                       *fixture.transparent};
        png_set_tRNS(png, info, nullptr, 0, &c);
    }
    if (fixture.background) {
        const PngBackground& b = *fixture.background;
        png_color_16 c{b.index, b.red, b.green, b.blue, b.grey};
        png_set_bKGD(png, info, &c);
    }
    if (fixture.gamma > 0) png_set_gAMA(png, info, fixture.gamma);
    png_write_info(png, info);

    const size_t perRow = size_t(fixture.width) * PngChannels(fixture.colourType);
    const size_t rowBytes = (perRow * fixture.bitDepth + 7) / 8;
    if (fixture.samples.size() < perRow * fixture.height) Die("PNG samples too few");
    Bytes pixels(rowBytes * fixture.height);
    std::vector<png_bytep> rows(fixture.height);
    for (uint32_t y = 0; y < fixture.height; ++y) {
        rows[y] = pixels.data() + y * rowBytes;
        PackSamples(fixture.samples.data() + y * perRow, perRow, fixture.bitDepth, rows[y]);
    }
    png_write_image(png, rows.data());
    png_write_end(png, info);
    png_destroy_write_struct(&png, &info);
    return out;
}

Bytes WriteTiff(const std::vector<TiffPage>& pages) {
    MemFile file;
    TIFF* tif = OpenForWriting(file);
    for (size_t i = 0; i < pages.size(); ++i) {
        TiffPage page = pages[i];
        if (page.rawStrip) page.rowsPerStrip = page.tileWidth = page.tileHeight = 0;
        SetPageFields(tif, page, pages.size() > 1, uint16_t(i), uint16_t(pages.size()));
        if (page.rawStrip) {
            if (TIFFWriteRawStrip(tif, 0, page.rawStrip->data(), tmsize_t(page.rawStrip->size())) <
                0)
                Die("TIFFWriteRawStrip");
        } else {
            WritePageData(tif, page);
        }
        if (!TIFFWriteDirectory(tif)) Die("TIFFWriteDirectory");
    }
    return Finish(tif, file);
}

Bytes WriteDng(uint32_t width, uint32_t height, const std::vector<uint16_t>& cfa, uint16_t white) {
    if (cfa.size() < size_t(width) * height) Die("DNG samples too few");
    MemFile file;
    TIFF* tif = OpenForWriting(file);
    Set(tif, TIFFTAG_SUBFILETYPE, uint32_t(0));
    Set(tif, TIFFTAG_IMAGEWIDTH, width);
    Set(tif, TIFFTAG_IMAGELENGTH, height);
    Set(tif, TIFFTAG_BITSPERSAMPLE, uint16_t(16));
    Set(tif, TIFFTAG_SAMPLESPERPIXEL, uint16_t(1));
    Set(tif, TIFFTAG_PHOTOMETRIC, uint16_t(PHOTOMETRIC_CFA));
    Set(tif, TIFFTAG_PLANARCONFIG, uint16_t(PLANARCONFIG_CONTIG));
    Set(tif, TIFFTAG_COMPRESSION, uint16_t(COMPRESSION_NONE));
    Set(tif, TIFFTAG_ROWSPERSTRIP, height);
    Set(tif, TIFFTAG_MAKE, "Orlimo");
    Set(tif, TIFFTAG_MODEL, "Test Camera");
    static const uint16_t kRepeat[2] = {2, 2};
    static const uint8_t kRggb[4] = {0, 1, 1, 2};
    static const uint8_t kVersion[4] = {1, 4, 0, 0};
    Set(tif, TIFFTAG_CFAREPEATPATTERNDIM, kRepeat);
    Set(tif, TIFFTAG_CFAPATTERN, 4, kRggb);
    Set(tif, TIFFTAG_DNGVERSION, kVersion);
    Set(tif, TIFFTAG_UNIQUECAMERAMODEL, "Orlimo Test Camera");
    // The camera sees linear sRGB: the matrix from XYZ to it, and a white of (1, 1, 1).
    static const float kXyzToCamera[9] = {3.2406f, -1.5372f, -0.4986f, -0.9689f, 1.8758f,
                                          0.0415f, 0.0557f,  -0.2040f, 1.0570f};
    static const float kNeutral[3] = {1, 1, 1};
    Set(tif, TIFFTAG_COLORMATRIX1, 9, kXyzToCamera);
    Set(tif, TIFFTAG_CALIBRATIONILLUMINANT1, uint16_t(21));  // D65
    Set(tif, TIFFTAG_ASSHOTNEUTRAL, 3, kNeutral);
    const uint32_t whiteLevel = white;
    Set(tif, TIFFTAG_WHITELEVEL, 1, &whiteLevel);
    Bytes rows(size_t(width) * height * 2);
    std::memcpy(rows.data(), cfa.data(), rows.size());  // native order, as libtiff writes it
    if (TIFFWriteEncodedStrip(tif, 0, rows.data(), tmsize_t(rows.size())) < 0)
        Die("TIFFWriteEncodedStrip");
    if (!TIFFWriteDirectory(tif)) Die("TIFFWriteDirectory");
    return Finish(tif, file);
}

Bytes WriteJ2k(const J2kFixture& fixture) {
    const uint32_t n = uint32_t(fixture.components.size());
    std::vector<opj_image_cmptparm_t> parameters(n);
    uint32_t smallest = std::min(fixture.width, fixture.height);
    for (uint32_t c = 0; c < n; ++c) {
        const J2kComponent& comp = fixture.components[c];
        opj_image_cmptparm_t& p = parameters[c];
        std::memset(&p, 0, sizeof p);
        p.dx = comp.dx, p.dy = comp.dy;
        p.w = (fixture.width + comp.dx - 1) / comp.dx;
        p.h = (fixture.height + comp.dy - 1) / comp.dy;
        p.prec = comp.precision;
        p.sgnd = comp.isSigned;
        if (comp.samples.size() < size_t(p.w) * p.h) Die("J2K samples too few");
        smallest = std::min({smallest, p.w, p.h});
    }
    const OPJ_COLOR_SPACE space = fixture.sycc ? OPJ_CLRSPC_SYCC
                                  : n >= 3     ? OPJ_CLRSPC_SRGB
                                               : OPJ_CLRSPC_GRAY;
    opj_image_t* image = opj_image_create(n, parameters.data(), space);
    if (!image) Die("opj_image_create");
    image->x0 = image->y0 = 0;
    image->x1 = fixture.width;
    image->y1 = fixture.height;
    for (uint32_t c = 0; c < n; ++c)
        std::copy(fixture.components[c].samples.begin(),
                  fixture.components[c].samples.begin() + size_t(parameters[c].w) * parameters[c].h,
                  image->comps[c].data);

    opj_cparameters_t encoding;
    opj_set_default_encoder_parameters(&encoding);
    encoding.tcp_numlayers = 1;
    encoding.tcp_rates[0] = 0;  // lossless
    encoding.cp_disto_alloc = 1;
    encoding.tcp_mct = 0;
    int resolutions = 1;
    while (resolutions < 6 && (smallest >> resolutions) >= 1) ++resolutions;
    encoding.numresolution = resolutions;

    opj_codec_t* codec = opj_create_compress(fixture.jp2 ? OPJ_CODEC_JP2 : OPJ_CODEC_J2K);
    opj_set_error_handler(codec, J2kError, nullptr);
    if (!opj_setup_encoder(codec, &encoding, image)) Die("opj_setup_encoder");
    MemFile file;
    opj_stream_t* stream = opj_stream_create(64 * 1024, OPJ_FALSE);
    opj_stream_set_user_data(stream, &file, nullptr);
    opj_stream_set_write_function(stream, J2kWrite);
    opj_stream_set_skip_function(stream, J2kSkip);
    opj_stream_set_seek_function(stream, J2kSeek);
    if (!opj_start_compress(codec, image, stream) || !opj_encode(codec, stream) ||
        !opj_end_compress(codec, stream))
        Die("opj_encode");
    opj_stream_destroy(stream);
    opj_destroy_codec(codec);
    opj_image_destroy(image);
    return std::move(file.bytes);
}

}  // namespace bridgewrite
