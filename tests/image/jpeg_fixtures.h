// JPEG test files made on the spot with the library's own encoders, reference decodes by
// TurboJPEG, segment surgery, and EXIF blocks built by hand. Shared by the JPEG tests and the
// fuzz seed program.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

// After <cstdio>: jpeglib.h uses FILE without including it.
#include <jpeglib.h>
#include <turbojpeg.h>

namespace jpegfix {

using Bytes = std::vector<uint8_t>;

// `channels` bytes a pixel of drawn content: gradients, a grid of hard edges and a disc, so
// that every block has detail and every row differs.
inline Bytes DrawPixels(uint32_t w, uint32_t h, uint32_t channels, uint32_t seed = 0) {
    Bytes p(size_t(w) * h * channels);
    for (uint32_t y = 0; y < h; ++y)
        for (uint32_t x = 0; x < w; ++x) {
            const int64_t dx = int64_t(x) - w / 2, dy = int64_t(y) - h / 3;
            const bool disc = dx * dx + dy * dy < int64_t(w) * w / 9;
            const bool grid = ((x / 13) + (y / 17) + seed) % 2 == 0;
            uint8_t* q = &p[(size_t(y) * w + x) * channels];
            for (uint32_t c = 0; c < channels; ++c) {
                uint32_t v = (x * (c + 1) * 255 / (w + 1) + y * (3 - c % 3) * 255 / (h + 1)) / 2;
                if (grid) v += 60;
                if (disc) v = 255 - v;
                q[c] = uint8_t(v + seed * 29 * c);
            }
        }
    return p;
}

struct TjOptions {
    int subsamp = TJSAMP_420;
    int quality = 90;
    bool progressive = false;
};

// Encodes `pixels` (TJPF_BGR, TJPF_GRAY or TJPF_CMYK; CMYK comes out as YCCK) with TurboJPEG.
inline Bytes EncodeTj(const Bytes& pixels, uint32_t w, uint32_t h, TJPF format,
                      const TjOptions& o = {}) {
    tjhandle tj = tjInitCompress();
    unsigned char* out = nullptr;
    unsigned long size = 0;
    const int subsamp = format == TJPF_GRAY ? TJSAMP_GRAY : o.subsamp;
    const int flags = o.progressive ? TJFLAG_PROGRESSIVE : 0;
    Bytes result;
    if (tjCompress2(tj, pixels.data(), int(w), 0, int(h), format, &out, &size, subsamp, o.quality,
                    flags) == 0)
        result.assign(out, out + size);
    tjFree(out);
    tjDestroy(tj);
    return result;
}

struct LibOptions {
    int components = 3;
    J_COLOR_SPACE in = JCS_RGB;        // what `pixels` hold
    J_COLOR_SPACE stored = JCS_YCbCr;  // what the file stores
    bool arithmetic = false;
    bool progressive = false;
    int quality = 85;
    int restartRows = 0;
};

// Encodes through the library's own interface, for what TurboJPEG can't make: plain CMYK,
// arithmetic coding, restart markers.
inline Bytes EncodeLib(const Bytes& pixels, uint32_t w, uint32_t h, const LibOptions& o) {
    jpeg_compress_struct c{};
    jpeg_error_mgr err{};
    c.err = jpeg_std_error(&err);
    jpeg_create_compress(&c);
    unsigned char* out = nullptr;
    unsigned long size = 0;
    jpeg_mem_dest(&c, &out, &size);
    c.image_width = w;
    c.image_height = h;
    c.input_components = o.components;
    c.in_color_space = o.in;
    jpeg_set_defaults(&c);
    jpeg_set_colorspace(&c, o.stored);
    jpeg_set_quality(&c, o.quality, TRUE);
    c.arith_code = o.arithmetic ? TRUE : FALSE;
    c.restart_in_rows = o.restartRows;
    if (o.progressive) jpeg_simple_progression(&c);
    jpeg_start_compress(&c, TRUE);
    while (c.next_scanline < h) {
        JSAMPROW row =
            const_cast<JSAMPROW>(pixels.data() + size_t(c.next_scanline) * w * o.components);
        jpeg_write_scanlines(&c, &row, 1);
    }
    jpeg_finish_compress(&c);
    jpeg_destroy_compress(&c);
    Bytes result(out, out + size);
    std::free(out);
    return result;
}

// The reference: TurboJPEG's own decode at 1/s, rows packed without padding.
struct Reference {
    int width = 0;
    int height = 0;
    Bytes pixels;
};
inline Reference DecodeTj(const Bytes& jpeg, int s, TJPF format) {
    tjhandle tj = tjInitDecompress();
    Reference r;
    int w = 0, h = 0, subsamp = 0, colorspace = 0;
    if (tjDecompressHeader3(tj, jpeg.data(), jpeg.size(), &w, &h, &subsamp, &colorspace) == 0) {
        r.width = (w + s - 1) / s;
        r.height = (h + s - 1) / s;
        r.pixels.resize(size_t(r.width) * r.height * tjPixelSize[format]);
        if (tjDecompress2(tj, jpeg.data(), jpeg.size(), r.pixels.data(), r.width, 0, r.height,
                          format, 0) != 0)
            r = {};
    }
    tjDestroy(tj);
    return r;
}

// Offset of the first segment with `marker` before the first scan, or 0 when there is none.
inline size_t FindSegment(const Bytes& jpeg, uint8_t marker) {
    size_t at = 2;
    while (at + 4 <= jpeg.size() && jpeg[at] == 0xFF) {
        if (jpeg[at + 1] == marker) return at;
        if (jpeg[at + 1] == 0xDA) break;
        at += 2 + (size_t(jpeg[at + 2]) << 8 | jpeg[at + 3]);
    }
    return 0;
}

// A segment: marker, length, body.
inline Bytes Segment(uint8_t marker, const Bytes& body) {
    const size_t length = body.size() + 2;
    Bytes s = {0xFF, marker, uint8_t(length >> 8), uint8_t(length)};
    s.insert(s.end(), body.begin(), body.end());
    return s;
}

// `jpeg` with `bytes` put in at `at` (behind SOI by default).
inline Bytes Insert(Bytes jpeg, const Bytes& bytes, size_t at = 2) {
    jpeg.insert(jpeg.begin() + std::ptrdiff_t(at), bytes.begin(), bytes.end());
    return jpeg;
}

// A TIFF-structured EXIF block built by hand: a first directory, optionally an EXIF
// sub-directory linked from it by tag 34665, and the values that don't fit in an entry
// behind them.
class ExifBuilder {
public:
    enum Format : uint16_t {
        kByte = 1,
        kAscii = 2,
        kShort = 3,
        kLong = 4,
        kRational = 5,
        kUndefined = 7,
        kSShort = 8,
        kSLong = 9,
        kSRational = 10,
        kFloat = 11,
        kDouble = 12,
    };
    struct Entry {
        uint16_t tag;
        uint16_t format;
        uint32_t count;
        Bytes value;  // already in the block's byte order
    };

