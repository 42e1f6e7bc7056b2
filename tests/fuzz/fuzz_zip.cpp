// libFuzzer entry for the ZIP reader: list the input through the fast way and through the local
// scan, then extract the first entries to memory with a password set, so that every decoder and
// both decryptions see mutated bytes.
#include <cstddef>
#include <cstdint>
#include <string>

#include "archive/zip.h"
#include "archive/zip_teststreams.h"

namespace {

void Run(const std::string& bytes, int64_t offset) {
    CTarnUnZip zip;
    ziptest::MemSink sink;
    sink.writeLimit = int64_t(4) << 20;  // a mutated size bomb stops as a full disk
    zip.SetOutStreamFactory(&ziptest::MakeMemOut, &sink);
    zip.SetPassword("secret");
    auto* in = new ziptest::CMemIn<>(bytes);
    zip.Open(in, offset);
    in->Release();
    const uint32_t count = std::min<uint32_t>(zip.GetFileList()->GetCount(), 16);
    for (uint32_t i = 0; i < count; ++i) {
        zip.ExtractFiles(&i, 1, nullptr);
        sink.files.clear();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    Run(bytes, 0);
    // Any other start offset takes the local scan; 1 keeps the bytes the same otherwise.
    if (size > 1) Run(bytes, 1);
    return 0;
}
