// The archive manager, its forwarding shell, and the page engine's pair of archives.
#include "archive/tarnman.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <mutex>

#include "archive/tarnsniff.h"
#include "base/md5.h"
#include "base/utf.h"
#include "platform/files.h"
#include "platform/system.h"

// ---------------------------------------------------------------------------------------------
// Reader registry

namespace {

constexpr size_t kFormatCount = TarnFormatEgg + 1;

std::mutex& RegistryLock() {
    static std::mutex lock;
    return lock;
}

std::array<TarnReaderFactory, kFormatCount>& Registry() {
    static std::array<TarnReaderFactory, kFormatCount> factories{};
    return factories;
}

// While the built-in readers register, a slot a host or test filled earlier is kept.
thread_local bool t_bBuiltinPass = false;

void EnsureBuiltinReaders() {
    static std::once_flag once;
    std::call_once(once, [] {
        t_bBuiltinPass = true;
        RegisterBuiltinTarnReaders();
        t_bBuiltinPass = false;
    });
}

std::atomic<uint32_t> g_nGlobalOption{0};

}  // namespace

void RegisterTarnReader(TarnFormat format, TarnReaderFactory factory) {
    if (format >= kFormatCount) return;
    std::lock_guard<std::mutex> guard(RegistryLock());
    if (t_bBuiltinPass && Registry()[format]) return;
    Registry()[format] = factory;
}

std::unique_ptr<ITarnExtractor> CreateTarnReader(TarnFormat format) {
    EnsureBuiltinReaders();
    if (format >= kFormatCount) return nullptr;
    TarnReaderFactory factory;
    {
        std::lock_guard<std::mutex> guard(RegistryLock());
        factory = Registry()[format];
    }
    return factory ? factory() : nullptr;
}

uint32_t TarnGetGlobalOption() {
    return g_nGlobalOption.load(std::memory_order_relaxed);
}

// ---------------------------------------------------------------------------------------------
// CTarnMan

CTarnMan::CTarnMan() : pfnFactory(&MakeOutStream) {}

CTarnMan::~CTarnMan() {
    Close();
}

void CTarnMan::Close() {
    pStream.Reset();
    pExtractor.reset();
    sPath.clear();
    sAlias.reset();
    bBroken = bEncrypted = bSolid = false;
    nFileSize = -1;
    nFormat = TarnFormatNone;
    extractList.clear();
}

bool CTarnMan::Open(const std::string& path, const char* password) {
    Close();
    nLastError = TARN_OK;

    pStream = MakeInStream(path);
    if (!pStream) {
        nLastError = TARN_ERR_OPEN_FILE;
        return false;
    }
    nFileSize = pStream->GetSize();

    const int64_t pos = pStream->GetPos();
    int64_t offset = 0;
    const TarnFormat format = TarnSniffStream(pStream.Get(), TarnExtensionOf(path), &offset);
    pStream->Seek(pos, 0);

    uint32_t refusal = TARN_OK;
    switch (format) {
        case TarnFormatRarPart:
        case TarnFormatAlzPart:
            refusal = TARN_ERR_LATER_VOLUME;
            break;
        case TarnFormatNone:
            refusal = TARN_ERR_UNKNOWN_FORMAT;
            break;
        default:
            pExtractor = CreateTarnReader(format);
            if (!pExtractor) refusal = TARN_ERR_NO_READER;
            break;
    }
    if (refusal != TARN_OK) {
        Close();
        nLastError = refusal;
        return false;
    }
    nFormat = format;

    if (password) pExtractor->SetPassword(password);
    pExtractor->SetCodePage(nCodePage);
    pExtractor->SetFormat(format);
    pExtractor->SetOutStreamFactory(pfnFactory, pFactoryContext);
    pExtractor->SetEvent(pEvent);
    bool ok = pExtractor->Open(pStream.Get(), offset);
    pStream.Reset();

    if (!ok) {
        const uint32_t error = pExtractor->GetLastError();
        // A reader that found no file at all may do better with the path (a volume set it
        // assembles itself); one the user stopped, or that wants a password, may not.
        if (pExtractor->GetFileList()->GetFileCount() == 0 && error != TARN_ERR_STOPPED &&
            error != TARN_ERR_NEED_PASSWORD)
            ok = pExtractor->Open(path);
    }
    if (!ok) {
        nLastError = pExtractor->GetLastError();
        if (pExtractor->GetFileList()->GetCount() == 0) {
            const uint32_t error = nLastError;
            Close();
            nLastError = error;
            return false;
        }
        bBroken = true;
    }

    sPath = path;
    bEncrypted = pExtractor->IsEncrypted();
    bSolid = pExtractor->IsSolid();
    return true;
}

