// The archive library's shared vocabulary: formats, error codes, the entry record and its list,
// the event sink, and the extractor base that every format reader derives from.
//
// Names are UTF-8. An entry keeps its name twice: `fileName` as the archive stores it (bytes,
// "/" turned to "\"), `fileNameW` decoded for display and output paths ("?" when it can't be).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "archive/tarnstream.h"

// Container formats. The numbers are stored and compared: keep them.
enum TarnFormat : uint32_t {
    TarnFormatNone = 0,
    TarnFormatZip = 1,
    TarnFormatAlz = 2,
    TarnFormatAlzPart = 3,  // a later ALZ volume
    TarnFormatLzh = 4,
    TarnFormatRar = 5,
    TarnFormatRarPart = 6,  // a later RAR volume
    TarnFormat7z = 7,
    TarnFormatTar = 8,
    TarnFormatCab = 9,
    TarnFormatIso = 10,
    TarnFormatNumberedPart = 11,  // a ".001" volume set
    TarnFormatBond = 12,
    TarnFormatGzip = 13,
    TarnFormatBzip2 = 14,
    TarnFormatNsis = 15,
    TarnFormatBH = 16,
    TarnFormatEgg = 17,
};

// Error codes, kept by each extractor and copied to the manager's last error.
enum TarnError : uint32_t {
    TARN_OK = 0,
    TARN_ERR_OPEN_FILE = 1,
    TARN_ERR_NO_SIGNATURE = 2,  // end of data where a signature was expected
    TARN_ERR_HEADER = 3,        // an entry header can't be read or is malformed
    TARN_ERR_NAME_REJECTED = 4,
    TARN_ERR_NAME_READ = 5,
    TARN_ERR_EXTRA_MEMORY = 6,
    TARN_ERR_EXTRA_READ = 7,
    TARN_ERR_CENTRAL_READ = 8,
    TARN_ERR_CENTRAL_MEMORY = 9,
    TARN_ERR_END_MEMORY = 17,
    TARN_ERR_END_READ = 18,  // also an unknown EGG block
    TARN_ERR_DATA_READ = 21,
    TARN_ERR_CORRUPT = 22,
    TARN_ERR_STOPPED = 23,  // by the event sink
    TARN_ERR_CRC = 24,
    TARN_ERR_METHOD = 25,  // compression method not supported
    TARN_ERR_NEED_PASSWORD = 32,
    TARN_ERR_WRONG_PASSWORD = 33,
    TARN_ERR_WRITE = 48,
    TARN_ERR_CREATE = 49,
    TARN_ERR_BZIP2 = 50,
    TARN_ERR_7Z_DATA = 53,
    TARN_ERR_INDEX = 55,  // index out of range or null index list
    TARN_ERR_LZMA_HEADER = 56,
    TARN_ERR_LZMA_PROPS = 57,
    TARN_ERR_SET_SIZE = 66,      // the output refused the announced size
    TARN_ERR_SIZE_DIFFERS = 67,  // bytes written differ from uncompressedSize
    TARN_ERR_LATER_VOLUME = 68,
    TARN_ERR_NOT_OPEN = 69,
    TARN_ERR_ENCRYPTION = 70,  // encryption method not supported
    TARN_ERR_SOLID_PATH = 71,
    TARN_ERR_NO_READER = 72,
    TARN_ERR_UNKNOWN_FORMAT = 73,
    TARN_ERR_PATH_TOO_LONG = 80,
    TARN_ERR_7Z_UNSUPPORTED = 83,
    TARN_ERR_DISK_FULL = 84,
    TARN_ERR_BROKEN = 256,  // damaged archive, some entries may be usable
    TARN_ERR_NOT_THIS_FORMAT = 257,
    TARN_ERR_ALZ_HEADER = 258,
    TARN_ERR_VERSION = 512,  // container version or entry form refused
};

// Attribute bits of an entry.
inline constexpr uint32_t kTarnAttrReadOnly = 0x01;
inline constexpr uint32_t kTarnAttrHidden = 0x02;
inline constexpr uint32_t kTarnAttrFolder = 0x10;
inline constexpr uint32_t kTarnAttrArchive = 0x20;

// Names longer than this (in code points, folder and name together) are not written out.
inline constexpr size_t kTarnMaxPath = 520;
// A password is kept up to this many bytes.
inline constexpr size_t kTarnMaxPassword = 512;

// The metadata of the book container, defined by its reader.
struct TarnBondMeta;

// Per-format facts an entry carries; deleted through the virtual destructor.
struct TarnExtraData {
    virtual ~TarnExtraData() = default;
};

