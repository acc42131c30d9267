#pragma once

namespace zandor {

// The version of this build, as the project declares it ("0.1.0"): what --version prints and the
// About window shows.
const char* applicationVersion();

} // namespace zandor
