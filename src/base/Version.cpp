#include "Version.h"

namespace zandor {

// ZANDOR_VERSION is given to this file alone, so a new version rebuilds one file.
const char* applicationVersion() {
    return ZANDOR_VERSION;
}

} // namespace zandor
