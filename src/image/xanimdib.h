// XAnimDib: an ordered run of XDib frames with delays. Every load produces one, also for a
// one-frame file. A multi-frame picture is a GIF with several frames or a multi-page TIFF.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "image/xdib.h"

struct XAnimFrame {
    std::unique_ptr<XDib> pDib;
    uint32_t nDelayMs = 0;  // 0 for pictures that aren't animated
};

class XAnimDib {
public:
    XAnimDib() = default;
    XAnimDib(const XAnimDib&) = delete;
    XAnimDib& operator=(const XAnimDib&) = delete;
    virtual ~XAnimDib() = default;

    // Opens `path`, loads it, closes it.
    bool LoadFile(const char* path, CJPEGMetaData* jpegMeta = nullptr,
                  const XDibScaleRequest* scaleRequest = nullptr);
    // Sniffs and decodes. False means no frame or a partial sequence: callers look at the
    // frame count, since frames decoded before damage are kept.
    bool Load(IXDibIO& source, const char* name = nullptr, CJPEGMetaData* jpegMeta = nullptr,
              const XDibScaleRequest* scaleRequest = nullptr);

    void Clear();
    // A new empty frame with delay 0, which becomes pLastDib.
    XDib* AddEmptyFrame();
    bool ConvertAll(uint32_t bpp);
    // The sum over frames of nStride * nHeight: the cache's measure of a picture.
    uint64_t GetMemorySize() const;
    XDib* GetFrame(size_t index) const;
    size_t GetFrameCount() const { return frames.size(); }
    uint32_t GetDelay(size_t index) const;

    std::vector<XAnimFrame> frames;
    XDib* pLastDib = nullptr;  // the most recently added frame
    XColorMan* pColorMan = nullptr;
};
