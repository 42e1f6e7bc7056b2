// Format codes and content sniffing.
#pragma once

#include <cstdint>

class IXDibIO;

enum XDibFormat : uint32_t {
    FORMAT_UNKNOWN = 0,
    FORMAT_UNREAD = 1,  // fewer than 26 bytes, or the first read failed
    FORMAT_BMP = 2,
    FORMAT_JPEG = 3,
    FORMAT_GIF = 4,
    FORMAT_TIFF = 5,
    FORMAT_PNG = 6,
    FORMAT_TGA = 7,
    FORMAT_PSD = 8,
    FORMAT_JP2 = 9,
    FORMAT_J2K = 10,
    FORMAT_HDP = 11,
    FORMAT_DNG = 12,
    // Formats the program reads beyond its first eleven; sniffed after them, so that no
    // earlier result changes.
    FORMAT_WEBP = 13,
    FORMAT_AVIF = 14,
    FORMAT_HEIF = 15,
    FORMAT_JXL = 16,
};

// Bytes that sniffing reads from the start of a source.
inline constexpr uint32_t kSniffBytes = 26;

// Decides the format from the first 26 bytes. `name` may be null; it is used only to tell DNG
// from TIFF, by the extension behind the first dot of the whole name. The source is put back
// to position 0 before returning.
XDibFormat SniffFormat(IXDibIO& source, const char* name);

// "FORMAT_BMP" and so on; "FORMAT_UNKNOWN" for codes outside the table.
const char* FormatName(uint32_t format);
