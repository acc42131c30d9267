#pragma once

namespace zandor {

class CommandLine;

// `zandor-cli board-info`: opens the chosen board, reads frames until it shows whether it sends
// sound, and prints what the board is, as the log says at connect.
class BoardInfoCommand {
public:
    // Returns the process exit status; failures print one line on standard error.
    static int run(const CommandLine& options);
};

} // namespace zandor
