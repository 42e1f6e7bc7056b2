// The ZIP reader.
//
// Listing takes the fast way where it can: the end record in the tail names the central
// directory, and only the directory is read. Where the tail is missing (a truncated download),
// the sizes don't fit in 32 bits, or the archive sits behind an executable stub, the local
// headers are walked from the start instead, seeking over the data.
#include "archive/zip.h"

#include <bzlib.h>
#include <libdeflate.h>
#include <lzma.h>
#include <zlib.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "archive/inflate64.h"

namespace {

constexpr uint32_t kSigLocal = 0x04034B50;
constexpr uint32_t kSigCentral = 0x02014B50;
constexpr uint32_t kSigEnd = 0x06054B50;
constexpr uint32_t kSigEnd64 = 0x06064B50;
constexpr uint32_t kSigLocator64 = 0x07064B50;
constexpr uint32_t kSigSplit = 0x08074B50;
constexpr uint32_t kSigSignature = 0x05054B50;

constexpr uint32_t kLocalSize = 26;
constexpr uint32_t kCentralSize = 42;
constexpr uint32_t kEndSize = 18;
constexpr uint32_t kEnd64Size = 52;
constexpr uint32_t kLocator64Size = 16;

constexpr uint32_t kMaxName = 260;  // a local name this long or longer is refused

constexpr uint32_t kTailBuffer = 1028;  // a step of 1024 plus a signature across the step
constexpr uint32_t kTailStep = 1024;
constexpr int64_t kTailSearch = 65535;  // the end record's comment is at most this long

constexpr uint32_t kStoreBlock = 8192;
constexpr uint32_t kDeflateBlock = 4096;
constexpr uint32_t kBzip2Block = 8192;
constexpr uint32_t kLzmaBlock = 65536;
constexpr uint32_t kOutBlock = 65536;

// Entries up to this size are inflated whole by libdeflate, which is faster than a stream;
// larger ones take the streaming path, as do sizes a hostile header claims beyond the file or
// beyond Deflate's best ratio (1032 to 1).
constexpr int64_t kWholeInflateMax = int64_t(64) << 20;
// A dictionary an LZMA entry of unknown size may ask for; a hostile property block otherwise
// asks for up to 4 GiB at once.
constexpr uint32_t kLzmaMaxDictionary = 1u << 28;

constexpr uint16_t kFlagEncrypted = 0x0001;
constexpr uint16_t kFlagDescriptor = 0x0008;
constexpr uint16_t kFlagUtf8 = 0x0800;

constexpr uint16_t kExtraZip64 = 0x0001;
constexpr uint16_t kExtraAes = 0x9901;
constexpr int32_t kMethodAes = 99;

inline uint16_t Le16(const uint8_t* p) {
    return uint16_t(p[0] | p[1] << 8);
}
inline uint32_t Le32(const uint8_t* p) {
    return uint32_t(Le16(p)) | uint32_t(Le16(p + 2)) << 16;
}
inline uint64_t Le64(const uint8_t* p) {
    return uint64_t(Le32(p)) | uint64_t(Le32(p + 4)) << 32;
}

bool ReadSignature(ITarnInStream* s, uint32_t* sig) {
    uint8_t b[4];
    if (!s->Read(b, 4)) return false;
    *sig = Le32(b);
    return true;
}

bool Skip(ITarnInStream* s, uint32_t size) {
    uint8_t b[64];
    return size <= sizeof(b) && s->Read(b, size);
}

}  // namespace

// The state of one entry's decoding: the data left, the running CRC and the counts for the
// progress report. Read decrypts, Emit checks and writes.
class CTarnUnZip::Decoder {
public:
    Decoder(CTarnUnZip& zip, TarnFileItem* item, ITarnOutStream* out)
        : zip_(zip), item_(item), out_(out), remaining_(item->compressedSize) {}

