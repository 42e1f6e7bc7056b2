#include "modern_fixtures.h"

#include <avif/avif.h>
#include <jxl/encode.h>
#include <libheif/heif.h>
#include <webp/encode.h>
#include <webp/mux.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "imgwrite/bytes.h"

// The HEVC encoder behind libheif (x265) never frees a few blocks of its frame encoders; the
// leak checker of sanitizer builds is told so, for every program that writes HEIF fixtures.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libx265.so\n";
}

namespace modernfix {

namespace {

// The picture as packed 8-bit RGB or RGBA rows.
Bytes Packed(const Picture& p, bool alpha) {
    Bytes out;
    for (const Rgba& c : p.pixels) {
        out.insert(out.end(), {c.r, c.g, c.b});
        if (alpha) out.push_back(c.a);
    }
    return out;
}

template <auto Fn>
struct Deleter {
    template <class T>
    void operator()(T* p) const {
        Fn(p);
    }
};
template <class T, auto Fn>
using Owned = std::unique_ptr<T, Deleter<Fn>>;

// Frames through the animation encoder, which writes a single frame as a still file.
Bytes EncodeWebpFrames(const std::vector<WebpFrame>& frames, bool lossless, bool alpha,
                       uint32_t bgcolor) {
    WebPAnimEncoderOptions options;
    WebPConfig config;
    if (frames.empty() || !WebPAnimEncoderOptionsInit(&options) || !WebPConfigInit(&config))
        return {};
    options.anim_params.bgcolor = bgcolor;
    const int w = int(frames[0].picture.width), h = int(frames[0].picture.height);
    Owned<WebPAnimEncoder, WebPAnimEncoderDelete> enc(WebPAnimEncoderNew(w, h, &options));
    config.lossless = lossless ? 1 : 0;
    config.exact = 1;  // lossless keeps every value, also the colour under alpha 0
    config.quality = lossless ? 50 : 90;
    config.method = 0;
    int timestamp = 0;
    for (const WebpFrame& frame : frames) {
        const Bytes packed = Packed(frame.picture, alpha);
        WebPPicture pic;
        if (!enc || !WebPPictureInit(&pic)) return {};
        pic.width = w, pic.height = h, pic.use_argb = config.lossless;
        const bool added = (alpha ? WebPPictureImportRGBA(&pic, packed.data(), w * 4)
                                  : WebPPictureImportRGB(&pic, packed.data(), w * 3)) &&
                           WebPAnimEncoderAdd(enc.get(), &pic, timestamp, &config);
        WebPPictureFree(&pic);
        if (!added) return {};
        timestamp += frame.durationMs;
    }
    WebPData data = {};
    if (!WebPAnimEncoderAdd(enc.get(), nullptr, timestamp, nullptr) ||
        !WebPAnimEncoderAssemble(enc.get(), &data))
        return {};
    Bytes out(data.bytes, data.bytes + data.size);
    WebPDataClear(&data);
    return out;
}

// Fails the writer unless a libheif call succeeded.
#define HEIF_OK(call)                          \
    if ((call).code != heif_error_Ok) return { \
        }

}  // namespace

Bytes TiffExif(uint16_t orientation, const std::string& make) {
    using namespace imgwrite::detail;
    Bytes b = {'I', 'I', 0x2A, 0, 8, 0, 0, 0, 2, 0};  // IFD0 at 8, of two entries
    PutLe16(b, 0x010F), PutLe16(b, 2), PutLe32(b, uint32_t(make.size() + 1)), PutLe32(b, 38);
    PutLe16(b, 0x0112), PutLe16(b, 3), PutLe32(b, 1), PutLe32(b, orientation);
    PutLe32(b, 0);
    b.insert(b.end(), make.c_str(), make.c_str() + make.size() + 1);  // at 38, past IFD0
    return b;
}

Bytes EncodeWebp(const Picture& picture, const WebpOptions& options) {
    Bytes webp = EncodeWebpFrames({{picture}}, options.lossless, options.alpha, 0xFFFFFFFF);
    if (options.exif.empty() || webp.empty()) return webp;
    const WebPData image = {webp.data(), webp.size()},
                   chunk = {options.exif.data(), options.exif.size()};
    Owned<WebPMux, WebPMuxDelete> mux(WebPMuxCreate(&image, 1));
    WebPData out = {};
    if (!mux || WebPMuxSetChunk(mux.get(), "EXIF", &chunk, 1) != WEBP_MUX_OK ||
        WebPMuxAssemble(mux.get(), &out) != WEBP_MUX_OK)
        return {};
    Bytes result(out.bytes, out.bytes + out.size);
    WebPDataClear(&out);
    return result;
}

Bytes EncodeWebpAnimation(const std::vector<WebpFrame>& frames, uint32_t bgcolor) {
    return EncodeWebpFrames(frames, true, true, bgcolor);
}

Bytes EncodeAvif(const Picture& picture, const AvifOptions& options) {
    if (!avifCodecName(AVIF_CODEC_CHOICE_AUTO, AVIF_CODEC_FLAG_CAN_ENCODE)) return {};
    Owned<avifImage, avifImageDestroy> image(
        avifImageCreate(picture.width, picture.height, 8,
                        options.lossless ? AVIF_PIXEL_FORMAT_YUV444 : AVIF_PIXEL_FORMAT_YUV420));
    Owned<avifEncoder, avifEncoderDestroy> encoder(avifEncoderCreate());
    if (!image || !encoder) return {};
    image->yuvRange = AVIF_RANGE_FULL;
    if (options.lossless) image->matrixCoefficients = AVIF_MATRIX_COEFFICIENTS_IDENTITY;
    const Bytes packed = Packed(picture, options.alpha);
    avifRGBImage rgb;
    avifRGBImageSetDefaults(&rgb, image.get());
    rgb.format = options.alpha ? AVIF_RGB_FORMAT_RGBA : AVIF_RGB_FORMAT_RGB;
    rgb.depth = 8;
    rgb.pixels = const_cast<uint8_t*>(packed.data());
    rgb.rowBytes = uint32_t(packed.size() / picture.height);
    if (avifImageRGBToYUV(image.get(), &rgb) != AVIF_RESULT_OK) return {};
    if (!options.exif.empty())
        avifImageSetMetadataExif(image.get(), options.exif.data(), options.exif.size());
    // The EXIF block may have set irot/imir from its orientation: the options decide alone.
    image->transformFlags = (options.irot >= 0 ? AVIF_TRANSFORM_IROT : 0) |
                            (options.imir >= 0 ? AVIF_TRANSFORM_IMIR : 0);
    image->irot.angle = uint8_t(options.irot);
    image->imir.mode = uint8_t(options.imir);

    encoder->speed = 10;
    encoder->minQuantizer = encoder->maxQuantizer = options.lossless ? 0 : 20;
    encoder->minQuantizerAlpha = encoder->maxQuantizerAlpha = options.lossless ? 0 : 10;
    for (int i = 0; i < (options.sequence ? 2 : 1); ++i)
        if (avifEncoderAddImage(encoder.get(), image.get(), 1,
                                options.sequence ? AVIF_ADD_IMAGE_FLAG_NONE
                                                 : AVIF_ADD_IMAGE_FLAG_SINGLE) != AVIF_RESULT_OK)
            return {};
    avifRWData out = AVIF_DATA_EMPTY;
    if (avifEncoderFinish(encoder.get(), &out) != AVIF_RESULT_OK) return {};
    Bytes result(out.data, out.data + out.size);
    avifRWDataFree(&out);
    return result;
}

Bytes EncodeHeif(const Picture& picture, const HeifOptions& options) {
    if (!heif_have_encoder_for_format(heif_compression_HEVC)) return {};
    Owned<heif_context, heif_context_free> ctx(heif_context_alloc());
    heif_image* rawImage = nullptr;
    HEIF_OK(heif_image_create(
        int(picture.width), int(picture.height), heif_colorspace_RGB,
        options.alpha ? heif_chroma_interleaved_RGBA : heif_chroma_interleaved_RGB, &rawImage));
    Owned<heif_image, heif_image_release> image(rawImage);
    HEIF_OK(heif_image_add_plane(image.get(), heif_channel_interleaved, int(picture.width),
                                 int(picture.height), 8));
    int stride = 0;
    uint8_t* plane = heif_image_get_plane(image.get(), heif_channel_interleaved, &stride);
    const Bytes packed = Packed(picture, options.alpha);
    const size_t rowBytes = packed.size() / picture.height;
    for (uint32_t y = 0; y < picture.height; ++y)
        std::memcpy(plane + size_t(y) * stride, packed.data() + y * rowBytes, rowBytes);

    heif_encoder* rawEncoder = nullptr;
    HEIF_OK(heif_context_get_encoder_for_format(ctx.get(), heif_compression_HEVC, &rawEncoder));
    Owned<heif_encoder, heif_encoder_release> encoder(rawEncoder);
    heif_encoder_set_lossy_quality(encoder.get(), 95);
    heif_encoder_set_parameter(encoder.get(), "preset", "ultrafast");
    heif_encoder_set_parameter(encoder.get(), "chroma", "444");
    Owned<heif_encoding_options, heif_encoding_options_free> encoding(
        heif_encoding_options_alloc());
    encoding->image_orientation = heif_orientation(options.orientation);
    heif_image_handle* rawHandle = nullptr;
    HEIF_OK(heif_context_encode_image(ctx.get(), image.get(), encoder.get(), encoding.get(),
                                      &rawHandle));
    Owned<heif_image_handle, heif_image_handle_release> handle(rawHandle);
    if (!options.exif.empty()) {
        HEIF_OK(heif_context_add_exif_metadata(ctx.get(), handle.get(), options.exif.data(),
                                               int(options.exif.size())));
    }
    Bytes out;
    heif_writer writer = {1, [](heif_context*, const void* data, size_t size, void* to) {
                              const auto* p = static_cast<const uint8_t*>(data);
                              static_cast<Bytes*>(to)->insert(static_cast<Bytes*>(to)->end(), p,
                                                              p + size);
                              return heif_error{heif_error_Ok, heif_suberror_Unspecified, "ok"};
                          }};
    HEIF_OK(heif_context_write(ctx.get(), &writer, &out));
    return out;
}

Bytes EncodeJxl(const Picture& picture, const JxlOptions& options) {
    Owned<JxlEncoder, JxlEncoderDestroy> enc(JxlEncoderCreate(nullptr));
    if (!enc) return {};
    JxlBasicInfo info;
    JxlEncoderInitBasicInfo(&info);
    info.xsize = picture.width;
    info.ysize = picture.height;
    info.bits_per_sample = 8;
    info.num_color_channels = 3;
    info.uses_original_profile = options.lossless ? JXL_TRUE : JXL_FALSE;
    info.orientation = JxlOrientation(options.orientation);
    if (options.alpha) info.num_extra_channels = 1, info.alpha_bits = 8;
    if (!options.exif.empty()) JxlEncoderUseContainer(enc.get(), JXL_TRUE);
    JxlColorEncoding colour;
    JxlColorEncodingSetToSRGB(&colour, JXL_FALSE);
    if (JxlEncoderSetBasicInfo(enc.get(), &info) != JXL_ENC_SUCCESS ||
        JxlEncoderSetColorEncoding(enc.get(), &colour) != JXL_ENC_SUCCESS)
        return {};
    if (!options.exif.empty()) {
        // The box starts with the offset to the TIFF header within the block.
        const Bytes tiff = {'I', 'I', 0x2A, 0};
        const auto at =
            std::search(options.exif.begin(), options.exif.end(), tiff.begin(), tiff.end());
        Bytes box = {0, 0, 0, uint8_t(at - options.exif.begin())};
        box.insert(box.end(), options.exif.begin(), options.exif.end());
        if (JxlEncoderUseBoxes(enc.get()) != JXL_ENC_SUCCESS ||
            JxlEncoderAddBox(enc.get(), "Exif", box.data(), box.size(), JXL_FALSE) !=
                JXL_ENC_SUCCESS)
            return {};
        JxlEncoderCloseBoxes(enc.get());
    }
    JxlEncoderFrameSettings* settings = JxlEncoderFrameSettingsCreate(enc.get(), nullptr);
    JxlEncoderFrameSettingsSetOption(settings, JXL_ENC_FRAME_SETTING_EFFORT, 1);
    if (options.lossless) JxlEncoderSetFrameLossless(settings, JXL_TRUE);
    const JxlPixelFormat format = {options.alpha ? 4u : 3u, JXL_TYPE_UINT8, JXL_NATIVE_ENDIAN, 0};
    const Bytes packed = Packed(picture, options.alpha);
    if (JxlEncoderAddImageFrame(settings, &format, packed.data(), packed.size()) != JXL_ENC_SUCCESS)
        return {};
    JxlEncoderCloseInput(enc.get());
    Bytes out(packed.size() * 2 + 4096);  // more than any of our pictures takes
    uint8_t* next = out.data();
    size_t avail = out.size();
    if (JxlEncoderProcessOutput(enc.get(), &next, &avail) != JXL_ENC_SUCCESS) return {};
    out.resize(size_t(next - out.data()));
    return out;
}

}  // namespace modernfix
