// The bzip2 reader: the whole file is one entry of unknown size, named after the file (a .tbz or
// .tbz2 gives a .tar).
#pragma once

#include <cstdint>

#include "archive/tarn.h"

class CTarnUnBzip2 : public CTarnExtractorImpl {
public:
    CTarnUnBzip2() { nFormat = TarnFormatBzip2; }
    ~CTarnUnBzip2() override = default;

protected:
    bool ReadHeader() override;
    void ReleaseFormat() override {}
    void InitFormat() override { nFormat = TarnFormatBzip2; }
    bool ExtractItem(uint32_t index, TarnFileItem* item, ITarnOutStream* out) override;
};
