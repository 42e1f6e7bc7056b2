#include "engine/manaproc.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <span>
#include <system_error>

#include "base/tick.h"
#include "base/xlog.h"
#include "engine/compose.h"
#include "platform/files.h"
#include "platform/memory.h"
#include "platform/system.h"

namespace {

constexpr uint32_t kAllBits = 0xFFFFFFFF;
constexpr int32_t kPreviewWaitMs = 100;
constexpr uint32_t kPreviewSize = 100;
constexpr uint32_t kQuietMs = 1000;
constexpr uint32_t kIdleStepMs = 100;
constexpr int32_t kNoPrepared = -99;

bool IsSpreadMode(uint32_t mode) {
    return mode == SHOW_TWO_PAGE_L2R || mode == SHOW_TWO_PAGE_R2L;
}

bool IsArchivePath(std::string_view path) {
    return path.find('|') != std::string_view::npos;
}

// Height not 0 and width / height not above 1.0: a square is upright.
bool IsUprightPicture(const XAnimDib* picture) {
    const XDib* frame = picture ? picture->GetFrame(0) : nullptr;
    return frame && frame->nHeight != 0 && double(frame->nWidth) / frame->nHeight <= 1.0;
}

bool SameSettings(const ViewSettings& a, const ViewSettings& b) {
    static_assert(sizeof(ViewSettings) == 15 * sizeof(uint32_t), "15 values, no padding");
    return std::memcmp(&a, &b, sizeof a) == 0;
}

// The size of the file at `path`, -1 when there is none (a folder counts as none).
int64_t ExistingFileSize(const std::string& path) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0 || S_ISDIR(st.st_mode)) return -1;
    return int64_t(st.st_size);
}

bool WriteWholeFile(const std::string& path, std::span<const uint8_t> bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) return false;
    out.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
    return bool(out);
}

}  // namespace

// ---- pure rules ------------------------------------------------------------------------------

PreviewRule::Decision PreviewRule::Begin(std::string_view path, bool bUsePreviewMode, bool bFull,
                                         bool bFastFormat, bool bNoPreview) {
    Decision d;
    if (bUsePreviewMode && !bFull && bFastFormat && !bNoPreview) {
        d.waitMs = kPreviewWaitMs;
    } else {
        d.waitMs = -1;
        bPreviewPending = false;
    }
    // While a preview stands, only the pages asked for last may decode: the window's repeats for
    // the shown page go on, a page turned to meanwhile gets a preview only.
    if (bPreviewPending && (path == sPrevPath || path == sLastPath)) bPreviewPending = false;
    d.bDecode = !bPreviewPending;
    return d;
}

void PreviewRule::End(std::string_view path, bool bPreviewShown) {
    sPrevPath = std::move(sLastPath);
    sLastPath = path;
    if (bPreviewShown) bPreviewPending = true;
}

bool IsFastFormat(std::string_view name) {
    for (std::string_view ext : {".jpg", ".jpeg", ".jpe", ".hdp", ".wmp"})
        if (name.find(ext) != std::string_view::npos) return true;
    return false;
}

std::vector<int32_t> PrefetchOrder(int32_t current, int32_t count) {
    std::vector<int32_t> order;
    if (current < 0 || current >= count) return order;
    for (int32_t offset : kPrefetchOffsets) {
        const int64_t index = int64_t(current) + offset;
        if (index >= 0 && index < count) order.push_back(int32_t(index));
    }
    return order;
}

bool IsReducedEnough(uint32_t mode, uint32_t canvasWidth, uint32_t canvasHeight, uint32_t w,
                     uint32_t h) {
    switch (mode) {
        case SHOW_STRETCH: {
            if (w == 0 || h == 0 || canvasHeight == 0) return false;
            // The fit of composition: the side that rules takes the canvas, the other is rounded.
            const double aspect = double(w) / h;
            double fitW = canvasWidth, fitH = canvasHeight;
            if (double(canvasWidth) / canvasHeight >= aspect) {
                fitW = uint32_t(canvasHeight * aspect + 0.5);
            } else {
                fitH = uint32_t(canvasWidth / aspect + 0.5);
            }
            return fitW < w && fitH < h;
        }
        case SHOW_FIT_WIDTH:
            return canvasWidth < w;
        case SHOW_TWO_PAGE_L2R:
        case SHOW_TWO_PAGE_R2L:
            return canvasHeight < h;
        default:
            return true;
    }
}

