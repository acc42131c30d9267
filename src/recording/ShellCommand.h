#pragma once

#include <QString>
#include <QStringList>
#include <QVariantMap>

namespace zandor {

// Keys of the map runCommand() returns.
inline const QString ShellCommandOutput = QStringLiteral("ShellCommandOutput");
inline const QString ShellCommandStatus = QStringLiteral("ShellCommandStatus");

// Runs the application's own command-line tools. A tool is looked up by name in the tool folder
// only, never on the search path, and gets its arguments as they are: no shell is involved.
class ShellCommand {
public:
    // Runs `tool` with `arguments` and blocks until it ends. ShellCommandOutput holds its standard
    // output and standard error together, decoded as UTF-8; ShellCommandStatus its exit status, or
    // -1 when it could not be started or did not exit normally (the output then says why).
    static QVariantMap runCommand(const QString& tool, const QStringList& arguments);

    // Runs the tool like runCommand() and tells whether it exited with status 0. A failure is
    // logged as one line with the tool, its status and the end of its output.
    static bool runSucceeded(const QString& tool, const QStringList& arguments);

    // AppPaths::toolFolder() unless overridden.
    static QString toolFolder();
    // Points the lookup at another folder (tests use a folder of fake tools); empty restores the
    // default.
    static void setToolFolder(const QString& folder);
};

} // namespace zandor
