// The bzip2 reader: the whole file is one entry of unknown size; libbz2 decodes it.
#include "archive/unbzip2.h"

#include <bzlib.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "archive/ungzip.h"

namespace {

constexpr uint32_t kInBlock = 8192;
constexpr uint32_t kOutBlock = 64 * 1024;

}  // namespace

bool CTarnUnBzip2::ReadHeader() {
    uint8_t head[3];
    if (!pStream->Read(head, sizeof head)) {
        ReportError(TARN_ERR_HEADER, nullptr);
        return false;
    }
    if (memcmp(head, "BZh", 3) != 0) {
        ReportError(TARN_ERR_NOT_THIS_FORMAT, nullptr);
        return false;
    }
    auto item = std::make_unique<TarnFileItem>();
    const std::string name =
        TarnCompressedEntryName(pStream->GetFilePathName(), "noname.bz2", ".tbz|.tbz2");
    if (!TarnApplyNameRule(name, nCodePage, item.get())) {
        ReportError(TARN_ERR_NAME_REJECTED, nullptr);
        return false;
    }
    item->uncompressedSize = -1;  // bzip2 doesn't say; nothing checks the written count
    item->compressedSize = pStream->GetSize() - nStartOffset;
    item->compressionMethod = 12;
    item->headerPos = item->dataPos = nStartOffset;
    return AddItem(std::move(item), 100.0f);
}

bool CTarnUnBzip2::ExtractItem(uint32_t, TarnFileItem* item, ITarnOutStream* out) {
    if (pStream->Seek(item->dataPos, 0) != item->dataPos) {
        ReportError(TARN_ERR_DATA_READ, item);
        return false;
    }
    bz_stream bz{};
    if (BZ2_bzDecompressInit(&bz, 0, 0) != BZ_OK) {
        ReportError(TARN_ERR_BZIP2, item);
        return false;
    }
    std::vector<char> in(kInBlock), outBuf(kOutBlock);
    int64_t left = item->compressedSize, read = 0, written = 0;
    bool ok = true;
    for (;;) {
        if (bz.avail_in == 0 && left > 0) {
            const auto n = static_cast<uint32_t>(std::min<int64_t>(kInBlock, left));
            if (!pStream->Read(in.data(), n)) {
                ReportError(TARN_ERR_DATA_READ, item);
                ok = false;
                break;
            }
            left -= n;
            read += n;
            bz.next_in = in.data();
            bz.avail_in = n;
        }
        bz.next_out = outBuf.data();
        bz.avail_out = kOutBlock;
        const int rc = BZ2_bzDecompress(&bz);
        if (rc != BZ_OK && rc != BZ_STREAM_END) {
            ReportError(TARN_ERR_BZIP2, item);
            ok = false;
            break;
        }
        const uint32_t produced = kOutBlock - bz.avail_out;
        if (!WriteOut(out, outBuf.data(), produced)) {
            ReportError(nLastError, item);
            ok = false;
            break;
        }
        written += produced;
        if (!ReportProgress(read, written)) {
            ok = false;
            break;
        }
        if (rc == BZ_STREAM_END) {
            // Parallel compressors write one stream after another; anything else behind the
            // end is left alone.
            if (bz.avail_in == 0 && left > 0) {
                const auto n = static_cast<uint32_t>(std::min<int64_t>(kInBlock, left));
                if (!pStream->Read(in.data(), n)) break;
                left -= n;
                read += n;
                bz.next_in = in.data();
                bz.avail_in = n;
            }
            if (bz.avail_in < 3 || memcmp(bz.next_in, "BZh", 3) != 0) break;
            char* next = bz.next_in;
            const unsigned rest = bz.avail_in;
            BZ2_bzDecompressEnd(&bz);
            bz = bz_stream{};
            if (BZ2_bzDecompressInit(&bz, 0, 0) != BZ_OK) {
                ReportError(TARN_ERR_BZIP2, item);
                return false;
            }
            bz.next_in = next;
            bz.avail_in = rest;
            continue;
        }
        if (bz.avail_in == 0 && left == 0 && produced == 0) {
            // The input ended inside the stream.
            ReportError(TARN_ERR_BZIP2, item);
            ok = false;
            break;
        }
    }
    BZ2_bzDecompressEnd(&bz);
    return ok;
}
