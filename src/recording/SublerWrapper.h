#pragma once

#include "ShellCommand.h"

#include <QString>

namespace zandor {

// Adds the tracks of one movie to another with the "SublerCLI" tool.
class SublerWrapper {
public:
    static SublerWrapper& instance();

    // Adds the tracks of `source` to `destination`, which is created when missing and otherwise
    // changed in place. True when the tool exited with status 0 within `limits`.
    bool appendSource(const QString& source, const QString& destination, const ToolLimits& limits = {});

private:
    SublerWrapper() = default;
};

} // namespace zandor
