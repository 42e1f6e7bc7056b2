#include "engine/pagelist.h"

#include <algorithm>

#include "base/tick.h"
#include "base/utf.h"
#include "base/xlog.h"
#include "engine/naturalcompare.h"
#include "platform/files.h"

namespace {

constexpr std::string_view kImagePatterns =
    "*.jpg;*.jpe;*.jpeg;*.gif;*.png;*.dng;*.bmp;*.tif;*.tiff;*.tga;*.jp2;*.jpc;*.j2k;*.j2c;*.psd;"
    "*.wdp;*.hdp;"
    // Formats read beyond the first list; appended so that nothing before them changes.
    "*.webp;*.avif;*.heic;*.heif;*.jxl;";
constexpr std::string_view kArchivePatterns =
    "*.zip;*.rar;*.alz;*.cbr;*.cbz;*.tar;*.7z;*.lzh;*.lha;*.orl3;";
constexpr std::string_view kSelfExtractingPatterns = "*.exe;";

constexpr std::string_view kFirstMark = "##first.";
constexpr std::string_view kLastMark = "##last.";

// -1 for a name that stands before everything, 1 after everything, 0 for an ordinary page.
int EndMark(const std::string& name) {
    if (name.starts_with(kFirstMark)) return -1;
    if (name.starts_with(kLastMark)) return 1;
    return 0;
}

// The folder part of a file path: without one trailing "/", cut at the last "/"; empty when
// there is none. With a "|" the page lies in an archive, and the group is what stands before.
std::string_view GetGroupPart(std::string_view path) {
    if (const size_t bar = path.find('|'); bar != std::string_view::npos) {
        return path.substr(0, bar);
    }
    if (path.ends_with('/')) path.remove_suffix(1);
    const size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
}

}  // namespace

CPageList::CompareFn CPageList::pfnCompare = &NaturalCompare;

void PageEntry::LimitText() {
    utf::Truncate(szPath, kPageTextLimit);
    utf::Truncate(szGroup, kPageTextLimit);
    utf::Truncate(szName, kPageTextLimit);
    if (szRawName.size() > kPageTextLimit) szRawName.resize(kPageTextLimit);
}

std::string_view GetExtension(std::string_view path) {
    const std::string_view name = GetNamePart(path);
    const size_t dot = name.rfind('.');
    return dot == std::string_view::npos ? std::string_view() : name.substr(dot);
}

std::string_view GetNamePart(std::string_view path) {
    const size_t cut = path.find_last_of("\\/|");
    return cut == std::string_view::npos ? path : path.substr(cut + 1);
}

bool IsUprightPage(const PageEntry& entry, bool unknownResult) {
    if (entry.nPageWidth == 0 && entry.nPageHeight == 0) return unknownResult;
    if (entry.nPageHeight == 0) return false;
    return static_cast<double>(entry.nPageWidth) / entry.nPageHeight <= 1.0;
}

FileKind CPageList::GetFileKind(std::string_view extension) {
    // ".jpg;" is looked for inside "*.jpg;*.png;". Only a dot with a name behind it, free of
    // further dots and of the list's own marks, can match a whole pattern and no piece of one.
    if (extension.size() < 2 || extension[0] != '.' ||
        extension.find_first_of(".;*", 1) != std::string_view::npos) {
        return FileKind::kUnknown;
    }
    const std::string key = utf::AsciiLower(extension) + ';';
    if (kImagePatterns.find(key) != std::string_view::npos) return FileKind::kImage;
    if (kArchivePatterns.find(key) != std::string_view::npos) return FileKind::kArchive;
    if (kSelfExtractingPatterns.find(key) != std::string_view::npos) {
        return FileKind::kSelfExtracting;
    }
    return FileKind::kUnknown;
}

bool CPageList::AddFolder(const std::string& folder) {
    const uint64_t start = XGetTickCount64();
    std::string prefix = folder;
    if (!prefix.ends_with('/')) prefix += '/';
    const bool listed = platform::ListFolder(folder, [&](const platform::FolderItem& item) {
        if (item.IsDirectory()) return;
        const std::string_view name = item.GetName();
        if (GetFileKind(GetExtension(name)) != FileKind::kImage) return;
        // The size is asked only for images, so a folder of many other files costs nothing more;
        // a size the listing couldn't tell stays unknown rather than being asked again.
        AddEntry(prefix + std::string(name), item.GetSize());
    });
    XTrace("AddFolder-%dms", static_cast<int>(XGetTickCount64() - start));
    return listed;
}

void CPageList::AddFile(const std::string& path, int64_t size) {
    AddEntry(path, size < 0 ? platform::GetFileSize(path) : size);
}

void CPageList::AddEntry(std::string path, int64_t size) {
    auto entry = std::make_unique<PageEntry>();
    entry->szGroup = GetGroupPart(path);
    entry->szName = GetNamePart(path);
    entry->szPath = std::move(path);
    entry->nFileSize = size;
    entry->LimitText();
    Reserve(1);
    entries_.push_back(std::move(entry));
    if (nCurrent_ < 0) nCurrent_ = 0;
}

