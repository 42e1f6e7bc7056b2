// Facts kept with a stored picture.
#pragma once

#include <cstdint>

#include "image/exifinfo.h"

struct ImageFileInfo {
    uint32_t nFileSize = 0;   // size of the source in bytes
    uint64_t ftCreation = 0;  // file times, only when the source is a file
    uint64_t ftLastWrite = 0;
    ExifInfo exif{};             // copied when the decoder found valid EXIF data
    uint32_t nDecodedWidth = 0;  // frame 0 as stored
    uint32_t nDecodedHeight = 0;
    uint32_t nFullWidth = 0;  // the file's size, also for a reduced decode
    uint32_t nFullHeight = 0;
};