    bool Prepare() {
        zip_.crypto_.SetPassword(zip_.sPassword);
        zip_.crypto_.SetMethod(item_->encryptionMethod);
        const uint32_t error = zip_.crypto_.Prepare(item_, zip_.pStream.Get(), &remaining_);
        return error == TARN_OK || zip_.Fail(error, item_);
    }

    // Reads up to `max` bytes of the entry's data; *got 0 at its end. False on a failed read.
    bool Read(uint8_t* buffer, uint32_t max, uint32_t* got) {
        const uint32_t n = uint32_t(std::min<int64_t>(max, remaining_));
        *got = n;
        if (n == 0) return true;
        if (!zip_.pStream->Read(buffer, n)) return zip_.Fail(TARN_ERR_DATA_READ, item_);
        zip_.crypto_.Decrypt(buffer, n);
        remaining_ -= n;
        inDone_ += n;
        return true;
    }

    bool Emit(const uint8_t* data, size_t size) {
        crc_ = uint32_t(libdeflate_crc32(crc_, data, size));
        while (size > 0) {
            const uint32_t n = uint32_t(std::min<size_t>(size, size_t(1) << 30));
            if (!zip_.WriteOut(out_, data, n)) return zip_.Fail(zip_.nLastError, item_);
            data += n;
            size -= n;
            outDone_ += n;
        }
        return zip_.ReportProgress(inDone_, outDone_);
    }

    bool Finish() {
        const uint32_t error = zip_.crypto_.Finish();
        if (error != TARN_OK) return zip_.Fail(error, item_);
        if (item_->crc32 != 0 && crc_ != item_->crc32) return zip_.Fail(TARN_ERR_CRC, item_);
        return true;
    }

    int64_t Remaining() const { return remaining_; }

private:
    CTarnUnZip& zip_;
    TarnFileItem* item_;
    ITarnOutStream* out_;
    int64_t remaining_;
    int64_t inDone_ = 0;
    int64_t outDone_ = 0;
    uint32_t crc_ = 0;
};

CTarnUnZip::CTarnUnZip() = default;

CTarnUnZip::~CTarnUnZip() {
    if (pDeflate_) libdeflate_free_decompressor(pDeflate_);
}

void CTarnUnZip::InitFormat() {
    nDirectory_ = -1;
    bZip64_ = false;
    bLocalSeen_ = false;
    pMulti_.Reset();
}

void CTarnUnZip::ReleaseFormat() {
    localMap_.clear();
    hourCache_.clear();  // the zone may differ by the next archive
    pMulti_.Reset();
}

bool CTarnUnZip::Fail(uint32_t error, const TarnFileItem* item) {
    ReportError(error, item);
    return false;
}

float CTarnUnZip::Percent() {
    const int64_t size = pStream->GetSize();
    return size > 0 ? float(double(pStream->GetPos()) * 100.0 / double(size)) : 0.f;
}

bool CTarnUnZip::ReportOpening(const TarnFileItem* item) {
    if (!pEvent) return true;
    uint32_t stop = 0;
    pEvent->OnOpening(item, Percent(), &stop);
    if (stop == 0) return true;
    nLastError = TARN_ERR_STOPPED;
    return false;
}

// ---------------------------------------------------------------------------------------------
// Listing

bool CTarnUnZip::ReadHeader() {
    void* multi = nullptr;
    if (pStream->QueryInterface(IID_ITarnMultiInStream, &multi) == 0 && multi)
        pMulti_ = TarnPtr<ITarnMultiInStream>::Adopt(static_cast<ITarnMultiInStream*>(multi));

    if (nStartOffset == 0 || nStartOffset == 4) {
        int64_t directory = -1;
        if (FindDirectory(&directory)) {
            // A directory that points nowhere near a ZIP is refused before anything is listed.
            uint32_t sig = 0;
            const bool read = pStream->Seek(nStartOffset, 0) == nStartOffset &&
                              ReadSignature(pStream.Get(), &sig) &&
                              (sig != kSigSplit || ReadSignature(pStream.Get(), &sig));
            if (!read || (sig != kSigLocal && sig != kSigEnd)) {
                nLastError = TARN_ERR_NOT_THIS_FORMAT;
                return false;
            }
            nDirectory_ = directory;
            return ReadFromDirectory(directory);
        }
    }
    if (pStream->Seek(nStartOffset, 0) != nStartOffset) {
        nLastError = TARN_ERR_NOT_THIS_FORMAT;
        return false;
    }
    return ScanLocalHeaders();
}

