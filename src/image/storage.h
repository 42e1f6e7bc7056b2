// Pixel storage for pictures. Page turns free and make pictures of much the same size over and
// over; a fresh block costs a page fault per 4 KB the first time it is written (about 2.8 ms per
// MB here), so a few recently freed large blocks are kept and handed out again.
#pragma once

#include <cstddef>
#include <cstdint>

namespace xdib_storage {

// Bytes every block has beyond what was asked for: a decoder may write a little past the end of
// the last row (a scaled JPEG row one pixel wider than the picture, say).
inline constexpr size_t kSlack = 64;

// A block of at least `bytes` (+ kSlack). `zeroed` clears the `bytes`; otherwise the content is
// undefined. `blockBytes` receives the block's real size, to be handed back with it.
// Null when memory is short (or the test limit says so).
uint8_t* Acquire(size_t bytes, bool zeroed, size_t& blockBytes);

// Takes a block back; it may be kept for reuse.
void Release(uint8_t* block, size_t blockBytes);

// Frees every block kept for reuse (when the program goes idle, say).
void TrimSpare();

}  // namespace xdib_storage
