// WebP through libwebp: still pictures decoded straight into the picture's rows (24 bits, or 32
// with alpha), animations through the animation decoder, whose every frame is the whole canvas
// already composed, as the GIF decoder delivers them.
#include <webp/decode.h>
#include <webp/demux.h>

#include <cstring>
#include <memory>
#include <new>

#include "base/types.h"
#include "image/container.h"
#include "image/decoders.h"
#include "image/xanimdib.h"
#include "image/xdib.h"
#include "image/xdibio.h"

namespace {

// A delay of 0 plays as 100 ms, as in GIF.
constexpr uint32_t kDefaultDelayMs = 100;
// An animation stops adding frames at 1 GiB of pictures in all, as GIF does; the frames so far
// are kept. A canvas of 4096 x 4096 thus holds 16 frames at most.
constexpr uint64_t kMaxAnimationBytes = kMaxPictureBytes;
// RIFF header and the first chunk header: less is no WebP file.
constexpr int64_t kMinFileBytes = 20;

// The whole file in memory: libwebp decodes from one block.
struct FileBytes {
    std::unique_ptr<uint8_t[]> data;
    size_t size = 0;
};

bool ReadAll(IXDibIO& source, FileBytes& file) {
    source.Seek(0, 0);
    const int64_t size = source.GetSize();
    // A file larger than the largest picture is no picture of ours; refused before the copy
    // (a file of terabytes whose first bytes say RIFF/WEBP).
    if (size < kMinFileBytes || uint64_t(size) > kMaxPictureBytes) return false;
    file.data = std::make_unique_for_overwrite<uint8_t[]>(size_t(size));
    file.size = size_t(size);
    return container::ReadFully(source, file.data.get(), uint64_t(size));
}

struct DemuxDeleter {
    void operator()(WebPDemuxer* d) const { WebPDemuxDelete(d); }
};
struct AnimDecoderDeleter {
    void operator()(WebPAnimDecoder* d) const { WebPAnimDecoderDelete(d); }
};
struct IDecoderDeleter {
    void operator()(WebPIDecoder* d) const { WebPIDelete(d); }
};

// The EXIF chunk of an extended file. A file cut short still gives the chunks before the cut.
// WebP has no transformation of its own, so the EXIF orientation stands: the cache turns the
// page by it.
void ReadExif(const FileBytes& file, CJPEGMetaData* meta) {
    if (!meta) return;
    const WebPData data = {file.data.get(), file.size};
    std::unique_ptr<WebPDemuxer, DemuxDeleter> demux(WebPDemuxPartial(&data, nullptr));
    if (!demux) return;
    WebPChunkIterator chunk;
    if (WebPDemuxGetChunk(demux.get(), "EXIF", 1, &chunk)) {
        container::ParseExif(meta, chunk.chunk.bytes, chunk.chunk.size,
                             container::Orientation::kFromExif);
        WebPDemuxReleaseChunkIterator(&chunk);
    }
}

// A still picture, through the incremental decoder so that a file cut short keeps the rows
// that arrived. True when whole; a partial picture keeps its rows and clears the rest.
bool DecodeStill(XDib& dib, const FileBytes& file, const WebPBitstreamFeatures& features) {
    const uint32_t bpp = features.has_alpha ? 32 : 24;
    if (!container::PictureFits(uint32_t(features.width), uint32_t(features.height), bpp))
        return false;
    if (!dib.CreateDirty(uint32_t(features.width), uint32_t(features.height), bpp)) return false;
    WebPDecoderConfig config;
    if (!WebPInitDecoderConfig(&config)) {
        dib.Destroy();
        return false;
    }
    // MODE_BGRA is straight alpha (the premultiplied mode is MODE_bgrA).
    config.output.colorspace = features.has_alpha ? MODE_BGRA : MODE_BGR;
    config.output.is_external_memory = 1;
    config.output.u.RGBA.rgba = dib.pBits;
    config.output.u.RGBA.stride = int(dib.nStride);
    config.output.u.RGBA.size = size_t(dib.nStride) * dib.nHeight;
    std::unique_ptr<WebPIDecoder, IDecoderDeleter> decoder(WebPIDecode(nullptr, 0, &config));
    if (!decoder) {
        dib.Destroy();
        return false;
    }
    if (WebPIUpdate(decoder.get(), file.data.get(), file.size) == VP8_STATUS_OK) return true;
    int rows = 0;
    if (!WebPIDecGetRGB(decoder.get(), &rows, nullptr, nullptr, nullptr) || rows <= 0) {
        dib.Destroy();
        return false;
    }
    dib.ClearRows(uint32_t(rows), dib.nHeight - uint32_t(rows));
    return false;
}

// The animation decoder takes whole files only. For a file cut short, the frames that arrived
// whole are cut out as a file of their own: the RIFF size is set to end after the last of them.
// False when not even one frame is whole.
bool TrimToWholeFrames(FileBytes& file) {
    const WebPData data = {file.data.get(), file.size};
    std::unique_ptr<WebPDemuxer, DemuxDeleter> demux(WebPDemuxPartial(&data, nullptr));
    if (!demux) return false;
    size_t end = 0;
    WebPIterator frame;
    if (WebPDemuxGetFrame(demux.get(), 1, &frame)) {
        do {
            if (!frame.complete) break;
            end = size_t(frame.fragment.bytes + frame.fragment.size - file.data.get());
        } while (WebPDemuxNextFrame(&frame));
        WebPDemuxReleaseIterator(&frame);
    }
    end += end & 1;  // chunks are padded to an even length
    if (end <= 12 || end > file.size) return false;
    const uint32_t riffSize = uint32_t(end - 8);
    for (int i = 0; i < 4; ++i) file.data[4 + i] = uint8_t(riffSize >> (8 * i));
    file.size = end;
    return true;
}

// The ANIM chunk's background colour is stored as B, G, R, A from the low byte up.
uint32_t BackgroundColour(uint32_t bgcolor) {
    const uint32_t b = bgcolor & 0xFF, g = (bgcolor >> 8) & 0xFF, r = (bgcolor >> 16) & 0xFF;
    return r | (g << 8) | (b << 16);
}

// Decodes the frames of an animation whose canvas is width x height (checked against the
// picture cap); with `first` set, only the first frame into it, else every frame into `anim`.
// True when every frame asked for was decoded whole.
bool DecodeAnimation(FileBytes& file, uint32_t width, uint32_t height, XDib* first,
                     XAnimDib* anim) {
    // Each frame's picture is made before the decoder works on it, the first before the
    // decoder makes its own two canvases: when memory can't hold the picture, nothing else
    // is spent on it.
    std::unique_ptr<XDib> own;
    const auto makeFrame = [&]() -> XDib* {
        XDib* dib = first;
        if (!dib) {
            own = std::make_unique<XDib>();
            own->pColorMan = anim->pColorMan;
            dib = own.get();
        }
        return dib->CreateDirty(width, height, 32) ? dib : nullptr;
    };
    XDib* dib = makeFrame();
    if (!dib) return false;

    const WebPData data = {file.data.get(), file.size};
    WebPAnimDecoderOptions options;
    if (!WebPAnimDecoderOptionsInit(&options)) return false;
    options.color_mode = MODE_BGRA;  // straight alpha
    options.use_threads = nThreadCount > 1;
    std::unique_ptr<WebPAnimDecoder, AnimDecoderDeleter> decoder(
        WebPAnimDecoderNew(&data, &options));
    bool whole = true;
    if (!decoder) {
        if (!TrimToWholeFrames(file)) return false;
        const WebPData trimmed = {file.data.get(), file.size};
        decoder.reset(WebPAnimDecoderNew(&trimmed, &options));
        if (!decoder) return false;
        whole = false;
    }
    WebPAnimInfo info;
    if (!WebPAnimDecoderGetInfo(decoder.get(), &info) || info.canvas_width != width ||
        info.canvas_height != height)
        return false;
    const uint64_t frameBytes = uint64_t(width) * height * 4;
    uint64_t total = 0;
    int previous = 0;
    while (WebPAnimDecoderHasMoreFrames(decoder.get())) {
        if (!dib) {
            if (total + frameBytes > kMaxAnimationBytes) return false;
            if (!(dib = makeFrame())) return false;
        }
        uint8_t* canvas = nullptr;
        int timestamp = 0;
        if (!WebPAnimDecoderGetNext(decoder.get(), &canvas, &timestamp)) return false;
        // The canvas rows are packed at 4 bytes a pixel: the picture's stride.
        std::memcpy(dib->pBits, canvas, size_t(frameBytes));
        dib->clrBackground = BackgroundColour(info.bgcolor);
        // The first frame alone is whole even when later frames were cut off.
        if (first) return true;
        dib->nFormat = FORMAT_WEBP;
        total += frameBytes;
        // Timestamps are the end of each frame: their differences are the frames' durations,
        // the last one's included.
        const uint32_t delay = timestamp > previous ? uint32_t(timestamp - previous) : 0;
        previous = timestamp;
        anim->frames.push_back(XAnimFrame{std::move(own), delay ? delay : kDefaultDelayMs});
        anim->pLastDib = dib;
        dib = nullptr;
    }
    return whole;
}

// Reads the whole file, its features and its EXIF chunk (into `meta`).
bool Open(IXDibIO& source, CJPEGMetaData* meta, FileBytes& file, WebPBitstreamFeatures& features) {
    if (!ReadAll(source, file)) return false;
    if (WebPGetFeatures(file.data.get(), file.size, &features) != VP8_STATUS_OK) return false;
    ReadExif(file, meta);
    return true;
}

}  // namespace

