#pragma once

#include <cstdint>
#include <string>

namespace zandor {

class CommandLine;

// `zandor-cli dump`: writes N raw frames of the chosen board to a file, in the board's own format,
// so that the replay board can play them back.
class DumpCommand {
public:
    // Returns the process exit status; failures print one line on standard error.
    static int run(const CommandLine& options);
};

} // namespace zandor
