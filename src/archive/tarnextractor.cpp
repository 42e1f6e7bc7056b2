// The shared half of every format reader: opening, the one extract loop, and the names.
#include <errno.h>
#include <iconv.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "archive/tarn.h"
#include "base/utf.h"

// ---------------------------------------------------------------------------------------------
// Names

namespace {

// The iconv name of a code page number; empty for one we don't know.
std::string CodePageName(uint32_t codePage) {
    switch (codePage) {
        case 65001:
            return "UTF-8";
        case 20127:
            return "ASCII";
        case 28591:
            return "ISO-8859-1";
        case 20932:
        case 51932:
            return "EUC-JP";
        case 51949:
            return "EUC-KR";
        case 936:
            return "GBK";
        case 54936:
            return "GB18030";
        case 950:
            return "BIG5";
        case 1361:
            return "JOHAB";
        default:
            break;
    }
    if (codePage >= 28592 && codePage <= 28606)
        return "ISO-8859-" + std::to_string(codePage - 28590);
    if (codePage >= 37 && codePage <= 1258) return "CP" + std::to_string(codePage);
    return {};
}

const iconv_t kNoConverter = reinterpret_cast<iconv_t>(-1);  // what iconv_open fails with

// The converters of this thread, one per source encoding: a listing decodes thousands of names
// through the same one or two.
class ConverterCache {
public:
    ~ConverterCache() {
        for (auto& [name, cd] : converters_)
            if (cd != kNoConverter) iconv_close(cd);
    }
    iconv_t Get(const std::string& from) {
        for (auto& [name, cd] : converters_)
            if (name == from) {
                if (cd != kNoConverter) iconv(cd, nullptr, nullptr, nullptr, nullptr);  // reset
                return cd;
            }
        converters_.emplace_back(from, iconv_open("UTF-8", from.c_str()));
        return converters_.back().second;
    }

private:
    std::vector<std::pair<std::string, iconv_t>> converters_;  // unknown names stay, as failures
};

// Converts `raw` from the iconv encoding `from` to UTF-8; false when any byte fails.
bool ConvertToUtf8(std::string_view raw, const std::string& from, std::string* out) {
    thread_local ConverterCache cache;
    iconv_t cd = cache.Get(from);
    if (cd == kNoConverter) return false;
    // A byte never becomes more than four bytes of UTF-8.
    std::string result(raw.size() * 4 + 4, '\0');
    char* in = const_cast<char*>(raw.data());
    size_t inLeft = raw.size();
    char* dst = result.data();
    size_t outLeft = result.size();
    const size_t rc = iconv(cd, &in, &inLeft, &dst, &outLeft);
    bool ok = rc != static_cast<size_t>(-1) && inLeft == 0;
    if (ok) {
        // Flush any shift state; a sequence cut at the end fails above already.
        ok = iconv(cd, nullptr, nullptr, &dst, &outLeft) != static_cast<size_t>(-1);
    }
    if (!ok) return false;
    result.resize(result.size() - outLeft);
    // A decoder that maps bytes to control characters or U+FFFD is no decoding we want to show.
    if (!utf::IsValid(result)) return false;
    *out = std::move(result);
    return true;
}

}  // namespace

std::string TarnDecodeName(std::string_view raw, uint32_t codePage) {
    if (utf::IsValid(raw)) return std::string(raw);
    std::string out;
    if (codePage == 0) {
        // The system's code page: this program's home is a Korean one, and CP437 is what ZIP
        // writers meant when they wrote no flag; it maps every byte, so it never fails.
        if (ConvertToUtf8(raw, "CP949", &out)) return out;
        if (ConvertToUtf8(raw, "CP437", &out)) return out;
        return {};
    }
    const std::string name = CodePageName(codePage);
    if (name.empty() || !ConvertToUtf8(raw, name, &out)) return {};
    return out;
}

bool TarnApplyNameRule(std::string_view raw, uint32_t codePage, TarnFileItem* item) {
    if (raw.empty()) return false;
    if (raw.find("../") != std::string_view::npos || raw.find("..\\") != std::string_view::npos)
        return false;
    std::string name(raw);
    for (char& c : name)
        if (c == '/') c = '\\';
    while (!name.empty() && (name.back() == '\r' || name.back() == '\n')) name.pop_back();
    if (name.empty()) return false;
    std::string decoded = TarnDecodeName(name, codePage);
    item->fileNameW = decoded.empty() ? std::string("?") : std::move(decoded);
    item->fileName = std::move(name);
    return true;
}

std::string TarnSafeRelativePath(std::string_view name) {
    std::string out;
    size_t pos = 0;
    bool first = true;
    while (pos <= name.size()) {
        size_t end = name.find_first_of("\\/", pos);
        if (end == std::string_view::npos) end = name.size();
        std::string_view part = name.substr(pos, end - pos);
        pos = end + 1;
        // A drive letter ("C:") leads nowhere on this side.
        if (first && part.size() == 2 && part[1] == ':') part = {};
        first = false;
        if (part.empty() || part == "." || part == "..") continue;
        if (!out.empty()) out += '/';
        out += part;
    }
    return out;
}