XDibScaleRequest ScaleRequestFor(const ViewSettings& s) {
    XDibScaleRequest r;
    switch (s.nStretchMode) {
        case SHOW_STRETCH:
            r = {1, s.nCanvasWidth, s.nCanvasHeight};
            break;
        case SHOW_FIT_WIDTH:
            r = {1, s.nCanvasWidth, 0};
            break;
        case SHOW_TWO_PAGE_L2R:
        case SHOW_TWO_PAGE_R2L:
            r = {1, 0, s.nCanvasHeight};
            break;
        default:
            break;
    }
    return r;
}

std::string FindFreeName(const std::string& folder, const std::string& name, int64_t size) {
    // Taken: a file of that name with another size. One of the same size is the same picture
    // stored before, and its name may be used again.
    auto taken = [&](const std::string& candidate) {
        const int64_t existing = ExistingFileSize(folder + "/" + candidate);
        return existing >= 0 && existing != size;
    };
    if (!taken(name)) return name;
    const size_t dot = name.rfind('.');
    const std::string stem = dot == std::string::npos ? name : name.substr(0, dot);
    const std::string ext = dot == std::string::npos ? std::string() : name.substr(dot);
    std::string candidate;
    for (int n = 2; n <= 200; ++n) {
        char number[16];
        std::snprintf(number, sizeof number, " (%d)", n);
        candidate = stem + number + ext;
        if (!taken(candidate)) break;
    }
    return candidate;
}

std::string FlatStoreName(std::string_view path) {
    const size_t cut = path.find_last_of("\\/");
    std::string name(cut == std::string_view::npos ? path : path.substr(cut + 1));
    for (char& c : name)
        if (c == '\\' || c == '?' || c == '|') c = '-';
    return name;
}

std::string FlatTempName(std::string_view entryName) {
    if (entryName.find('?') != std::string_view::npos) {
        return "OrlimoTemp" + std::string(GetExtension(entryName));
    }
    std::string name(entryName);
    for (char& c : name)
        if (c == '\\' || c == '/') c = '-';
    return name;
}

// ---- the engine ------------------------------------------------------------------------------

CManaProc::CManaProc() {
    pPreviewFirst.AddEmptyFrame();
    pPreviewSecond.AddEmptyFrame();
}

CManaProc::~CManaProc() {
    if (IsRunning()) SendCommand(MP_QUIT, 0, 0, kInfinite);
    Wait();
    // The caches' threads were stopped by the body; their own destructors make sure of it.
    std::error_code ec;
    std::filesystem::remove_all(platform::GetTempFolder() + "/OrlimoTemp", ec);
}

bool CManaProc::Start(CPageList* list, IManaHost* host) {
    if (!list || IsRunning()) return false;
    pList = list;
    pHost = host;
    bQuit = false;
    return XThread::Start(list);
}

bool CManaProc::ShowPage(bool bActualSize, bool bNoPreview, const std::function<void()>& pump) {
    bool timedOut = false, delivered = false;
    SendCommand(MP_SHOW_PAGE, bActualSize, bNoPreview, 1000, &timedOut, &delivered);
    if (!delivered) return false;
    // A slow decode: keep the caller's window painted while the thread finishes.
    while (timedOut && !WaitIdle(10)) {
        if (pump) pump();
    }
    return true;
}

void CManaProc::ApplySettings(const ViewSettings& settings) {
    {
        std::lock_guard hold(pList->cs);
        pList->viewSettings = settings;
    }
    SendCommand(MP_APPLY_SETTINGS, 0, 0, kInfinite);
}

XResult CManaProc::OpenArchive(const std::string& path, ArchiveListing* listing, bool reopen) {
    return SendCommand(reopen ? MP_REOPEN_ARCHIVE : MP_OPEN_ARCHIVE,
                       reinterpret_cast<uint64_t>(&path), reinterpret_cast<uint64_t>(listing),
                       kInfinite);
}

