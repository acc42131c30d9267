#pragma once

namespace zandor {

class CommandLine;

// `zandor-cli install-plugin PATH`: installs a plugin bundle as the application does.
class InstallPluginCommand {
public:
    static int run(const CommandLine& options);
};

} // namespace zandor
