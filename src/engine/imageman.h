// CImageMan: an image cache. It decodes pictures on a thread of its own and keeps the results,
// after all per-picture processing (EXIF turn, depth and transparency normalised to 32 bits, view
// rotation, negative, gamma), in a ring of 50 buckets. The page engine owns two: instance 0 for
// pages at screen quality, instance 1 for previews and thumbnails. Neither touches a window.
//
// There is no queue: one decode runs at a time, and a request that finds the thread busy is
// turned down at once, so pages the user has passed are never decoded.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "base/xthread.h"
#include "engine/imagefileinfo.h"
#include "image/xanimdib.h"
#include "image/xdib.h"
#include "image/xdibio.h"

class XColorMan;

struct ImageBucket {
    std::unique_ptr<XAnimDib> pAni;  // never null; no frames when the slot is free
    std::string sPath;               // page path, empty when free
    std::string sKey;
    std::unique_ptr<ImageFileInfo> pInfo;  // never null
};

// A decode handed to the cache thread. The source is counted, since a job whose caller stopped
// waiting goes on and stores its result later.
struct ImageJob {
    XDibIOPtr source;  // may be null: store the error picture
    std::string sPath;
    std::string sKey;
};

// The options that change stored pixels; the engine copies its view's values in before it asks.
struct ImageOptions {
    uint32_t bExifRotation = 1;
    uint32_t bNegative = 0;
    uint32_t bGamma = 0;
    uint32_t bFull = 0;  // decode at full size even when a scale request is set
    uint32_t nGifTransOption = 0;
    uint32_t nAlphaTransOption = 2;
    uint32_t nRotate = 0;
};

class CImageMan : public XThread {
public:
    static constexpr int kBucketCount = 50;

    // Request codes of the cache thread.
    enum : uint32_t {
        IC_NOP = 0,
        IC_DECODE = 1,  // param 1: ImageJob*, owned by the thread once delivered
        IC_QUIT = 2,
        IC_DROP_REDUCED = 3,
        IC_DROP_ALL = 4,
    };

    // Sets up the slots, the lock, the checker tile, and the colour manager from the program
    // folder's profiles (none when they can't be opened).
    CImageMan();
    // Stops the thread (quit request, then waits) and frees every bucket.
    ~CImageMan() override;

    // The budget from free memory in megabytes, by instance: 0 gives avail - 200 limited to
    // 50..300, 1 limited to 30..100.
    static int32_t BudgetFor(int32_t instance, int64_t availMB);

    // Direct calls, safe from the engine thread; each takes `cs`.
    void SetOptions(const ImageOptions& options);
    void SetScaleRequest(bool enable, uint32_t width, uint32_t height);
    // "%s,%d,%u%u,%d,%d,%d,%d,%d,%d": password, file size, last write time (high, low), then
    // bExifRotation, nRotate, bNegative, bGamma, nGifTransOption, nAlphaTransOption. Size and
    // time are 0 when the path can't be opened as a file (archive pages, for one).
    std::string MakeKey(std::string_view path, std::string_view password);
    // Slots 0..49 in order; a slot with equal strings and a frame is a hit unless its frame 0 is
    // reduced and bFull is set. The pointer is unprotected after the return.
    XAnimDib* FindBucket(std::string_view path, std::string_view key);
    bool HasBucket(std::string_view path, std::string_view key);
    // The facts of the first slot with equal strings, reduced or not. False when none.
    bool GetInfo(std::string_view path, std::string_view key, ImageFileInfo* info);
    bool IsOverBudget();
    bool RemoveBucket(int index);
    // Oldest first from nNextBucket, sparing the newest slot; false when still over budget.
    bool MakeRoom();

    // Entry points for the engine. Unless bNoLookup is set a bucket found at once is returned.
    // A file that can't be opened gives null at once. waitMs: -1 waits without limit.
    XAnimDib* DecodeFile(std::string_view path, std::string_view key, const std::string& fileName,
                         int32_t waitMs, bool* timedOut, bool bNoLookup);
    XAnimDib* DecodeMemory(std::string_view path, std::string_view key, const void* data,
                           size_t size, int32_t waitMs, bool* timedOut, bool bNoLookup);
    // Stores the error picture for `path` (after a lookup).
    XAnimDib* DecodeNothing(std::string_view path, std::string_view key);
    // Hands a decode to an idle thread; a busy one sets *timedOut and gives null at once.
    XAnimDib* PostDecode(std::string_view path, std::string_view key, XDibIOPtr source,
                         int32_t waitMs, bool* timedOut);

    // The policies, as plain functions of their inputs.
    // The key of a source of `fileSize` bytes last written at `lastWrite` (a file time).
    static std::string FormatKey(std::string_view password, int64_t fileSize, uint64_t lastWrite,
                                 const ImageOptions& options);
    // `usedBytes / 1024 / 1024 > budgetMB`, in signed integer division.
    static bool ExceedsBudget(int64_t usedBytes, int32_t budgetMB);
    // The slots MakeRoom empties, in order: from `nextBucket` to the end, then from 0 up to
    // the slot before the newest (`nextBucket - 1`), which is spared.
    static std::vector<int> EvictionOrder(int32_t nextBucket);
    // Whether a slot answers a lookup: equal strings, a frame, and frame 0 either full or
    // reduced while the full picture isn't asked for.
    static bool IsHit(const ImageBucket& bucket, std::string_view path, std::string_view key,
                      bool bFull);
    // The 32 x 32 tile behind transparent pictures: white, with (0,0)-(16,16) and
    // (16,16)-(32,32) in 0xC8C8C8.
    static bool MakeChecker(XDib& tile);
    // The picture that stands for a page that can't be decoded: 640 x 480, 24 bits, white, both
    // diagonals, and `path` on one line in the middle, shortened inside when too long.
    static bool MakeErrorPicture(XAnimDib& ani, std::string_view path);

    // What the cache holds, for the engine's diagnostics and the tests; each takes `cs`.
    int64_t GetUsedBytes();
    int32_t GetNextBucket();
    std::string GetBucketPath(int index);
    bool HasColorManager() const { return pColorMan_ != nullptr; }

    int32_t nInstance = 0;
    int32_t nBudgetMB = 50;

protected:
    uint32_t ThreadMain() override;

private:
    XResult Serve(const XCommand& command);
    void Decode(const ImageJob& job);
    // Steps after a load: depth and transparency to 32 bits, then the view's turn and filters.
    void Normalise(XAnimDib& ani, const ImageOptions& options) const;
    // Empties slot `index`; the caller holds `cs`. Returns the bytes it held.
    uint64_t EmptyBucketLocked(int index);

    // Lock order: the page list's lock, then `cs_`; nothing under `cs_` takes another lock.
    // `cs_` guards the buckets, nNextBucket_, nUsedBytes_, scaleRequest_ and options_. The cache
    // thread holds it only to publish a picture and to drop buckets, never while decoding.
    std::mutex cs_;
    ImageBucket buckets_[kBucketCount];
    int32_t nNextBucket_ = 0;
    int64_t nUsedBytes_ = 0;
    XDibScaleRequest scaleRequest_;
    ImageOptions options_;
    XDib checker_;  // read-only after construction
    std::unique_ptr<XColorMan> pColorMan_;
    bool bQuit_ = false;  // the cache thread's own
};