TarnFormat CTarnMan::CheckFormat(const std::string& path) {
    TarnPtr<ITarnInStream> stream = MakeInStream(path);
    if (!stream) return TarnFormatNone;
    int64_t offset = 0;
    return TarnSniffStream(stream.Get(), TarnExtensionOf(path), &offset);
}

void CTarnMan::SetPassword(const char* password) {
    if (pExtractor) pExtractor->SetPassword(password);
}

uint32_t CTarnMan::GetFileItemCount() {
    return pExtractor ? pExtractor->GetFileList()->GetCount() : 0;
}

const TarnFileItem* CTarnMan::GetFileItem(uint32_t index) {
    return pExtractor ? pExtractor->GetFileList()->Get(index) : nullptr;
}

void CTarnMan::SetOutStreamFactory(TarnOutStreamFactory factory, void* context) {
    pfnFactory = factory ? factory : &MakeOutStream;
    pFactoryContext = factory ? context : nullptr;
    if (pExtractor) pExtractor->SetOutStreamFactory(pfnFactory, pFactoryContext);
}

bool CTarnMan::SetEvent(ITarnEvent* event) {
    pEvent = event;
    if (pExtractor) pExtractor->SetEvent(event);
    return true;
}

bool CTarnMan::Extract(const uint32_t* indices, uint32_t count, const std::string& folder,
                       bool all) {
    if (!pExtractor) {
        nLastError = TARN_ERR_NOT_OPEN;
        return false;
    }
    const std::string* target = folder.empty() ? nullptr : &folder;
    const bool ok =
        all ? pExtractor->ExtractAll(target) : pExtractor->ExtractFiles(indices, count, target);
    nLastError = pExtractor->GetLastError();
    return ok;
}

namespace {

// The factory of the stream forms: the caller's simple stream behind the output interface.
ITarnOutStream* SimpleStreamFactory(const std::string& path, void* context, bool isFolder,
                                    uint32_t* platformError) {
    auto* target = static_cast<ITarnSimpleOutStream*>(context);
    ITarnOutStream* out = MakeSimpleOutStreamAdapter(target);
    if (!out) return nullptr;
    const bool ok = isFolder ? out->CreateFolder(path) : out->Open(path, platformError);
    if (!ok) {
        out->Release();
        return nullptr;
    }
    return out;
}

}  // namespace

template <class F>
bool CTarnMan::WithSimpleStream(ITarnSimpleOutStream* out, F&& extract) {
    if (!pExtractor) {
        nLastError = TARN_ERR_NOT_OPEN;
        return false;
    }
    pExtractor->SetOutStreamFactory(&SimpleStreamFactory, out);
    const bool ok = extract();
    pExtractor->SetOutStreamFactory(pfnFactory, pFactoryContext);
    return ok;
}

bool CTarnMan::ExtractAllTo(ITarnSimpleOutStream* out) {
    return WithSimpleStream(out, [&] { return ExtractAllTo(std::string()); });
}

bool CTarnMan::ExtractAllTo(const std::string& folder) {
    return Extract(nullptr, 0, folder, true);
}

bool CTarnMan::ExtractOneTo(uint32_t index, ITarnSimpleOutStream* out) {
    return WithSimpleStream(out, [&] { return ExtractOneTo(index, std::string()); });
}

