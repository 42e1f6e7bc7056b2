// The JPEG markers the program's JPEG readers look for.
#pragma once

#include <cstdint>

namespace jpeg_markers {

inline constexpr uint8_t kSofBaseline = 0xC0;
inline constexpr uint8_t kSofProgressive = 0xC2;
inline constexpr uint8_t kSofLossless = 0xC3;
inline constexpr uint8_t kDht = 0xC4;
inline constexpr uint8_t kDac = 0xCC;
inline constexpr uint8_t kEoi = 0xD9;
inline constexpr uint8_t kSos = 0xDA;
inline constexpr uint8_t kApp0 = 0xE0;
inline constexpr uint8_t kApp1 = 0xE1;
inline constexpr uint8_t kCom = 0xFE;

// A start-of-frame marker (SOF0 to SOF15). Huffman tables (C4), the reserved C8 and the
// arithmetic conditioning (CC) share the range and are none.
inline bool IsFrameMarker(uint8_t marker) {
    return marker >= 0xC0 && marker <= 0xCF && marker != kDht && marker != 0xC8 && marker != kDac;
}

}  // namespace jpeg_markers
