#pragma once

namespace zandor {

class CommandLine;

// `zandor-cli replay`: plays the layout with the replay buffer on for a while, then saves the
// replay as the application's "Save Replay" does and prints the file.
class ReplayCommand {
public:
    static int run(const CommandLine& options);
};

} // namespace zandor