void CManaProc::CloseArchive() {
    SendCommand(MP_CLOSE_ARCHIVE, 0, 0, kInfinite);
}

void CManaProc::SetPassword(const std::string& password) {
    SendCommand(MP_SET_PASSWORD, reinterpret_cast<uint64_t>(&password), 0, kInfinite);
}

void CManaProc::PostCacheImage(int32_t index, uint64_t target) {
    std::lock_guard hold(queueLock_);
    queue_.push_back({kMsgCacheImage, index, target});
}

uint32_t CManaProc::ThreadMain() {
    // Budgets from the free memory of this moment; each cache starts before it gets a request.
    const int64_t availMB = platform::GetAvailablePhysicalMB();
    cacheMain.Start();
    cacheMain.nInstance = 0;
    cacheMain.nBudgetMB = CImageMan::BudgetFor(0, availMB);
    cachePreview.Start();
    cachePreview.nInstance = 1;
    cachePreview.nBudgetMB = CImageMan::BudgetFor(1, availMB);

    uint64_t ticks = XGetTickCount64();
    for (;;) {
        HandleQueuedMessage();
        if (auto cmd = WaitRequest(1)) {
            do {
                Reply(Serve(*cmd));
            } while (!bQuit && (cmd = WaitRequest(0)));
            ticks = XGetTickCount64();
        }
        if (bQuit) break;
        const uint64_t now = XGetTickCount64();
        if (now - ticks > kQuietMs) {
            // After a second of quiet one step of work follows every 100 ms.
            previewRule.Quiet();
            if (!Prefetch()) PrepareNext();
            ticks = XGetTickCount64() - (kQuietMs - kIdleStepMs);
        }
    }

    for (CImageMan* cache : {&cacheMain, &cachePreview}) {
        cache->SendCommand(CImageMan::IC_QUIT, 0, 0, kInfinite);
        cache->Wait();
    }
    return 0;
}

XResult CManaProc::Serve(const XCommand& cmd) {
    switch (cmd.nCommand) {
        case MP_NOP:
            return kXOk;
        case MP_SHOW_BACKGROUND: {
            const auto* path = reinterpret_cast<const std::string*>(cmd.nParam1);
            return OnShowBackground(path ? *path : std::string(), uint32_t(cmd.nParam2));
        }
        case MP_QUIT:
            bQuit = true;
            return kXOk;
        case MP_SHOW_PAGE:
            return OnShowPage(cmd.nParam1 != 0, cmd.nParam2 != 0);
        case MP_SAVE_SCREEN_PICTURE: {
            const auto* request = reinterpret_cast<const ScreenPictureRequest*>(cmd.nParam1);
            return request ? OnSaveScreenPicture(*request) : kXFail;
        }
        case MP_APPLY_SETTINGS:
            return OnApplySettings();
        case MP_STORE_FILE: {
            const auto* folder = reinterpret_cast<const std::string*>(cmd.nParam1);
            return folder ? OnStoreFile(*folder, cmd.nParam2 != 0) : kXFail;
        }
        case MP_GET_PICTURE: {
            auto* request = reinterpret_cast<PictureRequest*>(cmd.nParam1);
            if (!request || !request->pTarget) return kXFail;
            PageEntry entry;
            if (!CopyEntry(request->nIndex, &entry)) return kXFail;
            return GetPreview(entry, request->pTarget, request->nWidth, request->nHeight,
                              request->bWait != 0)
                       ? kXOk
                       : kXFail;
        }
        case MP_OPEN_EXTERNAL: {
            const auto* program = reinterpret_cast<const std::string*>(cmd.nParam1);
            return program ? OnOpenExternal(*program) : kXFail;
        }
        case MP_OPEN_ARCHIVE:
        case MP_REOPEN_ARCHIVE: {
            const auto* path = reinterpret_cast<const std::string*>(cmd.nParam1);
            auto* listing = reinterpret_cast<ArchiveListing*>(cmd.nParam2);
            if (!path || !listing) return kXFail;
            return OnOpenArchive(*path, listing, cmd.nCommand == MP_REOPEN_ARCHIVE);
        }
        case MP_CLOSE_ARCHIVE:
            tarn.Close();
            memOut.Clear();
            return kXOk;
        case MP_SET_PASSWORD: {
            const auto* password = reinterpret_cast<const std::string*>(cmd.nParam1);
            sPassword = password ? *password : std::string();
            tarn.SetPassword(sPassword);
            return kXOk;
        }
        default:
            return kXFail;
    }
}

