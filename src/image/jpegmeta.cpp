#include "image/jpegmeta.h"

#include "image/jpeg_markers.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <new>
#include <vector>

#include "image/xdibio.h"

namespace {

// Sections kept from SOI up to the first scan; APP0, APP1 blocks that aren't EXIF and every
// comment after the first are dropped and don't count.
constexpr uint32_t kMaxSections = 20;
// 0xFF bytes read in front of a marker; the seventh in a row ends the pass.
constexpr int kMaxPaddingReads = 7;

using namespace jpeg_markers;

// Bytes per value of the twelve TIFF number formats (index 0 is unused).
constexpr uint32_t kFormatBytes[13] = {0, 1, 1, 2, 4, 8, 1, 1, 2, 4, 8, 4, 8};
enum : uint32_t {
    kFmtByte = 1,
    kFmtAscii = 2,
    kFmtShort = 3,
    kFmtLong = 4,
    kFmtRational = 5,
    kFmtSByte = 6,
    kFmtUndefined = 7,
    kFmtSShort = 8,
    kFmtSLong = 9,
    kFmtSRational = 10,
    kFmtFloat = 11,
    kFmtDouble = 12,
};

// Tags of the EXIF record.
enum : uint32_t {
    kTagMake = 271,
    kTagModel = 272,
    kTagOrientation = 274,
    kTagXResolution = 282,
    kTagYResolution = 283,
    kTagResolutionUnit = 296,
    kTagSoftware = 305,
    kTagThumbnailOffset = 513,
    kTagThumbnailLength = 514,
    kTagExposureTime = 33434,
    kTagFNumber = 33437,
    kTagExifDir = 34665,
    kTagExposureProgram = 34850,
    kTagIsoEquivalent = 34855,
    kTagExifVersion = 36864,
    kTagDateTimeOriginal = 36867,
    kTagCompressionLevel = 37122,
    kTagShutterSpeed = 37377,
    kTagAperture = 37378,
    kTagBrightness = 37379,
    kTagExposureBias = 37380,
    kTagMaxAperture = 37381,
    kTagSubjectDistance = 37382,
    kTagMeteringMode = 37383,
    kTagWhiteBalance = 37384,
    kTagFlash = 37385,
    kTagFocalLength = 37386,
    kTagUserComment = 37510,
    kTagExifImageWidth = 40962,
    kTagExifImageHeight = 40963,
    kTagInteropDir = 40965,
    kTagFocalPlaneXRes = 41486,
    kTagFocalPlaneYRes = 41487,
    kTagFocalPlaneUnits = 41488,
};

// A hostile block links directories to each other in circles or fans one directory out into
// thousands of sub-directory tags; each directory is read once, and only so many of them.
constexpr size_t kMaxDirectories = 32;
constexpr int kMaxDepth = 8;

// A unit code as a factor to inches: 2 inch, 3 centimetre, 4 millimetre, 5 micrometre. The
// exact floats the information panel has always shown. Code 1 (no unit) and others: none.
bool UnitToInches(int32_t code, float& factor) {
    switch (code) {
        case 2:
            factor = std::bit_cast<float>(0x3F800000u);
            return true;
        case 3:
            factor = std::bit_cast<float>(0x3EC99326u);
            return true;
        case 4:
            factor = std::bit_cast<float>(0x3D214285u);
            return true;
        case 5:
            factor = std::bit_cast<float>(0x3825214Du);
            return true;
        default:
            return false;
    }
}

// A hostile rational of 2^31 / 1 or a NaN must not reach an integer field as undefined
// behaviour; values are clamped to the field's range.
int32_t ToInt(double v) {
    if (std::isnan(v)) return 0;
    if (v >= double(std::numeric_limits<int32_t>::max()))
        return std::numeric_limits<int32_t>::max();
    if (v <= double(std::numeric_limits<int32_t>::min()))
        return std::numeric_limits<int32_t>::min();
    return static_cast<int32_t>(v);
}
uint32_t ToUnsigned(double v) {
    if (!(v > 0)) return 0;
    if (v >= double(std::numeric_limits<uint32_t>::max()))
        return std::numeric_limits<uint32_t>::max();
    return static_cast<uint32_t>(v);
}
float ToFloat(double v) {
    constexpr double kMax = std::numeric_limits<float>::max();
    if (v > kMax) return std::numeric_limits<float>::infinity();
    if (v < -kMax) return -std::numeric_limits<float>::infinity();
    return static_cast<float>(v);
}

// Copies text of at most `cap - 1` characters from `count` bytes, stopping at a NUL; the rest
// of the field is cleared, so a longer earlier value leaves nothing behind.
template <size_t N>
void CopyText(char (&field)[N], const uint8_t* text, uint64_t count) {
    std::memset(field, 0, N);
    for (size_t i = 0; i + 1 < N && i < count && text[i] != 0; ++i) field[i] = char(text[i]);
}

}  // namespace