bool CTarnMan::ExtractOneTo(uint32_t index, const std::string& folder) {
    if (!pExtractor) {
        nLastError = TARN_ERR_NOT_OPEN;
        return false;
    }
    if (index >= GetFileItemCount()) {
        nLastError = TARN_ERR_INDEX;
        return false;
    }
    return Extract(&index, 1, folder, false);
}

bool CTarnMan::AddIndex2ExtractList(uint32_t index) {
    if (index >= GetFileItemCount()) return false;
    const auto at = std::lower_bound(extractList.begin(), extractList.end(), index);
    if (at == extractList.end() || *at != index) extractList.insert(at, index);
    return true;
}

bool CTarnMan::ExtractMultiFileTo(ITarnSimpleOutStream* out) {
    return WithSimpleStream(out, [&] { return ExtractMultiFileTo(std::string()); });
}

bool CTarnMan::ExtractMultiFileTo(const std::string& folder) {
    std::vector<uint32_t> list;
    list.swap(extractList);
    if (list.empty()) return Extract(nullptr, 0, folder, true);
    return Extract(list.data(), uint32_t(list.size()), folder, false);
}

const char* CTarnMan::EncryptionMethod2Str(uint32_t method) {
    return ::EncryptionMethod2Str(method);
}

const char* CTarnMan::CompressionMethod2Str(int32_t method) {
    return ::CompressionMethod2Str(method);
}

void CTarnMan::SetGlobalOption(uint32_t option) {
    g_nGlobalOption.store(option, std::memory_order_relaxed);
}

const TarnBondMeta* CTarnMan::GetBondMeta() {
    return pExtractor ? pExtractor->GetBondMeta() : nullptr;
}

int32_t CTarnMan::FindIndex(const std::string& nameW, const std::string& nameA, bool exact) {
    if (!pExtractor) return -1;
    const TarnFileList* list = pExtractor->GetFileList();
    const auto same = [exact](const std::string& a, const std::string& b) {
        return exact ? a == b : utf::EqualsIgnoreCase(a, b);
    };
    const uint32_t n = std::min<uint32_t>(list->GetCount(), INT32_MAX);
    if (!nameW.empty())
        for (uint32_t i = 0; i < n; ++i)
            if (same(list->Get(i)->fileNameW, nameW)) return int32_t(i);
    if (!nameA.empty())
        for (uint32_t i = 0; i < n; ++i)
            if (same(list->Get(i)->fileName, nameA)) return int32_t(i);
    return -1;
}

// ---------------------------------------------------------------------------------------------
// CTarnLib

CTarnLib::~CTarnLib() = default;

