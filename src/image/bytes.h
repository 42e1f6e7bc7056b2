// Byte-order helpers and a block reader for decoders that consume their input a byte at a time.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "image/xdibio.h"

inline uint16_t Le16(const uint8_t* p) {
    return uint16_t(p[0] | (p[1] << 8));
}
inline uint32_t Le32(const uint8_t* p) {
    return uint32_t(p[0]) | (uint32_t(p[1]) << 8) | (uint32_t(p[2]) << 16) | (uint32_t(p[3]) << 24);
}
inline uint16_t Be16(const uint8_t* p) {
    return uint16_t((p[0] << 8) | p[1]);
}
inline uint32_t Be32(const uint8_t* p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}

// Reads a source through a 64 KB block so that run-length decoders pay one virtual call per
// block, not per byte. The source must not be used directly while a reader is active.
class XByteReader {
public:
    explicit XByteReader(IXDibIO& source) : io(source) {}
    XByteReader(const XByteReader&) = delete;
    XByteReader& operator=(const XByteReader&) = delete;

    bool Byte(uint8_t& out) {
        if (pos == fill && !Refill()) return false;
        out = block[pos++];
        return true;
    }

    // All or nothing, like the source itself.
    bool Read(void* out, size_t count) {
        auto* dst = static_cast<uint8_t*>(out);
        while (count > 0) {
            if (pos == fill && !Refill()) return false;
            const size_t n = std::min(count, fill - pos);
            std::memcpy(dst, block + pos, n);
            pos += n, dst += n, count -= n;
        }
        return true;
    }

private:
    bool Refill() {
        const int64_t left = io.GetSize() - io.Tell();
        if (left <= 0) return false;
        const uint32_t n = static_cast<uint32_t>(std::min<int64_t>(left, kBlock));
        if (!io.Read(block, n)) return false;
        fill = n, pos = 0;
        return true;
    }

    static constexpr size_t kBlock = 65536;
    IXDibIO& io;
    size_t fill = 0;
    size_t pos = 0;
    uint8_t block[kBlock];
};
