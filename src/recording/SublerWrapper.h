#pragma once

#include "ShellCommand.h"

#include <QString>

#include <vector>

namespace zandor {

// Adds the tracks of one movie to another with the "SublerCLI" tool.
class SublerWrapper {
public:
    // A movie whose tracks are added under a name of their own.
    struct NamedSource {
        QString path;
        QString title;
        QString language = QStringLiteral("und");
        bool isDefault = false;
    };

    static SublerWrapper& instance();

    // Adds the tracks of `source` to `destination`, which is created when missing and otherwise
    // changed in place. The tool's Error (see ShellCommand::runSucceeded) unless it exited with
    // status 0 within `limits`.
    Error appendSource(const QString& source, const QString& destination, const ToolLimits& limits = {});
    // The same for several sources in one run, their tracks added in order and named as given (a
    // track's title is lost when its movie is merged into again, so all are added at once).
    Error appendSources(const std::vector<NamedSource>& sources, const QString& destination,
                        const ToolLimits& limits = {});

private:
    SublerWrapper() = default;
};

} // namespace zandor
