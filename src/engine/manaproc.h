// CManaProc: the page engine thread. It turns the request to show the current page into a
// composed picture in the page list, owns both image caches, and decodes ahead when the user has
// been still for a second. The window never decodes: it writes ViewSettings and the cursor into
// the list, sends a numbered request and reads the result back from the list.
//
// Three things make a page turn fast: decoding ahead (pages +1..+5, then -1) after a second of
// quiet; the preview rule (a JPEG or HD Photo decode that takes longer than 100 ms shows a
// 100x100 picture of the preview cache at once); and no queue: at most one full decode runs and a
// page the user has passed never starts.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "base/xthread.h"
#include "engine/archivepages.h"
#include "engine/imageman.h"
#include "engine/pagelist.h"
#include "engine/viewsettings.h"
#include "image/xanimdib.h"
#include "image/xdib.h"

// Request codes of the engine thread.
enum : uint32_t {
    MP_NOP = 0,
    MP_SHOW_BACKGROUND = 1,  // p1: const std::string* file path (may be empty), p2: colour
    MP_QUIT = 2,
    MP_OPEN_ARCHIVE = 4,         // p1: const std::string* path, p2: ArchiveListing*
    MP_REOPEN_ARCHIVE = 5,       // the same, opening anew once the password is known
    MP_SHOW_PAGE = 7,            // p1: bActualSize, p2: bNoPreview
    MP_SAVE_SCREEN_PICTURE = 8,  // p1: const ScreenPictureRequest*
    MP_APPLY_SETTINGS = 9,       //
    MP_CLOSE_ARCHIVE = 11,       //
    MP_SET_PASSWORD = 12,        // p1: const std::string* password
    MP_STORE_FILE = 14,          // p1: const std::string* target folder, p2: bMove
    MP_GET_PICTURE = 15,         // p1: PictureRequest*
    MP_OPEN_EXTERNAL = 16,       // p1: const std::string* program path
};

// Messages of the thread's own queue and the answer it posts.
inline constexpr uint32_t kMsgCacheImage = 1025;   // a page index and a reply target
inline constexpr uint32_t kMsgImageCached = 5121;  // posted to the target with the index

// A picture of one page at a given size, for the thumbnail strip and the like.
struct PictureRequest {
    int32_t nIndex = 0;
    XDib* pTarget = nullptr;
    uint32_t nWidth = 0;
    uint32_t nHeight = 0;
    uint32_t bWait = 1;
};

// The current page fitted to a screen of this size, written as a 24-bit BMP.
struct ScreenPictureRequest {
    std::string sPath;
    uint32_t nScreenWidth = 0;
    uint32_t nScreenHeight = 0;
};

// What the engine needs of its surroundings: a way to post a message to a window.
class IManaHost {
public:
    virtual ~IManaHost() = default;
    // Posts `message` with `index` to `target` (a window of the host); must not block.
    virtual void PostToWindow(uint64_t target, uint32_t message, int32_t index) = 0;
};

// The preview rule, kept apart from the thread so that its states can be checked on their own.
// bPreviewPending is set once a preview stood in for a page; until the same page (one of the
// last two asked for) comes again or a second of quiet passes, no further decode starts.
struct PreviewRule {
    bool bPreviewPending = false;
    std::string sPrevPath;
    std::string sLastPath;

    // What GetPage does before decoding `path`. waitMs is 100 when a preview may stand in,
    // else -1 (no limit). bDecode false: no decode starts and the call counts as timed out.
    struct Decision {
        int32_t waitMs = -1;
        bool bDecode = true;
    };
    Decision Begin(std::string_view path, bool bUsePreviewMode, bool bFull, bool bFastFormat,
                   bool bNoPreview);
    // After the decode (or its absence): the path joins the last two; a preview that was shown
    // makes the rule pending.
    void End(std::string_view path, bool bPreviewShown);
    // A second of quiet.
    void Quiet() { bPreviewPending = false; }
};

// Names that decode fast enough at reduced size to make a preview worth waiting for: ".jpg",
// ".jpeg", ".jpe", ".hdp", ".wmp", lower case, anywhere in the name.
bool IsFastFormat(std::string_view name);

// Decoding ahead visits these offsets from the current page, in this order, whatever the
// direction of reading was.
inline constexpr std::array<int32_t, 6> kPrefetchOffsets = {1, 2, 3, 4, 5, -1};

