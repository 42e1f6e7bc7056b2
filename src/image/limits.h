// Ceilings that protect the program from hostile picture headers. Every decoder checks what a
// header claims against these before it allocates anything.
#pragma once

#include <cstdint>

// The largest pixel storage a picture may have: 1 GiB, a 16384 x 16384 picture at 32 bits.
// A BMP claiming 3,000,000 x 2,000,000 pixels fails here before any allocation.
inline constexpr uint64_t kMaxPictureBytes = uint64_t(1) << 30;

// An uncompressed body may be cut short (the rows read so far are shown), but a file that holds
// less than 1/64 of what its header claims is not a damaged picture, it is a lie; refusing it
// keeps a few hostile bytes from pinning a gigabyte in the cache.
inline constexpr uint64_t kMaxRawShortfall = 64;

inline bool RawBodyPlausible(uint64_t claimedBytes, int64_t availableBytes) {
    if (availableBytes < 0) return false;
    return claimedBytes / kMaxRawShortfall <= static_cast<uint64_t>(availableBytes);
}

// The same for a run-length coded body, whose smallest honest size is its decoded size divided
// by the most its coding can expand: PackBits turns 2 bytes into at most 128 (64:1), a TGA run
// packet at most 128 pixels. BMP run-length coding has no such bound (a delta skips 255 rows),
// but no encoder writes whole pages of skips, so the PackBits bound serves as its policy.
inline constexpr uint64_t kPackBitsExpansion = 64;
inline constexpr uint64_t kTgaRleExpansion = 128;
inline constexpr uint64_t kBmpRleExpansion = 64;

inline bool PackedBodyPlausible(uint64_t claimedBytes, uint64_t maxExpansion,
                                int64_t availableBytes) {
    return RawBodyPlausible(claimedBytes / maxExpansion, availableBytes);
}
