#pragma once

namespace zandor {

class CommandLine;

// `zandor-cli camera --seconds N`: shares the layout as a PipeWire camera for N seconds.
class CameraCommand {
public:
    static int run(const CommandLine& options);
};

} // namespace zandor