bool DecodeWebpFirst(XDib& dib, IXDibIO& source, CJPEGMetaData* meta) {
    dib.Destroy();
    try {
        FileBytes file;
        WebPBitstreamFeatures features;
        if (!Open(source, meta, file, features)) return false;
        if (!features.has_animation) return DecodeStill(dib, file, features);
        const uint32_t width = uint32_t(features.width), height = uint32_t(features.height);
        if (!container::PictureFits(width, height, 32)) return false;
        if (DecodeAnimation(file, width, height, &dib, nullptr)) return true;
        dib.Destroy();
        return false;
    } catch (const std::bad_alloc&) {
        dib.Destroy();
        return false;
    }
}

bool LoadWebpFrames(XAnimDib& anim, IXDibIO& source, CJPEGMetaData* meta) {
    anim.Clear();
    try {
        FileBytes file;
        WebPBitstreamFeatures features;
        if (!Open(source, meta, file, features)) return false;
        if (!features.has_animation) {
            // A still picture is one frame with delay 0, as every still format loads; a file
            // cut short is shown as far as it went.
            XDib* dib = anim.AddEmptyFrame();
            if (DecodeStill(*dib, file, features)) {
                dib->nFormat = FORMAT_WEBP;
                return true;
            }
            if (!dib->IsEmpty()) return true;
            anim.Clear();
            return false;
        }
        const uint32_t width = uint32_t(features.width), height = uint32_t(features.height);
        if (!container::PictureFits(width, height, 32)) return false;
        return DecodeAnimation(file, width, height, nullptr, &anim);
    } catch (const std::bad_alloc&) {
        // Frames made before memory ran out stay, as for a file cut short.
        return false;
    }
}
