#include "base/tick.h"

#include <chrono>

uint64_t XGetTickCount64() {
    using namespace std::chrono;
    return static_cast<uint64_t>(
        duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

uint32_t XGetTickCount() {
    return static_cast<uint32_t>(XGetTickCount64());
}