bool CTarnUnZip::FindDirectory(int64_t* directory) {
    const int64_t size = pStream->GetSize();
    if (size <= 4) return false;
    const int64_t limit = std::max<int64_t>(0, size - kTailSearch);
    uint8_t buffer[kTailBuffer];
    int64_t found = -1;
    for (int64_t start = std::max(limit, size - int64_t(kTailBuffer));; start -= kTailStep) {
        start = std::max(start, limit);
        const uint32_t n = uint32_t(std::min<int64_t>(kTailBuffer, size - start));
        if (pStream->Seek(start, 0) != start || !pStream->Read(buffer, n)) return false;
        for (int64_t i = int64_t(n) - 4; i >= 0; --i) {
            if (buffer[i] == 'P' && buffer[i + 1] == 'K' && buffer[i + 2] == 5 &&
                buffer[i + 3] == 6 && start + i != 0) {
                found = start + i;
                break;
            }
        }
        if (found >= 0 || start == limit) break;
    }
    if (found < 0) return false;

    uint8_t rec[4 + kEndSize];
    if (pStream->Seek(found, 0) != found || !pStream->Read(rec, sizeof(rec)) ||
        Le32(rec) != kSigEnd)
        return false;
    const uint32_t offset = Le32(rec + 4 + 12);
    if (offset == 0xFFFFFFFF) return false;  // ZIP64: the local scan reads it
    const uint16_t disk = Le16(rec + 4 + 2);
    *directory = int64_t(offset) + (pMulti_ ? pMulti_->GetVolumeOffset(disk) : 0);
    return true;
}

bool CTarnUnZip::ReadFromDirectory(int64_t directory) {
    if (pStream->Seek(directory, 0) != directory) return false;
    for (;;) {
        uint32_t sig = 0;
        if (!ReadSignature(pStream.Get(), &sig)) return false;
        switch (sig) {
            case kSigCentral:
                if (!ReadCentralEntry(true)) return false;
                break;
            case kSigEnd64:
                if (!Skip(pStream.Get(), kEnd64Size)) return false;
                break;
            case kSigLocator64:
                if (!Skip(pStream.Get(), kLocator64Size)) return false;
                break;
            default:
                return sig == kSigEnd || sig == kSigSignature;
        }
    }
}

bool CTarnUnZip::ScanLocalHeaders() {
    bool first = true;
    for (;; first = false) {
        uint32_t sig = 0;
        if (!ReadSignature(pStream.Get(), &sig)) {
            bEOF = pStream->IsEOF();
            if (bEOF) return true;
            nLastError = TARN_ERR_NO_SIGNATURE;
            break;
        }
        if (sig == 0xFFFFFFFF) return true;
        if (sig == kSigSplit && first) continue;  // the marker of a split archive's first part
        bool ok = true;
        switch (sig) {
            case kSigLocal:
                ok = ReadLocalHeader(nullptr, true);
                bLocalSeen_ = true;
                break;
            case kSigCentral:
                // A directory cut short is damage like any other: what was listed stays.
                ok = ReadCentralEntry(false);
                if (!ok && nLastError == TARN_ERR_CENTRAL_READ) sig = 0;
                break;
            case kSigEnd: {
                uint8_t rec[kEndSize];
                ok = pStream->Read(rec, kEndSize);
                // The archive comment follows; skip it so that it isn't taken for a record.
                if (ok) pStream->Seek(Le16(rec + 16), 1);
                break;
            }
            case kSigEnd64:
                ok = Skip(pStream.Get(), kEnd64Size);
                break;
            case kSigLocator64:
                ok = Skip(pStream.Get(), kLocator64Size);
                break;
            default:
                ok = false;
                sig = 0;
                break;
        }
        if (!ok && sig != 0) return false;
        if (!ok) break;
        if (pStream->IsEOF()) return true;
    }
    nLastError = bLocalSeen_ ? TARN_ERR_BROKEN : TARN_ERR_NOT_THIS_FORMAT;
    return false;
}

