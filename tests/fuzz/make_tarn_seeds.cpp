// Writes seed archives for the tar and gzip fuzz targets into the folder given: a tar with a
// file and a folder, a gzip member with a name and a comment, and a bzip2 stream.
#include <bzlib.h>
#include <zlib.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

namespace {

std::string TarHeader(const char* name, size_t size, char type) {
    std::string block(512, '\0');
    memcpy(block.data(), name, strlen(name));
    snprintf(block.data() + 100, 8, "%07o", 0644);
    snprintf(block.data() + 124, 12, "%011zo", size);
    snprintf(block.data() + 136, 12, "%011o", 1500000000);
    block[156] = type;
    memcpy(block.data() + 257,
           "ustar\0"
           "00",
           8);
    memset(block.data() + 148, ' ', 8);
    unsigned sum = 0;
    for (unsigned char c : block) sum += c;
    snprintf(block.data() + 148, 8, "%06o", sum);
    return block;
}

void Write(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    const std::string dir = argv[1];
    const std::string text = "a page of a book, a page of a book, a page of a book\n";

    std::string tar = TarHeader("pics/", 0, '5') + TarHeader("pics/p1.txt", text.size(), '0');
    tar += text + std::string(512 - text.size(), '\0') + std::string(1024, '\0');
    Write(dir + "/tar", tar);

    // gzip with name and comment flags, Deflate data from zlib.
    std::string deflated(compressBound(text.size()) + 16, '\0');
    z_stream z{};
    deflateInit2(&z, 9, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY);
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    z.avail_in = static_cast<uInt>(text.size());
    z.next_out = reinterpret_cast<Bytef*>(deflated.data());
    z.avail_out = static_cast<uInt>(deflated.size());
    deflate(&z, Z_FINISH);
    deflated.resize(z.total_out);
    deflateEnd(&z);
    const uint32_t crc = crc32(0, reinterpret_cast<const Bytef*>(text.data()), text.size());
    std::string gz("\x1F\x8B\x08\x18\0\0\0\0\0\x03", 10);
    gz += std::string("page.txt") + '\0' + "note0";
    gz += deflated;
    for (uint32_t v : {crc, static_cast<uint32_t>(text.size())})
        for (int i = 0; i < 4; ++i) gz += static_cast<char>(v >> (8 * i));
    Write(dir + "/gzip", gz);

    std::string bz(text.size() + 600, '\0');
    unsigned length = static_cast<unsigned>(bz.size());
    BZ2_bzBuffToBuffCompress(bz.data(), &length, const_cast<char*>(text.data()),
                             static_cast<unsigned>(text.size()), 1, 0, 0);
    bz.resize(length);
    Write(dir + "/bzip2", bz);
    return 0;
}
