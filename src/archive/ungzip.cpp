// The gzip reader: one member of RFC 1952, decoded as raw Deflate by zlib.
#include "archive/ungzip.h"

#include <strings.h>
#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace {

constexpr uint32_t kInBlock = 4096;
constexpr uint32_t kOutBlock = 64 * 1024;
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
    z_stream z{};
    if (inflateInit2(&z, -MAX_WBITS) != Z_OK) {
        ReportError(TARN_ERR_CORRUPT, item);
        return false;
    }
    std::vector<uint8_t> in(kInBlock), outBuf(kOutBlock);
    int64_t left = item->compressedSize, read = 0, written = 0;
    uLong crc = crc32(0, nullptr, 0);
    bool ended = false, ok = true;
    while (ok && !ended) {
        if (z.avail_in == 0) {
            const auto n = static_cast<uint32_t>(std::min<int64_t>(kInBlock, left));
            if (n == 0) {  // the data ran out before the Deflate stream ended
                ReportError(TARN_ERR_CORRUPT, item);
                ok = false;
                break;
            }
            if (!pStream->Read(in.data(), n)) {
                ReportError(TARN_ERR_DATA_READ, item);
                ok = false;
                break;
            }
            left -= n;
            read += n;
            z.next_in = in.data();
            z.avail_in = n;
        }
        z.next_out = outBuf.data();
        z.avail_out = kOutBlock;
        const int rc = inflate(&z, Z_NO_FLUSH);
        if (rc != Z_OK && rc != Z_STREAM_END && rc != Z_BUF_ERROR) {
            ReportError(TARN_ERR_CORRUPT, item);
            ok = false;
            break;
        }
        ended = rc == Z_STREAM_END;
        const uint32_t produced = kOutBlock - z.avail_out;
        crc = crc32(crc, outBuf.data(), produced);
        if (!WriteOut(out, outBuf.data(), produced)) {
            ReportError(nLastError, item);
            ok = false;
            break;
        }
        written += produced;
        if (!ReportProgress(read, written)) ok = false;
    }
    inflateEnd(&z);
    if (ok && item->crc32 != 0 && static_cast<uint32_t>(crc) != item->crc32) {
        ReportError(TARN_ERR_CRC, item);
        ok = false;
    }
    return ok;
}
