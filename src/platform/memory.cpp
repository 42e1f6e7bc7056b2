#include "platform/memory.h"

#include <fcntl.h>
#include <unistd.h>

#include <charconv>
#include <string>

namespace platform {

int64_t ParseMemAvailableMB(std::string_view meminfo) {
    constexpr std::string_view kKey = "MemAvailable:";
    size_t at = meminfo.find(kKey);
    // The key must begin a line: "MemAvailable" inside another name doesn't count.
    while (at != std::string_view::npos && at != 0 && meminfo[at - 1] != '\n')
        at = meminfo.find(kKey, at + 1);
    if (at == std::string_view::npos) return -1;
    at += kKey.size();
    while (at < meminfo.size() && meminfo[at] == ' ') ++at;
    int64_t kb = 0;
    const char* end = meminfo.data() + meminfo.size();
    const auto [ptr, ec] = std::from_chars(meminfo.data() + at, end, kb);
    if (ec != std::errc() || kb < 0) return -1;
    // The kernel states kilobytes ("kB"); anything else is a text we don't know.
    std::string_view unit(ptr, size_t(end - ptr));
    while (!unit.empty() && unit.front() == ' ') unit.remove_prefix(1);
    if (!unit.starts_with("kB")) return -1;
    return kb >> 10;
}

int64_t GetAvailablePhysicalMB() {
    const int fd = ::open("/proc/meminfo", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return 0;
    // The file is a few kilobytes; MemAvailable is its third line.
    std::string text(8192, '\0');
    size_t filled = 0;
    for (;;) {
        const ssize_t n = ::read(fd, text.data() + filled, text.size() - filled);
        if (n <= 0) break;
        filled += size_t(n);
        if (filled == text.size()) break;
    }
    ::close(fd);
    text.resize(filled);
    const int64_t mb = ParseMemAvailableMB(text);
    return mb < 0 ? 0 : mb;
}

}  // namespace platform
