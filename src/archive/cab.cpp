// The Cabinet reader: the fixed header, the folder records for their compression types, then one
// record and one zero-ended name per file.
#include "archive/cab.h"

#include <string>
#include <vector>

namespace {

constexpr uint32_t kFixedHeader = 36;
constexpr uint32_t kFolderRecord = 8;
constexpr uint32_t kFileRecord = 16;
constexpr uint32_t kMaxName = 260;  // bytes of a name, its zero included
constexpr uint16_t kAttrNameIsUtf8 = 0x80;

uint16_t LE16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
}
uint32_t LE32(const uint8_t* p) {
    return p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

// A folder's compression type as a compression method number.
int32_t MethodOf(uint16_t type) {
    switch (type & 0x0F) {
        case 0:
            return 0;
        case 1:
            return 500;  // MSZip
        default:
            return 999;  // Quantum, LZX
    }
}

}  // namespace

bool CTarnUnCab::ReadHeader() {
    uint8_t h[kFixedHeader];
    if (!pStream->Read(h, sizeof h)) {
        ReportError(TARN_ERR_HEADER, nullptr);
        return false;
    }
    if (LE32(h) != 0x4643534D || LE32(h + 4) != 0) {  // "MSCF" and a zero word
        ReportError(TARN_ERR_NOT_THIS_FORMAT, nullptr);
        return false;
    }
    const uint32_t firstFile = LE32(h + 16);
    const uint16_t folderCount = LE16(h + 26), fileCount = LE16(h + 28), flags = LE16(h + 30);
    uint32_t folderReserve = 0;
    if (flags & 0x0004) {  // reserved space: its sizes, then the header's reserve
        uint8_t reserve[4];
        if (!pStream->Read(reserve, sizeof reserve)) {
            ReportError(TARN_ERR_HEADER, nullptr);
            return false;
        }
        folderReserve = reserve[2];
        pStream->Seek(LE16(reserve), 1);
    }
    // The names of the cabinets and disks before and after this one in a set.
    const int strings = ((flags & 0x0001) ? 2 : 0) + ((flags & 0x0002) ? 2 : 0);
    for (int i = 0; i < strings; ++i) {
        std::string skipped;
        if (!ReadName(&skipped)) return false;
    }
    std::vector<int32_t> methods(folderCount, 999);
    for (uint16_t i = 0; i < folderCount; ++i) {
        uint8_t f[kFolderRecord];
        if (!pStream->Read(f, sizeof f)) {
            ReportError(TARN_ERR_HEADER, nullptr);
            return false;
        }
        methods[i] = MethodOf(LE16(f + 6));
        pStream->Seek(folderReserve, 1);
    }
    if (pStream->Seek(nStartOffset + firstFile, 0) != nStartOffset + firstFile) {
        ReportError(TARN_ERR_HEADER, nullptr);
        return false;
    }

    for (uint32_t i = 0; i < fileCount; ++i) {
        uint8_t r[kFileRecord];
        if (!pStream->Read(r, sizeof r)) {
            ReportError(TARN_ERR_HEADER, nullptr);
            return false;
        }
        std::string name;
        if (!ReadName(&name)) return false;
        const uint16_t folder = LE16(r + 8), attributes = LE16(r + 14);
        auto item = std::make_unique<TarnFileItem>();
        const uint32_t codePage = (attributes & kAttrNameIsUtf8) ? 65001 : nCodePage;
        if (!TarnApplyNameRule(name, codePage, item.get())) {
            ReportError(TARN_ERR_NAME_REJECTED, nullptr);
            continue;
        }
        item->uncompressedSize = LE32(r);
        item->compressedSize = item->uncompressedSize;
        item->dataPos = LE32(r + 4);  // the offset inside its folder
        item->dosTime = uint32_t(LE16(r + 10)) << 16 | LE16(r + 12);
        item->fileTime = TarnDosTimeToTime(item->dosTime);
        item->fileTimeNT = TarnTimeToFileTime(item->fileTime);
        item->attributes = attributes & 0x07;
        item->compressionMethod = folder < methods.size() ? methods[folder] : 999;
        if (!AddItem(std::move(item), 100.0f * float(i + 1) / float(fileCount))) return false;
    }
    return nLastError == TARN_OK;
}

bool CTarnUnCab::ReadName(std::string* name) {
    for (;;) {
        uint8_t c;
        if (!pStream->Read(&c, 1) || (c != 0 && name->size() + 1 >= kMaxName)) {
            ReportError(TARN_ERR_HEADER, nullptr);
            return false;
        }
        if (c == 0) return true;
        *name += static_cast<char>(c);
    }
}

bool CTarnUnCab::ExtractItem(uint32_t, TarnFileItem* item, ITarnOutStream*) {
    ReportError(TARN_ERR_METHOD, item);
    return false;
}
