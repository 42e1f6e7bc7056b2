// The archive facade: one interface over every reader. ITarn sniffs, opens, lists and extracts;
// CTarnMan implements it, CTarnLib is a forwarding shell around one manager, and CTarnLibPair is
// what the page engine holds: two archives open at once, the "outer?inner" path form, and
// solid archives turned into temporary folders.
//
// Paths and names are UTF-8; the "A" forms take the same text and simply forward. Paths on disk
// use "/"; entry names keep the archive's "\". Nothing here is thread-safe: one thread per object.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "archive/bond.h"
#include "archive/tarn.h"

// The readers, one per format. A reader's file exports a function that registers its factory;
// tarnreaders.cpp calls each of them once, before the first archive is opened.
using TarnReaderFactory = std::unique_ptr<ITarnExtractor> (*)();
// Sets (or, with null, removes) the reader of `format`.
void RegisterTarnReader(TarnFormat format, TarnReaderFactory factory);
// A new reader for `format`; null when none is registered.
std::unique_ptr<ITarnExtractor> CreateTarnReader(TarnFormat format);
// Registers the readers built into the library; called once by the first CTarnMan.
void RegisterBuiltinTarnReaders();

// The one process-wide option value of SetGlobalOption.
uint32_t TarnGetGlobalOption();

class ITarn {
public:
    virtual void Release() = 0;  // destroys the object
    // Closes whatever is open, then sniffs and opens `path`. False: GetLastError tells why.
    virtual bool Open(const std::string& path, const char* password) = 0;
    virtual bool OpenA(const std::string& path, const char* password) = 0;
    virtual void Close() = 0;
    // Sniffs `path` with a stream of its own; the open archive stays untouched.
    virtual TarnFormat CheckFormat(const std::string& path) = 0;
    virtual TarnFormat CheckFormatA(const std::string& path) = 0;
    virtual void SetPassword(const char* password) = 0;
    virtual uint32_t GetFileItemCount() = 0;
    virtual const TarnFileItem* GetFileItem(uint32_t index) = 0;
    virtual TarnFormat GetFileFormat() = 0;
    virtual bool IsBrokenArchive() = 0;
    virtual bool IsEncryptedArchive() = 0;
    virtual bool IsSolidArchive() = 0;
    // The folder forms: an empty folder gives the factory the entry names alone.
    virtual bool ExtractAllTo(ITarnSimpleOutStream* out) = 0;
    virtual bool ExtractAllTo(const std::string& folder) = 0;
    virtual bool ExtractAllToA(const std::string& folder) = 0;
    virtual bool ExtractOneTo(uint32_t index, ITarnSimpleOutStream* out) = 0;
    virtual bool ExtractOneToA(uint32_t index, const std::string& folder) = 0;
    virtual bool ExtractOneTo(uint32_t index, const std::string& folder) = 0;
    // Sorted, without duplicates; an index out of range is refused.
    virtual bool AddIndex2ExtractList(uint32_t index) = 0;
    virtual void ClearExtractList() = 0;
    virtual uint32_t GetExtractListCount() = 0;
    // The extract list (everything when it is empty); the list is cleared afterwards.
    virtual bool ExtractMultiFileTo(ITarnSimpleOutStream* out) = 0;
    virtual bool ExtractMultiFileTo(const std::string& folder) = 0;
    virtual bool ExtractMultiFileToA(const std::string& folder) = 0;
    virtual bool SetEvent(ITarnEvent* event) = 0;
    virtual uint32_t GetLastError() = 0;
    // The code page of entry names for later Open calls; 0 the system's.
    virtual void SetCodePage(uint32_t codePage) = 0;
    virtual const char* EncryptionMethod2Str(uint32_t method) = 0;
    virtual const char* CompressionMethod2Str(int32_t method) = 0;
    virtual void SetGlobalOption(uint32_t option) = 0;
    // The caller's name for the open archive; null when none was set since the last Open.
    virtual const char* GetAlias() = 0;
    virtual void SetAlias(const std::string& alias) = 0;
    // The input's size in bytes; -1 when nothing is open.
    virtual int64_t GetFileSize() = 0;
    virtual const TarnBondMeta* GetBondMeta() = 0;
    virtual const std::string& GetFilePathName() = 0;
    // The index of the entry named `nameW` (decoded names first) or `nameA` (stored names);
    // -1 when none. `exact` compares plainly, otherwise case-blind.
    virtual int32_t FindIndex(const std::string& nameW, const std::string& nameA, bool exact) = 0;

protected:
    virtual ~ITarn() = default;
};