void CManaProc::HandleQueuedMessage() {
    QueuedMessage msg;
    {
        std::lock_guard hold(queueLock_);
        if (queue_.empty()) return;
        msg = queue_.front();
        queue_.pop_front();
    }
    if (msg.nMessage != kMsgCacheImage) return;
    XTrace("CacheImage:%d", msg.nIndex);
    PageEntry entry;
    if (!CopyEntry(msg.nIndex, &entry)) return;
    GetPreview(entry, nullptr, kPreviewSize, kPreviewSize, true);
    if (pHost) pHost->PostToWindow(msg.nTarget, kMsgImageCached, msg.nIndex);
}

bool CManaProc::CopyEntry(int32_t index, PageEntry* entry, int32_t* indexOut) {
    std::lock_guard hold(pList->cs);
    if (index == kCurrentPage) index = pList->GetCurrent();
    const PageEntry* e = pList->GetEntry(index);
    if (!e) return false;
    *entry = *e;
    if (indexOut) *indexOut = index;
    return true;
}

void CManaProc::SetCacheOptions(CImageMan& cache, bool bFull) {
    ImageOptions o;
    o.bExifRotation = viewSettings.bExifRotation;
    o.bNegative = viewSettings.bImageProcessingNegative;
    o.bGamma = viewSettings.bImageProcessingGamma;
    o.bFull = bFull;
    o.nGifTransOption = viewSettings.nGifTransOption;
    o.nAlphaTransOption = viewSettings.nAlphaTransOption;
    o.nRotate = viewSettings.nRotate;
    cache.SetOptions(o);
}

CManaProc::ExtractResult CManaProc::ExtractEntry(const PageEntry& entry) {
    return ExtractArchivePage(tarn, entry, &memOut);
}

XResult CManaProc::OnOpenArchive(const std::string& path, ArchiveListing* listing, bool reopen) {
    EmptyPrepared();
    const uint32_t result = ListArchive(tarn, path, sPassword, reopen, listing);
    return result;
}

XAnimDib* CManaProc::StartDecode(CImageMan& cache, const PageEntry& entry, const std::string& key,
                                 int32_t waitMs, bool* timedOut) {
    *timedOut = false;
    const std::string& path = entry.szPath;
    const bool counted = &cache == &cacheMain;
    const bool wasIdle = cache.IsIdle();
    XAnimDib* result = nullptr;
    if (!IsArchivePath(path)) {
        result = cache.DecodeFile(path, key, path, waitMs, timedOut, false);
    } else {
        lastExtract_ = ExtractEntry(entry);
        switch (lastExtract_) {
            case ExtractResult::kOk:
                result = cache.DecodeMemory(path, key, memOut.data(), memOut.size(), waitMs,
                                            timedOut, false);
                break;
            case ExtractResult::kCorrupt:
                // A damaged entry still shows what was decoded before the damage.
                result = cache.DecodeMemory(path, key, memOut.data(), memOut.size(), -1, timedOut,
                                            false);
                if (!result && !*timedOut) result = cache.DecodeNothing(path, key);
                break;
            case ExtractResult::kFailed:
                result = cache.DecodeNothing(path, key);
                break;
        }
    }
    if (result || *timedOut) {
        auto& counter = counted ? stats_.nFullDecodes : stats_.nPreviewDecodes;
        if (wasIdle) counter.fetch_add(1, std::memory_order_relaxed);
        if (!wasIdle && counted) stats_.nBusyRefusals.fetch_add(1, std::memory_order_relaxed);
    }
    return result;
}

