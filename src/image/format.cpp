#include "image/format.h"

#include <cstring>

#include "base/utf.h"
#include "image/bytes.h"
#include "image/xdibio.h"

namespace {

// The extension is what follows the first dot of the whole name, not the last: a folder with a
// dot in its name therefore never makes a file count as DNG.
bool HasDngExtension(const char* name) {
    if (!name) return false;
    const char* dot = std::strchr(name, '.');
    return dot && utf::AsciiLower(dot) == ".dng";
}

// An ISO media file ("ftyp" box first) of the still-image brands: AVIF, or HEIF in its HEVC
// forms. A generic "mif1"/"msf1" file is AVIF when its first compatible brands say so.
XDibFormat ClassifyIsoMedia(const uint8_t* h) {
    if (std::memcmp(h + 4, "ftyp", 4) != 0) return FORMAT_UNKNOWN;
    const auto brand = [&](int at, const char* b) { return std::memcmp(h + at, b, 4) == 0; };
    if (brand(8, "avif") || brand(8, "avis")) return FORMAT_AVIF;
    for (const char* b : {"heic", "heix", "hevc", "hevx", "heim", "heis"}) {
        if (brand(8, b)) return FORMAT_HEIF;
    }
    if (brand(8, "mif1") || brand(8, "msf1")) {
        // Compatible brands start at 16; two of them fit into the bytes sniffed.
        if (brand(16, "avif") || brand(20, "avif") || brand(16, "avis") || brand(20, "avis"))
            return FORMAT_AVIF;
        return FORMAT_HEIF;
    }
    return FORMAT_UNKNOWN;
}

// The formats added after the first eleven tests.
XDibFormat ClassifyModern(const uint8_t* h) {
    if (std::memcmp(h, "RIFF", 4) == 0 && std::memcmp(h + 8, "WEBP", 4) == 0) return FORMAT_WEBP;
    if (const XDibFormat iso = ClassifyIsoMedia(h); iso != FORMAT_UNKNOWN) return iso;
    static const uint8_t kJxlContainer[12] = {0,   0,   0,    0x0C, 'J',  'X',
                                              'L', ' ', 0x0D, 0x0A, 0x87, 0x0A};
    if ((h[0] == 0xFF && h[1] == 0x0A) || std::memcmp(h, kJxlContainer, 12) == 0) return FORMAT_JXL;
    return FORMAT_UNKNOWN;
}

XDibFormat Classify(const uint8_t* h, const char* name) {
    static const uint8_t kPng[8] = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A};
    if (h[0] == 'B' && h[1] == 'M') return FORMAT_BMP;
    if (h[0] == 0xFF && h[1] == 0xD8 && h[2] == 0xFF) return FORMAT_JPEG;
    if (std::memcmp(h, kPng, 8) == 0 && std::memcmp(h + 12, "IHDR", 4) == 0) return FORMAT_PNG;
    if (std::memcmp(h, "GIF89a", 6) == 0 || std::memcmp(h, "GIF87a", 6) == 0) return FORMAT_GIF;
    if (std::memcmp(h, "\x4D\x4D\x00\x2A", 4) == 0 || std::memcmp(h, "\x49\x49\x2A\x00", 4) == 0)
        return HasDngExtension(name) ? FORMAT_DNG : FORMAT_TIFF;
    if (std::memcmp(h + 4, "jP  ", 4) == 0) return FORMAT_JP2;
    if (std::memcmp(h, "\xFF\x4F\xFF\x51", 4) == 0) return FORMAT_J2K;
    if (std::memcmp(h, "\x49\x49\xBC\x01", 4) == 0) return FORMAT_HDP;
    if (std::memcmp(h, "8BPS", 4) == 0 && Be16(h + 4) == 1 && Be32(h + 14) != 0 &&
        Be32(h + 18) != 0 && Be16(h + 24) <= 4)
        return FORMAT_PSD;
    // TGA has no signature; its header must merely be plausible.
    const uint8_t depth = h[16];
    const uint8_t type = h[2];
    if (Le16(h + 12) != 0 && Le16(h + 14) != 0 &&
        (depth == 8 || depth == 15 || depth == 16 || depth == 24 || depth == 32) &&
        Le16(h + 5) <= 256 &&
        (type == 1 || type == 2 || type == 3 || type == 9 || type == 10 || type == 11))
        return FORMAT_TGA;
    return ClassifyModern(h);
}

}  // namespace

XDibFormat SniffFormat(IXDibIO& source, const char* name) {
    uint8_t header[kSniffBytes];
    source.Seek(0, 0);
    XDibFormat format = FORMAT_UNREAD;
    if (source.GetSize() >= kSniffBytes && source.Read(header, kSniffBytes))
        format = Classify(header, name);
    source.Seek(0, 0);
    return format;
}

const char* FormatName(uint32_t format) {
    static const char* const kNames[] = {
        "FORMAT_UNKNOWN", "FORMAT_UNREAD", "FORMAT_BMP", "FORMAT_JPEG", "FORMAT_GIF",
        "FORMAT_TIFF",    "FORMAT_PNG",    "FORMAT_TGA", "FORMAT_PSD",  "FORMAT_JP2",
        "FORMAT_J2K",     "FORMAT_HDP",    "FORMAT_DNG", "FORMAT_WEBP", "FORMAT_AVIF",
        "FORMAT_HEIF",    "FORMAT_JXL"};
    return format < std::size(kNames) ? kNames[format] : kNames[0];
}
