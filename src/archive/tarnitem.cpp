// The entry list, the method words and the time conversions shared by every reader.
#include <algorithm>
#include <ctime>

#include "archive/tarn.h"

TarnFileItem* TarnFileList::Add(std::unique_ptr<TarnFileItem> item) {
    if (!item) return nullptr;
    (item->IsFolder() ? nFolders_ : nFiles_) += 1;
    items_.push_back(std::move(item));
    return items_.back().get();
}

void TarnFileList::Clear() {
    items_.clear();
    nFiles_ = nFolders_ = 0;
}

const char* EncryptionMethod2Str(uint32_t method) {
    switch (method) {
        case 0:
            return "";
        case 1:
        case 5:
            return "ZipCrypto";
        case 2:
        case 6:
            return "AES128";
        case 3:
            return "AES192";
        case 4:
        case 7:
            return "AES256";
        case 8:
            return "RAR";
        case 153:
            return "Etc";
        default:
            return "Unknown";
    }
}

const char* CompressionMethod2Str(int32_t method) {
    switch (method) {
        case 0:
            return "Store";
        case 8:
            return "Deflate";
        case 9:
            return "Deflate64";
        case 12:
            return "Bzip2";
        case 14:
            return "LZMA";
        case 96:
            return "JPEG";
        case 98:
            return "PPMD";
        case 99:
            return "AES";
        case 300:
            return "Fuse";
        case 302:
            return "AZO";
        case 400:
            return "RAR15";
        case 401:
            return "RAR20";
        case 402:
            return "RAR26";
        case 403:
            return "RAR29";
        case 404:
            return "RAR36";
        case 500:
            return "MSZip";
        case 501:
            return "LHA";
        case 502:
            return "LZMA2";
        case 503:
            return "BCJ";
        case 504:
            return "BCJ2";
        case 999:
            return "Etc";
        default:
            return "Unknown";
    }
}

uint32_t TarnDosTimeToTime(uint32_t dosDateTime) {
    const uint32_t time = dosDateTime & 0xFFFF;
    const uint32_t date = dosDateTime >> 16;
    std::tm tm{};
    tm.tm_sec = int((time & 31) * 2);
    tm.tm_min = int(std::min<uint32_t>((time >> 5) & 63, 59));
    tm.tm_hour = int((time >> 11) & 31);
    tm.tm_mday = int(date & 31);
    tm.tm_mon = int((date >> 5) & 15) - 1;
    tm.tm_year = int((date >> 9) + 80);
    tm.tm_isdst = -1;  // daylight saving unknown: the platform decides
    const std::time_t t = std::mktime(&tm);
    return t == std::time_t(-1) || t < 0 || t > std::time_t(0xFFFFFFFF) ? 0 : uint32_t(t);
}

uint64_t TarnTimeToFileTime(uint32_t time) {
    return time == 0 ? 0 : (uint64_t(time) + 11644473600ull) * 10000000ull;
}
