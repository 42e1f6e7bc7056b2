// Telling an archive's format from its first bytes, and finding an archive behind a
// self-extractor stub or a little junk.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "archive/tarn.h"

// The signature test over `b`, which holds at least 32 bytes (fewer give TarnFormatNone).
TarnFormat TarnTestSignature(const uint8_t* b, size_t size);

// The extension of `path`: from its last "." on, "" when the file name has none.
std::string TarnExtensionOf(std::string_view path);

// Sniffs `stream` from its start: the format and, in *offset, where the archive begins in the
// file. Reads at most 819200 bytes. The stream's position is left wherever reading ended.
TarnFormat TarnSniffStream(ITarnInStream* stream, std::string_view extension, int64_t* offset);