struct TarnFileItem {
    std::string fileName;     // as stored, "/" turned to "\"
    std::string fileNameW;    // decoded (UTF-8); "?" when decoding failed
    uint32_t fileTime = 0;    // seconds since 1970, the stored time read as local time
    uint64_t fileTimeNT = 0;  // (fileTime + 11644473600) * 10000000; 0 when no time is stored
    int64_t compressedSize = 0;
    int64_t uncompressedSize = 0;   // -1: unknown, the size check after extraction is skipped
    uint32_t encryptionMethod = 0;  // 0 not encrypted; see EncryptionMethod2Str
    uint32_t attributes = 0;        // kTarnAttr...
    uint32_t crc32 = 0;             // 0: don't check
    int32_t compressionMethod = 0;  // see CompressionMethod2Str
    int64_t headerPos = 0;          // the entry's own header in the stream
    int64_t dataPos = 0;            // its data; 0 until a reader walked to it
    uint16_t flags = 0;             // the raw flag word (ZIP)
    uint32_t dosTime = 0;           // raw DOS date and time where the format has them
    uint32_t cryptCheck = 0;        // the byte the ZIP password check compares
    std::unique_ptr<TarnExtraData> extra;
    std::string comment;

    bool IsFolder() const { return (attributes & kTarnAttrFolder) != 0; }
};

// The entries of an open archive, in the archive's order. An entry counts as a folder or a file
// by its attributes at the moment it is added.
class TarnFileList {
public:
    TarnFileList() { items_.reserve(1024); }
    TarnFileItem* Add(std::unique_ptr<TarnFileItem> item);
    void Clear();
    uint32_t GetCount() const { return static_cast<uint32_t>(items_.size()); }
    uint32_t GetFileCount() const { return nFiles_; }
    uint32_t GetFolderCount() const { return nFolders_; }
    TarnFileItem* Get(uint32_t index) const {
        return index < items_.size() ? items_[index].get() : nullptr;
    }

private:
    std::vector<std::unique_ptr<TarnFileItem>> items_;
    uint32_t nFiles_ = 0;
    uint32_t nFolders_ = 0;
};

// Progress of an extraction.
struct TarnProgress {
    int64_t totalCompressed = 0;
    int64_t totalUncompressed = 0;
    int64_t fileCompressed = 0;
    int64_t fileUncompressed = 0;
    int64_t fileDone = 0;
    float filePercent = 0;
    float totalPercent = 0;
};

// A sink a host may set. Every stop value is in-out: a non-zero value ends the work with
// TARN_ERR_STOPPED.
class ITarnEvent {
public:
    virtual void OnOpening(const TarnFileItem* item, float percent, uint32_t* stop) = 0;
    virtual void OnStartFile(const TarnFileItem* item, uint32_t* stopCurrent,
                             uint32_t* stopAll) = 0;
    virtual void OnProgressing(const TarnProgress* progress, uint32_t* stopCurrent,
                               uint32_t* stopAll) = 0;
    virtual void OnCompleteFile(const TarnProgress* progress, uint32_t error) = 0;
    virtual void OnError(uint32_t error, const TarnFileItem* item, uint32_t* stop) = 0;

protected:
    virtual ~ITarnEvent() = default;
};

// The words of the method numbers.
const char* EncryptionMethod2Str(uint32_t method);
const char* CompressionMethod2Str(int32_t method);

// Decodes an entry name stored in the archive's bytes: valid UTF-8 stays as it is; otherwise the
// bytes are read in `codePage` (949, 437, 932, 1252, ...; 65001 UTF-8). Code page 0, the
// system's, means CP949 and, where that fails, CP437. Empty when the bytes can't be decoded.
std::string TarnDecodeName(std::string_view raw, uint32_t codePage);

// The name rule of the readers with byte names: an empty name, or one with "../" or "..\"
// anywhere, is refused (false); "/" becomes "\", trailing CR and LF are cut, and `fileNameW`
// is the decoded name or "?". Sets both names of `item`.
bool TarnApplyNameRule(std::string_view raw, uint32_t codePage, TarnFileItem* item);

// An entry name (either separator) as a relative path with "/" that stays inside the folder it
// is put under: drive letters, empty parts, "." and ".." are dropped. Empty when nothing is left.
std::string TarnSafeRelativePath(std::string_view name);

// A DOS date and time (date in the high word) as seconds since 1970, read as local time; 0 when
// the fields make no date.
uint32_t TarnDosTimeToTime(uint32_t dosDateTime);
// (time + 11644473600) * 10000000, or 0 for a time of 0.
uint64_t TarnTimeToFileTime(uint32_t time);

