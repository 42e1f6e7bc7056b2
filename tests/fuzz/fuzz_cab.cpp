// libFuzzer entry for the Cabinet reader: list, then extract every entry it listed.
#include <cstddef>
#include <cstdint>

#include "archive/cab.h"
#include "fuzz/fuzz_tarn.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CTarnUnCab reader;
    FuzzExtractor(reader, data, size, "fuzz.cab");
    return 0;
}
