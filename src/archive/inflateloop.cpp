// The stored / raw Deflate block loop through zlib.
#include "archive/inflateloop.h"

#include <zlib.h>

#include <algorithm>
#include <vector>

#include "archive/crypto.h"

namespace {

constexpr uint32_t kInBlock = 4096;
constexpr uint32_t kOutBlock = 64 * 1024;

}  // namespace

bool CTarnInflatingExtractor::ExtractBlocks(TarnFileItem* item, ITarnOutStream* out, int64_t left,
                                            bool deflated, CTarnCrypto* crypto) {
    z_stream z{};
    if (deflated && inflateInit2(&z, -MAX_WBITS) != Z_OK) {
        ReportError(TARN_ERR_CORRUPT, item);
        return false;
    }
    std::vector<uint8_t> in(kInBlock), outBuf(deflated ? kOutBlock : 0);
    int64_t read = 0, written = 0;
    uLong crc = crc32(0, nullptr, 0);
    bool ok = true, ended = false;
    while (ok && !ended) {
        if (!deflated || z.avail_in == 0) {
            const auto n = static_cast<uint32_t>(std::min<int64_t>(kInBlock, left));
            if (n == 0) {
                if (!deflated) break;
                ReportError(TARN_ERR_CORRUPT, item);  // the data ended inside the Deflate stream
                ok = false;
                break;
            }
            if (!pStream->Read(in.data(), n)) {
                ReportError(TARN_ERR_DATA_READ, item);
                ok = false;
                break;
            }
            if (crypto) crypto->Decrypt(in.data(), n);
            left -= n;
            read += n;
            if (!deflated) {
                crc = crc32(crc, in.data(), n);
                if (!WriteOut(out, in.data(), n)) {
                    ReportError(nLastError, item);
                    ok = false;
                    break;
                }
                written += n;
                ok = ReportProgress(read, written);
                continue;
            }
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
        ok = ReportProgress(read, written);
    }
    if (deflated) inflateEnd(&z);
    if (ok && item->crc32 != 0 && static_cast<uint32_t>(crc) != item->crc32) {
        ReportError(TARN_ERR_CRC, item);
        ok = false;
    }
    return ok;
}
