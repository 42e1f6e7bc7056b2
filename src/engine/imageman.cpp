#include "engine/imageman.h"

#include <algorithm>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "base/xlog.h"
#include "engine/filters.h"
#include "image/colorman.h"
#include "image/format.h"
#include "image/jpegmeta.h"
#include "image/textdraw.h"
#include "platform/files.h"

namespace {

constexpr uint32_t kCheckerSize = 32;
constexpr uint32_t kCheckerGrey = 0xC8C8C8;
constexpr uint32_t kErrorWidth = 640;
constexpr uint32_t kErrorHeight = 480;

// The thread waits this long for a request before it looks at its quit flag again. Only a
// request sets the flag, so a short wait would buy nothing but wake-ups.
constexpr uint32_t kIdleWaitMs = 1000;

// A one-pixel black line from (x0, y0) to (x1, y1), both ends drawn, on a 24-bit picture.
void DrawLine24(XDib& dib, int32_t x0, int32_t y0, int32_t x1, int32_t y1) {
    const int32_t dx = std::abs(x1 - x0), dy = -std::abs(y1 - y0);
    const int32_t sx = x0 < x1 ? 1 : -1, sy = y0 < y1 ? 1 : -1;
    int32_t err = dx + dy;
    for (;;) {
        if (uint8_t* p = dib.GetPixelPtr(uint32_t(x0), uint32_t(y0))) p[0] = p[1] = p[2] = 0;
        if (x0 == x1 && y0 == y1) break;
        const int32_t e2 = 2 * err;
        if (e2 >= dy) err += dy, x0 += sx;
        if (e2 <= dx) err += dx, y0 += sy;
    }
}

// Covers a 32-bit picture with the 24-bit tile: the first band of rows by blits, the rest by
// copying rows of that band.
void TileChecker(const XDib& tile, XDib& target) {
    const uint32_t band = std::min(target.nHeight, tile.nHeight);
    for (uint32_t x = 0; x < target.nWidth; x += tile.nWidth) tile.Blit(target, int32_t(x), 0);
    for (uint32_t y = band; y < target.nHeight; ++y)
        std::memcpy(target.GetRow(y), target.GetRow(y % band), target.nStride);
}

}  // namespace

CImageMan::CImageMan() {
    for (ImageBucket& bucket : buckets_) {
        bucket.pAni = std::make_unique<XAnimDib>();
        bucket.pInfo = std::make_unique<ImageFileInfo>();
    }
    MakeChecker(checker_);
    // Without the profiles CMYK pictures are converted by the plain formula.
    const std::string folder = platform::GetProgramFolder();
    auto colorMan = std::make_unique<XColorMan>();
    if (!folder.empty() &&
        colorMan->Open(folder + "/" + kCmykProfileName, folder + "/" + kSrgbProfileName))
        pColorMan_ = std::move(colorMan);
}

CImageMan::~CImageMan() {
    // A running decode ends first: the quit request waits for the thread to be idle.
    SendCommand(IC_QUIT, 0, 0, kInfinite);
    Wait();
}

int32_t CImageMan::BudgetFor(int32_t instance, int64_t availMB) {
    const int64_t x = availMB - 200;
    if (instance == 0) return int32_t(std::clamp<int64_t>(x, 50, 300));
    return int32_t(std::clamp<int64_t>(x, 30, 100));
}

std::string CImageMan::FormatKey(std::string_view password, int64_t fileSize, uint64_t lastWrite,
                                 const ImageOptions& o) {
    char tail[160];
    std::snprintf(tail, sizeof tail, ",%d,%u%u,%d,%d,%d,%d,%d,%d", int32_t(fileSize),
                  uint32_t(lastWrite >> 32), uint32_t(lastWrite), int32_t(o.bExifRotation),
                  int32_t(o.nRotate), int32_t(o.bNegative), int32_t(o.bGamma),
                  int32_t(o.nGifTransOption), int32_t(o.nAlphaTransOption));
    std::string key(password);
    key += tail;
    return key;
}

bool CImageMan::ExceedsBudget(int64_t usedBytes, int32_t budgetMB) {
    return usedBytes / 1024 / 1024 > budgetMB;
}

std::vector<int> CImageMan::EvictionOrder(int32_t nextBucket) {
    std::vector<int> order;
    for (int i = std::max(nextBucket, 0); i < kBucketCount; ++i) order.push_back(i);
    for (int i = 0; i <= nextBucket - 2; ++i) order.push_back(i);
    return order;
}

