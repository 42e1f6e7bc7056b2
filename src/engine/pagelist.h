// The page list: every picture the viewer can show, in the viewer's one order, with the cursor,
// and the results of the page engine that the window reads back. A page is identified by its path:
// a file path; archive path, "|", entry name; or outer archive, "?", inner archive, "|", name.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "engine/imagefileinfo.h"
#include "engine/viewsettings.h"
#include "image/xanimdib.h"
#include "image/xdib.h"

// Text fields of a page hold at most this many code points (szRawName: bytes); longer ones are
// cut, and such a page can then no longer be found by its full path.
inline constexpr size_t kPageTextLimit = 519;

struct PageEntry {
    std::string szPath;      // the identity, see above
    std::string szGroup;     // the file's folder; for an archive entry the archive part
    std::string szName;      // the name to sort by and to show (archive folders included)
    std::string szRawName;   // an archive entry's name in the archive's own bytes; empty for files
    int64_t nFileSize = -1;  // bytes; -1 when not known
    uint32_t bEncrypted = 0;
    uint32_t nPageWidth = 0;  // the decoded picture's size; both 0 until a decode told it
    uint32_t nPageHeight = 0;
    uint32_t bDecodeFailed = 0;  // prefetching failed on this page and won't try it again

    // Cuts the texts to kPageTextLimit, never inside a UTF-8 sequence (szRawName by bytes).
    void LimitText();
};

// What opening does with a path, decided by its extension alone; the real format is found later
// by content, and a page whose content is no picture shows the error picture.
enum class FileKind : int {
    kUnknown = 0,
    kImage = 1,
    kArchive = 2,
    kSelfExtracting = 3,  // tried as an archive
};

// The extension of the last name of `path`, with its dot: ".jpg" of "/a.b/c.jpg"; empty when
// the name has no dot.
std::string_view GetExtension(std::string_view path);

// Where a page's name starts: behind the last "/", "\" or "|" (archives may use backslashes).
std::string_view GetNamePart(std::string_view path);

// Whether a page is upright: width / height not above 1.0, so a square is. A page whose size
// isn't known yet (both 0) answers `unknownResult`; a height of 0 alone is not upright.
bool IsUprightPage(const PageEntry& entry, bool unknownResult);

class CPageList {
public:
    using CompareFn = int (*)(std::string_view, std::string_view);
    using EntryArray = std::vector<std::unique_ptr<PageEntry>>;

    CPageList() = default;
    CPageList(const CPageList&) = delete;
    CPageList& operator=(const CPageList&) = delete;

    // Every operation below expects the caller to hold `cs`.

    static FileKind GetFileKind(std::string_view extension);

    // Adds every image of `folder` (by extension, with the listing's sizes), unsorted; folders
    // and archives inside are no pages and aren't entered. False, and nothing changed, when the
    // folder can't be listed.
    bool AddFolder(const std::string& folder);
    // Adds one page; a negative `size` asks the file system. The first page becomes current.
    void AddFile(const std::string& path, int64_t size);
    // Takes over entries made elsewhere (an archive listing) in their order.
    void Append(EntryArray&& entries);
    // Puts the list into the order of ComparePages. The cursor keeps its index.
    void Sort();

    // Make the first page whose path equals `path` regardless of case current; a page whose path
    // is spelt exactly as `path` is preferred. False when none matches.
    bool FindByPath(std::string_view path);
    // The first page whose name equals `name` exactly.
    bool FindByName(std::string_view name);

    // Clamps to the list; -1 when it is empty.
    void SetCurrent(int64_t index);
    // The page turn. A step of 1 passes a whole spread when one is shown. A step of -1 in a spread
    // mode goes back 2 only when both pages before are known to be upright, since those may have
    // formed the previous spread; pages not decoded yet are passed one at a time. Every other
    // delta moves as it stands. The result is clamped to the list.
    void Step(int32_t delta);

    PageEntry* GetEntry(int64_t index);
    const PageEntry* GetEntry(int64_t index) const;
    int32_t GetCount() const { return static_cast<int32_t>(entries_.size()); }
    int32_t GetCurrent() const { return nCurrent_; }
    // Copies of the current page's path and name; empty when there is none.
    std::string GetCurrentPath() const;
    std::string GetCurrentName() const;

    // Records a decoded page's size, unless the page at `index` is no longer `path`: the list may
    // have changed while the engine decoded.
    void SetPageSize(int64_t index, std::string_view path, uint32_t width, uint32_t height);

    // Deletes the current page. The cursor keeps its index, falls back to the last page when it
    // fell off the end, and is -1 when the list became empty.
    void RemoveCurrent();
    // Frees every page and resets the cursor and bHasEncrypted.
    void Clear();

    // The viewer's order: "##first." names (case as written) before everything, "##last." names
    // after; pages of one folder or archive by name, other pages by path, both through
    // pfnCompare. Gives -1, 0 or 1.
    static int ComparePages(const PageEntry& a, const PageEntry& b);

    // The natural order that ComparePages uses, one for the whole process.
    static CompareFn pfnCompare;

    // Growth step of the array; 0: an eighth of the count, at least 4, at most 1024.
    int32_t nGrowBy = 0;

    uint32_t bTwoPageMode = 0;   // the chosen show mode is one of the spread modes
    uint32_t bTwoPageShown = 0;  // the picture on screen really is a spread
    uint32_t bHasEncrypted = 0;  // some page has bEncrypted

    // Results of the page engine, written by it under `cs`, read by the window.
    ViewSettings viewSettings;  // what the engine composes by; written by the window
    uint32_t bMultiFrame = 0;
    uint32_t bPreview = 0;
    XAnimDib aniComposed;
    XDib* pComposed = nullptr;  // not owned: a frame of aniComposed or an engine picture
    ImageFileInfo fileInfo;

    // Guards every field of this object, the entries included; pointers to entries are valid
    // only while it is held. Lock order: this lock first, then the lock of an image cache, never
    // the other way. The engine takes it at the start of nearly every request, so the window must
    // not wait for the engine while holding it.
    std::mutex cs;

private:
    // Adds a page of a file path with its size as known (-1 unknown).
    void AddEntry(std::string path, int64_t size);
    // Makes room for `extra` more entries by the growth rule.
    void Reserve(size_t extra);

    EntryArray entries_;
    int32_t nCurrent_ = -1;
};
