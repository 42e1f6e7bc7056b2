// Free physical memory, as the image caches size their budgets by it.
#pragma once

#include <cstdint>
#include <string_view>

namespace platform {

// Memory the system can give without swapping, in megabytes: MemAvailable of /proc/meminfo.
// 0 when it can't be read.
int64_t GetAvailablePhysicalMB();

// The MemAvailable line of a /proc/meminfo text, in megabytes; -1 when there is none.
int64_t ParseMemAvailableMB(std::string_view meminfo);

}  // namespace platform