uint32_t CTarnUnZip::LocalTime(uint32_t dosTime) {
    // The platform's local time conversion looks at the time zone file on every call, which
    // made it most of the cost of listing a large book. Entries of an archive are mostly made
    // within a few hours, and a zone changes its offset only on the hour: convert each hour once
    // and add the minutes and seconds.
    const uint32_t hourKey = dosTime & 0xFFFFF800;
    const auto it = hourCache_.find(hourKey);
    uint32_t hour = 0;
    if (it != hourCache_.end()) {
        hour = it->second;
    } else {
        hour = TarnDosTimeToTime(hourKey);
        if (hourCache_.size() < 4096) hourCache_.emplace(hourKey, hour);
    }
    if (hour == 0) return TarnDosTimeToTime(dosTime);
    return hour + std::min<uint32_t>((dosTime >> 5) & 63, 59) * 60 + (dosTime & 31) * 2;
}

std::unique_ptr<TarnFileItem> CTarnUnZip::MakeItem(const Header& h) {
    auto item = std::make_unique<TarnFileItem>();
    item->compressedSize = h.compressedSize;
    item->uncompressedSize = h.uncompressedSize;
    item->crc32 = h.crc;
    item->compressionMethod = h.method;
    item->flags = h.flags;
    item->dosTime = h.dosTime;
    item->fileTime = LocalTime(h.dosTime);
    item->fileTimeNT = TarnTimeToFileTime(item->fileTime);
    if (h.uncompressedSize == 0xFFFFFFFF) bZip64_ = true;
    if (h.flags & kFlagEncrypted) {
        bEncrypted = true;
        item->encryptionMethod = kTarnCryptZip;
    }
    return item;
}

// Applies the name rule and the folder bit; false when the name is refused.
static bool NameItem(TarnFileItem* item, const std::string& raw, uint32_t codePage) {
    if (!TarnApplyNameRule(raw, codePage, item)) return false;
    if (!raw.empty() && (raw.back() == '/' || raw.back() == '\\'))
        item->attributes |= kTarnAttrFolder;
    return true;
}

