// The gzip reader: one member, one entry named after the file (a .tgz gives a .tar, which the page
// engine opens as a nested archive).
#pragma once

#include <cstdint>
#include <string>

#include "archive/inflateloop.h"
#include "archive/tarn.h"

class CTarnUnGzip : public CTarnInflatingExtractor {
public:
    CTarnUnGzip() { nFormat = TarnFormatGzip; }
    ~CTarnUnGzip() override = default;

protected:
    bool ReadHeader() override;
    void ReleaseFormat() override {}
    void InitFormat() override { nFormat = TarnFormatGzip; }
    bool ExtractItem(uint32_t index, TarnFileItem* item, ITarnOutStream* out) override;
};

// The entry name of a compressed single file: the input's base name less its last extension
// (`fallback` when the path has no name); ".tar" is added when the extension is one of `tarExts`
// (a list of extensions with their dots, separated by '|', compared without case).
std::string TarnCompressedEntryName(const std::string& path, const char* fallback,
                                    const char* tarExts);
