// Result codes and small value types shared by every module.
#pragma once

#include <cstdint>

// Results of operations that report more than a boolean.
using XResult = uint32_t;
inline constexpr XResult kXOk = 0;
inline constexpr XResult kXFail = 0x80004005;    // generic failure
inline constexpr XResult kXTooNew = 0x81000001;  // archive written by a newer version

// A rectangle in pixels: left and top inclusive, right and bottom exclusive.
struct XRect {
    int32_t left = 0;
    int32_t top = 0;
    int32_t right = 0;
    int32_t bottom = 0;

    int32_t Width() const { return right - left; }
    int32_t Height() const { return bottom - top; }
    bool IsEmpty() const { return right <= left || bottom <= top; }
    friend bool operator==(const XRect&, const XRect&) = default;
};

// Number of worker threads that filters and image kernels may use: processors, 1..4.
// Set once at start; read everywhere else.
extern uint32_t nThreadCount;