bool CTarnUnZip::ReadLocalHeader(TarnFileItem* existing, bool create) {
    const int64_t headerPos = pStream->GetPos() - 4;
    uint8_t b[kLocalSize];
    if (!pStream->Read(b, kLocalSize)) {
        bEOF = pStream->IsEOF();
        nLastError = TARN_ERR_HEADER;
        return false;
    }
    Header h;
    h.version = Le16(b);
    h.flags = Le16(b + 2);
    h.method = Le16(b + 4);
    h.dosTime = uint32_t(Le16(b + 6)) | uint32_t(Le16(b + 8)) << 16;
    h.crc = Le32(b + 10);
    h.compressedSize = Le32(b + 14);
    h.uncompressedSize = Le32(b + 18);
    h.nameSize = Le16(b + 22);
    h.extraSize = Le16(b + 24);
    if (h.nameSize >= kMaxName) {
        nLastError = TARN_ERR_NAME_REJECTED;
        return false;
    }
    std::string name(h.nameSize, '\0');
    if (!pStream->Read(name.data(), h.nameSize)) {
        nLastError = TARN_ERR_NAME_READ;
        return false;
    }
    std::vector<uint8_t> extra(h.extraSize);
    if (!pStream->Read(extra.data(), h.extraSize)) {
        nLastError = TARN_ERR_EXTRA_READ;
        return false;
    }
    // The password check byte: the time's high byte when the CRC comes only after the data.
    const uint32_t cryptCheck =
        (h.flags & kFlagDescriptor) ? (h.dosTime >> 8) & 0xFF : (h.crc >> 24) & 0xFF;

    if (!create) {
        existing->dataPos = pStream->GetPos();
        existing->dosTime = h.dosTime;
        existing->cryptCheck = cryptCheck;
        return true;
    }

    auto item = MakeItem(h);
    const uint32_t codePage = nCodePage == 0 && (h.flags & kFlagUtf8) ? 65001 : nCodePage;
    if (!NameItem(item.get(), name, codePage)) {
        nLastError = TARN_ERR_NAME_REJECTED;
        return false;
    }
    item->headerPos = headerPos;
    item->cryptCheck = cryptCheck;
    ParseExtra(item.get(), extra.data(), h.extraSize);
    item->dataPos = pStream->GetPos();
    const int64_t skip = item->compressedSize;
    if (skip < 0) {  // a ZIP64 field beyond 2^63 would send the scan backwards, forever
        nLastError = TARN_ERR_HEADER;
        return false;
    }
    TarnFileItem* added = item.get();
    if (!AddItem(std::move(item), Percent())) return false;
    localMap_[headerPos] = added;
    // Data that runs past the end is a cut archive: the entry stays listed, the scan ends.
    if (skip > pStream->GetSize() - pStream->GetPos()) {
        nLastError = TARN_ERR_BROKEN;
        return false;
    }
    pStream->Seek(skip, 1);
    return true;
}

bool CTarnUnZip::ReadCentralEntry(bool create) {
    uint8_t b[kCentralSize];
    if (!pStream->Read(b, kCentralSize)) {
        nLastError = TARN_ERR_CENTRAL_READ;
        return false;
    }
    Header h;
    h.version = Le16(b + 2);
    h.flags = Le16(b + 4);
    h.method = Le16(b + 6);
    h.dosTime = Le32(b + 8);
    h.crc = Le32(b + 12);
    h.compressedSize = Le32(b + 16);
    h.uncompressedSize = Le32(b + 20);
    h.nameSize = Le16(b + 24);
    h.extraSize = Le16(b + 26);
    const uint16_t commentSize = Le16(b + 28);
    const uint16_t disk = Le16(b + 30);
    const uint32_t external = Le32(b + 34);
    const uint32_t localOffset = Le32(b + 38);

    // All three are at most 64 KiB by their 16-bit sizes.
    std::string name(h.nameSize, '\0');
    std::vector<uint8_t> extra(h.extraSize);
    std::string comment(commentSize, '\0');
    if (!pStream->Read(name.data(), h.nameSize) || !pStream->Read(extra.data(), h.extraSize) ||
        !pStream->Read(comment.data(), commentSize)) {
        nLastError = TARN_ERR_CENTRAL_READ;
        return false;
    }
    const uint32_t attributes =
        external & (kTarnAttrReadOnly | kTarnAttrHidden | kTarnAttrFolder | kTarnAttrArchive);

    if (!create) {
        if (localOffset == 0) return true;
        const auto it = localMap_.find(localOffset);
        if (it == localMap_.end()) return true;
        it->second->attributes |= attributes;
        ParseExtra(it->second, extra.data(), h.extraSize);
        return ReportOpening(it->second);
    }

    // A refused name skips this entry; the others are still listed.
    if (h.nameSize >= kMaxName) {
        nLastError = TARN_ERR_NAME_REJECTED;
        return true;
    }
    auto item = MakeItem(h);
    const uint32_t codePage = nCodePage == 0 && (h.flags & kFlagUtf8) ? 65001 : nCodePage;
    if (!NameItem(item.get(), name, codePage)) {
        nLastError = TARN_ERR_NAME_REJECTED;
        return true;
    }
    item->headerPos = int64_t(localOffset) + (pMulti_ ? pMulti_->GetVolumeOffset(disk) : 0);
    item->attributes |= attributes;
    item->comment = std::move(comment);
    ParseExtra(item.get(), extra.data(), h.extraSize);
    TarnFileItem* added = item.get();
    if (!AddItem(std::move(item), Percent())) return false;
    localMap_[added->headerPos] = added;
    return true;
}

