// The tar reader: ustar and old headers, GNU long names and pax paths, base-256 sizes. Entries
// are stored, so extraction is a copy.
#pragma once

#include <cstdint>

#include "archive/tarn.h"

class CTarnUnTar : public CTarnExtractorImpl {
public:
    CTarnUnTar() = default;
    ~CTarnUnTar() override = default;

protected:
    bool ReadHeader() override;
    void ReleaseFormat() override {}
    void InitFormat() override {}
    bool ExtractItem(uint32_t index, TarnFileItem* item, ITarnOutStream* out) override;
};

// A numeric header field: octal text (leading blanks skipped, ended by NUL or any non-digit), or,
// when the first byte has its high bit set, a big-endian number in the last 8 bytes.
uint64_t TarnTarNumber(const uint8_t* field, size_t size);
