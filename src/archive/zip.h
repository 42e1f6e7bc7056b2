// The ZIP reader: whole archives, split sets, archives behind an executable stub, ZIP64 sizes,
// and damaged archives, whose local headers are walked when the directory at the end is gone.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>

#include "archive/crypto.h"
#include "archive/tarn.h"

struct libdeflate_decompressor;

class CTarnUnZip : public CTarnExtractorImpl {
public:
    CTarnUnZip();
    ~CTarnUnZip() override;

protected:
    bool ReadHeader() override;
    void ReleaseFormat() override;
    void InitFormat() override;
    bool ExtractItem(uint32_t index, TarnFileItem* item, ITarnOutStream* out) override;

private:
    // The fields a local header and a central entry share, in local header order.
    struct Header {
        uint16_t version = 0;
        uint16_t flags = 0;
        uint16_t method = 0;
        uint32_t dosTime = 0;  // date in the high word
        uint32_t crc = 0;
        uint32_t compressedSize = 0;
        uint32_t uncompressedSize = 0;
        uint16_t nameSize = 0;
        uint16_t extraSize = 0;
    };
    class Decoder;

    // Searches the tail for the end record; false when the local scan has to run instead.
    bool FindDirectory(int64_t* directory);
    bool ReadFromDirectory(int64_t directory);
    bool ScanLocalHeaders();
    // Reads a local header behind its signature and lists the entry. `create` false: only
    // fills dataPos, dosTime and cryptCheck of `item`.
    bool ReadLocalHeader(TarnFileItem* item, bool create);
    // Reads a central entry behind its signature. `create`: lists it (the fast way); otherwise
    // it updates the entry already listed for its local offset.
    bool ReadCentralEntry(bool create);
    std::unique_ptr<TarnFileItem> MakeItem(const Header& h);
    // TarnDosTimeToTime, with the local conversion done once an hour of date.
    uint32_t LocalTime(uint32_t dosTime);
    void ParseExtra(TarnFileItem* item, const uint8_t* extra, uint32_t size);
    bool ReportOpening(const TarnFileItem* item);
    float Percent();

    bool Fail(uint32_t error, const TarnFileItem* item);
    // The decoders by method; each reports its own failure.
    bool ExtractStored(TarnFileItem* item, ITarnOutStream* out);
    bool ExtractInflate(TarnFileItem* item, ITarnOutStream* out);
    // Small entries of known size in one call; *handled false: take the streaming path.
    bool ExtractInflateWhole(TarnFileItem* item, ITarnOutStream* out, bool* handled);
    bool ExtractDeflate64(TarnFileItem* item, ITarnOutStream* out);
    bool ExtractBzip2(TarnFileItem* item, ITarnOutStream* out);
    bool ExtractLzma(TarnFileItem* item, ITarnOutStream* out);

    int64_t nDirectory_ = -1;  // offset of the central directory; -1 while unknown
    bool bZip64_ = false;
    bool bLocalSeen_ = false;
    TarnPtr<ITarnMultiInStream> pMulti_;                // the joined volumes of a split archive
    std::map<int64_t, TarnFileItem*> localMap_;         // local header offset -> entry
    std::unordered_map<uint32_t, uint32_t> hourCache_;  // DOS date and hour -> local time
    CTarnCrypto crypto_;
    libdeflate_decompressor* pDeflate_ = nullptr;
};