// clang-format off
bool CTarnLib::Open(const std::string& p, const char* pw) { return pMan && pMan->Open(p, pw); }
bool CTarnLib::OpenA(const std::string& p, const char* pw) { return pMan && pMan->OpenA(p, pw); }
void CTarnLib::Close() { if (pMan) pMan->Close(); }
TarnFormat CTarnLib::CheckFormat(const std::string& p) { return pMan ? pMan->CheckFormat(p) : TarnFormatNone; }
TarnFormat CTarnLib::CheckFormatA(const std::string& p) { return pMan ? pMan->CheckFormatA(p) : TarnFormatNone; }
void CTarnLib::SetPassword(const char* pw) { if (pMan) pMan->SetPassword(pw); }
uint32_t CTarnLib::GetFileItemCount() { return pMan ? pMan->GetFileItemCount() : 0; }
const TarnFileItem* CTarnLib::GetFileItem(uint32_t i) { return pMan ? pMan->GetFileItem(i) : nullptr; }
TarnFormat CTarnLib::GetFileFormat() { return pMan ? pMan->GetFileFormat() : TarnFormatNone; }
bool CTarnLib::IsBrokenArchive() { return pMan && pMan->IsBrokenArchive(); }
bool CTarnLib::IsEncryptedArchive() { return pMan && pMan->IsEncryptedArchive(); }
bool CTarnLib::IsSolidArchive() { return pMan && pMan->IsSolidArchive(); }
bool CTarnLib::ExtractAllTo(ITarnSimpleOutStream* o) { return pMan && pMan->ExtractAllTo(o); }
bool CTarnLib::ExtractAllTo(const std::string& f) { return pMan && pMan->ExtractAllTo(f); }
bool CTarnLib::ExtractAllToA(const std::string& f) { return pMan && pMan->ExtractAllToA(f); }
bool CTarnLib::ExtractOneTo(uint32_t i, ITarnSimpleOutStream* o) { return pMan && pMan->ExtractOneTo(i, o); }
bool CTarnLib::ExtractOneToA(uint32_t i, const std::string& f) { return pMan && pMan->ExtractOneToA(i, f); }
bool CTarnLib::ExtractOneTo(uint32_t i, const std::string& f) { return pMan && pMan->ExtractOneTo(i, f); }
bool CTarnLib::AddIndex2ExtractList(uint32_t i) { return pMan && pMan->AddIndex2ExtractList(i); }
void CTarnLib::ClearExtractList() { if (pMan) pMan->ClearExtractList(); }
uint32_t CTarnLib::GetExtractListCount() { return pMan ? pMan->GetExtractListCount() : 0; }
bool CTarnLib::ExtractMultiFileTo(ITarnSimpleOutStream* o) { return pMan && pMan->ExtractMultiFileTo(o); }
bool CTarnLib::ExtractMultiFileTo(const std::string& f) { return pMan && pMan->ExtractMultiFileTo(f); }
bool CTarnLib::ExtractMultiFileToA(const std::string& f) { return pMan && pMan->ExtractMultiFileToA(f); }
bool CTarnLib::SetEvent(ITarnEvent* e) { return pMan && pMan->SetEvent(e); }
uint32_t CTarnLib::GetLastError() { return pMan ? pMan->GetLastError() : 0; }
void CTarnLib::SetCodePage(uint32_t c) { if (pMan) pMan->SetCodePage(c); }
const char* CTarnLib::EncryptionMethod2Str(uint32_t m) { return pMan ? pMan->EncryptionMethod2Str(m) : nullptr; }
const char* CTarnLib::CompressionMethod2Str(int32_t m) { return pMan ? pMan->CompressionMethod2Str(m) : nullptr; }
void CTarnLib::SetGlobalOption(uint32_t o) { if (pMan) pMan->SetGlobalOption(o); }
const char* CTarnLib::GetAlias() { return pMan ? pMan->GetAlias() : nullptr; }
void CTarnLib::SetAlias(const std::string& a) { if (pMan) pMan->SetAlias(a); }
int64_t CTarnLib::GetFileSize() { return pMan ? pMan->GetFileSize() : -1; }
const TarnBondMeta* CTarnLib::GetBondMeta() { return pMan ? pMan->GetBondMeta() : nullptr; }
int32_t CTarnLib::FindIndex(const std::string& w, const std::string& a, bool e) { return pMan ? pMan->FindIndex(w, a, e) : -1; }
// clang-format on

const std::string& CTarnLib::GetFilePathName() {
    static const std::string kNone;
    return pMan ? pMan->GetFilePathName() : kNone;
}

// ---------------------------------------------------------------------------------------------
// CTarnLibPair

namespace {

bool IsPlainFile(const std::string& path) {
    return platform::GetFileSize(path) >= 0 && !platform::IsDirectory(path);
}

// Copies the file at `path` into the caller's stream.
bool ReadFileInto(const std::string& path, ITarnSimpleOutStream* out) {
    const int64_t size = platform::GetFileSize(path);
    if (size < 0) return false;
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) return false;
    bool ok = out->Open(nullptr) && out->SetSize(size);
    std::vector<char> buffer(size_t(std::min<int64_t>(size, 1 << 20)) + 1);
    int64_t left = size;
    while (ok && left > 0) {
        const size_t want = size_t(std::min<int64_t>(left, int64_t(buffer.size())));
        const size_t got = std::fread(buffer.data(), 1, want, f);
        if (got == 0) break;
        ok = out->Write(buffer.data(), uint32_t(got));
        left -= int64_t(got);
    }
    std::fclose(f);
    const bool closed = out->Close();
    return ok && left == 0 && closed;
}

