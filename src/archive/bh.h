// The BH reader: a sequence of local headers, each followed by its name, an extra field and the
// entry's data, stored or Deflated (Fuse, the format's own compression, is not decoded).
#pragma once

#include <cstdint>

#include "archive/inflateloop.h"
#include "archive/tarn.h"

class CTarnUnBH : public CTarnInflatingExtractor {
public:
    static constexpr uint32_t kSignature = 0x07054842;  // "BH57"
    static constexpr uint32_t kHeaderSize = 37;

    CTarnUnBH() { nFormat = TarnFormatBH; }
    ~CTarnUnBH() override = default;

protected:
    bool ReadHeader() override;
    void ReleaseFormat() override {}
    void InitFormat() override { nFormat = TarnFormatBH; }
    bool ExtractItem(uint32_t index, TarnFileItem* item, ITarnOutStream* out) override;
};