bool CImageMan::IsHit(const ImageBucket& bucket, std::string_view path, std::string_view key,
                      bool bFull) {
    if (bucket.sPath != path || bucket.sKey != key || bucket.pAni->GetFrameCount() == 0)
        return false;
    return !bucket.pAni->GetFrame(0)->bReduced || !bFull;
}

bool CImageMan::MakeChecker(XDib& tile) {
    if (!tile.Create(kCheckerSize, kCheckerSize, 24)) return false;
    tile.Fill(0xFFFFFF);
    const uint32_t half = kCheckerSize / 2;
    for (uint32_t y = 0; y < kCheckerSize; ++y)
        for (uint32_t x = 0; x < kCheckerSize; ++x)
            if ((x < half) == (y < half)) {
                uint8_t* p = tile.GetPixelPtr(x, y);
                p[0] = p[1] = p[2] = uint8_t(kCheckerGrey);
            }
    return true;
}

bool CImageMan::MakeErrorPicture(XAnimDib& ani, std::string_view path) {
    ani.Clear();
    XDib* dib = ani.AddEmptyFrame();
    if (!dib->Create(kErrorWidth, kErrorHeight, 24)) return false;
    dib->Fill(0xFFFFFF);
    DrawLine24(*dib, 0, 0, kErrorWidth - 1, kErrorHeight - 1);
    DrawLine24(*dib, kErrorWidth - 1, 0, 0, kErrorHeight - 1);
    const XRect box{10, 10, int32_t(kErrorWidth) - 10, int32_t(kErrorHeight) - 10};
    // No face on the system leaves the crossed page without its text; it still says enough.
    XDrawTextLine(*dib, box, XFontSpec{}, path, 0x000000, XTEXT_CENTRE | XTEXT_MIDDLE_ELLIPSIS);
    return true;
}

void CImageMan::SetOptions(const ImageOptions& options) {
    std::lock_guard lock(cs_);
    options_ = options;
}

void CImageMan::SetScaleRequest(bool enable, uint32_t width, uint32_t height) {
    std::lock_guard lock(cs_);
    scaleRequest_ = {enable ? 1u : 0u, width, height};
}

std::string CImageMan::MakeKey(std::string_view path, std::string_view password) {
    // An archive page has no such file: size and time stay 0, and the key is made all the same.
    platform::FileFacts facts;
    platform::GetFileFacts(std::string(path), &facts);
    ImageOptions options;
    {
        std::lock_guard lock(cs_);
        options = options_;
    }
    return FormatKey(password, facts.nSize, facts.ftLastWrite, options);
}

XAnimDib* CImageMan::FindBucket(std::string_view path, std::string_view key) {
    std::lock_guard lock(cs_);
    for (const ImageBucket& bucket : buckets_)
        if (IsHit(bucket, path, key, options_.bFull != 0)) return bucket.pAni.get();
    return nullptr;
}

bool CImageMan::HasBucket(std::string_view path, std::string_view key) {
    return FindBucket(path, key) != nullptr;
}

bool CImageMan::GetInfo(std::string_view path, std::string_view key, ImageFileInfo* info) {
    std::lock_guard lock(cs_);
    for (const ImageBucket& bucket : buckets_)
        if (bucket.sPath == path && bucket.sKey == key) {
            *info = *bucket.pInfo;
            return true;
        }
    return false;
}

bool CImageMan::IsOverBudget() {
    std::lock_guard lock(cs_);
    return ExceedsBudget(nUsedBytes_, nBudgetMB);
}

uint64_t CImageMan::EmptyBucketLocked(int index) {
    ImageBucket& bucket = buckets_[index];
    bucket.sPath.clear();
    bucket.sKey.clear();
    const uint64_t size = bucket.pAni->GetMemorySize();
    nUsedBytes_ -= int64_t(size);
    bucket.pAni->Clear();
    return size;
}

bool CImageMan::RemoveBucket(int index) {
    if (index < 0 || index >= kBucketCount) return false;
    uint64_t removed;
    int64_t left;
    bool held;
    {
        std::lock_guard lock(cs_);
        held = buckets_[index].pAni->GetFrameCount() != 0;
        removed = EmptyBucketLocked(index);
        left = nUsedBytes_;
    }
    if (held)
        XTrace("@@<RemoveBucket:%d, %dMB(-%dMB)", index, int((left >> 20) & 0xFFF),
               int(removed >> 20));
    return true;
}

