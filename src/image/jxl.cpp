// JPEG XL through libjxl: the first frame (of an animation, the first as shown, composed) at 8
// bits with 3 or 4 channels, written into the picture's rows as B, G, R(, A) by the decoder's
// pixel callback. libjxl turns the picture by the codestream's orientation itself. The file is
// fed in blocks, so a file cut short keeps the rows that were finished.
#include <jxl/decode.h>
#include <jxl/decode_cxx.h>
#include <jxl/thread_parallel_runner.h>
#include <jxl/thread_parallel_runner_cxx.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "base/types.h"
#include "image/container.h"
#include "image/decoders.h"
#include "image/xdib.h"
#include "image/xdibio.h"

namespace {

// The file is handed to the decoder in blocks of this size; a block the decoder can't finish
// grows until it can.
constexpr size_t kInputBlock = size_t(1) << 20;

// Where the decoder's pixels go. The callback may run on several threads at once, each on
// pixels of its own. While decoding every pixel arrives exactly once, so a row is finished when
// its count reaches the width; a flush after a cut visits each pixel at most once more, counted
// apart.
struct PixelSink {
    XDib* dib = nullptr;
    uint32_t channels = 3;
    bool flushing = false;  // set before a flush starts, read by the callbacks during it
    std::unique_ptr<std::atomic<uint32_t>[]> rowFill;
    std::unique_ptr<std::atomic<uint32_t>[]> flushFill;
};

void OnPixels(void* opaque, size_t x, size_t y, size_t count, const void* pixels) {
    auto* sink = static_cast<PixelSink*>(opaque);
    const XDib& dib = *sink->dib;
    if (y >= dib.nHeight || x >= dib.nWidth || count > dib.nWidth - x) return;
    const auto* src = static_cast<const uint8_t*>(pixels);
    uint8_t* dst = dib.GetRow(uint32_t(y)) + x * dib.nBytesPerPixel;
    if (sink->channels == 4) {
        for (size_t i = 0; i < count; ++i, src += 4, dst += 4)
            dst[0] = src[2], dst[1] = src[1], dst[2] = src[0], dst[3] = src[3];
    } else {
        for (size_t i = 0; i < count; ++i, src += 3, dst += 3)
            dst[0] = src[2], dst[1] = src[1], dst[2] = src[0];
    }
    (sink->flushing ? sink->flushFill : sink->rowFill)[y].fetch_add(uint32_t(count),
                                                                    std::memory_order_relaxed);
}

// The Exif box, collected while the decoder passes it; its end shows when the next event comes.
// Boxes are taken raw: a Brotli-compressed ("brob") Exif box is passed over, since a few
// hostile bytes of Brotli unpack without end. A box larger than the cap is read into the same
// buffer again and again and then dropped, so its cost stays bounded by the file's size.
struct ExifBox {
    std::vector<uint8_t> bytes;
    bool open = false;
    bool dropped = false;
    bool done = false;

    void Start(JxlDecoder* dec) {
        uint64_t size = 0;
        if (JxlDecoderGetBoxSizeRaw(dec, &size) != JXL_DEC_SUCCESS || size == 0) size = 4096;
        bytes.resize(size_t(std::min<uint64_t>(size, container::kMaxExifBytes + 4)));
        dropped = false;
        open = JxlDecoderSetBoxBuffer(dec, bytes.data(), bytes.size()) == JXL_DEC_SUCCESS;
    }
    // More room for the box, or the same room again once it is dropped.
    bool Grow(JxlDecoder* dec) {
        if (!open) return false;
        const size_t used = bytes.size() - JxlDecoderReleaseBoxBuffer(dec);
        if (dropped || bytes.size() >= container::kMaxExifBytes + 4) {
            dropped = true;
            return JxlDecoderSetBoxBuffer(dec, bytes.data(), bytes.size()) == JXL_DEC_SUCCESS;
        }
        bytes.resize(std::min(bytes.size() * 2, container::kMaxExifBytes + 4));
        return JxlDecoderSetBoxBuffer(dec, bytes.data() + used, bytes.size() - used) ==
               JXL_DEC_SUCCESS;
    }
    void Finish(JxlDecoder* dec, CJPEGMetaData* meta) {
        if (!open) return;
        open = false, done = true;
        bytes.resize(bytes.size() - JxlDecoderReleaseBoxBuffer(dec));
        // libjxl turns the picture by the codestream's orientation, which JPEG XL defines as
        // the one that counts: the EXIF orientation is reported as 1.
        if (!dropped)
            container::ParseIsoExif(meta, bytes.data(), bytes.size(),
                                    container::Orientation::kApplied);
    }
};

// Feeds the source to the decoder block by block, keeping what it hasn't consumed.
class InputFeeder {
public:
    explicit InputFeeder(IXDibIO& s) : source(s), left(std::max<int64_t>(0, s.GetSize())) {}

