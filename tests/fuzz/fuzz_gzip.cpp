// libFuzzer entry for the single-file compressors: every input as gzip and as bzip2.
#include <cstddef>
#include <cstdint>

#include "archive/unbzip2.h"
#include "archive/ungzip.h"
#include "fuzz/fuzz_tarn.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CTarnUnGzip gz;
    FuzzExtractor(gz, data, size, "fuzz.tgz");
    CTarnUnBzip2 bz;
    FuzzExtractor(bz, data, size, "fuzz.bz2");
    return 0;
}