void CTarnUnZip::ParseExtra(TarnFileItem* item, const uint8_t* extra, uint32_t size) {
    if (size < 5) return;
    uint32_t pos = 0;
    while (pos + 4 <= size) {
        const uint16_t id = Le16(extra + pos);
        const uint16_t length = Le16(extra + pos + 2);
        const uint8_t* data = extra + pos + 4;
        if (pos + 4 + length > size) break;
        if (id == kExtraZip64) {
            if (length >= 8) item->uncompressedSize = int64_t(Le64(data));
            if (length >= 16) item->compressedSize = int64_t(Le64(data + 8));
        } else if (id == kExtraAes && length >= 5) {
            switch (data[4]) {
                case 1:
                    item->encryptionMethod = kTarnCryptAes128;
                    break;
                case 2:
                    item->encryptionMethod = kTarnCryptAes192;
                    break;
                case 3:
                    item->encryptionMethod = kTarnCryptAes256;
                    break;
                default:
                    break;
            }
            if (item->compressionMethod == kMethodAes && length >= 7)
                item->compressionMethod = Le16(data + 5);
        }
        pos += 4 + length;
    }
}

// ---------------------------------------------------------------------------------------------
// Extraction

bool CTarnUnZip::ExtractItem(uint32_t, TarnFileItem* item, ITarnOutStream* out) {
    if (item->dataPos == 0) {
        uint32_t sig = 0;
        if (pStream->Seek(item->headerPos, 0) != item->headerPos ||
            !ReadSignature(pStream.Get(), &sig) || (sig != kSigLocal && sig != kSigEnd) ||
            !ReadLocalHeader(item, false))
            return Fail(TARN_ERR_BROKEN, item);
    }
    if (item->compressedSize < 0 || pStream->Seek(item->dataPos, 0) != item->dataPos)
        return Fail(TARN_ERR_DATA_READ, item);

    switch (item->compressionMethod) {
        case 0:
            return ExtractStored(item, out);
        case 8:
            return ExtractInflate(item, out);
        case 9:
            return ExtractDeflate64(item, out);
        case 12:
            return ExtractBzip2(item, out);
        case 14:
            return ExtractLzma(item, out);
        default:
            return Fail(TARN_ERR_METHOD, item);
    }
}

bool CTarnUnZip::ExtractStored(TarnFileItem* item, ITarnOutStream* out) {
    Decoder d(*this, item, out);
    if (!d.Prepare()) return false;
    uint8_t buffer[kStoreBlock];
    for (;;) {
        uint32_t got = 0;
        if (!d.Read(buffer, kStoreBlock, &got)) return false;
        if (got == 0) break;
        if (!d.Emit(buffer, got)) return false;
    }
    return d.Finish();
}