// ---------------------------------------------------------------------------------------------
// The extractor base

CTarnExtractorImpl::CTarnExtractorImpl() : pfnFactory(&MakeOutStream) {}

CTarnExtractorImpl::~CTarnExtractorImpl() {
    // The format's own state is released by the derived destructor; only the shared part here.
    pStream.Reset();
    fileList.Clear();
}

bool ITarnExtractor::ExtractSolid(const uint32_t*, uint32_t, const std::string*) {
    return false;
}

bool CTarnExtractorImpl::Open(ITarnInStream* stream, int64_t startOffset) {
    if (pStream || fileList.GetCount() > 0) Close();
    nLastError = TARN_OK;
    if (!stream) {
        nLastError = TARN_ERR_OPEN_FILE;
        return false;
    }
    void* p = nullptr;
    if (stream->QueryInterface(IID_ITarnInStream, &p) != 0 || !p) {
        nLastError = TARN_ERR_OPEN_FILE;
        return false;
    }
    pStream = TarnPtr<ITarnInStream>::Adopt(static_cast<ITarnInStream*>(p));
    nStartOffset = startOffset;
    pStream->Seek(startOffset, 0);
    return ReadHeader();
}

bool CTarnExtractorImpl::Open(const std::string& path) {
    TarnPtr<ITarnInStream> stream = MakeInStream(path);
    if (!stream) {
        if (pStream || fileList.GetCount() > 0) Close();
        nLastError = TARN_ERR_OPEN_FILE;
        return false;
    }
    return Open(stream.Get(), 0);
}

void CTarnExtractorImpl::Close() {
    pStream.Reset();
    fileList.Clear();
    ReleaseFormat();
    nLastError = TARN_OK;
    bSolid = bEncrypted = bEOF = false;
    progress = TarnProgress{};
    bStopCurrent = bStopAll = 0;
    nStartOffset = 0;
    InitFormat();
}

void CTarnExtractorImpl::SetPassword(const char* password) {
    if (!password) {
        sPassword.clear();
        return;
    }
    sPassword.assign(password, strnlen(password, kTarnMaxPassword));
}

void CTarnExtractorImpl::SetOutStreamFactory(TarnOutStreamFactory factory, void* context) {
    pfnFactory = factory ? factory : &MakeOutStream;
    pFactoryContext = context;
}

bool CTarnExtractorImpl::ExtractAll(const std::string* folder) {
    const uint32_t n = fileList.GetCount();
    std::vector<uint32_t> all(n + 1);  // never empty, so the list is never a null pointer
    for (uint32_t i = 0; i < n; ++i) all[i] = i;
    return ExtractFiles(all.data(), n, folder);
}

