#include "image/colorman.h"

#include <lcms2.h>

#include <vector>

XColorMan* pLastColorMan = nullptr;

bool XColorMan::Open(const std::string& cmykPath, const std::string& srgbPath) {
    if (hTransform) return false;
    hProfileCmyk = cmsOpenProfileFromFile(cmykPath.c_str(), "r");
    hProfileRgb = hProfileCmyk ? cmsOpenProfileFromFile(srgbPath.c_str(), "r") : nullptr;
    if (hProfileRgb) {
        // Each transform is used by the one cache thread that owns it, so no cache lock is
        // needed; the per-call cache is switched off to keep calls independent.
        hTransform = cmsCreateTransform(hProfileCmyk, TYPE_CMYK_16, hProfileRgb, TYPE_BGR_16,
                                        INTENT_PERCEPTUAL, cmsFLAGS_NOCACHE);
    }
    if (!hTransform) {
        Close();
        return false;
    }
    pLastColorMan = this;
    return true;
}

void XColorMan::Close() {
    if (hTransform) cmsDeleteTransform(hTransform);
    if (hProfileRgb) cmsCloseProfile(hProfileRgb);
    if (hProfileCmyk) cmsCloseProfile(hProfileCmyk);
    hTransform = hProfileRgb = hProfileCmyk = nullptr;
    if (pLastColorMan == this) pLastColorMan = nullptr;
}

void XColorMan::TranslateCmykRow(const uint8_t* cmyk, uint8_t* dst, uint32_t count,
                                 uint32_t dstBytes) const {
    if (!hTransform || count == 0) return;
    // Stored values are inverted; ink amounts go to the transform as 16-bit values.
    std::vector<uint16_t> in(size_t(count) * 4);
    std::vector<uint16_t> out(size_t(count) * 3);
    for (size_t i = 0; i < in.size(); ++i) in[i] = uint16_t((255 - cmyk[i]) << 8);
    cmsDoTransform(hTransform, in.data(), out.data(), count);
    for (uint32_t i = 0; i < count; ++i, dst += dstBytes) {
        dst[0] = uint8_t(out[3 * i] >> 8);
        dst[1] = uint8_t(out[3 * i + 1] >> 8);
        dst[2] = uint8_t(out[3 * i + 2] >> 8);
    }
}
