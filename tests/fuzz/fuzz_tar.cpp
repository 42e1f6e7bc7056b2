// libFuzzer entry for the tar reader: list, then extract every entry it listed.
#include <cstddef>
#include <cstdint>

#include "archive/untar.h"
#include "fuzz/fuzz_tarn.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CTarnUnTar tar;
    FuzzExtractor(tar, data, size, "fuzz.tar");
    return 0;
}