// The block a directory walk works in: the TIFF header at `base`, `length` bytes in all.
struct CJPEGMetaData::ExifWalk {
    const uint8_t* base;
    uint32_t length;
    std::vector<uint32_t> visited;  // offsets of the directories read so far
};

CJPEGMetaData::CJPEGMetaData(ExifInfo* info) : pInfo(info) {
    if (pInfo) {
        std::memset(static_cast<void*>(pInfo), 0, sizeof(ExifInfo));
        pInfo->nFlashUsed = -1;
    }
}

bool CJPEGMetaData::Read(IXDibIO& source) {
    const int64_t start = source.Tell();
    const bool ok = ReadSections(source);
    source.Seek(start, 0);
    // The thumbnail pointed into a section that is gone with the pass.
    if (pInfo) pInfo->pThumbnail = nullptr;
    return ok;
}

bool CJPEGMetaData::ReadSections(IXDibIO& source) {
    uint8_t soi[2];
    if (!source.Read(soi, 2) || soi[0] != 0xFF || soi[1] != 0xD8) {
        sError = "Not a jpeg file";
        return false;
    }
    std::vector<uint8_t> data;
    uint32_t sections = 0;
    bool haveComment = false;
    for (;;) {
        if (sections >= kMaxSections) {
            sError = "Too many sections in jpg file";
            return false;
        }
        // The marker byte is whatever first isn't 0xFF: a missing 0xFF prefix is tolerated.
        uint8_t marker = 0xFF;
        for (int a = 0; a < kMaxPaddingReads; ++a) {
            if (!source.Read(&marker, 1)) {
                sError = "Premature end of file?";
                return false;
            }
            if (marker != 0xFF) break;
            if (a == kMaxPaddingReads - 1) {
                std::fputs("too many padding bytes\n", stderr);
                sError = "too many padding bytes!";
                return false;
            }
        }
        uint8_t lengthBytes[2];
        if (!source.Read(lengthBytes, 2)) {
            sError = "Premature end of file?";
            return false;
        }
        const uint32_t length = uint32_t(lengthBytes[0]) << 8 | lengthBytes[1];
        if (length < 2) {
            sError = "invalid marker";
            return false;
        }
        const uint32_t body = length - 2;
        const bool wanted =
            IsFrameMarker(marker) || marker == kApp1 || (marker == kCom && !haveComment);
        if (wanted) {
            try {
                data.resize(body);
            } catch (const std::bad_alloc&) {
                sError = "Could not allocate memory";
                return false;
            }
            if (body > 0 && !source.Read(data.data(), body)) {
                sError = "Premature end of file?";
                return false;
            }
        } else {
            // Sections whose content isn't used are stepped over, but must be there.
            if (source.GetSize() - source.Tell() < int64_t(body)) {
                sError = "Premature end of file?";
                return false;
            }
            source.Seek(body, 1);
        }

        switch (marker) {
            case kSos:
                return true;
            case kEoi:  // a stream of tables only
                std::fputs("No image in jpeg!\n", stderr);
                sError = "No image in jpeg!";
                return false;
            case kApp0:
                continue;  // dropped
            case kApp1:
                // Some scanner software uses APP1 for other things: only "Exif" is parsed.
                if (body < 4 || std::memcmp(data.data(), "Exif", 4) != 0) continue;
                ParseExifBlock(data.data(), body);
                break;
            case kCom:
                if (haveComment) continue;
                haveComment = true;
                // Writers often end the text with a NUL.
                sComment.assign(data.begin(), data.end());
                while (!sComment.empty() && sComment.back() == '\0') sComment.pop_back();
                break;
            default:
                if (IsFrameMarker(marker) && body >= 6) {
                    nFrameMarker = marker;
                    nFrameHeight = uint32_t(data[1]) << 8 | data[2];
                    nFrameWidth = uint32_t(data[3]) << 8 | data[4];
                    bFrameColour = data[5] == 3;
                }
                break;
        }
        ++sections;
    }
}

