// The readers built into the library. A reader's header says how to make it; each line below
// puts one of them behind its format. A format without a line opens with TARN_ERR_NO_READER.
#include "archive/tarnman.h"

void RegisterBuiltinTarnReaders() {}
