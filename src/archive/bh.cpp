// The BH reader: listing by local headers, store and raw Deflate through zlib, ZipCrypto through
// the shared decryption.
#include "archive/bh.h"

#include <algorithm>

#include "archive/crypto.h"

namespace {

constexpr uint32_t kMaxName = 259;  // name lengths must stay below this

uint16_t LE16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
}
uint32_t LE32(const uint8_t* p) {
    return p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

// The header's method byte as a compression method number.
int32_t MethodOf(uint8_t method) {
    switch (method) {
        case 0:
            return 0;
        case 1:
            return 300;  // Fuse
        case 3:
            return 301;
        case 2:
        case 8:
            return 8;
        default:
            return 999;
    }
}

}  // namespace

bool CTarnUnBH::ReadHeader() {
    const int64_t size = pStream->GetSize();
    for (;;) {
        const int64_t headerPos = pStream->GetPos();
        if (headerPos >= size) return true;  // the end of input ends the list
        uint8_t h[kHeaderSize];
        if (!pStream->Read(h, kHeaderSize)) {
            ReportError(TARN_ERR_HEADER, nullptr);
            return false;
        }
        if (LE32(h) != kSignature) {
            ReportError(TARN_ERR_NO_SIGNATURE, nullptr);
            return false;
        }
        const uint32_t nameLen = LE16(h + 33), extraLen = LE16(h + 35);
        if (int64_t(LE16(h + 4)) - nameLen - extraLen != kHeaderSize || nameLen == 0 ||
            nameLen >= kMaxName) {
            ReportError(TARN_ERR_HEADER, nullptr);
            return false;
        }
        std::string name(nameLen, '\0');
        if (!pStream->Read(name.data(), nameLen)) {
            ReportError(TARN_ERR_HEADER, nullptr);
            return false;
        }
        pStream->Seek(extraLen, 1);

        auto item = std::make_unique<TarnFileItem>();
        const bool named = TarnApplyNameRule(name, nCodePage, item.get());
        item->dosTime = LE32(h + 11);
        item->fileTime = TarnDosTimeToTime(item->dosTime);
        item->fileTimeNT = TarnTimeToFileTime(item->fileTime);
        item->compressedSize = LE32(h + 15);
        item->uncompressedSize = LE32(h + 19);
        item->crc32 = LE32(h + 23);
        item->cryptCheck = item->crc32 >> 24;
        item->attributes = LE16(h + 27);
        item->compressionMethod = MethodOf(h[10]);
        item->flags = h[9];
        if (h[9] & 1) {
            item->encryptionMethod = kTarnCryptZip;
            bEncrypted = true;
        }
        item->headerPos = headerPos;
        item->dataPos = pStream->GetPos();
        const int64_t next = item->dataPos + item->compressedSize;
        if (!named) {
            ReportError(TARN_ERR_NAME_REJECTED, nullptr);
        } else {
            const float percent = size > 0 ? 100.0f * float(std::min(next, size)) / float(size) : 0;
            if (!AddItem(std::move(item), percent)) return false;
        }
        if (pStream->Seek(next, 0) != next) {
            ReportError(TARN_ERR_HEADER, nullptr);
            return false;
        }
    }
}

bool CTarnUnBH::ExtractItem(uint32_t, TarnFileItem* item, ITarnOutStream* out) {
    const int32_t method = item->compressionMethod;
    if (method != 0 && method != 8) {  // Fuse is not decoded here
        ReportError(TARN_ERR_METHOD, item);
        return false;
    }
    if (pStream->Seek(item->dataPos, 0) != item->dataPos) {
        ReportError(TARN_ERR_DATA_READ, item);
        return false;
    }
    int64_t left = item->compressedSize;
    CTarnCrypto crypto;
    if (item->encryptionMethod != 0) {
        crypto.SetMethod(item->encryptionMethod);
        crypto.SetPassword(sPassword);
        const uint32_t error = crypto.Prepare(item, pStream.Get(), &left);
        if (error != TARN_OK) {
            ReportError(error, item);
            return false;
        }
    }

    return ExtractBlocks(item, out, left, method == 8,
                         item->encryptionMethod != 0 ? &crypto : nullptr);
}
