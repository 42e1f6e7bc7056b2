// The reader of the program's own book container (".orl3"): one root chunk "OL30" holding a
// "HEAD" chunk with the book's metadata and the list of its pages, whose data chunks sit at the
// offsets the list gives. Page data may be lightly scrambled; it is never compressed.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "archive/tarn.h"

// A chunk identifier from its four characters in file order ("HEAD" is 'H' in the low byte).
constexpr uint32_t BondId(const char (&s)[5]) {
    return uint32_t(uint8_t(s[0])) | uint32_t(uint8_t(s[1])) << 8 | uint32_t(uint8_t(s[2])) << 16 |
           uint32_t(uint8_t(s[3])) << 24;
}

// The book's metadata. Texts are UTF-8 (stored as UTF-16 without a terminator).
struct TarnBondMeta {
    uint32_t direction = 0;  // reading direction
    bool hasText = false;    // any text but the owner was present
    std::string title, isbn, writer, publisher, date, genre, copyright, link, maker, comment, owner;
    uint32_t ucrc = 0;  // carried, not interpreted
    uint32_t encr = 0;  // the scramble type
};

// One chunk of the container and everything below it. A chunk is a 16-byte header (id, attribute
// bytes, child bytes, payload bytes), then its attributes (id, size, bytes), its children and its
// payload.
class CBondChunk {
public:
    struct Attribute {
        uint32_t id = 0;
        std::vector<uint8_t> data;
    };

    uint32_t id = 0;
    uint32_t attrBytes = 0;
    uint32_t childBytes = 0;
    uint32_t payloadBytes = 0;
    std::vector<Attribute> attributes;
    std::vector<std::unique_ptr<CBondChunk>> children;
    std::vector<uint8_t> payload;

    bool ReadHeader(ITarnInStream* stream);
    bool ReadAttributes(ITarnInStream* stream);
    // Reads the child chunks whole, each with Read; `depth` is this chunk's depth in the tree.
    bool ReadChildren(ITarnInStream* stream, int depth = 0);
    bool ReadPayload(ITarnInStream* stream);
    // The four above, then Measure.
    bool Read(ITarnInStream* stream, int depth = 0);
    // Recomputes the three byte counts from the content.
    void Measure();
    // The bytes the chunk takes in the file, header included.
    uint64_t TotalBytes() const { return 16ull + attrBytes + childBytes + payloadBytes; }

    const Attribute* FindAttribute(uint32_t attrId) const;
    // Copies the attribute `attrId` into `buffer` only when it has exactly `size` bytes.
    bool GetAttribute(uint32_t attrId, void* buffer, uint32_t size) const;
    const CBondChunk* FindChild(uint32_t chunkId) const;
};

// The scramble of page data: a XOR whose key depends on the type, the copy's UUID and the
// position in the entry.
struct TarnBondScramble {
    uint32_t type = 0;  // 0 none, 1 UUID byte, 2 position, 3 table
    uint64_t position = 0;
    std::array<uint8_t, 16> uuid{};
    std::array<uint8_t, 1024> table{};

    // Prepares type 3's table from its seed.
    void MakeTable(uint32_t seed);
    // Undoes the scramble in place and advances the position; false for an unknown type.
    bool Unscramble(uint8_t* data, uint32_t size);
};

class CTarnUnBond : public CTarnExtractorImpl {
public:
    // The first version this reader refuses.
    static constexpr uint32_t kVersionLimit = 0x20090114;

    CTarnUnBond() { InitFormat(); }
    ~CTarnUnBond() override = default;

    const TarnBondMeta* GetBondMeta() const override { return &meta_; }

protected:
    bool ReadHeader() override;
    void ReleaseFormat() override;
    void InitFormat() override;
    bool ExtractItem(uint32_t index, TarnFileItem* item, ITarnOutStream* out) override;

private:
    bool ListEntries(const CBondChunk& list);

    std::unique_ptr<CBondChunk> root_;
    TarnBondMeta meta_;
    std::array<uint8_t, 16> guid_{};
    std::array<uint8_t, 16> uuid_{};
    TarnBondScramble scramble_;
};