bool CJPEGMetaData::ParseExifBlock(const uint8_t* data, size_t size) {
    static constexpr uint8_t kHeader[6] = {'E', 'x', 'i', 'f', 0, 0};
    if (!data || size < sizeof(kHeader) || std::memcmp(data, kHeader, sizeof(kHeader)) != 0) {
        sError = "Incorrect Exif header";
        if (pInfo) pInfo->bIsExif = 0;
        return false;
    }
    return ParseTiffExif(data + sizeof(kHeader), size - sizeof(kHeader));
}

bool CJPEGMetaData::ParseTiffExif(const uint8_t* data, size_t size) {
    if (!pInfo) return false;
    pInfo->bIsExif = 0;
    nExifImageWidth = 0;
    if (!data || size < 2 || (std::memcmp(data, "II", 2) != 0 && std::memcmp(data, "MM", 2) != 0)) {
        sError = "Invalid Exif alignment marker.";
        return false;
    }
    nMotorolaOrder = data[0] == 'M';
    if (size < 8 || Get16(data + 2) != 42) {
        sError = "Invalid Exif start (1)";
        return false;
    }
    // Offsets are 32 bits wide; a block beyond 4 GiB can't be addressed by them anyway.
    ExifWalk walk{data, uint32_t(std::min<size_t>(size, 0xFFFFFFFFu)), {}};
    if (!ProcessExifDir(walk, Get32(data + 4), 0)) return false;
    if (pInfo->fFocalplaneXRes != 0) {
        pInfo->fCCDWidth =
            ToFloat(double(nExifImageWidth) * pInfo->fFocalplaneUnits / pInfo->fFocalplaneXRes);
    }
    pInfo->bIsExif = 1;
    return true;
}

uint16_t CJPEGMetaData::Get16(const uint8_t* p) const {
    return nMotorolaOrder ? uint16_t(p[0] << 8 | p[1]) : uint16_t(p[1] << 8 | p[0]);
}

uint32_t CJPEGMetaData::Get32(const uint8_t* p) const {
    return nMotorolaOrder
               ? uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]
               : uint32_t(p[3]) << 24 | uint32_t(p[2]) << 16 | uint32_t(p[1]) << 8 | p[0];
}

// The first value of an entry as a number; the caller made sure its bytes are there.
double CJPEGMetaData::ReadNumber(const uint8_t* value, uint32_t format) const {
    switch (format) {
        case kFmtByte:
        case kFmtUndefined:
        case kFmtAscii:
            return value[0];
        case kFmtSByte:
            return int8_t(value[0]);
        case kFmtShort:
            return Get16(value);
        case kFmtSShort:
            return int16_t(Get16(value));
        case kFmtLong:
            return Get32(value);
        case kFmtSLong:
            return int32_t(Get32(value));
        case kFmtRational: {
            const uint32_t den = Get32(value + 4);
            return den ? double(Get32(value)) / den : 0.0;
        }
        case kFmtSRational: {
            const int32_t den = int32_t(Get32(value + 4));
            return den ? double(int32_t(Get32(value))) / den : 0.0;
        }
        case kFmtFloat:
            return std::bit_cast<float>(Get32(value));
        case kFmtDouble: {
            const uint64_t a = Get32(value), b = Get32(value + 4);
            return std::bit_cast<double>(nMotorolaOrder ? a << 32 | b : b << 32 | a);
        }
        default:
            return 0.0;
    }
}

