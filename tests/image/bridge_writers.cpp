#include "bridge_writers.h"

#include <openjpeg.h>
#include <png.h>
#include <sys/mman.h>
#include <tiffio.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace bridgewrite {

void Die(const char* what) {
    std::fprintf(stderr, "fixture writer: %s\n", what);
    std::abort();
}

Bytes ThroughMemoryFile(const std::function<void(const char* path)>& write) {
    const int fd = memfd_create("fixture", 0);
    if (fd < 0) Die("memfd_create");
    write(("/proc/self/fd/" + std::to_string(fd)).c_str());
    Bytes bytes(size_t(lseek(fd, 0, SEEK_END)));
    if (pread(fd, bytes.data(), bytes.size(), 0) != ssize_t(bytes.size())) Die("pread");
    close(fd);
    return bytes;
}

namespace {

template <class... Args>
void Set(TIFF* tif, uint32_t tag, Args... args) {
    if (!TIFFSetField(tif, tag, args...)) Die("TIFFSetField");
}

TIFF* OpenTiff(const char* path) {
    TIFF* tif = TIFFOpen(path, "w");
    if (!tif) Die("TIFFOpen");
    return tif;
}

void SetPageFields(TIFF* tif, const TiffPage& page) {
    Set(tif, TIFFTAG_IMAGEWIDTH, page.width);
    Set(tif, TIFFTAG_IMAGELENGTH, page.height);
    Set(tif, TIFFTAG_BITSPERSAMPLE, page.bits);
    Set(tif, TIFFTAG_SAMPLESPERPIXEL, page.samples);
    Set(tif, TIFFTAG_PHOTOMETRIC, page.photometric);
    Set(tif, TIFFTAG_COMPRESSION, page.compression);
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
}

void WritePageData(TIFF* tif, const TiffPage& page) {
    const size_t pixelBits = size_t(page.samples) * page.bits;
    const size_t rowBytes = (page.width * pixelBits + 7) / 8;
    if (page.data.size() < rowBytes * page.height) Die("TIFF page data too short");
    if (page.tileWidth && page.tileHeight) {
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
    for (uint32_t y = 0; y < page.height; ++y)
        if (TIFFWriteScanline(tif, const_cast<uint8_t*>(&page.data[y * rowBytes]), y, 0) < 0)
            Die("TIFFWriteScanline");
}

}  // namespace

Bytes WritePng(const PngFixture& fixture) {
    Bytes out;
    png_structp png = png_create_write_struct(
        PNG_LIBPNG_VER_STRING, nullptr, [](png_structp, png_const_charp message) { Die(message); },
        nullptr);
    png_infop info = png_create_info_struct(png);
    png_set_write_fn(
        png, &out,
        [](png_structp p, png_bytep data, size_t length) {
            auto* bytes = static_cast<Bytes*>(png_get_io_ptr(p));
            bytes->insert(bytes->end(), data, data + length);
        },
        [](png_structp) {});
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
        png_color_16 c{0, 0, 0, 0, *fixture.transparent};
        png_set_tRNS(png, info, nullptr, 0, &c);
    }
    if (fixture.backgroundIndex) {
        png_color_16 c{*fixture.backgroundIndex, 0, 0, 0, 0};
        png_set_bKGD(png, info, &c);
    }
    if (fixture.gamma > 0) png_set_gAMA(png, info, fixture.gamma);
    png_write_info(png, info);

    if (fixture.bitDepth < 8) png_set_packing(png);  // one sample a byte, packed by libpng
    const int type = fixture.colourType, bytes = fixture.bitDepth == 16 ? 2 : 1;
    const size_t perRow = size_t(fixture.width) * (type == 2 ? 3 : type == 6 ? 4 : 1) * bytes;
    Bytes pixels;  // 16 bits big-endian
    for (uint16_t v : fixture.samples) {
        if (bytes == 2) pixels.push_back(uint8_t(v >> 8));
        pixels.push_back(uint8_t(v));
    }
    if (pixels.size() < perRow * fixture.height) Die("PNG samples too few");
    std::vector<png_bytep> rows(fixture.height);
    for (uint32_t y = 0; y < fixture.height; ++y) rows[y] = pixels.data() + y * perRow;
    png_write_image(png, rows.data());
    png_write_end(png, info);
    png_destroy_write_struct(&png, &info);
    return out;
}

Bytes WriteTiff(const std::vector<TiffPage>& pages) {
    return ThroughMemoryFile([&](const char* path) {
        TIFF* tif = OpenTiff(path);
        for (TiffPage page : pages) {
            if (page.rawStrip) page.rowsPerStrip = page.tileWidth = page.tileHeight = 0;
            SetPageFields(tif, page);
            if (!page.rawStrip) {
                WritePageData(tif, page);
            } else if (TIFFWriteRawStrip(tif, 0, page.rawStrip->data(),
                                         tmsize_t(page.rawStrip->size())) < 0) {
                Die("TIFFWriteRawStrip");
            }
            if (!TIFFWriteDirectory(tif)) Die("TIFFWriteDirectory");
        }
        TIFFClose(tif);
    });
}