bool CImageMan::MakeRoom() {
    for (const int index : EvictionOrder(GetNextBucket())) {
        RemoveBucket(index);
        if (!IsOverBudget()) return true;
    }
    return false;
}

int64_t CImageMan::GetUsedBytes() {
    std::lock_guard lock(cs_);
    return nUsedBytes_;
}

int32_t CImageMan::GetNextBucket() {
    std::lock_guard lock(cs_);
    return nNextBucket_;
}

std::string CImageMan::GetBucketPath(int index) {
    if (index < 0 || index >= kBucketCount) return {};
    std::lock_guard lock(cs_);
    return buckets_[index].sPath;
}

XAnimDib* CImageMan::DecodeFile(std::string_view path, std::string_view key,
                                const std::string& fileName, int32_t waitMs, bool* timedOut,
                                bool bNoLookup) {
    if (timedOut) *timedOut = false;
    if (!bNoLookup)
        if (XAnimDib* found = FindBucket(path, key)) return found;
    XDibIOPtr source = CXDibBuffFileIO::Open(fileName.c_str());
    if (!source) return nullptr;
    return PostDecode(path, key, std::move(source), waitMs, timedOut);
}

XAnimDib* CImageMan::DecodeMemory(std::string_view path, std::string_view key, const void* data,
                                  size_t size, int32_t waitMs, bool* timedOut, bool bNoLookup) {
    if (timedOut) *timedOut = false;
    if (!bNoLookup)
        if (XAnimDib* found = FindBucket(path, key)) return found;
    if (size > size_t(INT64_MAX)) return nullptr;
    XDibIOPtr source = CXDibMemIO::MakeCopy(data, int64_t(size));
    if (!source) return nullptr;
    return PostDecode(path, key, std::move(source), waitMs, timedOut);
}

XAnimDib* CImageMan::DecodeNothing(std::string_view path, std::string_view key) {
    if (XAnimDib* found = FindBucket(path, key)) return found;
    bool timedOut = false;
    return PostDecode(path, key, XDibIOPtr(), -1, &timedOut);
}

XAnimDib* CImageMan::PostDecode(std::string_view path, std::string_view key, XDibIOPtr source,
                                int32_t waitMs, bool* timedOut) {
    if (timedOut) *timedOut = false;
    // No queue: a busy cache turns the request down, and the engine asks again next turn.
    if (!IsIdle()) {
        if (timedOut) *timedOut = true;
        return nullptr;
    }
    auto job = std::make_unique<ImageJob>(
        ImageJob{std::move(source), std::string(path), std::string(key)});
    bool waitRanOut = false, delivered = false;
    SendCommand(IC_DECODE, reinterpret_cast<uint64_t>(job.get()), 0,
                waitMs < 0 ? kInfinite : uint32_t(waitMs), &waitRanOut, &delivered);
    // Once delivered the job is the thread's, even when the wait ran out: it stores its result
    // later, holding its own reference on the source.
    if (delivered) (void)job.release();
    if (waitRanOut) {
        if (timedOut) *timedOut = true;
        return nullptr;
    }
    XAnimDib* found = FindBucket(path, key);
    if (!found) XTrace("FindBucket fail - %s", std::string(path).c_str());
    return found;
}

uint32_t CImageMan::ThreadMain() {
    while (!bQuit_)
        if (const std::optional<XCommand> command = WaitRequest(kIdleWaitMs))
            Reply(Serve(*command));
    return 0;
}

XResult CImageMan::Serve(const XCommand& command) {
    switch (command.nCommand) {
        case IC_NOP:
            return kXOk;
        case IC_DECODE: {
            const std::unique_ptr<ImageJob> job(reinterpret_cast<ImageJob*>(command.nParam1));
            if (!job) return kXFail;
            Decode(*job);
            return kXOk;
        }
        case IC_QUIT:
            bQuit_ = true;
            return kXOk;
        case IC_DROP_REDUCED:
        case IC_DROP_ALL: {
            std::lock_guard lock(cs_);
            for (int i = 0; i < kBucketCount; ++i) {
                const XDib* first = buckets_[i].pAni->GetFrame(0);
                if (command.nCommand == IC_DROP_ALL || (first && first->bReduced))
                    EmptyBucketLocked(i);
            }
            return kXOk;
        }
        default:
            return kXFail;
    }
}

