// The block loop shared by readers whose entries are stored or raw Deflate data: the input is read
// a block at a time, inflated, checked against the entry's CRC-32 and written out.
#pragma once

#include <cstdint>

#include "archive/tarn.h"

class CTarnCrypto;

class CTarnInflatingExtractor : public CTarnExtractorImpl {
protected:
    // Copies (`deflated` false) or inflates the `left` bytes at the input's current position into
    // `out`, decrypting every block first when `crypto` is given. Reports TARN_ERR_DATA_READ when
    // the input fails, TARN_ERR_CORRUPT for bad or cut-short Deflate data, the output's error when
    // a write fails and TARN_ERR_CRC when the output does not match a non-zero `item->crc32`.
    // Returns false on any of those or when progress reporting asks to stop.
    bool ExtractBlocks(TarnFileItem* item, ITarnOutStream* out, int64_t left, bool deflated,
                       CTarnCrypto* crypto);
};