Bytes WriteDng(uint32_t width, uint32_t height, const std::vector<uint16_t>& cfa, uint16_t white,
               bool dngVersion) {
    if (cfa.size() < size_t(width) * height) Die("DNG samples too few");
    return ThroughMemoryFile([&](const char* path) {
        TIFF* tif = OpenTiff(path);
        Set(tif, TIFFTAG_IMAGEWIDTH, width);
        Set(tif, TIFFTAG_IMAGELENGTH, height);
        Set(tif, TIFFTAG_BITSPERSAMPLE, uint16_t(16));
        Set(tif, TIFFTAG_SAMPLESPERPIXEL, uint16_t(1));
        Set(tif, TIFFTAG_PHOTOMETRIC, uint16_t(PHOTOMETRIC_CFA));
        Set(tif, TIFFTAG_ROWSPERSTRIP, height);
        static const uint16_t kRepeat[2] = {2, 2};
        static const uint8_t kRggb[4] = {0, 1, 1, 2};
        static const uint8_t kVersion[4] = {1, 4, 0, 0};
        Set(tif, TIFFTAG_CFAREPEATPATTERNDIM, kRepeat);
        Set(tif, TIFFTAG_CFAPATTERN, 4, kRggb);
        if (dngVersion) Set(tif, TIFFTAG_DNGVERSION, kVersion);
        Set(tif, TIFFTAG_UNIQUECAMERAMODEL, "Orlimo Test Camera");
        // The camera sees linear sRGB: the matrix from XYZ to it.
        static const float kXyzToCamera[9] = {3.2406f, -1.5372f, -0.4986f, -0.9689f, 1.8758f,
                                              0.0415f, 0.0557f,  -0.2040f, 1.0570f};
        Set(tif, TIFFTAG_COLORMATRIX1, 9, kXyzToCamera);
        const uint32_t whiteLevel = white;
        Set(tif, TIFFTAG_WHITELEVEL, 1, &whiteLevel);
        std::vector<uint16_t> rows(cfa.begin(), cfa.begin() + size_t(width) * height);
        if (TIFFWriteEncodedStrip(tif, 0, rows.data(), tmsize_t(rows.size() * 2)) < 0)
            Die("TIFFWriteEncodedStrip");
        TIFFClose(tif);
    });
}

Bytes WriteJ2k(const J2kFixture& fixture) {
    const uint32_t n = uint32_t(fixture.components.size());
    std::vector<opj_image_cmptparm_t> parameters(n);
    uint32_t smallest = std::min(fixture.width, fixture.height);
    for (uint32_t c = 0; c < n; ++c) {
        const J2kComponent& comp = fixture.components[c];
        opj_image_cmptparm_t& p = parameters[c];
        p.dx = comp.dx, p.dy = comp.dy, p.prec = comp.precision, p.sgnd = comp.isSigned;
        p.w = (fixture.width + comp.dx - 1) / comp.dx;
        p.h = (fixture.height + comp.dy - 1) / comp.dy;
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
        std::copy_n(fixture.components[c].samples.begin(), parameters[c].w * parameters[c].h,
                    image->comps[c].data);

    opj_cparameters_t encoding;
    opj_set_default_encoder_parameters(&encoding);
    encoding.tcp_numlayers = 1;
    encoding.tcp_rates[0] = 0;  // lossless
    encoding.cp_disto_alloc = 1;
    encoding.tcp_mct = 0;
    encoding.numresolution = 1;
    while (encoding.numresolution < 6 && (smallest >> encoding.numresolution) >= 1)
        ++encoding.numresolution;
    opj_codec_t* codec = opj_create_compress(fixture.jp2 ? OPJ_CODEC_JP2 : OPJ_CODEC_J2K);
    opj_set_error_handler(
        codec, [](const char* message, void*) { Die(message); }, nullptr);
    if (!opj_setup_encoder(codec, &encoding, image)) Die("opj_setup_encoder");
    Bytes out = ThroughMemoryFile([&](const char* path) {
        opj_stream_t* stream = opj_stream_create_default_file_stream(path, OPJ_FALSE);
        if (!stream || !opj_start_compress(codec, image, stream) || !opj_encode(codec, stream) ||
            !opj_end_compress(codec, stream))
            Die("opj_encode");
        opj_stream_destroy(stream);
    });
    opj_destroy_codec(codec);
    opj_image_destroy(image);
    return out;
}

}  // namespace bridgewrite
