// The tar reader.
#include "archive/untar.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr uint32_t kBlock = 512;
constexpr uint32_t kCopyBlock = 8192;
// A GNU long name or a pax record set bigger than this is no name: a hostile size field must not
// make us allocate gigabytes.
constexpr uint64_t kMaxMetaSize = 1 << 20;

// Offsets in a header block.
constexpr size_t kName = 0, kNameSize = 100;
constexpr size_t kSize = 124, kTime = 136, kChecksum = 148, kType = 156;
constexpr size_t kMagic = 257, kPrefix = 345, kPrefixSize = 155;

std::string FieldText(const uint8_t* field, size_t size) {
    const auto* text = reinterpret_cast<const char*>(field);
    return std::string(text, strnlen(text, size));
}

// The value of a "path" record in pax extended header data ("<length> path=<value>\n" records);
// `size` likewise from a "size" record, or left alone.
bool PaxPath(std::string_view data, std::string* path, uint64_t* size) {
    bool found = false;
    while (!data.empty()) {
        size_t length = 0, i = 0;
        while (i < data.size() && data[i] >= '0' && data[i] <= '9' && length < data.size()) {
            length = length * 10 + static_cast<size_t>(data[i] - '0');
            ++i;
        }
        if (length == 0 || length > data.size() || i >= length) break;
        std::string_view record = data.substr(i, length - i);  // " key=value\n"
        data.remove_prefix(length);
        if (!record.empty() && record.front() == ' ') record.remove_prefix(1);
        if (!record.empty() && record.back() == '\n') record.remove_suffix(1);
        const size_t eq = record.find('=');
        if (eq == std::string_view::npos) continue;
        const std::string_view key = record.substr(0, eq), value = record.substr(eq + 1);
        if (key == "path") {
            *path = std::string(value);
            found = true;
        } else if (key == "size") {
            uint64_t v = 0;
            for (char c : value) {
                if (c < '0' || c > '9' || v > (UINT64_MAX - 9) / 10) break;
                v = v * 10 + static_cast<uint64_t>(c - '0');
            }
            *size = v;
        }
    }
    return found;
}

}  // namespace

uint64_t TarnTarNumber(const uint8_t* field, size_t size) {
    if (size == 0) return 0;
    if (field[0] & 0x80) {
        const size_t from = size > 8 ? size - 8 : 0;
        uint64_t value = 0;
        for (size_t i = from; i < size; ++i) {
            const uint8_t b = (i == 0) ? (field[i] & 0x7F) : field[i];
            value = (value << 8) | b;
        }
        return value;
    }
    size_t i = 0;
    while (i < size && field[i] == ' ') ++i;
    uint64_t value = 0;
    for (; i < size && field[i] >= '0' && field[i] <= '7'; ++i) {
        if (value > (UINT64_MAX >> 3)) break;
        value = (value << 3) | static_cast<uint64_t>(field[i] - '0');
    }
    return value;
}

