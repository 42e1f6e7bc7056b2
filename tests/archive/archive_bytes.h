// Little-endian field writers and a raw Deflate packer for archives written byte by byte in the
// tests and by the fuzz seed programs.
#pragma once

#include <zlib.h>

#include <cstdint>
#include <string>

namespace archivebytes {

inline void Put16(std::string& s, uint32_t v) {
    s += char(v & 0xFF);
    s += char((v >> 8) & 0xFF);
}
inline void Put32(std::string& s, uint32_t v) {
    Put16(s, v & 0xFFFF);
    Put16(s, v >> 16);
}
inline void Put64(std::string& s, uint64_t v) {
    Put32(s, uint32_t(v));
    Put32(s, uint32_t(v >> 32));
}

// `in` as a raw Deflate stream (no zlib or gzip wrapper) at the best compression.
inline std::string RawDeflate(const std::string& in) {
    z_stream zs{};
    deflateInit2(&zs, 9, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY);
    std::string out(deflateBound(&zs, uLong(in.size())), '\0');
    zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(in.data()));
    zs.avail_in = uInt(in.size());
    zs.next_out = reinterpret_cast<Bytef*>(out.data());
    zs.avail_out = uInt(out.size());
    deflate(&zs, Z_FINISH);
    out.resize(zs.total_out);
    deflateEnd(&zs);
    return out;
}

}  // namespace archivebytes
