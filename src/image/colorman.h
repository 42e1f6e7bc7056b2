// Colour management: turns CMYK pixels (JPEG, PSD, TIFF separations) into screen colours
// through real profiles when the profile files are there. Other pictures never come here.
#pragma once

#include <cstdint>
#include <string>

class XColorMan {
public:
    XColorMan() = default;
    XColorMan(const XColorMan&) = delete;
    XColorMan& operator=(const XColorMan&) = delete;
    ~XColorMan() { Close(); }

    // Opens both profiles and the transform from the first to the second. False when a
    // transform already exists or anything fails; what was made so far is then closed.
    bool Open(const std::string& cmykPath, const std::string& srgbPath);
    void Close();
    bool IsOpen() const { return hTransform != nullptr; }

    // Converts `count` CMYK pixels, stored inverted as Adobe writes them (4 bytes each), to
    // B, G, R at `dst`, stepping `dstBytes` (3 or 4) per pixel; a fourth byte is left alone.
    void TranslateCmykRow(const uint8_t* cmyk, uint8_t* dst, uint32_t count,
                          uint32_t dstBytes) const;

    void* hProfileCmyk = nullptr;
    void* hProfileRgb = nullptr;
    void* hTransform = nullptr;
};

// The most recently opened colour manager of the process, or null.
extern XColorMan* pLastColorMan;

// The profile files in the program's folder.
inline constexpr const char* kCmykProfileName = "icm/cmyk.icc";
inline constexpr const char* kSrgbProfileName = "icm/srgb.icm";
