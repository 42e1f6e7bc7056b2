// The readers built into the library. A reader's header says how to make it; each block below
// puts one of them behind its format, and only when that reader is part of this build. A format
// without a reader opens with TARN_ERR_NO_READER.
#include "archive/bh.h"
#include "archive/bond.h"
#include "archive/cab.h"
#include "archive/tarnman.h"
#include "archive/unbzip2.h"
#include "archive/ungzip.h"
#include "archive/untar.h"

#if __has_include("archive/zip.h")
#include "archive/zip.h"
#define ORLIMO_TARN_HAS_ZIP 1
#endif

namespace {

template <class Reader>
std::unique_ptr<ITarnExtractor> Make() {
    return std::make_unique<Reader>();
}

}  // namespace

void RegisterBuiltinTarnReaders() {
    RegisterTarnReader(TarnFormatTar, &Make<CTarnUnTar>);
    RegisterTarnReader(TarnFormatGzip, &Make<CTarnUnGzip>);
    RegisterTarnReader(TarnFormatBzip2, &Make<CTarnUnBzip2>);
    RegisterTarnReader(TarnFormatBond, &Make<CTarnUnBond>);
    RegisterTarnReader(TarnFormatBH, &Make<CTarnUnBH>);
    RegisterTarnReader(TarnFormatCab, &Make<CTarnUnCab>);
#ifdef ORLIMO_TARN_HAS_ZIP
    RegisterTarnReader(TarnFormatZip, &Make<CTarnUnZip>);
#endif
}