// Whether the temporary copy of an entry of `archive` still serves: it exists, has the size the
// archive lists (`listedSize`, -1 when not known) and the archive wasn't modified after the copy
// was made. With the archive gone, the copy is all there is and serves.
bool CopyIsCurrent(const std::string& copy, const std::string& archive, int64_t listedSize) {
    if (!IsPlainFile(copy)) return false;
    if (listedSize >= 0 && platform::GetFileSize(copy) != listedSize) return false;
    std::error_code archiveError, copyError;
    const auto archiveTime = std::filesystem::last_write_time(archive, archiveError);
    const auto copyTime = std::filesystem::last_write_time(copy, copyError);
    if (archiveError) return true;
    return !copyError && archiveTime <= copyTime;
}

// Removes a copy that no longer serves, so that a failed extraction can't leave it in use.
void DropStaleCopy(const std::string& copy, const std::string& archive, int64_t listedSize) {
    std::error_code ec;
    if (IsPlainFile(copy) && !CopyIsCurrent(copy, archive, listedSize))
        std::filesystem::remove(copy, ec);
}

// Extraction gives a file the entry's stored time; the copy instead takes the time it was made,
// which CopyIsCurrent compares with the archive's.
void StampCopy(const std::string& copy) {
    std::error_code ec;
    if (IsPlainFile(copy))
        std::filesystem::last_write_time(copy, std::filesystem::file_time_type::clock::now(), ec);
}

}  // namespace

CTarnLibPair::CTarnLibPair() = default;
CTarnLibPair::~CTarnLibPair() = default;

std::string CTarnLibPair::TempFolderOf(const std::string& archivePath) {
    const std::u16string wide = utf::ToUtf16(archivePath);
    std::string bytes;
    bytes.reserve(wide.size() * 2);
    for (char16_t c : wide) {
        bytes += char(c & 0xFF);
        bytes += char(c >> 8);
    }
    return platform::GetTempFolder() + "/OrlimoTemp/" + Md5Hex(bytes);
}

bool CTarnLibPair::Open(const std::string& path, TarnArchiveInfo* info, bool force) {
    nLastError = TARN_OK;
    const int64_t size = platform::GetFileSize(path);
    bool reused = false;
    if (force) {
        if (pCurrent) pCurrent->Close();
    } else {
        for (CTarnLib* lib : {&first, &second}) {
            const char* alias = lib->GetAlias();
            if (alias && path == alias && (size == -1 || size == lib->GetFileSize())) {
                pCurrent = lib;
                reused = true;
                break;
            }
        }
    }

    if (!reused) {
        // The two slots alternate, so the most recent other archive stays open.
        if (pCurrent == &first) {
            second.Close();
            pCurrent = &second;
        } else {
            first.Close();
            pCurrent = &first;
        }
        const char* password = sPassword.empty() ? nullptr : sPassword.c_str();
        const size_t mark = path.find('?');
        if (mark != std::string::npos) {
            const std::string outer = path.substr(0, mark);
            const std::string innerName = TarnSafeRelativePath(path.substr(mark + 1));
            if (innerName.empty()) {
                nLastError = TARN_ERR_OPEN_FILE;
                return false;
            }
            const std::string folder = TempFolderOf(outer);
            const std::string inner = folder + "/" + innerName;
            DropStaleCopy(inner, outer, -1);
            if (!IsPlainFile(inner)) {
                CTarnLib outerLib;
                if (outerLib.Open(outer, password)) {
                    outerLib.ExtractAllTo(folder);
                    nLastError = outerLib.GetLastError();
                    StampCopy(inner);
                } else {
                    nLastError = outerLib.GetLastError();
                }
            }
            if (!IsPlainFile(inner)) {
                if (nLastError == TARN_OK) nLastError = TARN_ERR_OPEN_FILE;
                return false;
            }
            if (!pCurrent->Open(inner, password)) {
                nLastError = pCurrent->GetLastError();
                return false;
            }
        } else if (!pCurrent->Open(path, password)) {
            nLastError = pCurrent->GetLastError();
            return false;
        }
        pCurrent->SetAlias(path);
        nLastError = pCurrent->GetLastError();  // a broken archive keeps its error
    }

    if (info) {
        info->bBroken = pCurrent->IsBrokenArchive();
        info->bEncrypted = pCurrent->IsEncryptedArchive();
        info->nFormat = pCurrent->GetFileFormat();
        const TarnBondMeta* meta = pCurrent->GetBondMeta();
        if (meta)
            info->bondMeta = *meta;
        else
            info->bondMeta.reset();
    }
    return true;
}