XAnimDib* CManaProc::GetPage(XAnimDib* target, int32_t index, const PageEntry& entry, bool bFull,
                             bool* isPreview, bool bNoPreview) {
    bTimedOut_ = false;
    SetCacheOptions(cacheMain, bFull);
    *isPreview = false;
    const std::string& path = entry.szPath;
    const std::string key = cacheMain.MakeKey(path, sPassword);

    XAnimDib* result = nullptr;
    if (XAnimDib* bucket = cacheMain.FindBucket(path, key)) {
        const XDib* frame = bucket->GetFrame(0);
        if (!frame || !frame->bReduced) return bucket;
        if (IsReducedEnough(viewSettings.nStretchMode, viewSettings.nCanvasWidth,
                            viewSettings.nCanvasHeight, frame->nWidth, frame->nHeight))
            return bucket;
        // Reduced for a smaller view than this one: decode the whole picture. The cache asked
        // for a full picture ignores its scale request and passes reduced buckets by.
        SetCacheOptions(cacheMain, true);
        cacheMain.SetScaleRequest(false, 0, 0);
    } else if (!bFull) {
        const XDibScaleRequest request = ScaleRequestFor(viewSettings);
        cacheMain.SetScaleRequest(request.bEnable != 0, request.nTargetWidth,
                                  request.nTargetHeight);
    } else {
        cacheMain.SetScaleRequest(false, 0, 0);
    }

    const PreviewRule::Decision decision = previewRule.Begin(
        path, bUsePreviewMode.load() != 0, bFull, IsFastFormat(entry.szName), bNoPreview);
    bool timedOut = true;
    if (decision.bDecode) result = StartDecode(cacheMain, entry, key, decision.waitMs, &timedOut);

    bool previewShown = false;
    if (timedOut && target) {
        XDib* frame = target->GetFrame(0);
        if (frame && GetPreview(entry, frame, kPreviewSize, kPreviewSize, true)) {
            previewShown = true;
            *isPreview = true;
            result = target;
        }
    }
    previewRule.End(path, previewShown);
    bTimedOut_ = timedOut && !previewShown;

    if (const XDib* frame = result ? result->GetFrame(0) : nullptr) {
        if (bListHeld_) {
            pList->SetPageSize(index, path, frame->nWidth, frame->nHeight);
        } else {
            std::lock_guard hold(pList->cs);
            pList->SetPageSize(index, path, frame->nWidth, frame->nHeight);
        }
    }
    return result;
}

bool CManaProc::GetPreview(const PageEntry& entry, XDib* target, uint32_t width, uint32_t height,
                           bool bWait) {
    SetCacheOptions(cachePreview, false);
    const std::string key = cachePreview.MakeKey(entry.szPath, sPassword);
    XAnimDib* picture = cachePreview.FindBucket(entry.szPath, key);
    if (!picture) {
        cachePreview.SetScaleRequest(true, width, height);
        bool timedOut = false;
        picture = StartDecode(cachePreview, entry, key, bWait ? -1 : 0, &timedOut);
    }
    const XDib* frame = picture ? picture->GetFrame(0) : nullptr;
    if (!frame) return false;
    return !target || target->CopyFrom(*frame);
}

bool CManaProc::LoadCurrent(bool bFull, bool bNoPreview) {
    const int32_t current = pList->GetCurrent();
    const PageEntry* entry = pList->GetEntry(current);
    if (!entry) return false;
    const PageEntry first = *entry;
    bool firstIsPreview = false;
    XAnimDib* one = GetPage(&pPreviewFirst, current, first, bFull, &firstIsPreview, bNoPreview);
    if (!one) return false;
    pShownFirst = one;
    pShownSecond = nullptr;

    bool secondIsPreview = false;
    if (IsSpreadMode(viewSettings.nStretchMode) && IsUprightPicture(one)) {
        // A page of unknown size may well be upright: load it and let composition decide.
        const PageEntry* next = pList->GetEntry(int64_t(current) + 1);
        if (next && IsUprightPage(*next, true)) {
            const PageEntry second = *next;
            pShownSecond = GetPage(&pPreviewSecond, current + 1, second, bFull, &secondIsPreview,
                                   firstIsPreview ? bNoPreview : true);
        }
    }
    pList->bMultiFrame = one->GetFrameCount() >= 2;
    pList->bPreview = firstIsPreview || secondIsPreview;
    return true;
}

