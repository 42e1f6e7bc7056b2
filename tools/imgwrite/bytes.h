// Little helpers for appending integers to a byte vector, shared by the writers.
#pragma once

#include <cstdint>
#include <vector>

namespace imgwrite::detail {

inline void Put8(std::vector<uint8_t>& out, uint32_t v) {
    out.push_back(uint8_t(v));
}
inline void PutLe16(std::vector<uint8_t>& out, uint32_t v) {
    out.push_back(uint8_t(v)), out.push_back(uint8_t(v >> 8));
}
inline void PutLe32(std::vector<uint8_t>& out, uint32_t v) {
    for (int i = 0; i < 4; ++i) out.push_back(uint8_t(v >> (8 * i)));
}
inline void PutBe16(std::vector<uint8_t>& out, uint32_t v) {
    out.push_back(uint8_t(v >> 8)), out.push_back(uint8_t(v));
}
inline void PutBe32(std::vector<uint8_t>& out, uint32_t v) {
    for (int i = 3; i >= 0; --i) out.push_back(uint8_t(v >> (8 * i)));
}
// Overwrites four bytes at `at`, little-endian: for sizes known only at the end.
inline void SetLe32(std::vector<uint8_t>& out, size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) out[at + i] = uint8_t(v >> (8 * i));
}

// 5-5-5 packing of a colour (top bit left clear), as BMP and TGA store 16-bit pixels.
inline uint16_t Pack555(uint8_t r, uint8_t g, uint8_t b) {
    return uint16_t(((r >> 3) << 10) | ((g >> 3) << 5) | (b >> 3));
}

}  // namespace imgwrite::detail
