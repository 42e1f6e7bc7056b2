// A small ZIP writer: entries stored or deflated (zlib), with their CRC-32, one central directory
// and no ZIP64. Builds the sample book's comic archives and the archives of the engine's tests.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace samplewrite {

struct ZipEntry {
    std::string name;  // "/" between folders
    std::vector<uint8_t> data;
    bool deflate = true;  // false: stored as it is
};

// The whole archive as bytes; empty when an entry or the archive is too large for plain ZIP.
std::vector<uint8_t> MakeZip(const std::vector<ZipEntry>& entries);

}  // namespace samplewrite
