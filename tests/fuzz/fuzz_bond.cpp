// libFuzzer entry for the book container reader: list, then extract every page it listed.
#include <cstddef>
#include <cstdint>

#include "archive/bond.h"
#include "fuzz/fuzz_tarn.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CTarnUnBond bond;
    FuzzExtractor(bond, data, size, "fuzz.orl3");
    return 0;
}