void CManaProc::Compose(bool bActualSize, const ViewSettings& settings) {
    if (!pList->bMultiFrame) {
        if (pList->aniComposed.GetFrameCount() != 1) {
            pList->aniComposed.Clear();
            pList->aniComposed.AddEmptyFrame();
        }
        pList->pComposed = pList->aniComposed.GetFrame(0);
        const ComposeReport report =
            ComposeView(pShownFirst, pShownSecond, *pList->pComposed, false, bActualSize, settings,
                        bUseSuperSampling != 0);
        if (report.bComposed) {
            pList->bTwoPageMode = report.bTwoPageMode;
            pList->bTwoPageShown = report.bTwoPageShown;
        }
        return;
    }
    // Animated pictures skip composition: every frame is passed with its delay.
    pList->aniComposed.Clear();
    pList->pComposed = nullptr;
    for (size_t i = 0; pShownFirst && i < pShownFirst->GetFrameCount(); ++i) {
        XDib* frame = pList->aniComposed.AddEmptyFrame();
        frame->CopyFrom(*pShownFirst->GetFrame(i));
        pList->aniComposed.frames.back().nDelayMs = pShownFirst->GetDelay(i);
    }
    pList->bTwoPageMode = IsSpreadMode(settings.nStretchMode);
    pList->bTwoPageShown = 0;
}

void CManaProc::EmptyPrepared() {
    nPreparedIndex = kNoPrepared;
    pPreparedFirst = nullptr;
    pPreparedSecond = nullptr;
    bPreparedSpread = 0;
    sPreparedPath.clear();
}

XResult CManaProc::OnShowPage(bool bActualSize, bool bNoPreview) {
    std::lock_guard hold(pList->cs);
    bListHeld_ = true;
    if (pList->GetCount() == 0) {
        ViewSettings settings = viewSettings;
        if (settings.clrEmptyBkgnd != kAllBits) settings.clrBkgnd = settings.clrEmptyBkgnd;
        Compose(bActualSize, settings);
        bListHeld_ = false;
        return kXOk;
    }

    // A page that can't be had (its file is gone) leaves the view as it was.
    if (LoadCurrent(bActualSize, bNoPreview)) {
        const std::string currentPath = pList->GetCurrentPath();
        if (!bActualSize && nPreparedIndex == pList->GetCurrent() && sPreparedPath == currentPath &&
            !pList->bPreview) {
            // The view was composed ahead: hand its canvas over; the old canvas becomes the
            // next prepared one's storage.
            if (pList->aniComposed.GetFrameCount() != 1) {
                pList->aniComposed.Clear();
                pList->aniComposed.AddEmptyFrame();
            }
            pList->pComposed = pList->aniComposed.GetFrame(0);
            pList->pComposed->Swap(prepared, true);
            pList->bTwoPageMode = IsSpreadMode(viewSettings.nStretchMode);
            pList->bTwoPageShown = bPreparedSpread;
            pList->bMultiFrame = 0;
            stats_.nPreparedUsed.fetch_add(1, std::memory_order_relaxed);
        } else {
            Compose(bActualSize, viewSettings);
        }

        pList->fileInfo = ImageFileInfo{};
        SetCacheOptions(cacheMain, false);
        cacheMain.GetInfo(currentPath, cacheMain.MakeKey(currentPath, sPassword), &pList->fileInfo);
    }
    EmptyPrepared();
    bListHeld_ = false;
    return kXOk;
}

XResult CManaProc::OnShowBackground(const std::string& path, uint32_t colour) {
    std::lock_guard hold(pList->cs);
    pList->bMultiFrame = 0;
    aniBackground.Clear();
    if (path.empty() || !aniBackground.LoadFile(path.c_str()) ||
        aniBackground.GetFrameCount() == 0) {
        aniBackground.Clear();
        XDib* frame = aniBackground.AddEmptyFrame();
        if (frame->Create(640, 480, 32))
            frame->Fill(colour == kAllBits ? viewSettings.clrBkgnd : colour);
    }
    aniBackground.ConvertAll(32);
    pShownFirst = &aniBackground;
    pShownSecond = nullptr;
    Compose(false, viewSettings);
    return kXOk;
}

