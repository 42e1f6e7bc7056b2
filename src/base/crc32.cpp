#include "base/crc32.h"

#include <array>
#include <bit>
#include <cstring>

namespace {

constexpr uint32_t kPolynomial = 0xEDB88320;  // 0x04C11DB7 with its bits reversed

// Slicing-by-8: table k gives the CRC contribution of a byte followed by k zero bytes, so eight
// input bytes are folded in with eight independent lookups instead of a chain of eight.
using CrcTables = std::array<std::array<uint32_t, 256>, 8>;

constexpr CrcTables MakeTables() {
    CrcTables t{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t c = i;
        for (int bit = 0; bit < 8; ++bit) c = (c & 1) ? (c >> 1) ^ kPolynomial : c >> 1;
        t[0][i] = c;
    }
    for (size_t k = 1; k < t.size(); ++k) {
        for (uint32_t i = 0; i < 256; ++i) t[k][i] = (t[k - 1][i] >> 8) ^ t[0][t[k - 1][i] & 0xFF];
    }
    return t;
}

constexpr CrcTables kTables = MakeTables();

static_assert(kTables[0][1] == 0x77073096 && kTables[0][255] == 0x2D02EF8D);

inline uint32_t LoadLe32(const unsigned char* p) {
    uint32_t v;
    std::memcpy(&v, p, sizeof(v));
    if constexpr (std::endian::native == std::endian::big) v = __builtin_bswap32(v);
    return v;
}

}  // namespace

uint32_t Crc32(const void* data, size_t size, uint32_t crc) {
    const auto* p = static_cast<const unsigned char*>(data);
    crc = ~crc;
    for (; size >= 8; p += 8, size -= 8) {
        const uint32_t lo = LoadLe32(p) ^ crc;
        const uint32_t hi = LoadLe32(p + 4);
        crc = kTables[7][lo & 0xFF] ^ kTables[6][(lo >> 8) & 0xFF] ^ kTables[5][(lo >> 16) & 0xFF] ^
              kTables[4][lo >> 24] ^ kTables[3][hi & 0xFF] ^ kTables[2][(hi >> 8) & 0xFF] ^
              kTables[1][(hi >> 16) & 0xFF] ^ kTables[0][hi >> 24];
    }
    for (; size > 0; ++p, --size) crc = (crc >> 8) ^ kTables[0][(crc ^ *p) & 0xFF];
    return ~crc;
}
