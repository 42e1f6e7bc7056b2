// The gzip reader: one member of RFC 1952, decoded as raw Deflate by zlib.
#include "archive/ungzip.h"

#include <strings.h>

#include <cstring>

namespace {

constexpr uint32_t kMaxStoredName = 260;

uint32_t LE32(const uint8_t* p) {
    return p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

}  // namespace

std::string TarnCompressedEntryName(const std::string& path, const char* fallback,
                                    const char* tarExts) {
    const size_t slash = path.find_last_of("/\\");
    std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    if (base.empty()) base = fallback;
    const size_t dot = base.rfind('.');
    if (dot == std::string::npos) return base;
    const std::string ext = base.substr(dot), stem = base.substr(0, dot);
    std::string_view list(tarExts);
    while (!list.empty()) {
        const size_t bar = list.find('|');
        const std::string_view one = list.substr(0, bar);
        if (one.size() == ext.size() && strncasecmp(one.data(), ext.data(), ext.size()) == 0)
            return stem + ".tar";
        if (bar == std::string_view::npos) break;
        list.remove_prefix(bar + 1);
    }
    return stem.empty() ? base : stem;
}

bool CTarnUnGzip::ReadHeader() {
    uint8_t head[10];
    if (!pStream->Read(head, sizeof head)) {
        ReportError(TARN_ERR_HEADER, nullptr);
        return false;
    }
    if (head[0] != 0x1F || head[1] != 0x8B || head[2] != 8) {
        ReportError(TARN_ERR_NOT_THIS_FORMAT, nullptr);
        return false;
    }
    const uint8_t flags = head[3];
    std::string name = TarnCompressedEntryName(pStream->GetFilePathName(), "noname.gz", ".tgz");
    uint8_t b[2];
    if (flags & 0x04) {  // extra field
        if (!pStream->Read(b, 2)) {
            ReportError(TARN_ERR_HEADER, nullptr);
            return false;
        }
        pStream->Seek(b[0] | (b[1] << 8), 1);
    }
    if (flags & 0x08) {  // the original name, which wins over the file's
        std::string stored;
        for (;;) {
            if (!pStream->Read(b, 1)) {
                ReportError(TARN_ERR_HEADER, nullptr);
                return false;
            }
            if (b[0] == 0) break;
            if (stored.size() < kMaxStoredName) stored += static_cast<char>(b[0]);
        }
        if (!stored.empty()) name = std::move(stored);
    }
    if (flags & 0x10) {
        // The comment is skipped up to the character '0', not to a zero byte: a comment
        // without one runs out of file and the header is refused.
        do {
            if (!pStream->Read(b, 1)) {
                ReportError(TARN_ERR_HEADER, nullptr);
                return false;
            }
        } while (b[0] != '0');
    }
    if (flags & 0x02) pStream->Seek(2, 1);  // header CRC

    const int64_t dataPos = pStream->GetPos();
    const int64_t size = pStream->GetSize();
    uint8_t trailer[8];
    if (size - 8 < dataPos || pStream->Seek(size - 8, 0) != size - 8 ||
        !pStream->Read(trailer, sizeof trailer)) {
        ReportError(TARN_ERR_HEADER, nullptr);
        return false;
    }
    pStream->Seek(dataPos, 0);

    auto item = std::make_unique<TarnFileItem>();
    if (!TarnApplyNameRule(name, nCodePage, item.get())) {
        ReportError(TARN_ERR_NAME_REJECTED, nullptr);
        return false;
    }
    item->fileTime = LE32(head + 4);
    item->fileTimeNT = TarnTimeToFileTime(item->fileTime);
    item->crc32 = LE32(trailer);
    item->uncompressedSize = LE32(trailer + 4);
    item->compressedSize = size - dataPos - 8;
    item->compressionMethod = 8;
    item->dataPos = dataPos;
    item->headerPos = nStartOffset;
    return AddItem(std::move(item), 100.0f);
}

bool CTarnUnGzip::ExtractItem(uint32_t, TarnFileItem* item, ITarnOutStream* out) {
    if (pStream->Seek(item->dataPos, 0) != item->dataPos) {
        ReportError(TARN_ERR_DATA_READ, item);
        return false;
    }
    return ExtractBlocks(item, out, item->compressedSize, true, nullptr);
}
