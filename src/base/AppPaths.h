#pragma once

#include <QString>

namespace zandor {

// Where the application finds its own files and the user's. The application's files are found
// relative to the running executable (<exe>/../share/zandor, <exe>/../libexec/zandor), so the build
// tree and any installation prefix work alike. User folders follow XDG.
class AppPaths {
public:
    // The user's application-support folder: $XDG_DATA_HOME, by default ~/.local/share.
    static QString applicationSupportFolder();
    // The user's Desktop folder, by the desktop's own conventions.
    static QString desktopFolder();
    // The application's plugin folder: <exe>/../share/zandor/Plugins.
    static QString appPluginFolder();
    // The application's tool folder: <exe>/../libexec/zandor.
    static QString toolFolder();
};

} // namespace zandor
