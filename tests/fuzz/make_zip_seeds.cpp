// Writes the seeds of the ZIP fuzz target: small archives of each listing path and method that
// can be made without the archivers (stored, raw Deflate, ZIP64 records, a stub in front).
#include <zlib.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "archive/archive_bytes.h"

namespace {

using archivebytes::Put16;
using archivebytes::Put32;
using archivebytes::Put64;
using archivebytes::RawDeflate;

struct Entry {
    std::string name, data;
    uint16_t method;
};

std::string Zip(const std::vector<Entry>& entries, bool zip64) {
    std::string out, dir;
    for (const Entry& e : entries) {
        const std::string packed = e.method == 8 ? RawDeflate(e.data) : e.data;
        const uint32_t crc =
            uint32_t(crc32(0, reinterpret_cast<const Bytef*>(e.data.data()), uInt(e.data.size())));
        std::string extra;
        if (zip64) {
            Put16(extra, 1);
            Put16(extra, 16);
            Put64(extra, e.data.size());
            Put64(extra, packed.size());
        }
        const uint32_t offset = uint32_t(out.size());
        for (std::string* s : {&out, &dir}) {
            const bool central = s == &dir;
            Put32(*s, central ? 0x02014B50 : 0x04034B50);
            if (central) Put16(*s, 20);
            Put16(*s, 20);
            Put16(*s, 0);
            Put16(*s, e.method);
            Put32(*s, 0x5A210000);
            Put32(*s, crc);
            Put32(*s, zip64 ? 0xFFFFFFFF : uint32_t(packed.size()));
            Put32(*s, zip64 ? 0xFFFFFFFF : uint32_t(e.data.size()));
            Put16(*s, uint32_t(e.name.size()));
            Put16(*s, uint32_t(extra.size()));
            if (central) {
                Put16(*s, 0);
                Put32(*s, 0);
                Put32(*s, 0);
                Put32(*s, offset);
            }
            *s += e.name + extra;
        }
        out += packed;
    }
    const uint32_t dirOffset = uint32_t(out.size());
    out += dir;
    Put32(out, 0x06054B50);
    Put32(out, 0);
    Put16(out, uint32_t(entries.size()));
    Put16(out, uint32_t(entries.size()));
    Put32(out, uint32_t(dir.size()));
    Put32(out, zip64 ? 0xFFFFFFFF : dirOffset);
    Put16(out, 0);
    return out;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s FOLDER\n", argv[0]);
        return 2;
    }
    std::string text;
    for (int i = 0; i < 200; ++i) text += "page " + std::to_string(i) + "\n";
    const std::vector<Entry> entries = {{"a/", "", 0}, {"a/1.txt", text, 8}, {"2.bin", "xyz", 0}};
    const std::string plain = Zip(entries, false);
    const std::pair<const char*, std::string> seeds[] = {
        {"plain.zip", plain},
        {"zip64.zip", Zip(entries, true)},
        {"stub.zip", "MZ" + std::string(60, '\0') + plain},
        {"cut.zip", plain.substr(0, plain.size() - 30)},
    };
    for (const auto& [name, data] : seeds)
        std::ofstream(std::string(argv[1]) + "/" + name, std::ios::binary) << data;
    return 0;
}
