// The Cabinet reader: lists the files of a cabinet. Its folders are compressed as a whole, so
// entries are not extracted one by one; extraction reports an unsupported method.
#pragma once

#include <cstdint>
#include <string>

#include "archive/tarn.h"

class CTarnUnCab : public CTarnExtractorImpl {
public:
    CTarnUnCab() { nFormat = TarnFormatCab; }
    ~CTarnUnCab() override = default;

protected:
    bool ReadHeader() override;
    void ReleaseFormat() override {}
    void InitFormat() override { nFormat = TarnFormatCab; }
    bool ExtractItem(uint32_t index, TarnFileItem* item, ITarnOutStream* out) override;

private:
    // A zero-ended string of at most 260 bytes with its zero; TARN_ERR_HEADER otherwise.
    bool ReadName(std::string* name);
};
