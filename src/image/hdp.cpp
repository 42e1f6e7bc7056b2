// HD Photo (JPEG XR) through jxrlib, the reference codec, read with a stream of our own.
// Reduced decodes use the codec's thumbnail size.
//
// jxrlib is not safe against damaged files: a few changed bytes in a macroblock make its
// entropy decoder read far outside its tables (found by the bridges fuzzer within seconds).
// The decode therefore runs in a forked process that shares only a memory file with the viewer:
// the child sizes the file once the header is read and writes the rows into it band by band,
// noting how many are done; the parent copies out what is there when the child has ended, for
// whatever reason. A crash costs that one picture, which shows as far as it went.
//
// jxrlib's headers define min, max, TRUE, FALSE and a handful of statement macros; they are
// included last and their macros undone, and no other file of the program includes them.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

#include "image/decoders.h"
#include "image/limits.h"
#include "image/scale.h"
#include "image/xdib.h"
#include "image/xdibio.h"

#include <JXRGlue.h>
#undef min
#undef max
#undef TRUE
#undef FALSE
#undef Call
#undef Test
#undef FailIf
#undef Report

namespace {

// JPEG XR has no fixed bound on how far it expands (a flat macroblock costs a few bits).
// PackBits' 64:1 is taken as the policy, as for the other codecs without one.
inline constexpr uint64_t kJxrExpansion = 64;
// Rows decoded per call; the codec wants multiples of its 16-row macroblocks.
inline constexpr uint32_t kBandRows = 64;

IXDibIO& SourceOf(WMPStream* stream) {
    return *static_cast<IXDibIO*>(stream->state.pvObj);
}

// The codec reads ahead in packets of 8 KB and runs past the end of every file; such a read
// gets what is left and zeros behind it. Only a read that starts at the end fails.
ERR StreamRead(WMPStream* stream, void* buffer, size_t count) {
    IXDibIO& source = SourceOf(stream);
    const int64_t left = source.GetSize() - source.Tell();
    if (count == 0) return WMP_errSuccess;
    if (left <= 0) return WMP_errFileIO;
    const size_t n = size_t(std::min<int64_t>({left, int64_t(count), int64_t(INT32_MAX)}));
    if (!source.Read(buffer, uint32_t(n))) return WMP_errFileIO;
    std::memset(static_cast<uint8_t*>(buffer) + n, 0, count - n);
    return WMP_errSuccess;
}

ERR StreamWrite(WMPStream*, const void*, size_t) {
    return WMP_errFileIO;
}

ERR StreamSetPos(WMPStream* stream, size_t position) {
    IXDibIO& source = SourceOf(stream);
    if (position > uint64_t(source.GetSize())) return WMP_errBufferOverflow;
    source.Seek(int64_t(position), 0);
    return WMP_errSuccess;
}

ERR StreamGetPos(WMPStream* stream, size_t* position) {
    *position = size_t(SourceOf(stream).Tell());
    return WMP_errSuccess;
}

Bool StreamEnd(WMPStream* stream) {
    IXDibIO& source = SourceOf(stream);
    return source.Tell() >= source.GetSize();
}

// The stream lives in Decode's frame; closing it frees nothing.
ERR StreamClose(WMPStream**) {
    return WMP_errSuccess;
}

// Owns the decoder. A decode that stopped half way leaves the codec's state behind, which the
// decoder's release doesn't free; a finished one has freed it already (and left the pointer).
class DecoderOwner {
public:
    explicit DecoderOwner(PKImageDecode* decoder) : p(decoder) {}
    DecoderOwner(const DecoderOwner&) = delete;
    DecoderOwner& operator=(const DecoderOwner&) = delete;
    ~DecoderOwner() {
        if (!bFinished) {
            if (p->WMP.ctxSC) ImageStrDecTerm(p->WMP.ctxSC);
            if (p->WMP.ctxSC_Alpha) ImageStrDecTerm(p->WMP.ctxSC_Alpha);
            p->WMP.ctxSC = p->WMP.ctxSC_Alpha = nullptr;
        }
        p->Release(&p);
    }
    PKImageDecode* get() const { return p; }
    PKImageDecode* operator->() const { return p; }

