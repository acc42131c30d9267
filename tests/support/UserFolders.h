#pragma once

#include <QTemporaryDir>

#include <cstdlib>

namespace zandor::test {

// Points HOME and XDG_DATA_HOME at a temporary folder for the whole test program, before anything
// reads them, so tests never touch the real preferences or plugins. Returns that folder.
inline QString isolateUserFolders() {
    static QTemporaryDir folder;
    static const bool done = [] {
        setenv("HOME", qPrintable(folder.path()), 1);
        setenv("XDG_DATA_HOME", qPrintable(folder.path() + "/data"), 1);
        setenv("XDG_CONFIG_HOME", qPrintable(folder.path() + "/config"), 1);
        // No sound server: the screenshot sound and audio lookups stay quiet and quick.
        setenv("PULSE_SERVER", "unix:/nonexistent", 1);
        // No session bus: nothing a test does reaches the user's desktop (notifications, portals).
        setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent", 1);
        return true;
    }();
    (void)done;
    return folder.path();
}

} // namespace zandor::test
