// The JPEG XR writer, alone in its file: jxrlib's headers define min, max and other macros.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bridge_writers.h"

#include <JXRGlue.h>
#undef min
#undef max

namespace bridgewrite {

namespace {

struct Out {
    Bytes bytes;
    size_t pos = 0;
};

Out& OutOf(WMPStream* stream) {
    return *static_cast<Out*>(stream->state.pvObj);
}

ERR OutRead(WMPStream* stream, void* buffer, size_t count) {
    Out& out = OutOf(stream);
    if (out.pos + count > out.bytes.size()) return WMP_errFileIO;
    std::memcpy(buffer, out.bytes.data() + out.pos, count);
    out.pos += count;
    return WMP_errSuccess;
}

ERR OutWrite(WMPStream* stream, const void* buffer, size_t count) {
    Out& out = OutOf(stream);
    if (out.pos + count > out.bytes.size()) out.bytes.resize(out.pos + count);
    std::memcpy(out.bytes.data() + out.pos, buffer, count);
    out.pos += count;
    return WMP_errSuccess;
}

ERR OutSetPos(WMPStream* stream, size_t position) {
    OutOf(stream).pos = position;
    return WMP_errSuccess;
}

ERR OutGetPos(WMPStream* stream, size_t* position) {
    *position = OutOf(stream).pos;
    return WMP_errSuccess;
}

Bool OutEnd(WMPStream* stream) {
    return OutOf(stream).pos >= OutOf(stream).bytes.size();
}

ERR OutClose(WMPStream**) {
    return WMP_errSuccess;
}

void Check(ERR err, const char* what) {
    if (err != WMP_errSuccess) {
        std::fprintf(stderr, "fixture writer: %s failed (%ld)\n", what, long(err));
        std::abort();
    }
}

}  // namespace

Bytes WriteJxr(uint32_t width, uint32_t height, JxrFormat format, const Bytes& pixels) {
    Out out;
    WMPStream stream{};
    stream.state.pvObj = &out;
    stream.Read = OutRead;
    stream.Write = OutWrite;
    stream.SetPos = OutSetPos;
    stream.GetPos = OutGetPos;
    stream.EOS = OutEnd;
    stream.Close = OutClose;

    const PKPixelFormatGUID* guid = &GUID_PKPixelFormat24bppBGR;
    uint32_t pixelBytes = 3;
    CWMIStrCodecParam params{};
    params.cfColorFormat = YUV_444;
    switch (format) {
        case JxrFormat::kBgr24:
            break;
        case JxrFormat::kBgra32:
            guid = &GUID_PKPixelFormat32bppBGRA, pixelBytes = 4;
            params.uAlphaMode = 2;
            break;
        case JxrFormat::kGrey8:
            guid = &GUID_PKPixelFormat8bppGray, pixelBytes = 1;
            params.cfColorFormat = Y_ONLY;
            break;
        case JxrFormat::kRgb48:
            guid = &GUID_PKPixelFormat48bppRGB, pixelBytes = 6;
            break;
    }
    if (pixels.size() < size_t(width) * height * pixelBytes) {
        std::fprintf(stderr, "fixture writer: JPEG XR pixels too few\n");
        std::abort();
    }
    params.bdBitDepth = BD_LONG;
    params.bfBitstreamFormat = FREQUENCY;
    params.bProgressiveMode = 1;
    params.olOverlap = OL_ONE;
    params.sbSubband = SB_ALL;
    params.uiDefaultQPIndex = 1;  // lossless

    PKImageEncode* encoder = nullptr;
    Check(PKImageEncode_Create_WMP(&encoder), "PKImageEncode_Create_WMP");
    Check(encoder->Initialize(encoder, &stream, &params, sizeof params), "Initialize");
    Check(encoder->SetPixelFormat(encoder, *guid), "SetPixelFormat");
    Check(encoder->SetSize(encoder, I32(width), I32(height)), "SetSize");
    Check(encoder->SetResolution(encoder, 96, 96), "SetResolution");
    Bytes copy = pixels;  // the encoder takes a non-const buffer
    Check(encoder->WritePixels(encoder, height, copy.data(), width * pixelBytes), "WritePixels");
    encoder->Release(&encoder);
    return std::move(out.bytes);
}

}  // namespace bridgewrite