    bool bFinished = false;  // every row was decoded

private:
    PKImageDecode* p;
};

struct ConverterRelease {
    void operator()(PKFormatConverter* converter) const { converter->Release(&converter); }
};
using ConverterPtr = std::unique_ptr<PKFormatConverter, ConverterRelease>;

// How the codec's pixels reach the picture.
enum class Placing {
    kAsIs,      // the codec delivers B, G, R (A) itself
    kSwapRb,    // R, G, B (A): red and blue change places
    kGreyToBgr  // 8-bit grey, repeated into three channels
};

struct Conversion {
    ConverterPtr converter;
    Placing placing = Placing::kAsIs;
};

// The first of the 8-bit formats the picture can take that jxrlib converts the file's format
// to in one step: B, G, R (A) itself, else R, G, B (A), else grey.
bool ChooseConversion(PKImageDecode* decoder, bool alpha, Conversion& out) {
    struct Target {
        const PKPixelFormatGUID* format;
        Placing placing;
    };
    static const Target kOpaque[] = {{&GUID_PKPixelFormat24bppBGR, Placing::kAsIs},
                                     {&GUID_PKPixelFormat24bppRGB, Placing::kSwapRb},
                                     {&GUID_PKPixelFormat8bppGray, Placing::kGreyToBgr}};
    static const Target kAlpha[] = {{&GUID_PKPixelFormat32bppBGRA, Placing::kAsIs},
                                    {&GUID_PKPixelFormat32bppRGBA, Placing::kSwapRb}};
    const Target* first = alpha ? std::begin(kAlpha) : std::begin(kOpaque);
    const Target* last = alpha ? std::end(kAlpha) : std::end(kOpaque);
    for (const Target* t = first; t != last; ++t) {
        PKFormatConverter* raw = nullptr;
        if (PKCodecFactory_CreateFormatConverter(&raw) != WMP_errSuccess || !raw) return false;
        ConverterPtr converter(raw);
        if (converter->Initialize(converter.get(), decoder, nullptr, *t->format) ==
            WMP_errSuccess) {
            out.converter = std::move(converter);
            out.placing = t->placing;
            return true;
        }
    }
    return false;
}

// What the child tells the parent, at the start of the memory file; the rows follow at
// kPixelsOffset. Plain numbers: the parent trusts none of them beyond what the file holds.
struct SharedHead {
    uint32_t nWidth;
    uint32_t nHeight;
    uint32_t nBpp;
    uint32_t nStride;
    uint32_t nOrigWidth;
    uint32_t nOrigHeight;
    uint32_t nRowsDone;  // rows written so far, top first
    uint32_t bWhole;     // set last, when the picture is whole
};
inline constexpr size_t kPixelsOffset = 64;
static_assert(sizeof(SharedHead) <= kPixelsOffset);

// The picture as the child makes it: the memory file, sized and mapped once the header is known.
class SharedPicture {
public:
    explicit SharedPicture(int fd) : nFd(fd) {}
    SharedPicture(const SharedPicture&) = delete;
    SharedPicture& operator=(const SharedPicture&) = delete;
    ~SharedPicture() {
        if (pBlock) munmap(pBlock, nBytes);
    }

    // Sizes the file for rows of `stride` bytes (and the codec's 64 bytes of slack behind the
    // last one) and maps it; false when that fails.
    bool Make(uint32_t width, uint32_t height, uint32_t bpp, uint32_t stride) {
        nBytes = kPixelsOffset + size_t(stride) * height + 64;
        if (ftruncate(nFd, off_t(nBytes)) != 0) return false;
        void* block = mmap(nullptr, nBytes, PROT_READ | PROT_WRITE, MAP_SHARED, nFd, 0);
        if (block == MAP_FAILED) return false;
        pBlock = static_cast<uint8_t*>(block);
        head = reinterpret_cast<SharedHead*>(pBlock);
        *head = SharedHead{width, height, bpp, stride, width, height, 0, 0};
        return true;
    }
    uint8_t* Row(uint32_t y) const { return pBlock + kPixelsOffset + size_t(y) * head->nStride; }