bool CTarnUnZip::ExtractInflateWhole(TarnFileItem* item, ITarnOutStream* output, bool* handled) {
    *handled = false;
    const int64_t inSize = item->compressedSize;
    const int64_t outSize = item->uncompressedSize;
    if (item->encryptionMethod != kTarnCryptNone || inSize <= 0 || outSize <= 0 ||
        inSize > kWholeInflateMax || outSize > kWholeInflateMax ||
        inSize > pStream->GetSize() - item->dataPos || outSize / 1032 > inSize)
        return true;
    if (!pDeflate_ && !(pDeflate_ = libdeflate_alloc_decompressor())) return true;

    Decoder d(*this, item, output);
    std::unique_ptr<uint8_t[]> in(new uint8_t[size_t(inSize)]);
    std::unique_ptr<uint8_t[]> out(new uint8_t[size_t(outSize)]);
    if (!d.Prepare()) {
        *handled = true;
        return false;
    }
    uint32_t got = 0;
    if (!d.Read(in.get(), uint32_t(inSize), &got)) {
        *handled = true;
        return false;
    }
    size_t actualIn = 0, actualOut = 0;
    const libdeflate_result r = libdeflate_deflate_decompress_ex(
        pDeflate_, in.get(), size_t(inSize), out.get(), size_t(outSize), &actualIn, &actualOut);
    if (r != LIBDEFLATE_SUCCESS || actualOut != size_t(outSize)) {
        // Let the stream decoder tell what is wrong, exactly as it would for a large entry.
        pStream->Seek(item->dataPos, 0);
        return true;
    }
    *handled = true;
    return d.Emit(out.get(), size_t(outSize)) && d.Finish();
}

bool CTarnUnZip::ExtractInflate(TarnFileItem* item, ITarnOutStream* output) {
    bool handled = false;
    const bool ok = ExtractInflateWhole(item, output, &handled);
    if (handled) return ok;

    Decoder d(*this, item, output);
    if (!d.Prepare()) return false;
    z_stream zs{};
    if (inflateInit2(&zs, -MAX_WBITS) != Z_OK) return Fail(TARN_ERR_CORRUPT, item);
    struct End {
        z_stream* s;
        ~End() { inflateEnd(s); }
    } end{&zs};
    uint8_t in[kDeflateBlock];
    std::vector<uint8_t> out(kOutBlock);
    for (;;) {
        if (zs.avail_in == 0) {
            uint32_t got = 0;
            if (!d.Read(in, kDeflateBlock, &got)) return false;
            if (got == 0) return Fail(TARN_ERR_CORRUPT, item);  // the data ends mid-stream
            zs.next_in = in;
            zs.avail_in = got;
        }
        zs.next_out = out.data();
        zs.avail_out = kOutBlock;
        const int r = inflate(&zs, Z_NO_FLUSH);
        const uint32_t produced = kOutBlock - zs.avail_out;
        if (r != Z_OK && r != Z_STREAM_END && !(r == Z_BUF_ERROR && zs.avail_in == 0))
            return Fail(TARN_ERR_CORRUPT, item);
        if (produced > 0 && !d.Emit(out.data(), produced)) return false;
        if (r == Z_STREAM_END) break;
    }
    return d.Finish();
}

bool CTarnUnZip::ExtractDeflate64(TarnFileItem* item, ITarnOutStream* output) {
    Decoder d(*this, item, output);
    if (!d.Prepare()) return false;
    const auto read = [&d](uint8_t* buffer, uint32_t max, uint32_t* got) {
        return d.Read(buffer, std::min(max, kDeflateBlock), got);
    };
    const auto write = [&d](const uint8_t* data, size_t size) { return d.Emit(data, size); };
    switch (CTarnInflate64::Run(read, write)) {
        case CTarnInflate64::Result::Ok:
            return d.Finish();
        case CTarnInflate64::Result::Corrupt:
            return Fail(TARN_ERR_CORRUPT, item);
        default:  // reported where it failed
            return false;
    }
}

bool CTarnUnZip::ExtractBzip2(TarnFileItem* item, ITarnOutStream* output) {
    Decoder d(*this, item, output);
    if (!d.Prepare()) return false;
    bz_stream bs{};
    if (BZ2_bzDecompressInit(&bs, 0, 0) != BZ_OK) return Fail(TARN_ERR_BZIP2, item);
    struct End {
        bz_stream* s;
        ~End() { BZ2_bzDecompressEnd(s); }
    } end{&bs};
    uint8_t in[kBzip2Block];
    std::vector<uint8_t> out(kOutBlock);
    for (;;) {
        if (bs.avail_in == 0) {
            uint32_t got = 0;
            if (!d.Read(in, kBzip2Block, &got)) return false;
            if (got == 0) return Fail(TARN_ERR_BZIP2, item);
            bs.next_in = reinterpret_cast<char*>(in);
            bs.avail_in = got;
        }
        bs.next_out = reinterpret_cast<char*>(out.data());
        bs.avail_out = kOutBlock;
        const int r = BZ2_bzDecompress(&bs);
        if (r != BZ_OK && r != BZ_STREAM_END) return Fail(TARN_ERR_BZIP2, item);
        const uint32_t produced = kOutBlock - bs.avail_out;
        if (produced > 0 && !d.Emit(out.data(), produced)) return false;
        if (r == BZ_STREAM_END) break;
    }
    return d.Finish();
}