void CImageMan::Decode(const ImageJob& job) {
    if (IsOverBudget()) MakeRoom();

    ImageOptions options;
    XDibScaleRequest scale;
    {
        std::lock_guard lock(cs_);
        options = options_;
        scale = scaleRequest_;
    }
    ExifInfo exif{};
    CJPEGMetaData meta(&exif);
    auto ani = std::make_unique<XAnimDib>();
    ani->pColorMan = pColorMan_.get();
    if (job.source) {
        job.source->Seek(0, 0);
        ani->Load(*job.source, job.sPath.c_str(), &meta, options.bFull ? nullptr : &scale);
    }
    // Whatever Load said, a picture without a frame becomes the error picture, which is stored
    // like any page so that a broken file isn't decoded again.
    if (ani->GetFrameCount() == 0) MakeErrorPicture(*ani, job.sPath);

    const bool exifValid = exif.bIsExif != 0;
    if (options.bExifRotation && exifValid) {
        if (exif.nOrientation == 6) ani->GetFrame(0)->Rotate(0);  // a quarter clockwise
        if (exif.nOrientation == 8) ani->GetFrame(0)->Rotate(1);  // a quarter anticlockwise
    }
    Normalise(*ani, options);

    ImageFileInfo info;
    if (exifValid) info.exif = exif;
    if (job.source) info.nFileSize = uint32_t(job.source->GetSize());
    if (const auto* file = dynamic_cast<const CXDibBuffFileIO*>(job.source.get())) {
        platform::FileFacts facts;
        if (platform::GetFileFactsOf(file->Handle(), &facts)) {
            info.ftCreation = facts.ftCreation;
            info.ftLastWrite = facts.ftLastWrite;
        }
    }
    if (const XDib* first = ani->GetFrame(0)) {
        info.nDecodedWidth = first->nWidth;
        info.nDecodedHeight = first->nHeight;
        info.nFullWidth = first->bReduced ? first->nOrigWidth : first->nWidth;
        info.nFullHeight = first->bReduced ? first->nOrigHeight : first->nHeight;
    }

    // Publish. The old picture of the slot goes once the lock is released.
    std::unique_ptr<XAnimDib> old;
    {
        std::lock_guard lock(cs_);
        ImageBucket& bucket = buckets_[nNextBucket_];
        nUsedBytes_ -= int64_t(bucket.pAni->GetMemorySize());
        old = std::exchange(bucket.pAni, std::move(ani));
        bucket.sPath = job.sPath;
        bucket.sKey = job.sKey;
        nUsedBytes_ += int64_t(bucket.pAni->GetMemorySize());
        *bucket.pInfo = info;
        nNextBucket_ = (nNextBucket_ + 1) % kBucketCount;
    }
}

void CImageMan::Normalise(XAnimDib& ani, const ImageOptions& options) const {
    if (ani.GetFrameCount() > 1) {
        // Animations keep their transparency: the player lays each frame over the last.
        ani.ConvertAll(32);
    } else if (XDib* dib = ani.GetFrame(0); dib && dib->nBpp != 32) {
        dib->ConvertBpp(32);
    } else if (dib) {
        // A still picture with alpha is laid over its background once, here.
        const uint32_t option =
            dib->nFormat == FORMAT_GIF ? options.nGifTransOption : options.nAlphaTransOption;
        XDib back;
        if (back.Create(dib->nWidth, dib->nHeight, 32)) {
            if (option == 0)
                back.Fill(dib->clrBackground, 255);
            else if (option == 1)
                back.Fill(0xFFFFFF, 255);
            else if (option == 2)
                TileChecker(checker_, back);
            // The frame keeps its record (format, reduction, sizes of the file); only the
            // storage changes hands.
            dib->Swap(back, false);
            back.Blit(*dib, 0, 0, 0, 0, -1, -1, true);
        }
    }

    // nRotate: 1 a quarter anticlockwise, 2 a quarter clockwise, 3 a half turn.
    static constexpr int kDirection[4] = {-1, 1, 0, 2};
    if (options.nRotate >= 1 && options.nRotate <= 3)
        for (XAnimFrame& frame : ani.frames) frame.pDib->Rotate(kDirection[options.nRotate]);

    if (XDib* first = ani.GetFrame(0)) {
        if (options.bNegative) Negative(*first);
        if (options.bGamma) Gamma(*first);
    }
}
