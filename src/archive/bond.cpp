// The book container reader: the chunk tree, the metadata of "HEAD", the page list of "LIST" and
// the three scrambles of page data.
#include "archive/bond.h"

#include <zlib.h>

#include <algorithm>
#include <cstring>

#include "base/utf.h"

namespace {

// A hostile header may claim any size; these bound what one chunk makes us allocate. The book's
// own chunks stay far below them (a "HEAD" of many thousand pages is a few MiB).
constexpr uint32_t kMaxAttrBytes = 1u << 20;
constexpr uint32_t kMaxChildBytes = 32u << 20;
constexpr uint32_t kMaxPayloadBytes = 32u << 20;
// Chunks nested deeper than this are refused: the book uses three levels.
constexpr int kMaxDepth = 16;
// Text attributes of this size or more are ignored.
constexpr size_t kMaxTextBytes = 8191;
constexpr uint32_t kBlock = 4096;

uint32_t LE32(const uint8_t* p) {
    return p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

uint32_t IdOf(const char* s) {
    return uint32_t(uint8_t(s[0])) | uint32_t(uint8_t(s[1])) << 8 | uint32_t(uint8_t(s[2])) << 16 |
           uint32_t(uint8_t(s[3])) << 24;
}

// Bytes between the stream's position and its end.
int64_t Remaining(ITarnInStream* stream) {
    return std::max<int64_t>(0, stream->GetSize() - stream->GetPos());
}

// A UTF-16LE text up to its first zero unit (or its end) as UTF-8.
std::string WideText(const std::vector<uint8_t>& bytes) {
    std::u16string wide;
    for (size_t i = 0; i + 1 < bytes.size(); i += 2) {
        const char16_t unit = char16_t(bytes[i] | (bytes[i + 1] << 8));
        if (unit == 0) break;
        wide += unit;
    }
    return utf::FromUtf16(wide);
}

}  // namespace

bool CBondChunk::ReadHeader(ITarnInStream* stream) {
    uint8_t head[16];
    if (!stream->Read(head, sizeof head)) return false;
    id = LE32(head);
    attrBytes = LE32(head + 4);
    childBytes = LE32(head + 8);
    payloadBytes = LE32(head + 12);
    return true;
}

bool CBondChunk::ReadAttributes(ITarnInStream* stream) {
    attributes.clear();
    if (attrBytes > kMaxAttrBytes || attrBytes > Remaining(stream)) return false;
    std::vector<uint8_t> all(attrBytes);
    if (attrBytes > 0 && !stream->Read(all.data(), attrBytes)) return false;
    size_t at = 0;
    while (at < all.size()) {
        if (all.size() - at < 8) return false;
        Attribute attr;
        attr.id = LE32(&all[at]);
        const uint32_t size = LE32(&all[at + 4]);
        at += 8;
        if (attr.id == 0 || size > all.size() - at) return false;
        attr.data.assign(all.begin() + static_cast<ptrdiff_t>(at),
                         all.begin() + static_cast<ptrdiff_t>(at + size));
        at += size;
        attributes.push_back(std::move(attr));
    }
    return true;
}

bool CBondChunk::ReadChildren(ITarnInStream* stream, int depth) {
    children.clear();
    if (childBytes == 0) return true;
    if (depth >= kMaxDepth || childBytes > kMaxChildBytes || childBytes > Remaining(stream))
        return false;
    uint64_t left = childBytes;
    while (left > 0) {
        auto child = std::make_unique<CBondChunk>();
        if (left < 16 || !child->ReadHeader(stream) || child->TotalBytes() > left) return false;
        if (!child->ReadAttributes(stream) || !child->ReadChildren(stream, depth + 1) ||
            !child->ReadPayload(stream))
            return false;
        child->Measure();
        left -= child->TotalBytes();
        children.push_back(std::move(child));
    }
    return true;
}

bool CBondChunk::ReadPayload(ITarnInStream* stream) {
    payload.clear();
    if (payloadBytes > kMaxPayloadBytes || payloadBytes > Remaining(stream)) return false;
    payload.resize(payloadBytes);
    return payloadBytes == 0 || stream->Read(payload.data(), payloadBytes);
}

bool CBondChunk::Read(ITarnInStream* stream, int depth) {
    if (!ReadHeader(stream) || !ReadAttributes(stream) || !ReadChildren(stream, depth) ||
        !ReadPayload(stream))
        return false;
    Measure();
    return true;
}

void CBondChunk::Measure() {
    uint64_t attr = 0, child = 0;
    for (const Attribute& a : attributes) attr += 8 + a.data.size();
    for (const auto& c : children) {
        c->Measure();
        child += c->TotalBytes();
    }
    attrBytes = static_cast<uint32_t>(attr);
    childBytes = static_cast<uint32_t>(child);
    payloadBytes = static_cast<uint32_t>(payload.size());
}

const CBondChunk::Attribute* CBondChunk::FindAttribute(uint32_t attrId) const {
    for (const Attribute& a : attributes)
        if (a.id == attrId) return &a;
    return nullptr;
}

bool CBondChunk::GetAttribute(uint32_t attrId, void* buffer, uint32_t size) const {
    const Attribute* a = FindAttribute(attrId);
    if (!a || a->data.size() != size) return false;
    if (size > 0) memcpy(buffer, a->data.data(), size);
    return true;
}

const CBondChunk* CBondChunk::FindChild(uint32_t chunkId) const {
    for (const auto& c : children)
        if (c->id == chunkId) return c.get();
    return nullptr;
}

void TarnBondScramble::MakeTable(uint32_t seed) {
    for (uint8_t& entry : table) {
        seed = seed * 214013u + 2531011u;
        entry = static_cast<uint8_t>(((seed >> 16) & 0x7FFF) % 255);
    }
}

bool TarnBondScramble::Unscramble(uint8_t* data, uint32_t size) {
    switch (type) {
        case 0:
            break;
        case 1: {
            const uint16_t word = static_cast<uint16_t>(uuid[8] | (uuid[9] << 8));
            const uint8_t key = word == 0 ? 0xFF : static_cast<uint8_t>(word & 0xFF);
            for (uint32_t i = 0; i < size; ++i) data[i] ^= key;
            break;
        }
        case 2:
            for (uint32_t i = 0; i < size; ++i)
                data[i] ^= static_cast<uint8_t>((position + i) & 0xFF);
            break;
        case 3:
            for (uint32_t i = 0; i < size; ++i) data[i] ^= table[(position + i) % table.size()];
            break;
        default:
            return false;
    }
    position += size;
    return true;
}

void CTarnUnBond::InitFormat() {
    nFormat = TarnFormatBond;
    meta_ = TarnBondMeta{};
    guid_.fill(0);
    uuid_.fill(0);
    scramble_ = TarnBondScramble{};
}

void CTarnUnBond::ReleaseFormat() {
    root_.reset();
    InitFormat();
}

bool CTarnUnBond::ReadHeader() {
    root_ = std::make_unique<CBondChunk>();
    CBondChunk& root = *root_;
    if (!root.ReadHeader(pStream.Get()) || root.id != BondId("OL30")) {
        ReportError(TARN_ERR_NOT_THIS_FORMAT, nullptr);
        return false;
    }
    if (!root.ReadAttributes(pStream.Get())) {
        ReportError(TARN_ERR_BROKEN, nullptr);
        return false;
    }
    uint8_t word[4];
    if (root.GetAttribute(BondId("VERS"), word, 4) && LE32(word) >= kVersionLimit) {
        ReportError(TARN_ERR_VERSION, nullptr);
        return false;
    }
    if (root.childBytes == 0) {
        ReportError(TARN_ERR_BROKEN, nullptr);
        return false;
    }

    // Only the root's attributes and "HEAD" are read: the pages stay untouched until extraction.
    auto head = std::make_unique<CBondChunk>();
    if (!head->Read(pStream.Get(), 1) || head->id != BondId("HEAD")) {
        ReportError(TARN_ERR_BROKEN, nullptr);
        return false;
    }
    head->GetAttribute(BondId("GUID"), guid_.data(), 16);
    if (head->GetAttribute(BondId("UUID"), uuid_.data(), 16)) scramble_.uuid = uuid_;
    head->FindAttribute(BondId("FTIM"));  // looked for; the time of the book is not shown
    if (head->GetAttribute(BondId("DIRE"), word, 4)) meta_.direction = LE32(word);
    if (head->GetAttribute(BondId("UCRC"), word, 4)) meta_.ucrc = LE32(word);
    const struct {
        const char* id;
        std::string TarnBondMeta::*field;
    } texts[] = {
        {"TITL", &TarnBondMeta::title},     {"ISBN", &TarnBondMeta::isbn},
        {"WRTR", &TarnBondMeta::writer},    {"PUBL", &TarnBondMeta::publisher},
        {"DATE", &TarnBondMeta::date},      {"GENR", &TarnBondMeta::genre},
        {"COPY", &TarnBondMeta::copyright}, {"LINK", &TarnBondMeta::link},
        {"MAKR", &TarnBondMeta::maker},     {"COMT", &TarnBondMeta::comment},
        {"OWNR", &TarnBondMeta::owner},
    };
    for (const auto& text : texts) {
        const uint32_t textId = IdOf(text.id);
        const CBondChunk::Attribute* a = head->FindAttribute(textId);
        if (!a || a->data.size() >= kMaxTextBytes) continue;
        meta_.*text.field = WideText(a->data);
        if (textId != BondId("OWNR")) meta_.hasText = true;
    }
    if (head->GetAttribute(BondId("ENCR"), word, 4)) {
        meta_.encr = scramble_.type = LE32(word);
        if (scramble_.type == 3) scramble_.MakeTable(LE32(uuid_.data()));
    }
    if (scramble_.type > 3) {
        ReportError(TARN_ERR_VERSION, nullptr);
        return false;
    }

    const CBondChunk* list = head->FindChild(BondId("LIST"));
    if (!list) {
        ReportError(TARN_ERR_BROKEN, nullptr);
        return false;
    }
    const bool listed = ListEntries(*list);
    if (!listed && nLastError != TARN_ERR_BROKEN) return false;

    // A file cut short (or grown) no longer matches the size the book recorded.
    if (root.GetAttribute(BondId("FSIZ"), word, 4) &&
        int64_t(LE32(word)) != pStream->GetSize() - nStartOffset) {
        ReportError(TARN_ERR_BROKEN, nullptr);
        return false;
    }
    return listed;
}

bool CTarnUnBond::ListEntries(const CBondChunk& list) {
    const size_t count = list.children.size();
    for (size_t i = 0; i < count; ++i) {
        const CBondChunk& info = *list.children[i];
        uint8_t word[8];
        const CBondChunk::Attribute* name = info.FindAttribute(BondId("NAME"));
        if (info.id != BondId("FINF") || !name || !info.GetAttribute(BondId("POS4"), word, 4)) {
            ReportError(TARN_ERR_BROKEN, nullptr);
            return false;
        }
        auto item = std::make_unique<TarnFileItem>();
        item->headerPos = nStartOffset + LE32(word);
        uint8_t flag[4];
        if ((info.GetAttribute(BondId("COMP"), flag, 4) && LE32(flag) != 0) ||
            (info.GetAttribute(BondId("PSWD"), flag, 4) && LE32(flag) != 0)) {
            ReportError(TARN_ERR_VERSION, nullptr);
            return false;
        }
        if (!TarnApplyNameRule(WideText(name->data), 65001, item.get())) {
            ReportError(TARN_ERR_NAME_REJECTED, nullptr);
            continue;
        }
        if (info.GetAttribute(BondId("SIZE"), word, 4)) item->uncompressedSize = LE32(word);
        item->compressedSize = item->uncompressedSize;
        if (info.GetAttribute(BondId("CRC3"), word, 4)) item->crc32 = LE32(word);
        if (info.GetAttribute(BondId("MTIM"), word, 8)) {
            uint64_t ft = 0;
            for (int b = 7; b >= 0; --b) ft = ft << 8 | word[b];
            item->fileTimeNT = ft;
            const uint64_t seconds = ft / 10000000ull;
            if (seconds > 11644473600ull && seconds - 11644473600ull <= 0xFFFFFFFFull)
                item->fileTime = static_cast<uint32_t>(seconds - 11644473600ull);
        }
        item->encryptionMethod = 0;
        if (!AddItem(std::move(item), 100.0f * float(i + 1) / float(count))) return false;
    }
    return nLastError == TARN_OK;
}

bool CTarnUnBond::ExtractItem(uint32_t, TarnFileItem* item, ITarnOutStream* out) {
    if (item->uncompressedSize <= 0) return false;
    CBondChunk chunk;
    if (pStream->Seek(item->headerPos, 0) != item->headerPos || !chunk.ReadHeader(pStream.Get())) {
        ReportError(TARN_ERR_DATA_READ, item);
        return false;
    }
    // The data chunk's own attributes and children are passed over: the payload is the page.
    const int64_t skip = int64_t(chunk.attrBytes) + chunk.childBytes;
    if (skip > Remaining(pStream.Get()) || pStream->Seek(skip, 1) < 0) {
        ReportError(TARN_ERR_DATA_READ, item);
        return false;
    }
    scramble_.position = 0;
    std::vector<uint8_t> buffer(kBlock);
    uLong crc = crc32(0, nullptr, 0);
    int64_t done = 0;
    while (done < item->uncompressedSize) {
        const auto n =
            static_cast<uint32_t>(std::min<int64_t>(kBlock, item->uncompressedSize - done));
        if (!pStream->Read(buffer.data(), n)) {
            ReportError(TARN_ERR_DATA_READ, item);
            return false;
        }
        if (!scramble_.Unscramble(buffer.data(), n)) {
            ReportError(TARN_ERR_WRONG_PASSWORD, item);
            return false;
        }
        crc = crc32(crc, buffer.data(), n);
        if (!WriteOut(out, buffer.data(), n)) {
            ReportError(nLastError, item);
            return false;
        }
        done += n;
        if (!ReportProgress(done, done)) return false;
    }
    if (item->crc32 != 0 && static_cast<uint32_t>(crc) != item->crc32) {
        ReportError(TARN_ERR_CRC, item);
        return false;
    }
    return true;
}