// The indices that decoding ahead visits for a list of `count` pages with `current` current:
// the offsets above that fall inside the list, in order. Empty when there is no current page.
std::vector<int32_t> PrefetchOrder(int32_t current, int32_t count);

// Whether a reduced picture of w x h is large enough for the show mode and canvas, so that no
// full decode is needed: mode 1 when its fit into the canvas is smaller both ways, mode 2 when
// the canvas is narrower, modes 3 and 4 when the canvas is lower; other modes always.
bool IsReducedEnough(uint32_t mode, uint32_t canvasWidth, uint32_t canvasHeight, uint32_t w,
                     uint32_t h);

// The scale request a decode for the view gets: mode 1 both canvas sizes, mode 2 the width,
// modes 3 and 4 the height, others none.
XDibScaleRequest ScaleRequestFor(const ViewSettings& settings);

// The free name for storing a file of `size` bytes as `name` in `folder`: the name itself when
// no file has it or one of that size has it (the same picture stored before), else
// "stem (n)ext" for n = 2.. with the same rule, and the name for 200 when all are taken.
std::string FindFreeName(const std::string& folder, const std::string& name, int64_t size);

// An archive page's name as one flat file name: the part behind the last "\" or "/" of its path,
// with each "\", "?" and "|" made "-".
std::string FlatStoreName(std::string_view path);

// The name an archive entry is written under for an external program: the entry's name with
// each "\" and "/" made "-"; a name of a nested archive ("?" inside) becomes "OrlimoTemp." and
// the extension.
std::string FlatTempName(std::string_view entryName);

class CManaProc : public XThread {
public:
    // How an archive entry came out of its archive (into memOut).
    using ExtractResult = ArchiveExtract;

    // Counters for diagnostics and benchmarks; written by the engine thread only.
    struct Stats {
        std::atomic<uint32_t> nFullDecodes{0};     // decodes handed to the main cache
        std::atomic<uint32_t> nPreviewDecodes{0};  // decodes handed to the preview cache
        std::atomic<uint32_t> nBusyRefusals{0};    // main-cache decodes turned down as busy
        std::atomic<uint32_t> nPrefetchSteps{0};   // pages decoded ahead
        std::atomic<uint32_t> nPreparedViews{0};   // views composed ahead
        std::atomic<uint32_t> nPreparedUsed{0};    // page turns that used a prepared view
    };

    CManaProc();
    // Stops the thread and both caches, and deletes OrlimoTemp in the temporary folder.
    ~CManaProc() override;

    // Starts the thread over `list`; `host` (may be null) receives the thumbnail messages.
    bool Start(CPageList* list, IManaHost* host = nullptr);

    // Sends MP_SHOW_PAGE with a wait of 1000 ms. False when the thread couldn't take it in that
    // time. When the answer takes longer, polls every 10 ms until the thread is done, calling
    // `pump` each time so that the caller's window stays painted.
    bool ShowPage(bool bActualSize, bool bNoPreview, const std::function<void()>& pump = {});
    // Copies `settings` into the list under its lock and sends MP_APPLY_SETTINGS without limit.
    // The caller must not hold the list's lock.
    void ApplySettings(const ViewSettings& settings);
    // Asks, without waiting, for a 100x100 picture of page `index`; kMsgImageCached with the
    // index is then posted to `target` through the host.
    void PostCacheImage(int32_t index, uint64_t target);

    const Stats& GetStats() const { return stats_; }
    // The main cache, for diagnostics and tests: lookups only.
    CImageMan& GetMainCache() { return cacheMain; }
    CImageMan& GetPreviewCache() { return cachePreview; }

    // Sends MP_OPEN_ARCHIVE (MP_REOPEN_ARCHIVE with `reopen`) and waits for the listing: 0, or
    // kArchiveTooNew / kArchiveCantOpen. The caller appends the pages to the list and sorts.
    XResult OpenArchive(const std::string& path, ArchiveListing* listing, bool reopen = false);
    // Sends MP_CLOSE_ARCHIVE.
    void CloseArchive();
    // Sends MP_SET_PASSWORD: the password for the open archive and for the keys of its pages.
    void SetPassword(const std::string& password);