    SharedHead* head = nullptr;

private:
    int nFd;
    uint8_t* pBlock = nullptr;
    size_t nBytes = 0;
};

// One band of the codec's output into the picture's rows.
void PlaceBand(const uint8_t* band, size_t bandStride, Placing placing, SharedPicture& picture,
               uint32_t top, uint32_t rows) {
    const uint32_t width = picture.head->nWidth, pixel = picture.head->nBpp / 8;
    for (uint32_t r = 0; r < rows; ++r) {
        const uint8_t* src = band + r * bandStride;
        uint8_t* dst = picture.Row(top + r);
        switch (placing) {
            case Placing::kAsIs:
                std::memcpy(dst, src, size_t(width) * pixel);
                break;
            case Placing::kSwapRb:
                for (uint32_t x = 0; x < width; ++x, src += pixel, dst += pixel) {
                    dst[0] = src[2], dst[1] = src[1], dst[2] = src[0];
                    if (pixel == 4) dst[3] = src[3];
                }
                break;
            case Placing::kGreyToBgr:
                for (uint32_t x = 0; x < width; ++x, dst += 3) dst[0] = dst[1] = dst[2] = src[x];
                break;
        }
    }
}

// The decode itself, in the child.
bool Decode(SharedPicture& picture, IXDibIO& source, const XDibScaleRequest* scaleRequest) {
    WMPStream stream{};
    stream.state.pvObj = &source;
    stream.Read = StreamRead;
    stream.Write = StreamWrite;
    stream.SetPos = StreamSetPos;
    stream.GetPos = StreamGetPos;
    stream.EOS = StreamEnd;
    stream.Close = StreamClose;
    source.Seek(0, 0);

    PKImageDecode* raw = nullptr;
    if (PKImageDecode_Create_WMP(&raw) != WMP_errSuccess || !raw) return false;
    DecoderOwner decoder(raw);
    if (decoder->Initialize(decoder.get(), &stream) != WMP_errSuccess) return false;
    // The container's first image; jxrlib selects it on opening.
    I32 width = 0, height = 0;
    PKPixelFormatGUID format;
    if (decoder->GetSize(decoder.get(), &width, &height) != WMP_errSuccess ||
        decoder->GetPixelFormat(decoder.get(), &format) != WMP_errSuccess || width <= 0 ||
        height <= 0)
        return false;
    PKPixelInfo info{};
    info.pGUIDPixFmt = &format;
    if (PixelFormatLookup(&info, LOOKUP_FORWARD) != WMP_errSuccess || info.cbitUnit == 0)
        return false;
    const bool alpha = (info.grBit & PK_pixfmtHasAlpha) != 0;
    const uint32_t bpp = alpha ? 32 : 24;

    const uint32_t s = ChooseScale(uint32_t(width), uint32_t(height), scaleRequest);
    const uint32_t outWidth = (uint32_t(width) + s - 1) / s;
    const uint32_t outHeight = (uint32_t(height) + s - 1) / s;
    // A header of a few bytes claiming 100000 x 100000 pixels fails here, before the codec
    // sizes its buffers or the picture is made.
    const uint64_t codedPixels = uint64_t(width) * uint64_t(height);
    if (uint64_t(XDibStride(outWidth, bpp)) * outHeight > kMaxPictureBytes ||
        !PackedBodyPlausible(codedPixels * ((info.cbitUnit + 7) / 8), kJxrExpansion,
                             source.GetSize()))
        return false;

    decoder->WMP.wmiI.cROILeftX = 0;
    decoder->WMP.wmiI.cROITopY = 0;
    decoder->WMP.wmiI.cROIWidth = size_t(width);
    decoder->WMP.wmiI.cROIHeight = size_t(height);
    decoder->WMP.wmiI.cThumbnailWidth = outWidth;
    decoder->WMP.wmiI.cThumbnailHeight = outHeight;
    decoder->WMP.wmiI.bSkipFlexbits = 0;
    // The alpha plane is decoded only on request: 2 asks for image and alpha.
    decoder->WMP.wmiSCP.uAlphaMode = alpha && decoder->WMP.bHasAlpha ? 2 : 0;

    Conversion conversion;
    if (!ChooseConversion(decoder.get(), alpha, conversion)) return false;
    const uint32_t stride = XDibStride(outWidth, bpp);
    if (!picture.Make(outWidth, outHeight, bpp, stride)) return false;
    picture.head->nOrigWidth = uint32_t(width);
    picture.head->nOrigHeight = uint32_t(height);

    // The codec writes its own format into the buffer and converts in place, so a band must
    // hold a row of whichever is wider. B, G, R (A) in the file's own format goes straight
    // into the picture.
    PKPixelFormatGUID target;
    conversion.converter->GetPixelFormat(conversion.converter.get(), &target);
    const bool direct = conversion.placing == Placing::kAsIs && IsEqualGUID(format, target);
    const size_t bandStride =
        direct ? stride
               : (size_t(outWidth) * std::max<uint32_t>(info.cbitUnit, 32) / 8 + 3) & ~size_t(3);
    std::unique_ptr<uint8_t[]> band;
    if (!direct) band = std::make_unique_for_overwrite<uint8_t[]>(bandStride * kBandRows);

    for (uint32_t top = 0; top < outHeight; top += kBandRows) {
        const uint32_t rows = std::min(kBandRows, outHeight - top);
        PKRect rect = {0, I32(top), I32(outWidth), I32(rows)};
        uint8_t* into = direct ? picture.Row(top) : band.get();
        // Broken or cut short: the bands decoded so far stay.
        if (conversion.converter->Copy(conversion.converter.get(), &rect, into, U32(bandStride)) !=
            WMP_errSuccess)
            return false;
        if (!direct) PlaceBand(band.get(), bandStride, conversion.placing, picture, top, rows);
        picture.head->nRowsDone = top + rows;
    }
    decoder.bFinished = true;
    // The codec fills a file cut short with zeros and never notices; the container says where
    // the image and its alpha plane begin and how long the image is. (The alpha plane's length
    // is not to be trusted: jxrlib's own encoder writes the file's length there.)
    const WmpDEMisc& misc = decoder->WMP.wmiDEMisc;
    const int64_t size = source.GetSize();
    return int64_t(misc.uImageOffset) + int64_t(misc.uImageByteCount) <= size &&
           (!decoder->WMP.bHasAlpha || int64_t(misc.uAlphaOffset) < size);
}

// The child's whole life: decode, note the result, and leave without running anything of the
// parent's (no destructors of statics, no stdio flushes, no leak report).
[[noreturn]] void RunChild(const uint8_t* file, int64_t size, int fd,
                           const XDibScaleRequest* scaleRequest) {
    // A codec that dies on a damaged file ends the child quietly: none of the parent's crash
    // handlers (a sanitizer's or a fuzzer's in test builds) run in it. One that loops is
    // stopped: 20 seconds and one more for each MB.
    for (int sig : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGALRM}) signal(sig, SIG_DFL);
    alarm(unsigned(20 + (size >> 20)));
    // Whatever the codec might print stays out of the viewer's console.
    const int quiet = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (quiet >= 0) dup2(quiet, STDERR_FILENO);
    bool whole = false;
    try {
        CXDibMemIO source(file, size);
        SharedPicture picture(fd);
        whole = Decode(picture, source, scaleRequest);
        if (whole && picture.head) picture.head->bWhole = 1;
    } catch (...) {
    }
    _exit(whole ? 0 : 1);
}

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : nFd(fd) {}
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() {
        if (nFd >= 0) close(nFd);
    }
    int get() const { return nFd; }