// One format reader. CTarnExtractorImpl implements the shared operations once; a format
// overrides ReadHeader, ReleaseFormat, InitFormat, ExtractItem and, for solid archives,
// ExtractSolid.
class ITarnExtractor {
public:
    virtual ~ITarnExtractor() = default;
    // Keeps `stream` (a reference is taken), remembers `startOffset`, seeks there, ReadHeader.
    virtual bool Open(ITarnInStream* stream, int64_t startOffset) = 0;
    // Makes the stream of `path` (MakeInStream); TARN_ERR_OPEN_FILE when it can't.
    virtual bool Open(const std::string& path) = 0;
    virtual void Close() = 0;
    // The one extract loop; `folder` null or empty: the factory gets the name alone.
    virtual bool ExtractFiles(const uint32_t* indices, uint32_t count,
                              const std::string* folder) = 0;
    virtual bool ExtractAll(const std::string* folder) = 0;
    virtual void SetCodePage(uint32_t codePage) = 0;
    virtual void SetEvent(ITarnEvent* event) = 0;
    // At most kTarnMaxPassword bytes; null or empty clears it.
    virtual void SetPassword(const char* password) = 0;
    virtual void SetFormat(TarnFormat format) = 0;
    virtual void SetOutStreamFactory(TarnOutStreamFactory factory, void* context) = 0;
    virtual uint32_t GetLastError() const = 0;
    virtual const TarnFileList* GetFileList() const = 0;
    virtual bool IsSolid() const = 0;
    virtual bool IsEncrypted() const = 0;
    // The book container's metadata; null for every other format.
    virtual const TarnBondMeta* GetBondMeta() const { return nullptr; }

protected:
    // Per format.
    virtual bool ReadHeader() = 0;
    virtual void ReleaseFormat() = 0;
    virtual void InitFormat() = 0;
    virtual bool ExtractItem(uint32_t index, TarnFileItem* item, ITarnOutStream* out) = 0;
    virtual bool ExtractSolid(const uint32_t* indices, uint32_t count, const std::string* folder);
};

class CTarnExtractorImpl : public ITarnExtractor {
public:
    CTarnExtractorImpl();
    ~CTarnExtractorImpl() override;

    bool Open(ITarnInStream* stream, int64_t startOffset) override;
    bool Open(const std::string& path) override;
    void Close() override;
    bool ExtractFiles(const uint32_t* indices, uint32_t count, const std::string* folder) override;
    bool ExtractAll(const std::string* folder) override;
    void SetCodePage(uint32_t codePage) override { nCodePage = codePage; }
    void SetEvent(ITarnEvent* event) override { pEvent = event; }
    void SetPassword(const char* password) override;
    void SetFormat(TarnFormat format) override { nFormat = format; }
    void SetOutStreamFactory(TarnOutStreamFactory factory, void* context) override;
    uint32_t GetLastError() const override { return nLastError; }
    const TarnFileList* GetFileList() const override { return &fileList; }
    bool IsSolid() const override { return bSolid; }
    bool IsEncrypted() const override { return bEncrypted; }

protected:
    // Shared helpers for the readers.
    // Adds an entry and reports OnOpening; false when the sink stopped the work (the error is
    // then TARN_ERR_STOPPED and the entry stays listed).
    bool AddItem(std::unique_ptr<TarnFileItem> item, float percent = 0);
    // Reports an error through the sink and records it as the last error.
    void ReportError(uint32_t error, const TarnFileItem* item);
    // Progress of the current entry; false when the sink asked to stop (TARN_ERR_STOPPED).
    bool ReportProgress(int64_t compressedDone, int64_t uncompressedDone);
    // Writes decoded bytes to `out`: TARN_ERR_DISK_FULL or TARN_ERR_WRITE on failure.
    bool WriteOut(ITarnOutStream* out, const void* data, uint32_t size);

    TarnPtr<ITarnInStream> pStream;  // the open input
    int64_t nStartOffset = 0;
    TarnFileList fileList;
    uint32_t nLastError = TARN_OK;
    uint32_t nCodePage = 0;
    ITarnEvent* pEvent = nullptr;  // not owned
    std::string sPassword;
    TarnFormat nFormat = TarnFormatNone;
    TarnOutStreamFactory pfnFactory = nullptr;
    void* pFactoryContext = nullptr;
    bool bSolid = false;
    bool bEncrypted = false;
    bool bEOF = false;  // the input ended where a header was expected
    TarnProgress progress;
    uint32_t bStopCurrent = 0;
    uint32_t bStopAll = 0;
    int64_t nDoneBefore = 0;  // decoded bytes of the entries finished in this extract call
};
