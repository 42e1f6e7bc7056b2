// The JPEG XR writer, alone in its file: jxrlib's headers define min, max and other macros.
#include "bridge_writers.h"

#include <JXRGlue.h>

namespace bridgewrite {

Bytes WriteJxr(uint32_t width, uint32_t height, JxrFormat format, const Bytes& pixels) {
    static const struct {
        const PKPixelFormatGUID* guid;
        uint32_t bytes;
        COLORFORMAT colour;
    } kFormats[] = {{&GUID_PKPixelFormat24bppBGR, 3, YUV_444},
                    {&GUID_PKPixelFormat32bppBGRA, 4, YUV_444},
                    {&GUID_PKPixelFormat8bppGray, 1, Y_ONLY},
                    {&GUID_PKPixelFormat48bppRGB, 6, YUV_444}};
    const auto& f = kFormats[int(format)];
    if (pixels.size() < size_t(width) * height * f.bytes) Die("JPEG XR pixels too few");
    CWMIStrCodecParam params{};
    params.cfColorFormat = f.colour;
    params.uAlphaMode = format == JxrFormat::kBgra32 ? 2 : 0;
    params.bdBitDepth = BD_LONG;
    params.bfBitstreamFormat = FREQUENCY;
    params.bProgressiveMode = 1;
    params.olOverlap = OL_ONE;
    params.sbSubband = SB_ALL;
    params.uiDefaultQPIndex = 1;  // lossless
    Bytes copy = pixels;          // the encoder takes a non-const buffer
    return ThroughMemoryFile([&](const char* path) {
        WMPStream* stream = nullptr;
        PKImageEncode* encoder = nullptr;
        if (CreateWS_File(&stream, path, "wb") != WMP_errSuccess ||
            PKImageEncode_Create_WMP(&encoder) != WMP_errSuccess ||
            encoder->Initialize(encoder, stream, &params, sizeof params) != WMP_errSuccess ||
            encoder->SetPixelFormat(encoder, *f.guid) != WMP_errSuccess ||
            encoder->SetSize(encoder, I32(width), I32(height)) != WMP_errSuccess ||
            encoder->SetResolution(encoder, 96, 96) != WMP_errSuccess ||
            encoder->WritePixels(encoder, height, copy.data(), width * f.bytes) != WMP_errSuccess)
            Die("JPEG XR encoder");
        encoder->Release(&encoder);  // closes the stream too
    });
}

}  // namespace bridgewrite