bool CJPEGMetaData::ProcessExifDir(ExifWalk& walk, uint32_t offset, int depth) {
    const uint32_t length = walk.length;
    // A directory offset that points at the block's last byte or beyond (first-directory
    // offsets of 0xFFFFFFF0 are a classic) must fail before the count is read.
    if (length < 2 || offset > length - 2) {
        sError = "Illegally sized directory";
        return false;
    }
    const uint8_t* dir = walk.base + offset;
    const uint32_t entries = Get16(dir);
    // A count of 65535 in a block of a few hundred bytes.
    if (uint64_t(offset) + 2 + uint64_t(entries) * 12 > length) {
        sError = "Illegally sized directory";
        return false;
    }
    walk.visited.push_back(offset);

    uint32_t thumbnailOffset = 0, thumbnailSize = 0;
    for (uint32_t i = 0; i < entries; ++i) {
        const uint8_t* entry = dir + 2 + 12 * size_t(i);
        const uint32_t tag = Get16(entry);
        const uint32_t format = Get16(entry + 2);
        const uint32_t count = Get32(entry + 4);
        if (format < 1 || format > 12) {
            sError = "Illegal format code in EXIF dir";
            return false;
        }
        // 2^32 values of 8 bytes: the product needs 64 bits.
        const uint64_t bytes = uint64_t(count) * kFormatBytes[format];
        const uint8_t* value = entry + 8;
        if (bytes > 4) {
            const uint32_t valueOffset = Get32(entry + 8);
            if (uint64_t(valueOffset) + bytes > length) {
                sError = "Illegal pointer offset value in EXIF.";
                return false;
            }
            value = walk.base + valueOffset;
        }
        if (count == 0) continue;  // no value to read

        if (tag == kTagExifDir || tag == kTagInteropDir) {
            const uint32_t sub = ToUnsigned(ReadNumber(value, format));
            if (sub <= 8) continue;
            if (sub >= length) {
                sError = "Illegal subdirectory link";
                return false;
            }
            const bool seen =
                std::find(walk.visited.begin(), walk.visited.end(), sub) != walk.visited.end();
            if (seen || depth >= kMaxDepth || walk.visited.size() >= kMaxDirectories) continue;
            if (!ProcessExifDir(walk, sub, depth + 1)) return false;
            continue;
        }
        if (tag == kTagThumbnailOffset) thumbnailOffset = ToUnsigned(ReadNumber(value, format));
        if (tag == kTagThumbnailLength) thumbnailSize = ToUnsigned(ReadNumber(value, format));
        ProcessTag(tag, format, value, bytes);
    }

    // The link to a next directory (the thumbnail's, after the first). A fault behind it
    // leaves what was read so far standing.
    const uint64_t linkAt = uint64_t(offset) + 2 + uint64_t(entries) * 12;
    if (linkAt + 4 <= length) {
        const uint32_t next = Get32(walk.base + linkAt);
        if (next != 0) {
            const bool seen =
                std::find(walk.visited.begin(), walk.visited.end(), next) != walk.visited.end();
            if (next >= length) {
                sError = "Illegal subdirectory link";
            } else if (!seen && depth < kMaxDepth && walk.visited.size() < kMaxDirectories) {
                ProcessExifDir(walk, next, depth + 1);
            }
        }
    }

    if (thumbnailOffset && thumbnailSize && uint64_t(thumbnailOffset) + thumbnailSize <= length) {
        pInfo->pThumbnail = walk.base + thumbnailOffset;
        pInfo->nThumbnailSize = thumbnailSize;
    }
    return true;
}

