#include "platform/system.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

extern char** environ;

namespace platform {

int64_t GetAvailableMemoryMB() {
    FILE* f = std::fopen("/proc/meminfo", "r");
    if (!f) return -1;
    char line[256];
    int64_t result = -1;
    while (std::fgets(line, sizeof line, f)) {
        long long kb = 0;
        if (std::sscanf(line, "MemAvailable: %lld kB", &kb) == 1) {
            result = kb >> 10;
            break;
        }
    }
    std::fclose(f);
    return result;
}

std::string GetTempFolder() {
    const char* env = std::getenv("TMPDIR");
    std::string folder = env && *env ? env : "/tmp";
    while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
    return folder;
}

bool SpawnDetached(const std::string& program, const std::string& argument) {
    std::string programCopy = program, argumentCopy = argument;
    char* argv[] = {programCopy.data(), argumentCopy.data(), nullptr};
    pid_t pid = 0;
    if (posix_spawnp(&pid, programCopy.c_str(), nullptr, nullptr, argv, environ) != 0) return false;
    // Nobody waits for the program; a detached thread only reaps it when it ends, so that no
    // zombie stays behind.
    std::thread([pid] {
        int status = 0;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
    }).detach();
    return true;
}

}  // namespace platform
