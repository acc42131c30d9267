#pragma once

#include "base/Error.h"

#include <QString>
#include <QStringList>
#include <QVariantMap>

#include <chrono>

namespace zandor {

// How long a tool may take before it is ended (with its whole process group) and counted as failed.
struct ToolLimits {
    // Without a line, a byte or a progress mark of output for this long, a tool is taken for hung.
    std::chrono::milliseconds silence = std::chrono::minutes(10);
    // The longest a tool may run at all.
    std::chrono::milliseconds total = std::chrono::hours(24);
};

// Keys of the map runCommand() returns.
inline const QString ShellCommandOutput = QStringLiteral("ShellCommandOutput");
inline const QString ShellCommandStatus = QStringLiteral("ShellCommandStatus");

// Runs the application's own command-line tools. A tool is looked up by name in the tool folder
// only, never on the search path, and gets its arguments as they are: no shell reads them. A tool
// and everything it starts end with the thread that runs it, also when this program is killed.
class ShellCommand {
public:
    // Runs `tool` with `arguments` and blocks until it ends. ShellCommandOutput holds its standard
    // output and standard error together, decoded as UTF-8; ShellCommandStatus its exit status
    // (128 and the signal's number when a signal ended it), or -1 when it could not be started or
    // was ended for overstaying `limits` (the output then says why).
    static QVariantMap runCommand(const QString& tool, const QStringList& arguments,
                                  const ToolLimits& limits = {});

    // Runs the tool like runCommand(). No Error when it exited with status 0; otherwise one whose
    // code is the status (-1 as above) and whose detail is the end of its output, logged as one line
    // with the tool, its status and that end.
    static Error runSucceeded(const QString& tool, const QStringList& arguments,
                              const ToolLimits& limits = {});

    // AppPaths::toolFolder() unless overridden.
    static QString toolFolder();
    // Points the lookup at another folder (tests use a folder of fake tools); empty restores the
    // default.
    static void setToolFolder(const QString& folder);
};

} // namespace zandor
