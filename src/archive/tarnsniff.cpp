// Format sniffing: the signature test in its fixed order, then the ways an archive hides.
#include "archive/tarnsniff.h"

#include <cstring>
#include <vector>

#include "base/crc32.h"
#include "base/utf.h"

namespace {

constexpr size_t kSignatureBytes = 32;
constexpr int64_t kStubScanLimit = 819200;  // how far into a self-extractor we look
constexpr size_t kJunkScanBytes = 1054;     // archives behind about 1 KB of junk
constexpr int64_t kIsoDescriptor = 32768;

bool Starts(const uint8_t* b, const char* sig, size_t n) {
    return std::memcmp(b, sig, n) == 0;
}

uint32_t Le32(const uint8_t* b) {
    return b[0] | b[1] << 8 | b[2] << 16 | static_cast<uint32_t>(b[3]) << 24;
}

// The answer for a RAR main header: first volume (or a single archive) or a later one.
TarnFormat RarVolume(const uint8_t* b, std::string_view extension) {
    const uint16_t flags = static_cast<uint16_t>(b[10] | b[11] << 8);
    if (b[9] != 0x73 || !(flags & 0x0001)) return TarnFormatRar;  // not a volume at all
    if (!(flags & 0x0010)) {
        // Old numbering: name.rar, name.r00, name.r01, ...
        const bool later = extension.size() == 4 && (extension[1] == 'r' || extension[1] == 'R') &&
                           extension[2] >= '0' && extension[2] <= '9' && extension[3] >= '0' &&
                           extension[3] <= '9';
        return later ? TarnFormatRarPart : TarnFormatRar;
    }
    return (flags & 0x0100) ? TarnFormatRar : TarnFormatRarPart;
}

// Reads up to `size` bytes from the start of the stream.
size_t ReadFromStart(ITarnInStream* stream, uint8_t* buffer, size_t size) {
    if (stream->Seek(0, 0) != 0) return 0;
    uint32_t got = 0;
    if (!stream->Read(buffer, static_cast<uint32_t>(size), &got)) return 0;
    return got;
}

// Slides the signature test over offsets 0 .. last; the first hit.
TarnFormat Slide(const uint8_t* b, size_t size, size_t last, int64_t* offset) {
    for (size_t i = 0; i <= last && i + kSignatureBytes <= size; ++i) {
        const TarnFormat f = TarnTestSignature(b + i, size - i);
        if (f != TarnFormatNone) {
            *offset = static_cast<int64_t>(i);
            return f;
        }
    }
    return TarnFormatNone;
}

}  // namespace

TarnFormat TarnTestSignature(const uint8_t* b, size_t size) {
    if (size < kSignatureBytes) return TarnFormatNone;
    if ((Starts(b, "PK\x03\x04", 4) && b[4] < 128) || Starts(b, "PK\x05\x06", 4) ||
        ((Starts(b, "PK\x07\x08", 4) || Starts(b, "PK00", 4)) && Starts(b + 4, "PK\x03\x04", 4)))
        return TarnFormatZip;
    if (Starts(b, "ALZ\x01\x0A\x00", 6))
        return b[6] == 0 && b[7] == 0 ? TarnFormatAlz : TarnFormatAlzPart;
    if (Starts(b, "Rar!\x1A\x07", 6)) return TarnFormatRar;
    if (Starts(b, "7z\xBC\xAF\x27\x1C", 6) && Crc32(b + 12, 20) == Le32(b + 8)) return TarnFormat7z;
    if (Starts(b, "OL30", 4)) return TarnFormatBond;
    if (b[2] == '-' && b[3] == 'l' && b[4] == 'h' && b[6] == '-') return TarnFormatLzh;
    if (Starts(b, "MSCF\0\0\0\0", 8)) return TarnFormatCab;
    if (Starts(b, "\x1F\x8B\x08", 3)) return TarnFormatGzip;
    if (Starts(b, "BZh", 3)) return TarnFormatBzip2;
    if (Starts(b, "BH57", 4)) return TarnFormatBH;
    if (Starts(b, "EGGA\x00\x01", 6)) return TarnFormatEgg;
    if (Starts(b,
               "\xEF\xBE\xAD\xDE"
               "Null"
               "softInst",
               16))
        return TarnFormatNsis;
    return TarnFormatNone;
}

std::string TarnExtensionOf(std::string_view path) {
    const size_t slash = path.find_last_of("/\\");
    const size_t dot = path.rfind('.');
    if (dot == std::string_view::npos || (slash != std::string_view::npos && dot < slash))
        return {};
    return std::string(path.substr(dot));
}

TarnFormat TarnSniffStream(ITarnInStream* stream, std::string_view extension, int64_t* offset) {
    *offset = 0;
    if (!stream) return TarnFormatNone;
    const std::string ext = utf::AsciiLower(extension);
    uint8_t head[kSignatureBytes];
    if (ReadFromStart(stream, head, sizeof head) != sizeof head) return TarnFormatNone;
    TarnFormat format = TarnTestSignature(head, sizeof head);
    const uint8_t* at = head;  // the signature bytes of the hit
    std::vector<uint8_t> scan;

    if (format == TarnFormatNone && head[0] == 'M' && head[1] == 'Z') {
        // A self-extractor: the archive sits somewhere behind the program stub.
        const int64_t fileSize = stream->GetSize();
        const int64_t n = fileSize < 0 ? 0 : std::min(fileSize, kStubScanLimit);
        if (n < 34) return TarnFormatNone;
        scan.resize(static_cast<size_t>(n));
        const size_t got = ReadFromStart(stream, scan.data(), scan.size());
        if (got < 34) return TarnFormatNone;
        format = Slide(scan.data(), got, got - 34, offset);
        if (format == TarnFormatNone) return TarnFormatNone;
        at = scan.data() + *offset;
    } else if (format == TarnFormatNone) {
        if (ext == ".tar") return TarnFormatTar;
        if (ext == ".iso" && stream->Seek(kIsoDescriptor, 0) == kIsoDescriptor) {
            uint8_t desc[kSignatureBytes];
            if (stream->Read(desc, sizeof desc) && Starts(desc,
                                                          "\x01"
                                                          "CD001",
                                                          6))
                return TarnFormatIso;
        }
        if (ext == ".001") return TarnFormatNumberedPart;
        scan.resize(kJunkScanBytes);
        if (ReadFromStart(stream, scan.data(), scan.size()) != kJunkScanBytes)
            return TarnFormatNone;
        format = Slide(scan.data(), scan.size(), kJunkScanBytes - 33, offset);
        if (format == TarnFormatNone) return TarnFormatNone;
        at = scan.data() + *offset;
    }

    if (format == TarnFormat7z && ext == ".001") return TarnFormatNumberedPart;
    if (format == TarnFormatRar) return RarVolume(at, ext);
    return format;
}
