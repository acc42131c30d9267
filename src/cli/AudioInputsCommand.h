#pragma once

namespace zandor {

class CommandLine;

// `zandor-cli audio-inputs`: the audio inputs, one a line: unique identifier, a tab, the name.
class AudioInputsCommand {
public:
    static int run(const CommandLine& options);
};

} // namespace zandor
