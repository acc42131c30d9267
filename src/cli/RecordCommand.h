#pragma once

namespace zandor {

class CommandLine;

// `zandor-cli record --seconds N`: a video recording through the video recorder, as the
// application makes it, waiting for it to be finalised.
class RecordCommand {
public:
    static int run(const CommandLine& options);
};

} // namespace zandor
