// libFuzzer entry for archive sniffing: every input under each extension that changes the way.
#include <cstddef>
#include <cstdint>
#include <string>

#include "archive/tarnfake.h"
#include "archive/tarnsniff.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    for (const char* ext : {"", ".tar", ".iso", ".001", ".r00", ".exe"}) {
        auto stream = TarnPtr<ITarnInStream>::Adopt(new CMemInStream(bytes));
        int64_t offset = -1;
        const TarnFormat f = TarnSniffStream(stream.Get(), ext, &offset);
        if (f > TarnFormatEgg || offset < 0 || (offset > 0 && uint64_t(offset) + 32 > size))
            __builtin_trap();
    }
    return 0;
}
