#pragma once

namespace zandor {

class CommandLine;

// `zandor-cli recover [--out DIR] [BUNDLE...]`: finalises recordings that a crash or a kill left
// unfinished, the named bundles or every abandoned one of the storage folder, and prints the movies.
class RecoverCommand {
public:
    static int run(const CommandLine& options);
};

} // namespace zandor