XResult CManaProc::OnApplySettings() {
    std::lock_guard hold(pList->cs);
    if (!SameSettings(pList->viewSettings, viewSettings)) {
        // Reduced pictures were chosen for the old canvas. The view's pointers may lead into
        // dropped buckets: the next show finds its pictures anew.
        EmptyPrepared();
        pShownFirst = pShownSecond = nullptr;
        cacheMain.SendCommand(CImageMan::IC_DROP_REDUCED, 0, 0, kInfinite);
    }
    viewSettings = pList->viewSettings;
    return kXOk;
}

bool CManaProc::Prefetch() {
    int32_t current, count;
    {
        std::lock_guard hold(pList->cs);
        current = pList->GetCurrent();
        count = pList->GetCount();
    }
    if (current < 0) return false;
    // A decode whose caller stopped waiting still runs: nothing can start now.
    if (!cacheMain.IsIdle()) return true;
    for (int32_t index : PrefetchOrder(current, count)) {
        if (PrefetchOne(index, index - current)) return true;
    }
    return false;
}

bool CManaProc::PrefetchOne(int32_t index, int32_t offset) {
    PageEntry entry;
    bool hasEncrypted;
    {
        std::lock_guard hold(pList->cs);
        const PageEntry* e = pList->GetEntry(index);
        if (!e) return false;
        entry = *e;
        hasEncrypted = pList->bHasEncrypted != 0;
    }
    // Encrypted pages can't be read without the password: the pass ends here.
    if (hasEncrypted && sPassword.empty()) return true;
    if (entry.bDecodeFailed) return false;

    SetCacheOptions(cacheMain, false);
    if (XAnimDib* bucket =
            cacheMain.FindBucket(entry.szPath, cacheMain.MakeKey(entry.szPath, sPassword))) {
        if (!pShownSecond && offset == 1) pShownSecond = bucket;
        return false;
    }
    bool isPreview = false;
    XAnimDib* picture = GetPage(nullptr, index, entry, false, &isPreview, true);
    if (!picture) {
        if (bTimedOut_) return true;  // the cache is busy: try again on the next step
        std::lock_guard hold(pList->cs);
        PageEntry* live = pList->GetEntry(index);
        if (live && live->szPath == entry.szPath) live->bDecodeFailed = 1;
        return false;
    }
    stats_.nPrefetchSteps.fetch_add(1, std::memory_order_relaxed);
    if (!pShownSecond && offset == 1) pShownSecond = picture;
    return true;
}

void CManaProc::PrepareNext() {
    int32_t start;
    PageEntry first, second;
    {
        std::lock_guard hold(pList->cs);
        if (pList->GetCurrent() < 0) return;
        start = pList->GetCurrent() + (pList->bTwoPageShown ? 2 : 1);
        if (nPreparedIndex == start) return;
        const PageEntry* a = pList->GetEntry(start);
        const PageEntry* b = pList->GetEntry(int64_t(start) + 1);
        if (!a || !b) return;
        first = *a;
        second = *b;
    }
    // Buckets are only safe to read while no decode can store over them.
    if (!cacheMain.IsIdle()) return;
    SetCacheOptions(cacheMain, false);
    XAnimDib* one = cacheMain.FindBucket(first.szPath, cacheMain.MakeKey(first.szPath, sPassword));
    XAnimDib* two =
        cacheMain.FindBucket(second.szPath, cacheMain.MakeKey(second.szPath, sPassword));
    if (!one || !two || one->GetFrameCount() >= 2 || two->GetFrameCount() >= 2) return;

    const ComposeReport report =
        ComposeView(one, two, prepared, true, false, viewSettings, bUseSuperSampling != 0);
    if (!report.bComposed) return;
    nPreparedIndex = start;
    pPreparedFirst = one;
    pPreparedSecond = report.bTwoPageShown ? two : nullptr;
    bPreparedSpread = report.bTwoPageShown;
    sPreparedPath = first.szPath;
    stats_.nPreparedViews.fetch_add(1, std::memory_order_relaxed);
}