    explicit ExifBuilder(bool motorola) : bMotorola(motorola) {}

    ExifBuilder& Short(uint16_t tag, uint16_t v, bool sub = false) {
        return Add(sub, {tag, kShort, 1, U16(v)});
    }
    ExifBuilder& Long(uint16_t tag, uint32_t v, bool sub = false) {
        return Add(sub, {tag, kLong, 1, U32(v)});
    }
    ExifBuilder& Rational(uint16_t tag, uint32_t num, uint32_t den, bool sub = false,
                          bool isSigned = false) {
        Bytes v = U32(num);
        const Bytes d = U32(den);
        v.insert(v.end(), d.begin(), d.end());
        return Add(sub, {tag, uint16_t(isSigned ? kSRational : kRational), 1, v});
    }
    ExifBuilder& Text(uint16_t tag, const std::string& text, bool sub = false,
                      uint16_t format = kAscii) {
        Bytes v(text.begin(), text.end());
        if (format == kAscii) v.push_back(0);
        return Add(sub, {tag, format, uint32_t(v.size()), v});
    }
    ExifBuilder& Raw(const Entry& e, bool sub = false) { return Add(sub, e); }

    // The block, from the byte-order mark on; `exifPrefix` puts "Exif\0\0" in front.
    Bytes Build(bool exifPrefix = false) const {
        std::vector<Entry> first = ifd0;
        const bool hasSub = !sub.empty();
        if (hasSub) first.push_back({34665, kLong, 1, U32(0)});  // patched below
        const uint32_t firstAt = 8;
        const uint32_t subAt = firstAt + DirBytes(first);
        const uint32_t dataAt = subAt + (hasSub ? DirBytes(sub) : 0);
        if (hasSub) first.back().value = U32(subAt);
        Bytes data;
        Bytes b = bMotorola ? Bytes{'M', 'M', 0, 42} : Bytes{'I', 'I', 42, 0};
        Append(b, U32(firstAt));
        WriteDir(b, first, dataAt, data);
        if (hasSub) WriteDir(b, sub, dataAt, data);
        b.insert(b.end(), data.begin(), data.end());
        if (exifPrefix) b.insert(b.begin(), {'E', 'x', 'i', 'f', 0, 0});
        return b;
    }

    Bytes U16(uint16_t v) const {
        return bMotorola ? Bytes{uint8_t(v >> 8), uint8_t(v)} : Bytes{uint8_t(v), uint8_t(v >> 8)};
    }
    Bytes U32(uint32_t v) const {
        return bMotorola ? Bytes{uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)}
                         : Bytes{uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)};
    }

private:
    ExifBuilder& Add(bool toSub, const Entry& e) {
        (toSub ? sub : ifd0).push_back(e);
        return *this;
    }
    static uint32_t DirBytes(const std::vector<Entry>& dir) {
        return uint32_t(2 + 12 * dir.size() + 4);
    }
    static void Append(Bytes& b, const Bytes& more) { b.insert(b.end(), more.begin(), more.end()); }
    // A directory with a next-directory link of 0; values over 4 bytes go to `data`, which
    // will stand at `dataAt` in the block.
    void WriteDir(Bytes& b, const std::vector<Entry>& dir, uint32_t dataAt, Bytes& data) const {
        Append(b, U16(uint16_t(dir.size())));
        for (const Entry& e : dir) {
            Append(b, U16(e.tag));
            Append(b, U16(e.format));
            Append(b, U32(e.count));
            if (e.value.size() <= 4) {
                Bytes v = e.value;
                v.resize(4);
                Append(b, v);
            } else {
                Append(b, U32(dataAt + uint32_t(data.size())));
                Append(data, e.value);
                if (data.size() % 2) data.push_back(0);
            }
        }
        Append(b, U32(0));
    }

    bool bMotorola;
    std::vector<Entry> ifd0;
    std::vector<Entry> sub;
};

}  // namespace jpegfix
