#include "image/xanimdib.h"

#include <fcntl.h>
#include <unistd.h>

#include "image/decoders.h"
#include "image/format.h"
#include "image/xdibio.h"

bool XAnimDib::LoadFile(const char* path, CJPEGMetaData* jpegMeta,
                        const XDibScaleRequest* scaleRequest) {
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        Clear();
        return false;
    }
    bool loaded;
    {
        CXDibBuffFileIO source(fd, false);
        loaded = Load(source, path, jpegMeta, scaleRequest);
    }
    ::close(fd);
    return loaded;
}

bool XAnimDib::Load(IXDibIO& source, const char* name, CJPEGMetaData* jpegMeta,
                    const XDibScaleRequest* scaleRequest) {
    const XDibFormat format = SniffFormat(source, name);
    // Animated and multi-page formats fill the frames themselves; their results are final.
    switch (format) {
        case FORMAT_GIF:
            return LoadGifFrames(*this, source);
        case FORMAT_TIFF:
            return LoadTiffPages(*this, source);
        case FORMAT_WEBP:
            return LoadWebpFrames(*this, source, jpegMeta);
        default:
            break;
    }
    Clear();
    auto dib = std::make_unique<XDib>();
    dib->pColorMan = pColorMan;
    const bool whole = DecodeByFormat(*dib, source, format, jpegMeta, scaleRequest);
    // A decoder that failed but left a bitmap counts: a truncated file shows as far as it went.
    if (!whole && dib->IsEmpty()) return false;
    pLastDib = dib.get();
    frames.push_back(XAnimFrame{std::move(dib), 0});
    return true;
}

void XAnimDib::Clear() {
    frames.clear();
    pLastDib = nullptr;
}

XDib* XAnimDib::AddEmptyFrame() {
    auto dib = std::make_unique<XDib>();
    dib->pColorMan = pColorMan;
    pLastDib = dib.get();
    frames.push_back(XAnimFrame{std::move(dib), 0});
    return pLastDib;
}

bool XAnimDib::ConvertAll(uint32_t bpp) {
    bool all = true;
    for (XAnimFrame& frame : frames) all = frame.pDib->ConvertBpp(bpp) && all;
    return all;
}

uint64_t XAnimDib::GetMemorySize() const {
    uint64_t total = 0;
    for (const XAnimFrame& frame : frames)
        total += uint64_t(frame.pDib->nStride) * frame.pDib->nHeight;
    return total;
}

XDib* XAnimDib::GetFrame(size_t index) const {
    return index < frames.size() ? frames[index].pDib.get() : nullptr;
}

uint32_t XAnimDib::GetDelay(size_t index) const {
    return index < frames.size() ? frames[index].nDelayMs : 0;
}