bool CTarnUnZip::ExtractLzma(TarnFileItem* item, ITarnOutStream* output) {
    Decoder d(*this, item, output);
    if (!d.Prepare()) return false;
    // Two version bytes, the size of the properties (always 5), the properties.
    uint8_t head[9];
    uint32_t got = 0;
    if (!d.Read(head, 4, &got) || got != 4 || Le16(head + 2) != 5 || !d.Read(head + 4, 5, &got) ||
        got != 5)
        return Fail(TARN_ERR_LZMA_HEADER, item);

    lzma_filter filters[2] = {{LZMA_FILTER_LZMA1, nullptr}, {LZMA_VLI_UNKNOWN, nullptr}};
    if (lzma_properties_decode(&filters[0], nullptr, head + 4, 5) != LZMA_OK)
        return Fail(TARN_ERR_LZMA_PROPS, item);
    std::unique_ptr<lzma_options_lzma, decltype(&std::free)> options(
        static_cast<lzma_options_lzma*>(filters[0].options), &std::free);
    // Plain LZMA1 never ends a stream without the end marker; the extended form ends at the
    // known size and still accepts a marker there.
    filters[0].id = LZMA_FILTER_LZMA1EXT;
    options->ext_flags = LZMA_LZMA1EXT_ALLOW_EOPM;
    const int64_t size = item->uncompressedSize;
    const bool known = size >= 0 && !(size == 0xFFFFFFFF && bZip64_);
    if (known) {
        lzma_set_ext_size(*options, uint64_t(size));
        // No dictionary needs to be larger than the entry.
        options->dict_size =
            uint32_t(std::clamp<int64_t>(size, LZMA_DICT_SIZE_MIN, options->dict_size));
    } else {
        lzma_set_ext_size(*options, UINT64_MAX);
    }
    if (options->dict_size > kLzmaMaxDictionary) return Fail(TARN_ERR_LZMA_PROPS, item);

    lzma_stream ls = LZMA_STREAM_INIT;
    if (lzma_raw_decoder(&ls, filters) != LZMA_OK) return Fail(TARN_ERR_LZMA_PROPS, item);
    struct End {
        lzma_stream* s;
        ~End() { lzma_end(s); }
    } end{&ls};
    std::vector<uint8_t> in(kLzmaBlock);
    std::vector<uint8_t> out(kOutBlock);
    bool inputDone = false;
    for (;;) {
        if (ls.avail_in == 0 && !inputDone) {
            if (!d.Read(in.data(), kLzmaBlock, &got)) return false;
            inputDone = got == 0;
            ls.next_in = in.data();
            ls.avail_in = got;
        }
        ls.next_out = out.data();
        ls.avail_out = kOutBlock;
        const lzma_ret r = lzma_code(&ls, inputDone ? LZMA_FINISH : LZMA_RUN);
        const uint32_t produced = kOutBlock - uint32_t(ls.avail_out);
        if (r != LZMA_OK && r != LZMA_STREAM_END) return Fail(TARN_ERR_CORRUPT, item);
        if (produced > 0 && !d.Emit(out.data(), produced)) return false;
        if (r == LZMA_STREAM_END) break;
        if (inputDone && produced == 0) return Fail(TARN_ERR_CORRUPT, item);
    }
    return d.Finish();
}
