#include "library_writers.h"

#include <png.h>
#include <tiffio.h>
#include <turbojpeg.h>
#include <webp/encode.h>

#include <algorithm>
#include <memory>

namespace samplewrite {

namespace {

// An EXIF block with one entry, Orientation, in little-endian byte order.
Bytes ExifOrientationSegment(int orientation) {
    Bytes tiff = {'I',
                  'I',
                  42,
                  0,
                  8,
                  0,
                  0,
                  0,  // header, first directory at 8
                  1,
                  0,  // one entry
                  0x12,
                  0x01,
                  3,
                  0,
                  1,
                  0,
                  0,
                  0,  // tag 274, SHORT, count 1
                  uint8_t(orientation),
                  0,
                  0,
                  0,  // the value, in the entry
                  0,
                  0,
                  0,
                  0};  // no next directory
    Bytes body = {'E', 'x', 'i', 'f', 0, 0};
    body.insert(body.end(), tiff.begin(), tiff.end());
    const size_t length = body.size() + 2;
    Bytes segment = {0xFF, 0xE1, uint8_t(length >> 8), uint8_t(length & 0xFF)};
    segment.insert(segment.end(), body.begin(), body.end());
    return segment;
}

}  // namespace

Bytes WriteJpeg(const Picture& picture, const JpegOptions& options) {
    const int width = int(picture.width), height = int(picture.height);
    std::vector<uint8_t> pixels(size_t(width) * height * (options.cmyk ? 4 : 3));
    uint8_t* out = pixels.data();
    for (const imgwrite::Rgba& c : picture.pixels) {
        if (options.cmyk) {
            // Inverted values: 255 means no ink. K carries the darkness, C, M, Y the hue.
            const int k = std::max({c.r, c.g, c.b});
            const auto ink = [k](int v) { return uint8_t(k ? v * 255 / k : 255); };
            *out++ = ink(c.r), *out++ = ink(c.g), *out++ = ink(c.b), *out++ = uint8_t(k);
        } else {
            *out++ = c.r, *out++ = c.g, *out++ = c.b;
        }
    }
    const std::unique_ptr<void, int (*)(tjhandle)> tj(tjInitCompress(), tjDestroy);
    unsigned char* jpeg = nullptr;
    unsigned long size = 0;
    const int flags = options.progressive ? TJFLAG_PROGRESSIVE : 0;
    if (!tj ||
        tjCompress2(tj.get(), pixels.data(), width, 0, height, options.cmyk ? TJPF_CMYK : TJPF_RGB,
                    &jpeg, &size, TJSAMP_420, options.quality, flags) != 0) {
        return {};
    }
    Bytes file(jpeg, jpeg + size);
    tjFree(jpeg);
    if (options.exifOrientation > 0) {
        const Bytes exif = ExifOrientationSegment(options.exifOrientation);
        file.insert(file.begin() + 2, exif.begin(), exif.end());
    }
    return file;
}

Bytes WritePng(const Picture& picture) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = picture.width;
    image.height = picture.height;
    image.format = PNG_FORMAT_RGBA;
    std::vector<uint8_t> rgba;
    rgba.reserve(picture.pixels.size() * 4);
    for (const imgwrite::Rgba& c : picture.pixels) rgba.insert(rgba.end(), {c.r, c.g, c.b, c.a});
    png_alloc_size_t size = 0;
    if (!png_image_write_to_memory(&image, nullptr, &size, 0, rgba.data(), 0, nullptr)) return {};
    Bytes file(size);
    if (!png_image_write_to_memory(&image, file.data(), &size, 0, rgba.data(), 0, nullptr))
        return {};
    file.resize(size);
    return file;
}

bool WriteTiffPages(const std::string& path, const std::vector<Picture>& pages) {
    const std::unique_ptr<TIFF, void (*)(TIFF*)> tif(TIFFOpen(path.c_str(), "w"), TIFFClose);
    if (!tif) return false;
    for (const Picture& page : pages) {
        TIFF* t = tif.get();
        TIFFSetField(t, TIFFTAG_IMAGEWIDTH, page.width);
        TIFFSetField(t, TIFFTAG_IMAGELENGTH, page.height);
        TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, 3);
        TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 8);
        TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
        TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
        TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_ADOBE_DEFLATE);
        TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, 64);
        TIFFSetField(t, TIFFTAG_SUBFILETYPE, FILETYPE_PAGE);
        std::vector<uint8_t> row(size_t(page.width) * 3);
        for (uint32_t y = 0; y < page.height; ++y) {
            for (uint32_t x = 0; x < page.width; ++x) {
                const imgwrite::Rgba& c = page.At(x, y);
                row[3 * x] = c.r, row[3 * x + 1] = c.g, row[3 * x + 2] = c.b;
            }
            if (TIFFWriteScanline(t, row.data(), y, 0) < 0) return false;
        }
        if (!TIFFWriteDirectory(t)) return false;
    }
    return true;
}

Bytes WriteWebp(const Picture& picture, float quality) {
    std::vector<uint8_t> rgb;
    rgb.reserve(picture.pixels.size() * 3);
    for (const imgwrite::Rgba& c : picture.pixels) rgb.insert(rgb.end(), {c.r, c.g, c.b});
    uint8_t* webp = nullptr;
    const size_t size = WebPEncodeRGB(rgb.data(), int(picture.width), int(picture.height),
                                      int(picture.width) * 3, quality, &webp);
    if (size == 0) return {};
    Bytes file(webp, webp + size);
    WebPFree(webp);
    return file;
}

}  // namespace samplewrite