XResult CManaProc::OnStoreFile(const std::string& folder, bool bMove) {
    PageEntry entry;
    int32_t current = -1;
    if (!CopyEntry(kCurrentPage, &entry, &current)) return kXFail;
    if (IsArchivePath(entry.szPath)) {
        if (!ExtractCurrentEntry(current, entry)) return kXFail;
        const std::string name = FlatStoreName(entry.szPath);
        const int64_t size = int64_t(memOut.size());
        std::string target = folder + "/" + name;
        const int64_t existing = ExistingFileSize(target);
        if (existing >= 0 && existing != size)
            target = folder + "/" + FindFreeName(folder, name, size);
        return WriteWholeFile(target, memOut.Bytes()) ? kXOk : kXFail;
    }
    const int64_t size = ExistingFileSize(entry.szPath);
    const std::string target = folder + "/" + FindFreeName(folder, entry.szName, size);
    std::error_code ec;
    if (bMove) {
        // A move across file systems is a copy and a delete.
        std::filesystem::rename(entry.szPath, target, ec);
        if (ec && std::filesystem::copy_file(entry.szPath, target,
                                             std::filesystem::copy_options::overwrite_existing, ec))
            std::filesystem::remove(entry.szPath, ec);
    } else {
        std::filesystem::copy_file(entry.szPath, target,
                                   std::filesystem::copy_options::overwrite_existing, ec);
    }
    return kXOk;  // the outcome of the copy or move isn't looked at
}

bool CManaProc::ExtractCurrentEntry(int32_t index, const PageEntry& entry) {
    // The entry goes through the cache once more at full size, which leaves its bytes in memOut.
    cacheMain.SendCommand(CImageMan::IC_DROP_ALL, 0, 0, kInfinite);
    pShownFirst = pShownSecond = nullptr;
    EmptyPrepared();
    lastExtract_ = ExtractResult::kFailed;
    bool isPreview = false;
    XAnimDib* picture = GetPage(nullptr, index, entry, true, &isPreview, true);
    return picture && lastExtract_ != ExtractResult::kFailed && !memOut.empty();
}

XResult CManaProc::OnOpenExternal(const std::string& program) {
    PageEntry entry;
    int32_t current = -1;
    if (!CopyEntry(kCurrentPage, &entry, &current)) return kXFail;
    std::string target = entry.szPath;
    if (IsArchivePath(entry.szPath)) {
        if (!ExtractCurrentEntry(current, entry)) return kXFail;
        target = platform::GetTempFolder() + "/" + FlatTempName(entry.szName);
        if (!WriteWholeFile(target, memOut.Bytes())) return kXFail;
    }
    return platform::SpawnDetached(program, target) ? kXOk : kXFail;
}

XResult CManaProc::OnSaveScreenPicture(const ScreenPictureRequest& request) {
    if (request.nScreenWidth == 0 || request.nScreenHeight == 0) return kXFail;
    PageEntry entry;
    int32_t current = -1;
    if (!CopyEntry(kCurrentPage, &entry, &current)) return kXFail;
    bool isPreview = false;
    const XAnimDib* picture = GetPage(nullptr, current, entry, false, &isPreview, true);
    if (!picture) return kXFail;

    // The whole page fitted into the screen, interpolated.
    ViewSettings settings = viewSettings;
    settings.nStretchMode = SHOW_STRETCH;
    settings.bStretchWhenLarge = 0;
    if (settings.nFilterMode == 0) settings.nFilterMode = 1;
    settings.nCanvasWidth = request.nScreenWidth;
    settings.nCanvasHeight = request.nScreenHeight;
    XDib canvas;
    if (!ComposeView(picture, nullptr, canvas, true, false, settings, bUseSuperSampling != 0)
             .bComposed)
        return kXFail;
    const XRect page = canvas.rcPage;
    XDib out;
    if (page.IsEmpty() || !out.Create(uint32_t(page.Width()), uint32_t(page.Height()), 32))
        return kXFail;
    canvas.Blit(out, 0, 0, page.left, page.top, page.Width(), page.Height());
    return out.ConvertBpp(24) && out.SaveBmp(request.sPath.c_str()) ? kXOk : kXFail;
}
