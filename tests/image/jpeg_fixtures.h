// JPEG test files made on the spot with the library's own encoders, reference decodes by
// TurboJPEG, segment surgery, and EXIF blocks built by hand. Shared by the JPEG tests and the
// fuzz seed program.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

// After <cstdio>: jpeglib.h uses FILE without including it.
#include <jpeglib.h>
#include <turbojpeg.h>

namespace jpegfix {

using Bytes = std::vector<uint8_t>;

inline Bytes Cat(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// `channels` bytes a pixel of gradients, a grid of hard edges and a disc: every block has
// detail and every row differs.
inline Bytes DrawPixels(uint32_t w, uint32_t h, uint32_t channels) {
    Bytes p(size_t(w) * h * channels);
    for (size_t i = 0; i < p.size(); ++i) {
        const uint32_t c = uint32_t(i % channels), x = uint32_t(i / channels % w);
        const uint32_t y = uint32_t(i / channels / w);
        const int64_t dx = int64_t(x) - w / 2, dy = int64_t(y) - h / 3;
        const uint32_t v = (x * (c + 1) * 255 / (w + 1) + y * (3 - c % 3) * 255 / (h + 1)) / 2 +
                           (x / 13 + y / 17) % 2 * 60;
        p[i] = uint8_t(dx * dx + dy * dy < int64_t(w) * w / 9 ? 255 - v : v);
    }
    return p;
}

struct TjOptions {
    int subsamp = TJSAMP_420;
    bool progressive = false;
};

// Encodes `pixels` (TJPF_BGR, TJPF_GRAY or TJPF_CMYK; CMYK comes out as YCCK) with TurboJPEG.
inline Bytes EncodeTj(const Bytes& pixels, uint32_t w, uint32_t h, TJPF format,
                      const TjOptions& o = {}) {
    tjhandle tj = tjInitCompress();
    unsigned char* out = nullptr;
    unsigned long size = 0;
    Bytes result;
    if (tjCompress2(tj, pixels.data(), int(w), 0, int(h), format, &out, &size,
                    format == TJPF_GRAY ? TJSAMP_GRAY : o.subsamp, 90,
                    o.progressive ? TJFLAG_PROGRESSIVE : 0) == 0)
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
    c.image_width = w, c.image_height = h;
    c.input_components = o.components, c.in_color_space = o.in;
    jpeg_set_defaults(&c);
    jpeg_set_colorspace(&c, o.stored);
    c.arith_code = o.arithmetic ? TRUE : FALSE;
    c.restart_in_rows = o.restartRows;
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

// TurboJPEG's own decode at 1/s, both sides rounded up, rows packed.
struct Reference {
    int width = 0, height = 0;
    Bytes pixels;
};
inline Reference DecodeTj(const Bytes& jpeg, int s, TJPF format) {
    tjhandle tj = tjInitDecompress();
    Reference r;
    int w = 0, h = 0, subsamp = 0, colorspace = 0;
    if (tjDecompressHeader3(tj, jpeg.data(), jpeg.size(), &w, &h, &subsamp, &colorspace) == 0) {
        r.width = (w + s - 1) / s, r.height = (h + s - 1) / s;
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
    for (size_t at = 2; at + 4 <= jpeg.size() && jpeg[at] == 0xFF && jpeg[at + 1] != 0xDA;
         at += 2 + (size_t(jpeg[at + 2]) << 8 | jpeg[at + 3]))
        if (jpeg[at + 1] == marker) return at;
    return 0;
}

// A segment: marker, length, body.
inline Bytes Segment(uint8_t marker, const Bytes& body) {
    return Cat({0xFF, marker, uint8_t((body.size() + 2) >> 8), uint8_t(body.size() + 2)}, body);
}

// `jpeg` with `bytes` put in behind SOI.
inline Bytes Insert(const Bytes& jpeg, const Bytes& bytes) {
    return Cat(Cat({0xFF, 0xD8}, bytes), Bytes(jpeg.begin() + 2, jpeg.end()));
}

// A TIFF-structured EXIF block built by hand: a first directory, an EXIF sub-directory linked
// from it by tag 34665 when that has entries, and the values over 4 bytes behind them.
class ExifBuilder {
public:
    static constexpr uint16_t kAscii = 2, kShort = 3, kLong = 4, kRational = 5, kUndefined = 7,
                              kSRational = 10;  // value formats

    explicit ExifBuilder(bool motorola) : bMotorola(motorola) {}

    ExifBuilder& Short(uint16_t tag, uint16_t v, bool sub = false) {
        return Add(sub, tag, kShort, 1, U16(v));
    }
    ExifBuilder& Long(uint16_t tag, uint32_t v, bool sub = false) {
        return Add(sub, tag, kLong, 1, U32(v));
    }
    ExifBuilder& Rational(uint16_t tag, uint32_t num, uint32_t den, bool sub = false,
                          bool isSigned = false) {
        return Add(sub, tag, isSigned ? kSRational : kRational, 1, Cat(U32(num), U32(den)));
    }
    ExifBuilder& Text(uint16_t tag, const std::string& text, bool sub = false,
                      uint16_t format = kAscii) {
        const Bytes v = Cat(Bytes(text.begin(), text.end()), Bytes(format == kAscii));
        return Add(sub, tag, format, uint32_t(v.size()), v);
    }

    // The block, from the byte-order mark on; `exifPrefix` puts "Exif\0\0" in front.
    Bytes Build(bool exifPrefix = false) const {
        std::vector<Entry> first = ifd0;
        const uint32_t subAt = 8 + DirBytes(ifd0.size() + !sub.empty());
        const uint32_t dataAt = subAt + (sub.empty() ? 0 : DirBytes(sub.size()));
        if (!sub.empty()) first.push_back(MakeEntry(34665, kLong, 1, U32(subAt)));
        Bytes data, b = Cat(bMotorola ? Bytes{'M', 'M', 0, 42} : Bytes{'I', 'I', 42, 0}, U32(8));
        WriteDir(b, first, dataAt, data);
        if (!sub.empty()) WriteDir(b, sub, dataAt, data);
        return Cat(exifPrefix ? Bytes{'E', 'x', 'i', 'f', 0, 0} : Bytes{}, Cat(b, data));
    }

    Bytes U16(uint16_t v) const {
        return bMotorola ? Bytes{uint8_t(v >> 8), uint8_t(v)} : Bytes{uint8_t(v), uint8_t(v >> 8)};
    }
    Bytes U32(uint32_t v) const {
        return Cat(U16(uint16_t(bMotorola ? v >> 16 : v)), U16(uint16_t(bMotorola ? v : v >> 16)));
    }

private:
    using Entry = std::pair<Bytes, Bytes>;  // tag, format and count; the value
    Entry MakeEntry(uint16_t tag, uint16_t format, uint32_t count, const Bytes& value) const {
        return {Cat(Cat(U16(tag), U16(format)), U32(count)), value};
    }
    ExifBuilder& Add(bool toSub, uint16_t tag, uint16_t format, uint32_t count, const Bytes& v) {
        (toSub ? sub : ifd0).push_back(MakeEntry(tag, format, count, v));
        return *this;
    }
    static uint32_t DirBytes(size_t entries) { return uint32_t(2 + 12 * entries + 4); }
    // A directory with a next-directory link of 0; values over 4 bytes go to `data`, which
    // will stand at `dataAt` in the block.
    void WriteDir(Bytes& b, const std::vector<Entry>& dir, uint32_t dataAt, Bytes& data) const {
        b = Cat(b, U16(uint16_t(dir.size())));
        for (const auto& [head, value] : dir) {
            Bytes v = value.size() > 4 ? U32(dataAt + uint32_t(data.size())) : value;
            if (value.size() > 4) data = Cat(Cat(data, value), Bytes(value.size() % 2));
            v.resize(4);
            b = Cat(Cat(b, head), v);
        }
        b = Cat(b, U32(0));
    }

    bool bMotorola;
    std::vector<Entry> ifd0, sub;
};

}  // namespace jpegfix
