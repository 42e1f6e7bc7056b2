#include "platform/system.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <thread>

extern char** environ;

namespace platform {

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
