#include "base/types.h"

uint32_t nThreadCount = 1;