void CPageList::Append(EntryArray&& entries) {
    Reserve(entries.size());
    for (auto& entry : entries) {
        if (!entry) continue;
        entry->LimitText();
        if (entry->bEncrypted) bHasEncrypted = 1;
        entries_.push_back(std::move(entry));
    }
    entries.clear();
    if (nCurrent_ < 0 && !entries_.empty()) nCurrent_ = 0;
}

void CPageList::Sort() {
    std::sort(entries_.begin(), entries_.end(),
              [](const std::unique_ptr<PageEntry>& a, const std::unique_ptr<PageEntry>& b) {
                  return ComparePages(*a, *b) < 0;
              });
}

bool CPageList::FindByPath(std::string_view path) {
    // Names are case-blind by design, but this file system tells "A.jpg" from "a.jpg": a page
    // spelt exactly so wins over an earlier one that differs only in case.
    for (size_t i = 0; i < entries_.size(); ++i) {
        if (entries_[i]->szPath == path) {
            nCurrent_ = static_cast<int32_t>(i);
            return true;
        }
    }
    for (size_t i = 0; i < entries_.size(); ++i) {
        if (utf::EqualsIgnoreCase(entries_[i]->szPath, path)) {
            nCurrent_ = static_cast<int32_t>(i);
            return true;
        }
    }
    return false;
}

bool CPageList::FindByName(std::string_view name) {
    for (size_t i = 0; i < entries_.size(); ++i) {
        if (entries_[i]->szName == name) {
            nCurrent_ = static_cast<int32_t>(i);
            return true;
        }
    }
    return false;
}

void CPageList::SetCurrent(int64_t index) {
    if (entries_.empty()) {
        nCurrent_ = -1;
        return;
    }
    const int64_t last = static_cast<int64_t>(entries_.size()) - 1;
    nCurrent_ = static_cast<int32_t>(std::clamp<int64_t>(index, 0, last));
}

void CPageList::Step(int32_t delta) {
    int64_t step = delta;
    if (delta == 1 && bTwoPageShown) {
        step = 2;
    } else if (delta == -1 && bTwoPageMode && nCurrent_ >= 2) {
        // Unknown sizes count as not upright: going back over pages not decoded yet is one page
        // at a time.
        if (IsUprightPage(*entries_[nCurrent_ - 1], false) &&
            IsUprightPage(*entries_[nCurrent_ - 2], false)) {
            step = -2;
        }
    }
    SetCurrent(nCurrent_ + step);
}

PageEntry* CPageList::GetEntry(int64_t index) {
    if (index < 0 || index >= static_cast<int64_t>(entries_.size())) return nullptr;
    return entries_[static_cast<size_t>(index)].get();
}

const PageEntry* CPageList::GetEntry(int64_t index) const {
    if (index < 0 || index >= static_cast<int64_t>(entries_.size())) return nullptr;
    return entries_[static_cast<size_t>(index)].get();
}

std::string CPageList::GetCurrentPath() const {
    const PageEntry* entry = GetEntry(nCurrent_);
    return entry ? entry->szPath : std::string();
}

std::string CPageList::GetCurrentName() const {
    const PageEntry* entry = GetEntry(nCurrent_);
    return entry ? entry->szName : std::string();
}

void CPageList::SetPageSize(int64_t index, std::string_view path, uint32_t width, uint32_t height) {
    PageEntry* entry = GetEntry(index);
    if (!entry || entry->szPath != path) return;
    entry->nPageWidth = width;
    entry->nPageHeight = height;
}

void CPageList::RemoveCurrent() {
    if (nCurrent_ < 0 || nCurrent_ >= GetCount()) return;
    entries_.erase(entries_.begin() + nCurrent_);
    if (nCurrent_ >= GetCount()) nCurrent_ = GetCount() - 1;
}

void CPageList::Clear() {
    EntryArray().swap(entries_);
    nCurrent_ = -1;
    bHasEncrypted = 0;
}

int CPageList::ComparePages(const PageEntry& a, const PageEntry& b) {
    if (&a == &b) return 0;
    // Two pages that carry the same end mark fall through to the ordinary rule: answering
    // "a first" both ways round would hand the sort an order it may run off the array with.
    const int markA = EndMark(a.szName);
    const int markB = EndMark(b.szName);
    if (markA != markB) {
        if (markA != 0) return markA;
        return -markB;
    }
    if (a.szGroup == b.szGroup) return pfnCompare(a.szName, b.szName);
    return pfnCompare(a.szPath, b.szPath);
}

void CPageList::Reserve(size_t extra) {
    const size_t count = entries_.size();
    if (count + extra <= entries_.capacity()) return;
    const size_t step =
        nGrowBy > 0 ? static_cast<size_t>(nGrowBy) : std::clamp<size_t>(count / 8, 4, 1024);
    entries_.reserve(std::max(count + extra, entries_.capacity() + step));
}
