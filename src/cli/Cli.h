#pragma once

#include <string>
#include <vector>

namespace zandor {

// zandor-cli: the headless front end. Dispatches the command named first on the command line.
class Cli {
public:
    // Returns the process exit status.
    static int run(const std::vector<std::string>& arguments);
};

} // namespace zandor
