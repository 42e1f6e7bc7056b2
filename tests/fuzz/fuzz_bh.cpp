// libFuzzer entry for the BH reader: list, then extract every entry it listed.
#include <cstddef>
#include <cstdint>

#include "archive/bh.h"
#include "fuzz/fuzz_tarn.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CTarnUnBH reader;
    FuzzExtractor(reader, data, size, "fuzz.bh");
    return 0;
}