bool CTarnUnTar::ReadHeader() {
    const int64_t streamSize = pStream->GetSize();
    bool result = true;
    std::string longName;  // from a GNU 'L' entry or a pax path, for the next header
    bool haveLongName = false;
    uint64_t paxSize = UINT64_MAX;
    uint8_t block[kBlock];
    for (;;) {
        const int64_t headerPos = pStream->GetPos();
        uint32_t count = 0;
        if (!pStream->Read(block, kBlock, &count)) {
            ReportError(TARN_ERR_HEADER, nullptr);
            return false;
        }
        if (count == 0) {
            bEOF = true;
            return result;
        }
        if (count < kBlock) {
            ReportError(TARN_ERR_HEADER, nullptr);
            return false;
        }
        if (std::all_of(block, block + kBlock, [](uint8_t b) { return b == 0; })) return result;

        // The checksum counts its own field as blanks. A damaged header still lists: the walk
        // goes on and the archive opens as broken.
        uint64_t sum = 0;
        for (uint32_t i = 0; i < kBlock; ++i)
            sum += (i >= kChecksum && i < kChecksum + 8) ? ' ' : block[i];
        if (sum != TarnTarNumber(block + kChecksum, 8)) {
            result = false;
            nLastError = TARN_ERR_BROKEN;
        }

        uint64_t size = TarnTarNumber(block + kSize, 12);
        if (paxSize != UINT64_MAX) size = paxSize;
        paxSize = UINT64_MAX;
        const int64_t dataPos = pStream->GetPos();
        // A negative base-256 size is no size at all.
        if (size > static_cast<uint64_t>(INT64_MAX) - kBlock) {
            ReportError(TARN_ERR_HEADER, nullptr);
            return false;
        }
        // Data that runs past the end of the input ends the walk after this header; the cut
        // entry still lists and fails only when it is extracted.
        const bool beyondEnd = static_cast<int64_t>(size) > streamSize - dataPos;
        // Only data that fits in the input gives a next header; the sum can't overflow then.
        const int64_t next =
            beyondEnd ? streamSize
                      : dataPos + static_cast<int64_t>((size + kBlock - 1) / kBlock * kBlock);

        const char type = static_cast<char>(block[kType]);
        if (type == 'L' || type == 'x' || type == 'K' || type == 'g') {
            // Meta entries describe the next header and are not listed.
            if (beyondEnd) return result;
            if ((type == 'L' || type == 'x') && size <= kMaxMetaSize) {
                std::string data(size, '\0');
                if (!pStream->Read(data.data(), static_cast<uint32_t>(size))) {
                    ReportError(TARN_ERR_HEADER, nullptr);
                    return false;
                }
                if (type == 'L') {
                    longName.assign(data.c_str());
                    haveLongName = true;
                } else if (PaxPath(data, &longName, &paxSize)) {
                    haveLongName = true;
                }
            }
            pStream->Seek(next, 0);
            continue;
        }

        std::string name;
        if (haveLongName) {
            name = std::move(longName);
        } else {
            name = FieldText(block + kName, kNameSize);
            // POSIX ustar keeps the leading folders apart; GNU uses those bytes for other things.
            if (memcmp(block + kMagic, "ustar\0", 6) == 0 && block[kPrefix] != 0)
                name = FieldText(block + kPrefix, kPrefixSize) + "/" + name;
        }
        longName.clear();
        haveLongName = false;

        auto item = std::make_unique<TarnFileItem>();
        if (!TarnApplyNameRule(name, nCodePage, item.get())) {
            ReportError(TARN_ERR_NAME_REJECTED, nullptr);
            result = false;
        } else {
            item->compressedSize = item->uncompressedSize = static_cast<int64_t>(size);
            item->headerPos = headerPos;
            item->dataPos = dataPos;
            const uint64_t time = TarnTarNumber(block + kTime, 12);
            item->fileTime = time <= UINT32_MAX ? static_cast<uint32_t>(time) : 0;
            item->fileTimeNT = TarnTimeToFileTime(item->fileTime);
            item->compressionMethod = 0;
            if (type == '5' || name.back() == '/') {
                item->attributes |= kTarnAttrFolder;
                item->compressedSize = item->uncompressedSize = 0;
            }
            const float percent =
                streamSize > 0 ? 100.0f * static_cast<float>(next) / static_cast<float>(streamSize)
                               : 100.0f;
            if (!AddItem(std::move(item), std::min(percent, 100.0f))) return false;
        }
        if (beyondEnd || next >= streamSize) return result;
        pStream->Seek(next, 0);
    }
}

bool CTarnUnTar::ExtractItem(uint32_t, TarnFileItem* item, ITarnOutStream* out) {
    if (pStream->Seek(item->dataPos, 0) != item->dataPos) {
        ReportError(TARN_ERR_DATA_READ, item);
        return false;
    }
    std::vector<uint8_t> buffer(kCopyBlock);
    int64_t done = 0;
    while (done < item->uncompressedSize) {
        const auto n =
            static_cast<uint32_t>(std::min<int64_t>(kCopyBlock, item->uncompressedSize - done));
        if (!pStream->Read(buffer.data(), n)) {
            ReportError(TARN_ERR_DATA_READ, item);
            return false;
        }
        if (!WriteOut(out, buffer.data(), n)) {
            ReportError(nLastError, item);
            return false;
        }
        done += n;
        if (!ReportProgress(done, done)) return false;
    }
    return true;
}