private:
    int nFd;
};

// What the child left in the memory file, into the picture. The child may have died anywhere;
// its numbers are checked against the file's real size before a byte is copied.
bool Collect(XDib& dib, int fd, bool childSucceeded) {
    struct stat info;
    if (fstat(fd, &info) != 0 || info.st_size < off_t(kPixelsOffset)) return false;
    const size_t bytes = size_t(info.st_size);
    void* block = mmap(nullptr, bytes, PROT_READ, MAP_SHARED, fd, 0);
    if (block == MAP_FAILED) return false;
    struct Unmap {
        void* p;
        size_t n;
        ~Unmap() { munmap(p, n); }
    } unmapper{block, bytes};
    SharedHead head;
    std::memcpy(&head, block, sizeof head);
    const bool sane = (head.nBpp == 24 || head.nBpp == 32) && head.nWidth > 0 &&
                      head.nStride == XDibStride(head.nWidth, head.nBpp) &&
                      kPixelsOffset + uint64_t(head.nStride) * head.nHeight <= bytes &&
                      head.nRowsDone <= head.nHeight;
    // Nothing decoded is no picture: the viewer shows that the file can't be read.
    if (!sane || head.nRowsDone == 0) return false;
    if (!dib.CreateDirty(head.nWidth, head.nHeight, head.nBpp)) return false;
    const uint8_t* pixels = static_cast<const uint8_t*>(block) + kPixelsOffset;
    for (uint32_t y = 0; y < head.nRowsDone; ++y)
        std::memcpy(dib.GetRow(y), pixels + size_t(y) * head.nStride, head.nStride);
    dib.ClearRows(head.nRowsDone, head.nHeight - head.nRowsDone);
    if (head.nOrigWidth != head.nWidth || head.nOrigHeight != head.nHeight) {
        dib.bReduced = 1;
        dib.nOrigWidth = head.nOrigWidth;
        dib.nOrigHeight = head.nOrigHeight;
    }
    return childSucceeded && head.bWhole && head.nRowsDone == head.nHeight;
}

