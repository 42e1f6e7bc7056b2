// Operating-system services of the page engine: the temporary folder, and starting another
// program without waiting for it.
#pragma once

#include <cstdint>
#include <string>

namespace platform {

// $TMPDIR when it is set and not empty, else "/tmp"; without a trailing "/".
std::string GetTempFolder();

// Starts `program` with `argument` as its one argument, as a process of its own that nobody
// waits for: no zombie is left behind. False when the program couldn't be started.
bool SpawnDetached(const std::string& program, const std::string& argument);

}  // namespace platform