    // A setting: a slow JPEG or HD Photo decode shows a preview at once.
    std::atomic<uint32_t> bUsePreviewMode{1};

protected:
    uint32_t ThreadMain() override;

private:
    // Reads archive page `entry` into memOut, opening its archive unless it is open.
    ExtractResult ExtractEntry(const PageEntry& entry);
    XResult OnOpenArchive(const std::string& path, ArchiveListing* listing, bool reopen);

    XResult Serve(const XCommand& cmd);
    void HandleQueuedMessage();

    XResult OnShowPage(bool bActualSize, bool bNoPreview);
    XResult OnShowBackground(const std::string& path, uint32_t colour);
    XResult OnApplySettings();
    XResult OnStoreFile(const std::string& folder, bool bMove);
    XResult OnOpenExternal(const std::string& program);
    XResult OnSaveScreenPicture(const ScreenPictureRequest& request);

    bool Prefetch();
    bool PrefetchOne(int32_t index, int32_t offset);
    void PrepareNext();
    // Steps of MP_SHOW_PAGE; the list's lock is held.
    bool LoadCurrent(bool bFull, bool bNoPreview);
    void Compose(bool bActualSize, const ViewSettings& settings);
    void EmptyPrepared();
    // For storing or opening an archive page: drops the main cache and decodes the entry at
    // full size, which leaves its bytes in memOut. False when they couldn't be had.
    bool ExtractCurrentEntry(int32_t index, const PageEntry& entry);

    // The decision on one page. `target` may be null (no preview wanted).
    XAnimDib* GetPage(XAnimDib* target, int32_t index, const PageEntry& entry, bool bFull,
                      bool* isPreview, bool bNoPreview);
    XAnimDib* StartDecode(CImageMan& cache, const PageEntry& entry, const std::string& key,
                          int32_t waitMs, bool* timedOut);
    // A preview of `entry` into `target`; the caller holds the list's lock or has a copy.
    // A null target only fills the preview cache.
    bool GetPreview(const PageEntry& entry, XDib* target, uint32_t width, uint32_t height,
                    bool bWait);
    void SetCacheOptions(CImageMan& cache, bool bFull);
    // Copies the entry at `index` (kCurrentPage: the current one) under the list's lock, and
    // tells which index that was. False when there is no such entry.
    static constexpr int32_t kCurrentPage = INT32_MIN;
    bool CopyEntry(int32_t index, PageEntry* entry, int32_t* indexOut = nullptr);

    CPageList* pList = nullptr;
    IManaHost* pHost = nullptr;

    // The archive state; engine thread only. Names and passwords are UTF-8, so the password's
    // narrow form is the same text.
    CTarnLibPair tarn;
    CMemTarnOutStream memOut;  // the bytes of the last extracted archive entry
    std::string sPassword;     // the open archive's password; empty for none

    CImageMan cacheMain;     // instance 0: pages at screen quality
    CImageMan cachePreview;  // instance 1: previews and thumbnails

    // The pictures of the current view: buckets of cacheMain or the preview targets. The
    // second is null except for a spread.
    XAnimDib* pShownFirst = nullptr;
    XAnimDib* pShownSecond = nullptr;
    XAnimDib aniBackground;  // shown with an empty list
    XAnimDib pPreviewFirst;  // preview targets, one frame each
    XAnimDib pPreviewSecond;

    // The next view, composed ahead of time.
    XDib prepared;
    int32_t nPreparedIndex = -99;
    XAnimDib* pPreparedFirst = nullptr;
    XAnimDib* pPreparedSecond = nullptr;
    uint32_t bPreparedSpread = 0;
    std::string sPreparedPath;

    bool bQuit = false;
    ViewSettings viewSettings;  // the engine's own copy, taken at MP_APPLY_SETTINGS
    uint32_t bUseSuperSampling = 1;
    PreviewRule previewRule;
    bool bTimedOut_ = false;  // the last GetPage gave nothing because no decode could finish
    bool bListHeld_ = false;  // MP_SHOW_PAGE holds the list's lock
    ExtractResult lastExtract_ = ExtractResult::kFailed;

    struct QueuedMessage {
        uint32_t nMessage = 0;
        int32_t nIndex = 0;
        uint64_t nTarget = 0;
    };
    std::mutex queueLock_;  // guards queue_ only; never held while taking another lock
    std::deque<QueuedMessage> queue_;

    Stats stats_;
};
