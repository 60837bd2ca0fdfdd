// The size of a class for a caller whose files may be long in 32 bits, too.

#undef _FILE_OFFSET_BITS
#define _FILE_OFFSET_BITS 64

#include <cstddef>

#include "KTDirtyFlagHandler.h"

extern const size_t sizeForLargeFiles;
const size_t sizeForLargeFiles = sizeof(KTDirtyFlagHandler);