    // Hands the decoder its first block, or what it left of the last one plus the next. False
    // at the end of the file.
    bool Feed(JxlDecoder* dec) {
        const size_t kept = held ? JxlDecoderReleaseInput(dec) : 0;
        if (left == 0) return false;
        const size_t start = held - kept;
        if (kept > 0) std::memmove(buffer.data(), buffer.data() + start, kept);
        // A block left whole means the decoder needs more at once: give it twice as much.
        const size_t room = kept == held && held > 0 ? buffer.size() * 2 : kInputBlock;
        const size_t n =
            size_t(std::min<int64_t>(left, int64_t(std::max(room, kept + kInputBlock) - kept)));
        buffer.resize(kept + n);
        if (!container::ReadFully(source, buffer.data() + kept, n)) {
            left = 0;
            return false;
        }
        left -= int64_t(n);
        held = kept + n;
        // The input is never closed: at a cut the decoder then asks for more, and can still
        // flush what it has, where a closed input makes the cut an error.
        JxlDecoderSetInput(dec, buffer.data(), held);
        return true;
    }

private:
    IXDibIO& source;
    int64_t left;
    std::vector<uint8_t> buffer;
    size_t held = 0;
};

bool Decode(XDib& dib, IXDibIO& source, CJPEGMetaData* meta) {
    source.Seek(0, 0);
    uint8_t signature[12];
    const bool boxed = source.GetSize() >= 12 && source.Read(signature, 12) &&
                       JxlSignatureCheck(signature, 12) == JXL_SIG_CONTAINER;
    source.Seek(0, 0);

    JxlDecoderPtr decoder = JxlDecoderMake(nullptr);
    if (!decoder) return false;
    JxlDecoder* dec = decoder.get();
    // Only a container has boxes; a bare codestream has no EXIF to wait for.
    const bool wantExif = meta && boxed;
    int events = JXL_DEC_BASIC_INFO | JXL_DEC_FRAME | JXL_DEC_FULL_IMAGE;
    if (wantExif) events |= JXL_DEC_BOX;
    if (JxlDecoderSubscribeEvents(dec, events) != JXL_DEC_SUCCESS) return false;
    JxlDecoderSetUnpremultiplyAlpha(dec, JXL_TRUE);  // pictures hold straight alpha
    JxlThreadParallelRunnerPtr runner;
    if (nThreadCount > 1) {
        runner = JxlThreadParallelRunnerMake(nullptr, nThreadCount);
        if (!runner || JxlDecoderSetParallelRunner(dec, JxlThreadParallelRunner, runner.get()) !=
                           JXL_DEC_SUCCESS)
            return false;
    }

    InputFeeder input(source);
    if (!input.Feed(dec)) return false;
    PixelSink sink;
    sink.dib = &dib;
    ExifBox exif;
    bool firstDone = false;
    JxlDecoderStatus status = JXL_DEC_ERROR;
    for (;;) {
        status = JxlDecoderProcessInput(dec);
        if (status != JXL_DEC_BOX_NEED_MORE_OUTPUT && status != JXL_DEC_NEED_MORE_INPUT)
            exif.Finish(dec, meta);
        switch (status) {
            case JXL_DEC_NEED_MORE_INPUT:
                if (input.Feed(dec)) continue;
                break;  // the file ends here
            case JXL_DEC_BASIC_INFO: {
                JxlBasicInfo info;
                if (JxlDecoderGetBasicInfo(dec, &info) != JXL_DEC_SUCCESS) return false;
                // Orientations 5 to 8 exchange width and height; libjxl delivers them turned.
                const bool transposed = info.orientation >= JXL_ORIENT_TRANSPOSE;
                const uint32_t width = transposed ? info.ysize : info.xsize;
                const uint32_t height = transposed ? info.xsize : info.ysize;
                sink.channels = info.alpha_bits > 0 ? 4 : 3;
                // The size the header claims, checked before anything is allocated.
                if (!container::PictureFits(width, height, sink.channels * 8) ||
                    !dib.CreateDirty(width, height, sink.channels * 8))
                    return false;
                sink.rowFill = std::make_unique<std::atomic<uint32_t>[]>(height);
                sink.flushFill = std::make_unique<std::atomic<uint32_t>[]>(height);
                continue;
            }
            case JXL_DEC_FRAME: {
                if (firstDone) {
                    // Frames after the first are passed over on the way to an Exif box.
                    if (JxlDecoderSkipCurrentFrame(dec) != JXL_DEC_SUCCESS) break;
                    continue;
                }
                // A layer may be larger than the picture; libjxl allocates it whole. A 1 x 1
                // picture whose frame claims 2^30 x 2^30 pixels stops here.
                JxlFrameHeader header;
                if (JxlDecoderGetFrameHeader(dec, &header) != JXL_DEC_SUCCESS ||
                    !container::PictureFits(header.layer_info.xsize, header.layer_info.ysize, 32))
                    break;
                continue;
            }
            case JXL_DEC_NEED_IMAGE_OUT_BUFFER: {
                if (firstDone || dib.IsEmpty()) break;
                const JxlPixelFormat format = {sink.channels, JXL_TYPE_UINT8, JXL_NATIVE_ENDIAN, 0};
                if (JxlDecoderSetImageOutCallback(dec, &format, OnPixels, &sink) != JXL_DEC_SUCCESS)
                    break;
                continue;
            }
            case JXL_DEC_FULL_IMAGE:
                firstDone = true;
                // Stop at the first frame unless an Exif box may still follow.
                if (!wantExif || exif.done) return true;
                continue;
            case JXL_DEC_BOX: {
                JxlBoxType type;
                if (JxlDecoderGetBoxType(dec, type, JXL_FALSE) == JXL_DEC_SUCCESS && !exif.done &&
                    std::memcmp(type, "Exif", 4) == 0)
                    exif.Start(dec);
                continue;
            }
            case JXL_DEC_BOX_NEED_MORE_OUTPUT:
                if (exif.Grow(dec)) continue;
                break;
            default:  // JXL_DEC_SUCCESS at the end of the file, errors
                break;
        }
        break;
    }
    if (firstDone) return true;
    if (dib.IsEmpty() || !sink.rowFill) return false;

    // Cut short or damaged. At a cut the decoder may flush what it has of the rest (the low
    // resolution of a lossy picture, the groups that arrived). Rows neither finished nor wholly
    // flushed are cleared; with none of either the picture is dropped, so a few bytes claiming
    // a huge picture cost no clearing of it.
    sink.flushing = true;
    if (status == JXL_DEC_NEED_MORE_INPUT) JxlDecoderFlushImage(dec);
    const auto shown = [&](uint32_t y) {
        return sink.rowFill[y].load(std::memory_order_relaxed) >= dib.nWidth ||
               sink.flushFill[y].load(std::memory_order_relaxed) >= dib.nWidth;
    };
    uint32_t rows = 0;
    for (uint32_t y = 0; y < dib.nHeight; ++y) rows += shown(y) ? 1 : 0;
    if (rows == 0) {
        dib.Destroy();
        return false;
    }
    for (uint32_t y = 0; y < dib.nHeight; ++y)
        if (!shown(y)) dib.ClearRows(y, 1);
    return false;
}

}  // namespace

bool DecodeJxl(XDib& dib, IXDibIO& source, CJPEGMetaData* meta) {
    dib.Destroy();
    // libjxl is C++ behind a C interface; whatever it or this bridge throws stops here. A
    // failure leaves a partial picture only when Decode kept one.
    try {
        return Decode(dib, source, meta);
    } catch (...) {
        dib.Destroy();
        return false;
    }
}