std::string CTarnLibPair::CurrentTempFolder() {
    const char* alias = pCurrent->GetAlias();
    return TempFolderOf(alias ? std::string(alias) : pCurrent->GetFilePathName());
}

std::string CTarnLibPair::TempNameOf(uint32_t index) {
    const TarnFileItem* item = pCurrent->GetFileItem(index);
    return item ? TarnSafeRelativePath(item->fileNameW) : std::string();
}

bool CTarnLibPair::ExtractToMemory(const std::string& nameW, const std::string& nameA,
                                   ITarnSimpleOutStream* out) {
    if (!pCurrent || !out) {
        nLastError = TARN_ERR_NOT_OPEN;
        return false;
    }
    pCurrent->SetPassword(sPassword.empty() ? nullptr : sPassword.c_str());
    const int32_t index = pCurrent->FindIndex(nameW, nameA, false);
    if (index < 0) {
        nLastError = TARN_ERR_INDEX;
        return false;
    }
    if (!pCurrent->IsSolidArchive()) {
        if (pCurrent->ExtractOneTo(uint32_t(index), out)) return true;
        nLastError = pCurrent->GetLastError();
        return false;
    }
    // A solid archive can't hand out one entry cheaply: the first request unpacks it all into
    // the temporary folder, every later one reads a file.
    const std::string name = TempNameOf(uint32_t(index));
    if (name.empty()) {
        nLastError = TARN_ERR_SOLID_PATH;
        return false;
    }
    const std::string folder = CurrentTempFolder();
    const std::string file = folder + "/" + name;
    if (!IsPlainFile(file) && !pCurrent->ExtractAllTo(folder)) {
        nLastError = pCurrent->GetLastError();
        return false;
    }
    if (!ReadFileInto(file, out)) {
        nLastError = TARN_ERR_DATA_READ;
        return false;
    }
    return true;
}

bool CTarnLibPair::ExtractNestedToTemp(const std::string& nameW, const std::string& nameA,
                                       std::string* path) {
    if (!pCurrent) {
        nLastError = TARN_ERR_NOT_OPEN;
        return false;
    }
    const int32_t index = pCurrent->FindIndex(nameW, nameA, false);
    if (index < 0) {
        nLastError = TARN_ERR_INDEX;
        return false;
    }
    const std::string name = TempNameOf(uint32_t(index));
    if (name.empty()) {
        nLastError = TARN_ERR_SOLID_PATH;
        return false;
    }
    const std::string folder = CurrentTempFolder();
    const std::string file = folder + "/" + name;
    if (path) *path = file;
    const int64_t listedSize = pCurrent->GetFileItem(uint32_t(index))->uncompressedSize;
    if (CopyIsCurrent(file, pCurrent->GetFilePathName(), listedSize)) return true;
    DropStaleCopy(file, pCurrent->GetFilePathName(), listedSize);
    pCurrent->SetPassword(sPassword.empty() ? nullptr : sPassword.c_str());
    if (pCurrent->IsSolidArchive())
        pCurrent->ExtractAllTo(folder);
    else
        pCurrent->ExtractOneTo(uint32_t(index), folder);
    nLastError = pCurrent->GetLastError();
    StampCopy(file);
    return IsPlainFile(file);
}

void CTarnLibPair::Close() {
    first.Close();
    second.Close();
    pCurrent = nullptr;
}
