// DNG through LibRaw (its thread-safe build), read over the byte source with a data stream of
// our own. Only what LibRaw takes for a DNG is developed: a plain TIFF named x.dng reaches this
// path and fails here. The three stages print their times to the console, as they always did.
#include <libraw.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "image/decoders.h"
#include "image/limits.h"
#include "image/xdib.h"
#include "image/xdibio.h"

namespace {

// Lossless JPEG, the usual DNG coding, has no fixed bound on how far it expands (a flat row
// costs a bit a sample); PackBits' 64:1 is taken as the policy, as for the other codecs.
inline constexpr uint64_t kDngExpansion = 64;
// LibRaw's own ceiling for the raw data, in MB: the largest picture the storage may hold.
inline constexpr unsigned kMaxRawMegabytes = unsigned(kMaxPictureBytes >> 20);

// LibRaw's view of the byte source. Reads past the end deliver what is there, like fread.
class SourceStream final : public LibRaw_abstract_datastream {
public:
    explicit SourceStream(IXDibIO& source) : io(source), nSize(source.GetSize()) { io.Seek(0, 0); }

    int valid() override { return 1; }

    int read(void* buffer, size_t size, size_t count) override {
        if (size == 0 || count == 0 || count > SIZE_MAX / size) return 0;
        const int64_t left = nSize - io.Tell();
        if (left <= 0) return 0;
        size_t wanted = size_t(std::min<uint64_t>(uint64_t(size) * count, uint64_t(left)));
        wanted -= wanted % size;  // whole items only, as fread counts them
        auto* out = static_cast<uint8_t*>(buffer);
        for (size_t done = 0; done < wanted;) {
            const uint32_t n = uint32_t(std::min<size_t>(wanted - done, 1u << 30));
            if (!io.Read(out + done, n)) return int(done / size);
            done += n;
        }
        return int(wanted / size);
    }

    int seek(INT64 offset, int whence) override {
        INT64 target = offset;
        if (whence == SEEK_CUR) target += io.Tell();
        if (whence == SEEK_END) target += nSize;
        io.Seek(std::clamp<INT64>(target, 0, nSize), 0);
        return 0;
    }

    INT64 tell() override { return io.Tell(); }
    INT64 size() override { return nSize; }

    int get_char() override {
        uint8_t c = 0;
        if (io.Tell() >= nSize || !io.Read(&c, 1)) return -1;
        return c;
    }

    // A line of at most size - 1 characters, the newline kept; null at the end of the data.
    char* gets(char* line, int size) override {
        if (size <= 0 || io.Tell() >= nSize) return nullptr;
        int n = 0;
        while (n < size - 1) {
            const int c = get_char();
            if (c < 0) break;
            line[n++] = char(c);
            if (c == '\n') break;
        }
        line[n] = 0;
        return line;
    }

    // One number in text, "%d" or "%f", as the text headers of some raw formats hold them.
    int scanf_one(const char* format, void* value) override {
        char text[40];
        int c = get_char();
        while (c == ' ' || c == '\t' || c == '\n' || c == '\r') c = get_char();
        size_t n = 0;
        while (c >= 0 && n + 1 < sizeof(text) && std::strchr("0123456789+-.eE", c)) {
            text[n++] = char(c);
            c = get_char();
        }
        text[n] = 0;
        if (n == 0) return 0;
        if (std::strcmp(format, "%d") == 0)
            *static_cast<int*>(value) = int(std::strtol(text, nullptr, 10));
        else
            *static_cast<float*>(value) = std::strtof(text, nullptr);
        return 1;
    }

    int eof() override { return io.Tell() >= nSize; }
    void* make_jas_stream() override { return nullptr; }

private:
    IXDibIO& io;
    int64_t nSize;
};

class StageClock {
public:
    // Prints "<stage> time: <seconds> sec" and starts the next stage.
    void Report(const char* stage) {
        const auto now = std::chrono::steady_clock::now();
        const double seconds = std::chrono::duration<double>(now - tStart).count();
        std::fprintf(stderr, "%s time: %0.2f sec\n", stage, seconds);
        tStart = now;
    }

private:
    std::chrono::steady_clock::time_point tStart = std::chrono::steady_clock::now();
};

bool Develop(LibRaw& raw, SourceStream& stream, XDib& dib, int64_t fileSize) {
    libraw_output_params_t& params = raw.imgdata.params;
    params.output_bps = 8;
    params.use_camera_wb = 1;  // the white balance the camera recorded (AsShotNeutral)
    params.max_raw_memory_mb = kMaxRawMegabytes;
    if (raw.open_datastream(&stream) != LIBRAW_SUCCESS) return false;
    if (raw.imgdata.idata.dng_version == 0) return false;  // a TIFF, or another raw format
    // A few hundred bytes claiming a raw image of 60000 x 60000 samples: refused before the
    // raw data is read, let alone developed.
    const libraw_image_sizes_t& sizes = raw.imgdata.sizes;
    const uint64_t rawBytes = uint64_t(sizes.raw_width) * sizes.raw_height * 2;
    if (uint64_t(XDibStride(sizes.width, 24)) * sizes.height > kMaxPictureBytes ||
        !PackedBodyPlausible(rawBytes, kDngExpansion, fileSize))
        return false;

    StageClock clock;
    if (raw.unpack() != LIBRAW_SUCCESS) return false;
    clock.Report("Raw image read");
    // The development repeats these two steps on its own copy; they run here so the
    // linearisation can be timed as a stage of its own.
    if (raw.raw2image_ex(0) != LIBRAW_SUCCESS) return false;
    raw.subtract_black();
    clock.Report("Linearization");
    if (raw.dcraw_process() != LIBRAW_SUCCESS) return false;
    clock.Report("Interpolate");

    int width = 0, height = 0, colours = 0, bits = 0;
    raw.get_mem_image_format(&width, &height, &colours, &bits);
    if (width <= 0 || height <= 0 || bits != 8 || (colours != 1 && colours != 3)) return false;
    if (!dib.CreateDirty(uint32_t(width), uint32_t(height), 24)) return false;
    if (raw.copy_mem_image(dib.pBits, int(dib.nStride), 1) != LIBRAW_SUCCESS) {
        dib.Destroy();
        return false;
    }
    if (colours == 1) {
        // A monochrome DNG comes as one byte a pixel at the start of each row: spread it out,
        // from the right, where nothing unread is overwritten.
        for (uint32_t y = 0; y < dib.nHeight; ++y) {
            uint8_t* row = dib.GetRow(y);
            for (uint32_t x = dib.nWidth; x-- > 0;)
                row[3 * x] = row[3 * x + 1] = row[3 * x + 2] = row[x];
        }
    }
    return true;
}

}  // namespace

bool DecodeDng(XDib& dib, IXDibIO& source) {
    dib.Destroy();
    try {
        SourceStream stream(source);
        auto raw = std::make_unique<LibRaw>(LIBRAW_OPTIONS_NONE);
        const bool developed = Develop(*raw, stream, dib, source.GetSize());
        if (!developed) dib.Destroy();  // nothing half developed is shown
        return developed;
    } catch (...) {
        // LibRaw reports through return codes, but its stream calls and allocations may throw.
        dib.Destroy();
        return false;
    }
}
