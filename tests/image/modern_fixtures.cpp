#include "modern_fixtures.h"

#include <avif/avif.h>
#include <jxl/encode.h>
#include <libheif/heif.h>
#include <webp/encode.h>
#include <webp/mux.h>

#include <cstring>
#include <memory>

// The HEVC encoder behind libheif (x265) never frees a few blocks of its frame encoders; the
// leak checker of sanitizer builds is told so, for every program that writes HEIF fixtures.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libx265.so\n";
}

namespace modernfix {

namespace {

void PutLe16(Bytes& b, uint16_t v) {
    b.push_back(uint8_t(v)), b.push_back(uint8_t(v >> 8));
}
void PutLe32(Bytes& b, uint32_t v) {
    for (int i = 0; i < 4; ++i) b.push_back(uint8_t(v >> (8 * i)));
}

// The picture as packed 8-bit RGB or RGBA rows.
Bytes Packed(const Picture& p, bool alpha) {
    Bytes out;
    out.reserve(p.pixels.size() * (alpha ? 4 : 3));
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

}  // namespace

Bytes TiffExif(uint16_t orientation, const std::string& make) {
    const uint16_t entries = orientation ? 2 : 1;
    const uint32_t ifdEnd = 8 + 2 + 12u * entries + 4;
    Bytes b = {'I', 'I', 0x2A, 0};
    PutLe32(b, 8);
    PutLe16(b, entries);
    PutLe16(b, 0x010F), PutLe16(b, 2), PutLe32(b, uint32_t(make.size() + 1)), PutLe32(b, ifdEnd);
    if (orientation) PutLe16(b, 0x0112), PutLe16(b, 3), PutLe32(b, 1), PutLe32(b, orientation);
    PutLe32(b, 0);
    b.insert(b.end(), make.begin(), make.end());
    b.push_back(0);
    return b;
}

// ---- WebP ---------------------------------------------------------------------------------

namespace {

bool ImportPicture(WebPPicture& pic, const Picture& p, bool alpha, bool lossless) {
    if (!WebPPictureInit(&pic)) return false;
    pic.width = int(p.width), pic.height = int(p.height);
    pic.use_argb = lossless ? 1 : 0;
    const Bytes packed = Packed(p, alpha);
    return alpha ? WebPPictureImportRGBA(&pic, packed.data(), int(p.width * 4))
                 : WebPPictureImportRGB(&pic, packed.data(), int(p.width * 3));
}

Bytes WithExif(Bytes webp, const Bytes& exif) {
    if (exif.empty() || webp.empty()) return webp;
    const WebPData image = {webp.data(), webp.size()};
    std::unique_ptr<WebPMux, Deleter<WebPMuxDelete>> mux(WebPMuxCreate(&image, 1));
    if (!mux) return {};
    const WebPData chunk = {exif.data(), exif.size()};
    WebPData out = {};
    if (WebPMuxSetChunk(mux.get(), "EXIF", &chunk, 1) != WEBP_MUX_OK ||
        WebPMuxAssemble(mux.get(), &out) != WEBP_MUX_OK)
        return {};
    Bytes result(out.bytes, out.bytes + out.size);
    WebPDataClear(&out);
    return result;
}

}  // namespace

Bytes EncodeWebp(const Picture& picture, const WebpOptions& options) {
    WebPConfig config;
    if (!WebPConfigInit(&config)) return {};
    config.lossless = options.lossless ? 1 : 0;
    config.exact = 1;
    config.quality = options.lossless ? 50 : options.quality;
    config.method = 0;
    WebPPicture pic;
    if (!ImportPicture(pic, picture, options.alpha, options.lossless)) return {};
    WebPMemoryWriter writer;
    WebPMemoryWriterInit(&writer);
    pic.writer = WebPMemoryWrite;
    pic.custom_ptr = &writer;
    const bool ok = WebPEncode(&config, &pic);
    WebPPictureFree(&pic);
    Bytes out;
    if (ok) out.assign(writer.mem, writer.mem + writer.size);
    WebPMemoryWriterClear(&writer);
    return WithExif(std::move(out), options.exif);
}

Bytes EncodeWebpAnimation(const std::vector<WebpFrame>& frames, uint32_t bgcolor,
                          const Bytes& exif) {
    if (frames.empty()) return {};
    WebPAnimEncoderOptions options;
    if (!WebPAnimEncoderOptionsInit(&options)) return {};
    options.anim_params.bgcolor = bgcolor;
    options.anim_params.loop_count = 0;
    const Picture& first = frames.front().picture;
    std::unique_ptr<WebPAnimEncoder, Deleter<WebPAnimEncoderDelete>> enc(
        WebPAnimEncoderNew(int(first.width), int(first.height), &options));
    WebPConfig config;
    if (!enc || !WebPConfigInit(&config)) return {};
    config.lossless = 1;
    config.exact = 1;
    config.method = 0;
    int timestamp = 0;
    for (const WebpFrame& frame : frames) {
        WebPPicture pic;
        if (!ImportPicture(pic, frame.picture, true, true)) return {};
        const bool added = WebPAnimEncoderAdd(enc.get(), &pic, timestamp, &config);
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
    return WithExif(std::move(out), exif);
}

// ---- AVIF ---------------------------------------------------------------------------------

Bytes EncodeAvif(const Picture& picture, const AvifOptions& options) {
    if (!avifCodecName(AVIF_CODEC_CHOICE_AUTO, AVIF_CODEC_FLAG_CAN_ENCODE)) return {};
    const avifPixelFormat yuv =
        options.lossless ? AVIF_PIXEL_FORMAT_YUV444 : AVIF_PIXEL_FORMAT_YUV420;
    std::unique_ptr<avifImage, Deleter<avifImageDestroy>> image(
        avifImageCreate(picture.width, picture.height, 8, yuv));
    if (!image) return {};
    image->yuvRange = AVIF_RANGE_FULL;
    if (options.lossless) image->matrixCoefficients = AVIF_MATRIX_COEFFICIENTS_IDENTITY;
    Bytes packed = Packed(picture, true);
    avifRGBImage rgb;
    avifRGBImageSetDefaults(&rgb, image.get());
    rgb.format = AVIF_RGB_FORMAT_RGBA;
    rgb.depth = 8;
    rgb.pixels = packed.data();
    rgb.rowBytes = picture.width * 4;
    if (!options.alpha) {
        for (size_t i = 3; i < packed.size(); i += 4) packed[i] = 255;
    }
    if (avifImageRGBToYUV(image.get(), &rgb) != AVIF_RESULT_OK) return {};
    if (!options.alpha) avifImageFreePlanes(image.get(), AVIF_PLANES_A);
    if (!options.exif.empty())
        avifImageSetMetadataExif(image.get(), options.exif.data(), options.exif.size());
    // The EXIF block may have set irot/imir from its orientation: the options decide alone.
    image->transformFlags = 0;
    if (options.irot >= 0) {
        image->transformFlags |= AVIF_TRANSFORM_IROT;
        image->irot.angle = uint8_t(options.irot);
    }
    if (options.imir >= 0) {
        image->transformFlags |= AVIF_TRANSFORM_IMIR;
        image->imir.mode = uint8_t(options.imir);
    }

    std::unique_ptr<avifEncoder, Deleter<avifEncoderDestroy>> encoder(avifEncoderCreate());
    if (!encoder) return {};
    encoder->speed = 10;
    const int q = options.lossless ? AVIF_QUANTIZER_LOSSLESS : 20;
    encoder->minQuantizer = encoder->maxQuantizer = q;
    encoder->minQuantizerAlpha = encoder->maxQuantizerAlpha = options.lossless ? 0 : 10;
    const int frames = options.sequence ? 2 : 1;
    const uint32_t flags = options.sequence ? AVIF_ADD_IMAGE_FLAG_NONE : AVIF_ADD_IMAGE_FLAG_SINGLE;
    for (int i = 0; i < frames; ++i) {
        if (avifEncoderAddImage(encoder.get(), image.get(), 1, flags) != AVIF_RESULT_OK) return {};
    }
    avifRWData out = AVIF_DATA_EMPTY;
    if (avifEncoderFinish(encoder.get(), &out) != AVIF_RESULT_OK) return {};
    Bytes result(out.data, out.data + out.size);
    avifRWDataFree(&out);
    return result;
}

// ---- HEIF ---------------------------------------------------------------------------------

namespace {

heif_error WriteToBytes(heif_context*, const void* data, size_t size, void* userdata) {
    auto* out = static_cast<Bytes*>(userdata);
    const auto* p = static_cast<const uint8_t*>(data);
    out->insert(out->end(), p, p + size);
    return heif_error{heif_error_Ok, heif_suberror_Unspecified, "ok"};
}

}  // namespace

Bytes EncodeHeif(const Picture& picture, const HeifOptions& options) {
    if (!heif_have_encoder_for_format(heif_compression_HEVC)) return {};
    std::unique_ptr<heif_context, Deleter<heif_context_free>> ctx(heif_context_alloc());
    heif_image* raw = nullptr;
    const heif_chroma chroma =
        options.alpha ? heif_chroma_interleaved_RGBA : heif_chroma_interleaved_RGB;
    if (heif_image_create(int(picture.width), int(picture.height), heif_colorspace_RGB, chroma,
                          &raw)
            .code != heif_error_Ok)
        return {};
    std::unique_ptr<heif_image, Deleter<heif_image_release>> image(raw);
    if (heif_image_add_plane(image.get(), heif_channel_interleaved, int(picture.width),
                             int(picture.height), 8)
            .code != heif_error_Ok)
        return {};
    int stride = 0;
    uint8_t* plane = heif_image_get_plane(image.get(), heif_channel_interleaved, &stride);
    const Bytes packed = Packed(picture, options.alpha);
    const size_t rowBytes = size_t(picture.width) * (options.alpha ? 4 : 3);
    for (uint32_t y = 0; y < picture.height; ++y)
        std::memcpy(plane + size_t(y) * stride, packed.data() + y * rowBytes, rowBytes);

    heif_encoder* rawEncoder = nullptr;
    if (heif_context_get_encoder_for_format(ctx.get(), heif_compression_HEVC, &rawEncoder).code !=
        heif_error_Ok)
        return {};
    std::unique_ptr<heif_encoder, Deleter<heif_encoder_release>> encoder(rawEncoder);
    heif_encoder_set_lossy_quality(encoder.get(), options.quality);
    heif_encoder_set_parameter(encoder.get(), "preset", "ultrafast");
    heif_encoder_set_parameter(encoder.get(), "chroma", "444");
    std::unique_ptr<heif_encoding_options, Deleter<heif_encoding_options_free>> encoding(
        heif_encoding_options_alloc());
    encoding->image_orientation = heif_orientation(options.orientation);
    heif_image_handle* handle = nullptr;
    if (heif_context_encode_image(ctx.get(), image.get(), encoder.get(), encoding.get(), &handle)
            .code != heif_error_Ok)
        return {};
    std::unique_ptr<heif_image_handle, Deleter<heif_image_handle_release>> owned(handle);
    if (!options.exif.empty() &&
        heif_context_add_exif_metadata(ctx.get(), handle, options.exif.data(),
                                       int(options.exif.size()))
                .code != heif_error_Ok)
        return {};
    Bytes out;
    heif_writer writer = {1, WriteToBytes};
    if (heif_context_write(ctx.get(), &writer, &out).code != heif_error_Ok) return {};
    return out;
}

// ---- JPEG XL ------------------------------------------------------------------------------

Bytes EncodeJxl(const Picture& picture, const JxlOptions& options) {
    std::unique_ptr<JxlEncoder, Deleter<JxlEncoderDestroy>> enc(JxlEncoderCreate(nullptr));
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
    if (!options.moreFrames.empty()) {
        info.have_animation = JXL_TRUE;
        info.animation.tps_numerator = 1000;
        info.animation.tps_denominator = 1;
    }
    if (options.container || !options.exif.empty()) JxlEncoderUseContainer(enc.get(), JXL_TRUE);
    if (JxlEncoderSetBasicInfo(enc.get(), &info) != JXL_ENC_SUCCESS) return {};
    JxlColorEncoding colour;
    JxlColorEncodingSetToSRGB(&colour, JXL_FALSE);
    if (JxlEncoderSetColorEncoding(enc.get(), &colour) != JXL_ENC_SUCCESS) return {};
    if (!options.exif.empty()) {
        // The offset to the TIFF header: past "Exif\0\0" when the block starts so.
        const bool prefixed =
            options.exif.size() > 6 && std::memcmp(options.exif.data(), "Exif\0\0", 6) == 0;
        Bytes box = {0, 0, 0, uint8_t(prefixed ? 6 : 0)};
        box.insert(box.end(), options.exif.begin(), options.exif.end());
        if (JxlEncoderUseBoxes(enc.get()) != JXL_ENC_SUCCESS ||
            JxlEncoderAddBox(enc.get(), "Exif", box.data(), box.size(), JXL_FALSE) !=
                JXL_ENC_SUCCESS)
            return {};
        JxlEncoderCloseBoxes(enc.get());
    }
    JxlEncoderFrameSettings* settings = JxlEncoderFrameSettingsCreate(enc.get(), nullptr);
    JxlEncoderFrameSettingsSetOption(settings, JXL_ENC_FRAME_SETTING_EFFORT, 1);
    if (options.lossless) {
        JxlEncoderSetFrameLossless(settings, JXL_TRUE);
    } else {
        JxlEncoderSetFrameDistance(settings, 1.0f);
    }
    const JxlPixelFormat format = {options.alpha ? 4u : 3u, JXL_TYPE_UINT8, JXL_NATIVE_ENDIAN, 0};
    std::vector<const Picture*> frames = {&picture};
    for (const Picture& p : options.moreFrames) frames.push_back(&p);
    for (const Picture* p : frames) {
        if (info.have_animation) {
            JxlFrameHeader header;
            JxlEncoderInitFrameHeader(&header);
            header.duration = 100;
            JxlEncoderSetFrameHeader(settings, &header);
        }
        const Bytes packed = Packed(*p, options.alpha);
        if (JxlEncoderAddImageFrame(settings, &format, packed.data(), packed.size()) !=
            JXL_ENC_SUCCESS)
            return {};
    }
    JxlEncoderCloseInput(enc.get());
    Bytes out(4096);
    size_t used = 0;
    for (;;) {
        uint8_t* next = out.data() + used;
        size_t avail = out.size() - used;
        const JxlEncoderStatus status = JxlEncoderProcessOutput(enc.get(), &next, &avail);
        used = size_t(next - out.data());
        if (status == JXL_ENC_SUCCESS) break;
        if (status != JXL_ENC_NEED_MORE_OUTPUT) return {};
        out.resize(out.size() * 2);
    }
    out.resize(used);
    return out;
}

}  // namespace modernfix
