// The EXIF facts of a picture: a fixed record, filled by the JPEG metadata reader, copied whole
// into the cache's facts about a picture and read by the information panel.
#pragma once

#include <cstdint>

struct ExifInfo {
    char szVersion[5];
    char szCameraMake[32];
    char szCameraModel[40];
    char szDateTime[20];
    char szSoftware[256];
    int32_t nOrientation;  // 1..8; 0 when absent or undefined
    int32_t nFlashUsed;    // -1 before any flash tag
    float fFocalLength;
    float fExposureTime;
    float fApertureFNumber;
    float fDistance;
    float fCCDWidth;
    float fExposureBias;
    int32_t nWhitebalance;
    int32_t nMeteringMode;
    int32_t nExposureProgram;
    int32_t nISOequivalent;
    int32_t nCompressionLevel;
    float fFocalplaneXRes;
    float fFocalplaneYRes;
    float fFocalplaneUnits;  // factor to inches
    float fXResolution;
    float fYResolution;
    float fResolutionUnit;  // factor to inches
    float fBrightness;
    char szComments[200];
    const uint8_t* pThumbnail;  // inside the parsed block; valid only during parsing
    uint32_t nThumbnailSize;
    uint8_t bIsExif;  // the block parsed without error; 0: trust nothing here
};
