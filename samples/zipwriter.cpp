#include "zipwriter.h"

#include <zlib.h>

#include <limits>

namespace samplewrite {
namespace {

constexpr uint16_t kMethodStore = 0;
constexpr uint16_t kMethodDeflate = 8;
constexpr uint16_t kVersion = 20;
constexpr uint16_t kDosTime = 0;                         // 00:00:00
constexpr uint16_t kDosDate = (46 << 9) | (1 << 5) | 1;  // 2026-01-01
constexpr uint32_t kZipLimit = std::numeric_limits<uint32_t>::max();

void Put16(std::vector<uint8_t>& out, uint32_t v) {
    out.push_back(uint8_t(v));
    out.push_back(uint8_t(v >> 8));
}
void Put32(std::vector<uint8_t>& out, uint32_t v) {
    Put16(out, v & 0xFFFF);
    Put16(out, v >> 16);
}

// Raw deflate of `data`; empty with ok false when zlib fails.
std::vector<uint8_t> Deflate(const std::vector<uint8_t>& data, bool& ok) {
    z_stream z{};
    ok =
        deflateInit2(&z, Z_BEST_COMPRESSION, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY) == Z_OK;
    if (!ok) return {};
    std::vector<uint8_t> out(deflateBound(&z, uLong(data.size())));
    z.next_in = const_cast<Bytef*>(data.data());
    z.avail_in = uInt(data.size());
    z.next_out = out.data();
    z.avail_out = uInt(out.size());
    ok = deflate(&z, Z_FINISH) == Z_STREAM_END;
    out.resize(z.total_out);
    deflateEnd(&z);
    return out;
}

struct Written {
    uint32_t crc = 0;
    uint32_t packed = 0;
    uint32_t size = 0;
    uint32_t offset = 0;
    uint16_t method = 0;
};

}  // namespace

std::vector<uint8_t> MakeZip(const std::vector<ZipEntry>& entries) {
    std::vector<uint8_t> out;
    std::vector<Written> written;
    for (const ZipEntry& e : entries) {
        if (e.data.size() >= kZipLimit || e.name.size() > 0xFFFF || out.size() >= kZipLimit) {
            return {};
        }
        Written w;
        w.crc = uint32_t(crc32(0, e.data.data(), uInt(e.data.size())));
        w.size = uint32_t(e.data.size());
        w.offset = uint32_t(out.size());
        std::vector<uint8_t> packed;
        bool ok = true;
        if (e.deflate) packed = Deflate(e.data, ok);
        if (!ok) return {};
        // Data that doesn't shrink is stored, as every ZIP tool does.
        const bool store = !e.deflate || packed.size() >= e.data.size();
        w.method = store ? kMethodStore : kMethodDeflate;
        const std::vector<uint8_t>& body = store ? e.data : packed;
        w.packed = uint32_t(body.size());
        Put32(out, 0x04034B50);
        Put16(out, kVersion);
        Put16(out, 0);  // flags
        Put16(out, w.method);
        Put16(out, kDosTime);
        Put16(out, kDosDate);
        Put32(out, w.crc);
        Put32(out, w.packed);
        Put32(out, w.size);
        Put16(out, uint32_t(e.name.size()));
        Put16(out, 0);  // extra field
        out.insert(out.end(), e.name.begin(), e.name.end());
        out.insert(out.end(), body.begin(), body.end());
        written.push_back(w);
    }
    if (out.size() >= kZipLimit || entries.size() > 0xFFFF) return {};
    const uint32_t directory = uint32_t(out.size());
    for (size_t i = 0; i < entries.size(); ++i) {
        const Written& w = written[i];
        Put32(out, 0x02014B50);
        Put16(out, kVersion);  // made by
        Put16(out, kVersion);  // needed
        Put16(out, 0);
        Put16(out, w.method);
        Put16(out, kDosTime);
        Put16(out, kDosDate);
        Put32(out, w.crc);
        Put32(out, w.packed);
        Put32(out, w.size);
        Put16(out, uint32_t(entries[i].name.size()));
        Put16(out, 0);  // extra
        Put16(out, 0);  // comment
        Put16(out, 0);  // disk
        Put16(out, 0);  // internal attributes
        Put32(out, 0);  // external attributes
        Put32(out, w.offset);
        out.insert(out.end(), entries[i].name.begin(), entries[i].name.end());
    }
    if (out.size() >= kZipLimit) return {};
    const uint32_t directorySize = uint32_t(out.size()) - directory;
    Put32(out, 0x06054B50);
    Put16(out, 0);
    Put16(out, 0);
    Put16(out, uint32_t(entries.size()));
    Put16(out, uint32_t(entries.size()));
    Put32(out, directorySize);
    Put32(out, directory);
    Put16(out, 0);  // comment
    return out;
}

}  // namespace samplewrite
