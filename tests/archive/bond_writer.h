// A writer of the book container for the tests and the fuzz seeds: chunks with attributes,
// children and payload, and a whole book with its head, page list and scrambled page data.
#pragma once

#include <zlib.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace bondtest {

inline void Put32(std::string& s, uint32_t v) {
    for (int i = 0; i < 4; ++i) s += char((v >> (8 * i)) & 0xFF);
}
inline std::string U32(uint32_t v) {
    std::string s;
    Put32(s, v);
    return s;
}
inline std::string Id(const char* id) {
    return std::string(id, 4);
}

// UTF-16LE of ASCII or of the Hangul syllables given as code units.
inline std::string Wide(const std::u16string& text, bool terminate) {
    std::string s;
    for (char16_t c : text) {
        s += char(c & 0xFF);
        s += char(c >> 8);
    }
    if (terminate) s += std::string(2, '\0');
    return s;
}

struct Chunk {
    std::string id;
    std::vector<std::pair<std::string, std::string>> attrs;
    std::vector<Chunk> children;
    std::string payload;

    std::string Bytes() const {
        std::string a, c;
        for (const auto& [attrId, value] : attrs) {
            a += attrId;
            Put32(a, uint32_t(value.size()));
            a += value;
        }
        for (const Chunk& child : children) c += child.Bytes();
        std::string out = id;
        Put32(out, uint32_t(a.size()));
        Put32(out, uint32_t(c.size()));
        Put32(out, uint32_t(payload.size()));
        return out + a + c + payload;
    }
};

struct Page {
    Page(std::u16string n, std::string d) : name(std::move(n)), data(std::move(d)) {}
    std::u16string name;
    std::string data;
    bool withSize = true;
    std::optional<uint32_t> crc;  // instead of the true one
};

inline uint32_t Crc(const std::string& s) {
    return uint32_t(crc32(0, reinterpret_cast<const Bytef*>(s.data()), uInt(s.size())));
}

// The writer side of each scramble, kept apart from the reader's code.
inline std::string Scramble(std::string data, uint32_t type, const std::string& uuid) {
    uint8_t table[1024];
    uint32_t seed = uint8_t(uuid[0]) | uint8_t(uuid[1]) << 8 | uint8_t(uuid[2]) << 16 |
                    uint32_t(uint8_t(uuid[3])) << 24;
    for (uint8_t& t : table) {
        seed = seed * 214013u + 2531011u;
        t = uint8_t(((seed >> 16) & 0x7FFF) % 255);
    }
    const uint8_t key1 = (uuid[8] || uuid[9]) ? uint8_t(uuid[8]) : 0xFF;
    for (size_t i = 0; i < data.size(); ++i) {
        uint8_t k = 0;
        if (type == 1) k = key1;
        if (type == 2) k = uint8_t(i);
        if (type == 3) k = table[i % 1024];
        data[i] = char(uint8_t(data[i]) ^ k);
    }
    return data;
}

struct Book {
    uint32_t version = 0x20090113;
    std::optional<uint32_t> encr;
    std::string uuid = std::string("\x11\x22\x33\x44\x55\x66\x77\x88\x5A\x01", 10) + "ABCDEF";
    std::vector<std::pair<std::string, std::string>> headAttrs;
    std::vector<Chunk> extraListChildren;  // after the pages
    std::vector<Page> pages;
    uint32_t comp = 0;
    bool withFsiz = true;

    std::string Bytes() const {
        auto make = [&](const std::vector<uint32_t>& positions, uint32_t fileSize) {
            Chunk list{"LIST", {}, {}, {}};
            for (size_t i = 0; i < pages.size(); ++i) {
                const Page& p = pages[i];
                Chunk info{"FINF", {}, {}, {}};
                info.attrs.push_back({"POS4", U32(positions.empty() ? 0 : positions[i])});
                info.attrs.push_back({"NAME", Wide(p.name, true)});
                if (p.withSize) info.attrs.push_back({"SIZE", U32(uint32_t(p.data.size()))});
                info.attrs.push_back({"CRC3", U32(p.crc.value_or(Crc(p.data)))});
                info.attrs.push_back({"COMP", U32(comp)});
                info.attrs.push_back({"PSWD", U32(0)});
                // 2021-01-01 00:00:00 UTC as FILETIME
                const uint64_t ft = (1609459200ull + 11644473600ull) * 10000000ull;
                info.attrs.push_back({"MTIM", U32(uint32_t(ft)) + U32(uint32_t(ft >> 32))});
                list.children.push_back(info);
            }
            for (const Chunk& c : extraListChildren) list.children.push_back(c);
            Chunk head{"HEAD", {{"GUID", std::string(16, 'g')}, {"UUID", uuid}}, {list}, {}};
            if (encr) head.attrs.push_back({"ENCR", U32(*encr)});
            for (const auto& a : headAttrs) head.attrs.push_back(a);
            Chunk root{"OL30", {{"VERS", U32(version)}}, {head}, {}};
            if (withFsiz) root.attrs.push_back({"FSIZ", U32(fileSize)});
            for (const Page& p : pages) {
                Chunk data{"DATA", {{"JUNK", "xyz"}}, {}, {}};
                data.payload = Scramble(p.data, encr.value_or(0), uuid);
                root.children.push_back(data);
            }
            return root;
        };
        // First pass for the sizes; the offsets and the file size don't change them.
        Chunk root = make({}, 0);
        uint32_t at = uint32_t(root.Bytes().size());
        for (const Chunk& c : root.children) at -= uint32_t(c.Bytes().size());
        at += uint32_t(root.children[0].Bytes().size());
        std::vector<uint32_t> positions;
        for (size_t i = 1; i < root.children.size(); ++i) {
            positions.push_back(at);
            at += uint32_t(root.children[i].Bytes().size());
        }
        return make(positions, at).Bytes();
    }
};

}  // namespace bondtest
