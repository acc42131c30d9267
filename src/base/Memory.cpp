#include "Memory.h"

#include <malloc.h>

namespace zandor {

void releaseFreeMemory() {
    malloc_trim(0);
}

} // namespace zandor
