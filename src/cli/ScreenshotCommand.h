#pragma once

namespace zandor {

class CommandLine;

// `zandor-cli screenshot`: one screenshot of the chosen layouts through the screenshot recorder.
class ScreenshotCommand {
public:
    static int run(const CommandLine& options);
};

} // namespace zandor