class CTarnMan final : public ITarn {
public:
    CTarnMan();
    ~CTarnMan() override;
    CTarnMan(const CTarnMan&) = delete;
    CTarnMan& operator=(const CTarnMan&) = delete;

    void Release() override { delete this; }
    bool Open(const std::string& path, const char* password) override;
    bool OpenA(const std::string& path, const char* password) override {
        return Open(path, password);
    }
    void Close() override;
    TarnFormat CheckFormat(const std::string& path) override;
    TarnFormat CheckFormatA(const std::string& path) override { return CheckFormat(path); }
    void SetPassword(const char* password) override;
    uint32_t GetFileItemCount() override;
    const TarnFileItem* GetFileItem(uint32_t index) override;
    TarnFormat GetFileFormat() override { return nFormat; }
    bool IsBrokenArchive() override { return bBroken; }
    bool IsEncryptedArchive() override { return bEncrypted; }
    bool IsSolidArchive() override { return pExtractor && bSolid; }
    bool ExtractAllTo(ITarnSimpleOutStream* out) override;
    bool ExtractAllTo(const std::string& folder) override;
    bool ExtractAllToA(const std::string& folder) override { return ExtractAllTo(folder); }
    bool ExtractOneTo(uint32_t index, ITarnSimpleOutStream* out) override;
    bool ExtractOneToA(uint32_t index, const std::string& folder) override {
        return ExtractOneTo(index, folder);
    }
    bool ExtractOneTo(uint32_t index, const std::string& folder) override;
    bool AddIndex2ExtractList(uint32_t index) override;
    void ClearExtractList() override { extractList.clear(); }
    uint32_t GetExtractListCount() override { return uint32_t(extractList.size()); }
    bool ExtractMultiFileTo(ITarnSimpleOutStream* out) override;
    bool ExtractMultiFileTo(const std::string& folder) override;
    bool ExtractMultiFileToA(const std::string& folder) override {
        return ExtractMultiFileTo(folder);
    }
    bool SetEvent(ITarnEvent* event) override;
    uint32_t GetLastError() override { return nLastError; }
    void SetCodePage(uint32_t codePage) override { nCodePage = codePage; }
    const char* EncryptionMethod2Str(uint32_t method) override;
    const char* CompressionMethod2Str(int32_t method) override;
    void SetGlobalOption(uint32_t option) override;
    const char* GetAlias() override { return sAlias ? sAlias->c_str() : nullptr; }
    void SetAlias(const std::string& alias) override { sAlias = alias; }
    int64_t GetFileSize() override { return nFileSize; }
    const TarnBondMeta* GetBondMeta() override;
    const std::string& GetFilePathName() override { return sPath; }
    int32_t FindIndex(const std::string& nameW, const std::string& nameA, bool exact) override;

    // The factory of the folder forms (MakeOutStream unless a host sets another).
    void SetOutStreamFactory(TarnOutStreamFactory factory, void* context);

private:
    // Runs `extract` with the caller's simple stream behind the factory, then puts the
    // folder factory back.
    template <class F>
    bool WithSimpleStream(ITarnSimpleOutStream* out, F&& extract);
    bool Extract(const uint32_t* indices, uint32_t count, const std::string& folder, bool all);

    TarnPtr<ITarnInStream> pStream;  // held only while opening
    std::unique_ptr<ITarnExtractor> pExtractor;
    ITarnEvent* pEvent = nullptr;  // not owned
    TarnOutStreamFactory pfnFactory;
    void* pFactoryContext = nullptr;
    std::string sPath;
    std::optional<std::string> sAlias;
    bool bBroken = false;
    bool bEncrypted = false;
    bool bSolid = false;
    int64_t nFileSize = -1;
    TarnFormat nFormat = TarnFormatNone;
    uint32_t nLastError = TARN_OK;
    uint32_t nCodePage = 0;
    std::vector<uint32_t> extractList;  // sorted, unique
};

// A forwarding shell around one manager; without a manager every slot gives 0 or does nothing.
class CTarnLib final : public ITarn {
public:
    CTarnLib() : pMan(new CTarnMan) {}
    ~CTarnLib() override;
    CTarnLib(const CTarnLib&) = delete;
    CTarnLib& operator=(const CTarnLib&) = delete;