bool DecodeIsolated(XDib& dib, IXDibIO& source, const XDibScaleRequest* scaleRequest) {
    // The file is read whole first, so that the child shares nothing with the source (a file
    // source's descriptor would carry its position across).
    const int64_t size = source.GetSize();
    if (size <= 0 || uint64_t(size) > kMaxPictureBytes) return false;
    auto file = std::make_unique_for_overwrite<uint8_t[]>(size_t(size));
    source.Seek(0, 0);
    if (!source.Read(file.get(), uint32_t(size))) return false;
    const FileDescriptor shared(memfd_create("orlimo-hd-photo", MFD_CLOEXEC));
    if (shared.get() < 0) return false;
    const pid_t child = fork();
    if (child < 0) return false;
    if (child == 0) RunChild(file.get(), size, shared.get(), scaleRequest);
    int status = 0;
    bool reaped = true;
    while (waitpid(child, &status, 0) < 0) {
        if (errno == EINTR) continue;
        // Reaped elsewhere (a process that ignores SIGCHLD): the child's own note in the
        // memory file is all there is to go by.
        reaped = false;
        break;
    }
    const bool exitedCleanly = !reaped || (WIFEXITED(status) && WEXITSTATUS(status) == 0);
    return Collect(dib, shared.get(), exitedCleanly);
}

}  // namespace

bool DecodeHdp(XDib& dib, IXDibIO& source, const XDibScaleRequest* scaleRequest) {
    dib.Destroy();
    try {
        return DecodeIsolated(dib, source, scaleRequest);
    } catch (const std::bad_alloc&) {
        return false;
    }
}
