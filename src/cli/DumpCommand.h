#pragma once

#include <cstdint>
#include <string>

namespace zandor {

class CommandLine;

// `zandor-cli dump`: writes N raw frames of the chosen board, each with the sound that came with it,
// to a file that the replay board plays back (the format is described in ReplayBoard.h).
class DumpCommand {
public:
    // Returns the process exit status; failures print one line on standard error.
    static int run(const CommandLine& options);
};

} // namespace zandor
