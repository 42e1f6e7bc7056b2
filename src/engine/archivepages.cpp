#include "engine/archivepages.h"

#include <cstring>
#include <memory>

namespace {

bool IsPictureName(std::string_view name) {
    return CPageList::GetFileKind(GetExtension(name)) == FileKind::kImage;
}

bool IsArchiveName(std::string_view name) {
    return CPageList::GetFileKind(GetExtension(name)) == FileKind::kArchive;
}

// A folder and an empty entry are never pages; an unknown size (-1) may be one.
bool MayBePage(const TarnFileItem* item) {
    return item && !item->IsFolder() && item->uncompressedSize != 0;
}

// The page of `item` inside the archive whose page paths start with `prefix` ("archive" or
// "outer?inner").
std::unique_ptr<PageEntry> MakePage(const std::string& prefix, const TarnFileItem& item) {
    auto page = std::make_unique<PageEntry>();
    page->szGroup = prefix + "|";
    page->szPath = page->szGroup + item.fileNameW;
    page->szName = item.fileNameW;
    page->szRawName = item.fileName;
    page->nFileSize = item.uncompressedSize;
    page->bEncrypted = item.encryptionMethod != 0;
    page->LimitText();
    return page;
}

// The pictures of the archive `item` inside the pair's current archive `outer`. Only one level
// deep: archives inside this one are passed over.
void ListNested(CTarnLibPair& pair, const std::string& outer, const std::string& password,
                const TarnFileItem& item, ArchiveListing* listing) {
    std::string file;
    if (!pair.ExtractNestedToTemp(item.fileNameW, item.fileName, &file)) return;
    CTarnLib inner;
    if (!inner.Open(file, password.empty() ? nullptr : password.c_str())) return;
    if (inner.IsEncryptedArchive()) listing->bNeedsPassword = true;
    const std::string prefix = outer + "?" + item.fileNameW;
    const uint32_t count = inner.GetFileItemCount();
    for (uint32_t i = 0; i < count; ++i) {
        const TarnFileItem* entry = inner.GetFileItem(i);
        if (MayBePage(entry) && IsPictureName(entry->fileNameW)) {
            listing->entries.push_back(MakePage(prefix, *entry));
        }
    }
}

}  // namespace

bool CMemTarnOutStream::Open(const char*) {
    nPos_ = 0;
    block_.clear();
    return true;
}

bool CMemTarnOutStream::SetSize(int64_t size) {
    if (size < 0 || size > nCap_) return false;
    nPos_ = 0;
    block_.resize(size_t(size));
    block_.shrink_to_fit();  // a large entry before must not keep its block
    return true;
}

bool CMemTarnOutStream::Write(const void* buffer, uint32_t size) {
    if (size > block_.size() - nPos_) return false;
    if (size) std::memcpy(block_.data() + nPos_, buffer, size);
    nPos_ += size;
    return true;
}

void CMemTarnOutStream::Clear() {
    std::vector<uint8_t>().swap(block_);
    nPos_ = 0;
}

uint32_t ListArchive(CTarnLibPair& pair, const std::string& path, const std::string& password,
                     bool force, ArchiveListing* listing) {
    TarnArchiveInfo info;
    if (!pair.Open(path, &info, force)) {
        return pair.GetLastError() == TARN_ERR_VERSION ? kArchiveTooNew : kArchiveCantOpen;
    }
    listing->info = info;
    listing->bBroken = info.bBroken;
    listing->nFormat = info.nFormat;
    listing->bNeedsPassword = info.bEncrypted;
    ITarn* archive = pair.GetCurrent();
    const uint32_t count = archive->GetFileItemCount();
    for (uint32_t i = 0; i < count; ++i) {
        const TarnFileItem* item = archive->GetFileItem(i);
        if (!MayBePage(item)) continue;
        if (IsPictureName(item->fileNameW)) {
            listing->entries.push_back(MakePage(path, *item));
        } else if (IsArchiveName(item->fileNameW) && path.find('?') == std::string::npos) {
            ListNested(pair, path, password, *item, listing);
        }
    }
    return 0;
}

bool SplitArchivePath(std::string_view path, std::string* archive, std::string* entry) {
    const size_t bar = path.find('|');
    if (bar == std::string_view::npos) return false;
    *archive = path.substr(0, bar);
    *entry = path.substr(bar + 1);
    return true;
}

ArchiveExtract ExtractArchivePage(CTarnLibPair& pair, const PageEntry& entry,
                                  CMemTarnOutStream* out) {
    out->Open(nullptr);
    std::string archive;
    std::string name;
    // A listed page knows where its archive part ends, even when a name holds a "|" itself.
    const std::string& group = entry.szGroup;
    if (group.size() > 1 && group.back() == '|' && entry.szPath.starts_with(group)) {
        archive = group.substr(0, group.size() - 1);
        name = entry.szPath.substr(group.size());
    } else if (!SplitArchivePath(entry.szPath, &archive, &name)) {
        return ArchiveExtract::kFailed;
    }
    if (!pair.Open(archive, nullptr, false)) return ArchiveExtract::kFailed;
    const std::string& rawName = entry.szRawName.empty() ? name : entry.szRawName;
    if (pair.ExtractToMemory(name, rawName, out)) return ArchiveExtract::kOk;
    return pair.GetLastError() == TARN_ERR_CRC ? ArchiveExtract::kCorrupt : ArchiveExtract::kFailed;
}
