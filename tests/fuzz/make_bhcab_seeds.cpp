// Writes the seeds of the BH and Cabinet fuzz targets, chosen by the name of the folder given
// ("bh" or "cab"): small archives written byte by byte, with zlib for the Deflated BH entries.
#include <zlib.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "archive/archive_bytes.h"

namespace {

using archivebytes::Put16;
using archivebytes::Put32;
using archivebytes::RawDeflate;

std::string BHMember(const std::string& name, const std::string& data, uint8_t method,
                     uint8_t flags) {
    const std::string packed = method == 8 ? RawDeflate(data) : data;
    std::string s;
    Put32(s, 0x07054842);
    Put16(s, uint32_t(37 + name.size()));
    s += std::string(3, '\0');
    s += char(flags);
    s += char(method);
    Put32(s, 0x5A210000);
    Put32(s, uint32_t(packed.size()));
    Put32(s, uint32_t(data.size()));
    Put32(s, uint32_t(crc32(0, reinterpret_cast<const Bytef*>(data.data()), uInt(data.size()))));
    Put16(s, 0x20);
    Put32(s, 0);
    Put16(s, uint32_t(name.size()));
    Put16(s, 0);
    return s + name + packed;
}

std::string Cabinet(uint16_t flags, const std::string& beforeFolders) {
    std::string s = "MSCF";
    Put32(s, 0);
    Put32(s, 0);
    Put32(s, 0);
    Put32(s, uint32_t(36 + beforeFolders.size() + 8));
    Put32(s, 0);
    Put16(s, 0x0103);
    Put16(s, 1);
    Put16(s, 2);
    Put16(s, flags);
    Put32(s, 0);
    s += beforeFolders;
    Put32(s, 0);
    Put16(s, 0);
    Put16(s, 1);
    for (const char* name : {"a.jpg", "\xEC\xB1\x85.png"}) {
        Put32(s, 10);
        Put32(s, 0);
        Put16(s, 0);
        Put32(s, 0x5A210000);
        Put16(s, name[0] == 'a' ? 0x20 : 0xA0);
        s += name;
        s += '\0';
    }
    return s;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: make-bhcab-seeds FOLDER\n");
        return 2;
    }
    const std::string folder = argv[1];
    auto write = [&](const std::string& name, const std::string& bytes) {
        std::ofstream(folder + "/" + name, std::ios::binary) << bytes;
    };
    if (folder.size() >= 2 && folder.compare(folder.size() - 2, 2, "bh") == 0) {
        const std::string text(2000, 'p');
        write("store.bh", BHMember("a.jpg", text, 0, 0));
        write("deflate.bh", BHMember("a.jpg", text, 8, 0) + BHMember("b.png", "tiny", 2, 0));
        write("locked.bh", BHMember("a.jpg", std::string(12, 'h') + text, 0, 1));
        write("fuse.bh", BHMember("a.jpg", text, 1, 0));
    } else {
        write("plain.cab", Cabinet(0, ""));
        write("set.cab", Cabinet(3, std::string("p.cab\0d1\0n.cab\0d3\0", 18)));
    }
    return 0;
}
