#pragma once

namespace zandor {

class CommandLine;

// `zandor-cli layouts [--json]`: every layout of the catalogue and the two screen layouts.
class LayoutsCommand {
public:
    static int run(const CommandLine& options);
};

} // namespace zandor
