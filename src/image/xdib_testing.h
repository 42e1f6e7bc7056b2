// Hooks for tests that need picture storage to run out.
#pragma once

#include <cstdint>

namespace xdib_testing {

// Storage requests above `bytes` fail as if memory were exhausted; 0 removes the limit.
void SetAllocationLimit(uint64_t bytes);

}  // namespace xdib_testing
