// CRC-32 with the IEEE 802.3 polynomial, as stored by ZIP, gzip, PNG and the other containers.
#pragma once

#include <cstddef>
#include <cstdint>

// Returns the CRC-32 of `size` bytes at `data`, continuing from `crc`, the result of an earlier
// call over the bytes before them (0 to start). Chaining gives the same value as one call over
// the whole run: Crc32(b, nb, Crc32(a, na)) == Crc32(a followed by b).
uint32_t Crc32(const void* data, size_t size, uint32_t crc = 0);