void CJPEGMetaData::ProcessTag(uint32_t tag, uint32_t format, const uint8_t* value,
                               uint64_t valueBytes) {
    ExifInfo& info = *pInfo;
    // Text fields read the value's bytes; numbers its first value.
    const uint64_t textBytes =
        format == kFmtAscii || format == kFmtUndefined || format == kFmtByte || format == kFmtSByte
            ? valueBytes
            : 0;
    switch (tag) {
        case kTagMake:
            CopyText(info.szCameraMake, value, textBytes);
            break;
        case kTagModel:
            CopyText(info.szCameraModel, value, textBytes);
            break;
        case kTagSoftware:
            CopyText(info.szSoftware, value, textBytes);
            break;
        case kTagExifVersion:
            CopyText(info.szVersion, value, textBytes);
            break;
        case kTagDateTimeOriginal:
            CopyText(info.szDateTime, value, textBytes);
            break;
        case kTagUserComment: {
            // An 8-byte character code may lead: "ASCII" and up to five NULs or blanks.
            const uint8_t* text = value;
            uint64_t n = textBytes;
            if (n >= 5 && std::memcmp(text, "ASCII", 5) == 0) {
                text += 5, n -= 5;
                for (int k = 0; k < 5 && n > 0 && (*text == 0 || *text == ' '); ++k) ++text, --n;
            }
            uint64_t end = 0;
            while (end < n && text[end] != 0) ++end;
            // Some cameras pad the comment with blanks.
            while (end > 0 && text[end - 1] == ' ') --end;
            CopyText(info.szComments, text, end);
            break;
        }
        case kTagOrientation: {
            const int32_t orientation = ToInt(ReadNumber(value, format));
            if (orientation < 1 || orientation > 8) {
                sError = "Undefined rotation value";
                info.nOrientation = 0;
            } else {
                info.nOrientation = orientation;
            }
            break;
        }
        case kTagFlash:
            info.nFlashUsed = (ToInt(ReadNumber(value, format)) & 7) ? 1 : 0;
            break;
        case kTagFocalLength:
            info.fFocalLength = ToFloat(ReadNumber(value, format));
            break;
        case kTagExposureTime:
            // The plain exposure time wins over one derived from the shutter speed.
            info.fExposureTime = ToFloat(ReadNumber(value, format));
            break;
        case kTagShutterSpeed:
            // An APEX value v: 1 / 2^v seconds.
            if (info.fExposureTime == 0)
                info.fExposureTime = ToFloat(1.0 / std::exp2(ReadNumber(value, format)));
            break;
        case kTagFNumber:
            info.fApertureFNumber = ToFloat(ReadNumber(value, format));
            break;
        case kTagAperture:
        case kTagMaxAperture:
            // APEX aperture v: an f-number of 2^(v / 2), only when no f-number was given.
            if (info.fApertureFNumber == 0)
                info.fApertureFNumber = ToFloat(std::exp2(ReadNumber(value, format) / 2));
            break;
        case kTagSubjectDistance:
            info.fDistance = ToFloat(ReadNumber(value, format));
            break;
        case kTagExposureBias:
            info.fExposureBias = ToFloat(ReadNumber(value, format));
            break;
        case kTagBrightness:
            info.fBrightness = ToFloat(ReadNumber(value, format));
            break;
        case kTagWhiteBalance:
            info.nWhitebalance = ToInt(ReadNumber(value, format));
            break;
        case kTagMeteringMode:
            info.nMeteringMode = ToInt(ReadNumber(value, format));
            break;
        case kTagExposureProgram:
            info.nExposureProgram = ToInt(ReadNumber(value, format));
            break;
        case kTagIsoEquivalent: {
            // Some cameras store the ISO value divided by 200.
            int32_t iso = ToInt(ReadNumber(value, format));
            if (iso < 50) iso = ToInt(double(iso) * 200);
            info.nISOequivalent = iso;
            break;
        }
        case kTagCompressionLevel:
            info.nCompressionLevel = ToInt(ReadNumber(value, format));
            break;
        case kTagExifImageWidth:
        case kTagExifImageHeight: {
            // The larger side, so that a picture turned to portrait keeps its sensor width.
            const uint32_t side = ToUnsigned(ReadNumber(value, format));
            if (side > nExifImageWidth) nExifImageWidth = side;
            break;
        }
        case kTagFocalPlaneXRes:
            info.fFocalplaneXRes = ToFloat(ReadNumber(value, format));
            break;
        case kTagFocalPlaneYRes:
            info.fFocalplaneYRes = ToFloat(ReadNumber(value, format));
            break;
        case kTagFocalPlaneUnits:
            UnitToInches(ToInt(ReadNumber(value, format)), info.fFocalplaneUnits);
            break;
        case kTagXResolution:
            info.fXResolution = ToFloat(ReadNumber(value, format));
            break;
        case kTagYResolution:
            info.fYResolution = ToFloat(ReadNumber(value, format));
            break;
        case kTagResolutionUnit:
            UnitToInches(ToInt(ReadNumber(value, format)), info.fResolutionUnit);
            break;
        default:
            break;
    }
}
