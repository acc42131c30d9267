#pragma once

#include "Plugin.h"

#include <QList>
#include <QString>
#include <QStringList>

namespace zandor {

// The registry of plugins: finds the bundles in the application's and the user's plugin folders,
// types and parses them, keeps them sorted by importance (highest first) and installs new ones.
// Used from the GUI thread only.
class PluginController {
public:
    // The registry of the application's folders, made on first use.
    static PluginController& instance();
    // A registry over the given folders; creates the user folder and loads every plugin.
    PluginController(QString appFolder, QString userFolder);

    // <exe>/../share/zandor/Plugins.
    static QString appPluginFolder();
    // <application support>/Zandor/Plugins/, with its trailing slash; not created here.
    static QString userPluginFolder();

    static bool isPluginFile(const QString& path);
    // 1 for a bundle whose descriptor text holds "ZandorLayout", else 0.
    static int typePluginFile(const QString& path);
    // The plugin bundles of a folder, as folder + "/" + entry, in listing order.
    static QStringList listPluginFiles(const QString& folder);
    static PluginPtr parsePlugin(const QString& path, bool fromUser);

    void addPlugins(const QList<PluginPtr>& plugins);
    const QList<PluginPtr>& plugins() const { return m_plugins; }
    QList<PluginPtr> pluginsFromUser(bool fromUser) const;
    QList<PluginPtr> pluginTyped(int type) const;
    QList<PluginPtr> pluginTyped(int type, bool fromUser) const;
    // The first plugin, in sorted order, of that exact name and type.
    PluginPtr pluginNamed(const QString& name, int type) const;

    // Moves the bundle into the user folder, parses it there (moving it back when that fails),
    // adds it and posts "PluginInstalledNotification" with it. False when anything fails.
    // Moves a plug-in folder into the user's folder and loads it. Refused, with a log line naming the
    // file, when the folder holds anything but folders and regular files.
    bool installPlugin(const QString& path);
    // The first entry under `folder` that is neither a folder nor a regular file (a named pipe, a
    // device, a socket, a link); empty when there is none.
    static QString firstSpecialEntry(const QString& folder);

    const QString& userFolder() const { return m_userFolder; }

private:
    void initialize();

    QString m_appFolder;
    QString m_userFolder;
    QList<PluginPtr> m_plugins;
};

} // namespace zandor
