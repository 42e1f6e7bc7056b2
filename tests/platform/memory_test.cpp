#include "platform/memory.h"

#include <gtest/gtest.h>

TEST(Memory, AvailableMemoryComesFromItsOwnLineInKilobytes) {
    constexpr const char* kMeminfo =
        "MemTotal:       16315836 kB\n"
        "MemFree:          912344 kB\n"
        "MemAvailable:    8388608 kB\n"
        "Buffers:          402788 kB\n";
    EXPECT_EQ(platform::ParseMemAvailableMB(kMeminfo), 8192);
    EXPECT_EQ(platform::ParseMemAvailableMB("MemAvailable: 1047 kB\n"), 1);  // whole megabytes
    // Only a line that starts with the name counts, and only with its unit.
    EXPECT_EQ(platform::ParseMemAvailableMB("XMemAvailable: 4096 kB\n"), -1);
    EXPECT_EQ(platform::ParseMemAvailableMB("MemAvailable: 4096\n"), -1);
    EXPECT_EQ(platform::ParseMemAvailableMB("MemAvailable: lots kB\n"), -1);
    EXPECT_EQ(platform::ParseMemAvailableMB(""), -1);
    // The running system has some.
    EXPECT_GT(platform::GetAvailablePhysicalMB(), 0);
}