bool CTarnExtractorImpl::ExtractFiles(const uint32_t* indices, uint32_t count,
                                      const std::string* folder) {
    nLastError = TARN_OK;
    bStopAll = bStopCurrent = 0;
    if (!indices) {
        nLastError = TARN_ERR_INDEX;
        return false;
    }
    const bool toFolder = folder && !folder->empty();
    std::string base;
    if (toFolder) {
        base = *folder;
        if (base.back() != '/' && base.back() != '\\') base += '/';
    }

    // Totals of the work: a solid archive decodes everything up to the last selected entry.
    progress = TarnProgress{};
    nDoneBefore = 0;
    if (bSolid) {
        uint32_t last = 0;
        for (uint32_t i = 0; i < count; ++i) last = std::max(last, indices[i] + 1);
        for (uint32_t i = 0; i < last && i < fileList.GetCount(); ++i) {
            const TarnFileItem* item = fileList.Get(i);
            progress.totalCompressed += std::max<int64_t>(item->compressedSize, 0);
            progress.totalUncompressed += std::max<int64_t>(item->uncompressedSize, 0);
        }
        return ExtractSolid(indices, count, toFolder ? &base : nullptr);
    }
    for (uint32_t i = 0; i < count; ++i) {
        if (const TarnFileItem* item = fileList.Get(indices[i])) {
            progress.totalCompressed += std::max<int64_t>(item->compressedSize, 0);
            progress.totalUncompressed += std::max<int64_t>(item->uncompressedSize, 0);
        }
    }

    bool allGood = true;
    for (uint32_t i = 0; i < count; ++i) {
        if (bStopAll || nLastError == TARN_ERR_DISK_FULL) return false;
        TarnFileItem* item = fileList.Get(indices[i]);
        if (!item) {
            nLastError = TARN_ERR_INDEX;
            allGood = false;
            continue;
        }
        // Nothing may land outside the folder: the name is cut to its plain relative parts.
        const std::string rel = toFolder ? TarnSafeRelativePath(item->fileNameW) : item->fileNameW;
        if (toFolder && rel.empty() && !item->IsFolder()) {
            ReportError(TARN_ERR_CREATE, item);
            allGood = false;
            continue;
        }
        const std::string path = toFolder ? base + rel : rel;
        if (utf::CodePointCount(path) >= kTarnMaxPath) return false;

        progress.fileCompressed = item->compressedSize;
        progress.fileUncompressed = item->uncompressedSize;
        progress.fileDone = 0;
        progress.filePercent = 0;
        bStopCurrent = 0;
        if (pEvent) {
            pEvent->OnStartFile(item, &bStopCurrent, &bStopAll);
            if (bStopCurrent || bStopAll) {
                nLastError = TARN_ERR_STOPPED;
                allGood = false;
                continue;
            }
        }

        uint32_t platformError = 0;
        ITarnOutStream* raw = pfnFactory(path, pFactoryContext, item->IsFolder(), &platformError);
        if (!raw) {
            const uint32_t error = platformError == kTarnPlatformPathTooLong
                                       ? TARN_ERR_PATH_TOO_LONG
                                   : platformError == kTarnPlatformDiskFull ? TARN_ERR_DISK_FULL
                                                                            : TARN_ERR_CREATE;
            ReportError(error, item);
            allGood = false;
            if (pEvent) pEvent->OnCompleteFile(&progress, error);
            continue;
        }
        TarnPtr<ITarnOutStream> out = TarnPtr<ITarnOutStream>::Adopt(raw);

        bool ok = true;
        if (!item->IsFolder() && item->uncompressedSize != 0) {
            if (item->uncompressedSize > 0 && !out->SetSize(item->uncompressedSize)) {
                nLastError = TARN_ERR_SET_SIZE;
                ok = false;
            }
            if (ok) ok = ExtractItem(indices[i], item, out.Get());
            if (ok) {
                if (item->fileTime != 0)
                    out->SetFileTime(item->fileTime,
                                     item->fileTimeNT ? &item->fileTimeNT : nullptr);
                const uint32_t attrs = item->attributes & (kTarnAttrReadOnly | kTarnAttrHidden);
                if (attrs) out->SetAttribute(attrs);
            }
            // A reader's own error stays; a close that fails after a good decode is the disk's.
            if (!out->Close()) {
                if (ok)
                    nLastError = out->GetLastError() == kTarnPlatformDiskFull ? TARN_ERR_DISK_FULL
                                                                              : TARN_ERR_WRITE;
                ok = false;
            }
            if (ok && nFormat != TarnFormatGzip && nFormat != TarnFormatBzip2 &&
                item->uncompressedSize != -1 && out->GetWritten() != item->uncompressedSize) {
                nLastError = TARN_ERR_SIZE_DIFFERS;
                ok = false;
            }
        } else {
            out->Close();
        }

        out.Reset();
        // A half-written file is worse than none.
        if (!ok && toFolder && !item->IsFolder() && item->uncompressedSize != 0)
            ::unlink(path.c_str());
        if (!ok) allGood = false;
        nDoneBefore += std::max<int64_t>(item->uncompressedSize, 0);
        if (pEvent) pEvent->OnCompleteFile(&progress, ok ? TARN_OK : nLastError);
    }
    return allGood;
}

// ---------------------------------------------------------------------------------------------
// Helpers for the readers

bool CTarnExtractorImpl::AddItem(std::unique_ptr<TarnFileItem> item, float percent) {
    TarnFileItem* added = fileList.Add(std::move(item));
    if (!added) return false;
    if (pEvent) {
        uint32_t stop = 0;
        pEvent->OnOpening(added, percent, &stop);
        if (stop) {
            nLastError = TARN_ERR_STOPPED;
            return false;
        }
    }
    return true;
}

void CTarnExtractorImpl::ReportError(uint32_t error, const TarnFileItem* item) {
    nLastError = error;
    if (pEvent) {
        uint32_t stop = 0;
        pEvent->OnError(error, item, &stop);
        if (stop) bStopAll = 1;
    }
}

bool CTarnExtractorImpl::ReportProgress(int64_t compressedDone, int64_t uncompressedDone) {
    progress.fileDone = uncompressedDone;
    if (progress.fileUncompressed > 0)
        progress.filePercent = 100.0f * static_cast<float>(uncompressedDone) /
                               static_cast<float>(progress.fileUncompressed);
    else if (progress.fileCompressed > 0)
        progress.filePercent = 100.0f * static_cast<float>(compressedDone) /
                               static_cast<float>(progress.fileCompressed);
    if (progress.totalUncompressed > 0)
        progress.totalPercent = 100.0f * static_cast<float>(nDoneBefore + uncompressedDone) /
                                static_cast<float>(progress.totalUncompressed);
    if (!pEvent) return true;
    pEvent->OnProgressing(&progress, &bStopCurrent, &bStopAll);
    if (bStopCurrent || bStopAll) {
        nLastError = TARN_ERR_STOPPED;
        return false;
    }
    return true;
}

bool CTarnExtractorImpl::WriteOut(ITarnOutStream* out, const void* data, uint32_t size) {
    if (size == 0) return true;
    if (out->Write(data, size)) return true;
    nLastError = out->GetLastError() == kTarnPlatformDiskFull ? TARN_ERR_DISK_FULL : TARN_ERR_WRITE;
    return false;
}
