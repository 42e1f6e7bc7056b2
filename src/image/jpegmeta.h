// The JPEG metadata pass: walks a JPEG's sections up to the first scan, keeps the first
// comment, and parses an EXIF block into an ExifInfo. The EXIF parser also serves containers
// that carry an EXIF block of their own (WebP, AVIF, HEIF, JPEG XL).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "image/exifinfo.h"

class IXDibIO;

class CJPEGMetaData {
public:
    // Fills `info`, which must outlive the collector. The record is zeroed as a whole first,
    // nFlashUsed then starting at -1.
    explicit CJPEGMetaData(ExifInfo* info);

    // The pass over a JPEG stream. The position is noted and restored. True when the sections
    // up to the first scan were read; bIsExif tells whether an EXIF block parsed.
    bool Read(IXDibIO& source);

    // An EXIF block as it stands in APP1: "Exif", a zero u16, then the TIFF header.
    bool ParseExifBlock(const uint8_t* data, size_t size);
    // A bare TIFF-structured EXIF block (byte-order mark first), as other containers store it.
    bool ParseTiffExif(const uint8_t* data, size_t size);

    ExifInfo* GetInfo() const { return pInfo; }
    // The text of the last fault, empty when there was none.
    const std::string& GetError() const { return sError; }
    // The first comment (COM section) of the file, empty when there was none.
    const std::string& GetComment() const { return sComment; }

private:
    struct ExifWalk;
    // The sections from SOI up to the first scan; Read restores the position around it.
    bool ReadSections(IXDibIO& source);
    // One directory at `offset` inside the TIFF-structured block `base`, then the
    // directories it links to. False on a fault in the directory or its sub-directories.
    bool ProcessExifDir(ExifWalk& walk, uint32_t offset, int depth);
    // One entry's value into the record; `valueBytes` of it lie at `value`.
    void ProcessTag(uint32_t tag, uint32_t format, const uint8_t* value, uint64_t valueBytes);
    uint16_t Get16(const uint8_t* p) const;
    uint32_t Get32(const uint8_t* p) const;
    double ReadNumber(const uint8_t* value, uint32_t format) const;

    ExifInfo* pInfo;
    std::string sError;
    std::string sComment;
    int nMotorolaOrder = 0;
    uint32_t nExifImageWidth = 0;
    // The first frame header: its marker, size and whether it has three components.
    uint32_t nFrameMarker = 0;
    uint32_t nFrameWidth = 0;
    uint32_t nFrameHeight = 0;
    bool bFrameColour = false;
};
