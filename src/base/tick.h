// Millisecond tick counts from a monotonic clock.
#pragma once

#include <cstdint>

// Milliseconds since an arbitrary start; wraps after 49.7 days like the 32-bit tick count.
uint32_t XGetTickCount();

// The same clock without wrapping.
uint64_t XGetTickCount64();