    void Release() override { delete this; }
    bool Open(const std::string& path, const char* password) override;
    bool OpenA(const std::string& path, const char* password) override;
    void Close() override;
    TarnFormat CheckFormat(const std::string& path) override;
    TarnFormat CheckFormatA(const std::string& path) override;
    void SetPassword(const char* password) override;
    uint32_t GetFileItemCount() override;
    const TarnFileItem* GetFileItem(uint32_t index) override;
    TarnFormat GetFileFormat() override;
    bool IsBrokenArchive() override;
    bool IsEncryptedArchive() override;
    bool IsSolidArchive() override;
    bool ExtractAllTo(ITarnSimpleOutStream* out) override;
    bool ExtractAllTo(const std::string& folder) override;
    bool ExtractAllToA(const std::string& folder) override;
    bool ExtractOneTo(uint32_t index, ITarnSimpleOutStream* out) override;
    bool ExtractOneToA(uint32_t index, const std::string& folder) override;
    bool ExtractOneTo(uint32_t index, const std::string& folder) override;
    bool AddIndex2ExtractList(uint32_t index) override;
    void ClearExtractList() override;
    uint32_t GetExtractListCount() override;
    bool ExtractMultiFileTo(ITarnSimpleOutStream* out) override;
    bool ExtractMultiFileTo(const std::string& folder) override;
    bool ExtractMultiFileToA(const std::string& folder) override;
    bool SetEvent(ITarnEvent* event) override;
    uint32_t GetLastError() override;
    void SetCodePage(uint32_t codePage) override;
    const char* EncryptionMethod2Str(uint32_t method) override;
    const char* CompressionMethod2Str(int32_t method) override;
    void SetGlobalOption(uint32_t option) override;
    const char* GetAlias() override;
    void SetAlias(const std::string& alias) override;
    int64_t GetFileSize() override;
    const TarnBondMeta* GetBondMeta() override;
    const std::string& GetFilePathName() override;
    int32_t FindIndex(const std::string& nameW, const std::string& nameA, bool exact) override;

private:
    struct ManDeleter {
        void operator()(CTarnMan* m) const { m->Release(); }
    };
    std::unique_ptr<CTarnMan, ManDeleter> pMan;
};

// What CTarnLibPair::Open tells about the archive it opened.
struct TarnArchiveInfo {
    bool bBroken = false;
    bool bEncrypted = false;
    TarnFormat nFormat = TarnFormatNone;
    // A copy of the book container's metadata; empty for every other format. It stays valid
    // after the archive is closed.
    std::optional<TarnBondMeta> bondMeta;
};

// The page engine's archives: two stay open, the most recent two. Temporary extractions go
// under <temp folder>/OrlimoTemp/<MD5 of the archive path's UTF-16LE bytes>/ and nowhere else.
class CTarnLibPair {
public:
    CTarnLibPair();
    ~CTarnLibPair();
    CTarnLibPair(const CTarnLibPair&) = delete;
    CTarnLibPair& operator=(const CTarnLibPair&) = delete;

    // Opens `path` ("archive" or "outer?inner") unless one of the two already has it open.
    // `force` reopens it regardless.
    bool Open(const std::string& path, TarnArchiveInfo* info, bool force);
    // The whole entry named `nameW` / `nameA` into `out` (Open(null), SetSize, Write, Close).
    bool ExtractToMemory(const std::string& nameW, const std::string& nameA,
                         ITarnSimpleOutStream* out);
    // Puts the entry (an inner archive) on disk; *path is where it is.
    bool ExtractNestedToTemp(const std::string& nameW, const std::string& nameA, std::string* path);
    void SetPassword(const std::string& password) { sPassword = password; }
    void Close();
    uint32_t GetLastError() const { return nLastError; }
    // The archive of the last Open, for listing; null before any.
    ITarn* GetCurrent() { return pCurrent; }

    // The folder of temporary extractions of `archivePath`.
    static std::string TempFolderOf(const std::string& archivePath);

private:
    // The temporary folder of the current archive, and the place of its entry `index` in it
    // (empty when the entry has no usable name).
    std::string CurrentTempFolder();
    std::string TempNameOf(uint32_t index);

    CTarnLib first;
    CTarnLib second;
    CTarnLib* pCurrent = nullptr;
    std::string sPassword;
    uint32_t nLastError = TARN_OK;
};
