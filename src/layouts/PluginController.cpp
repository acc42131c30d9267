#include "PluginController.h"

#include "LayoutPlugin.h"
#include "base/AppPaths.h"
#include "base/Log.h"
#include "base/Notifier.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStringDecoder>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <functional>

#include <sys/stat.h>

namespace zandor {

namespace {

// Moves a file or folder; across file systems by copying and removing. Never overwrites.
bool moveItem(const QString& from, const QString& to) {
    if (QFileInfo::exists(to)) {
        return false;
    }
    if (std::rename(QFile::encodeName(from).constData(), QFile::encodeName(to).constData()) == 0) {
        return true;
    }
    if (errno != EXDEV) {
        return false;
    }
    std::function<bool(const QString&, const QString&)> copy = [&](const QString& source,
                                                                   const QString& target) {
        QFileInfo info(source);
        if (!info.isDir()) {
            return QFile::copy(source, target);
        }
        if (!QDir().mkdir(target)) {
            return false;
        }
        const auto entries =
            QDir(source).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
        return std::all_of(entries.begin(), entries.end(), [&](const QString& entry) {
            return copy(source + u'/' + entry, target + u'/' + entry);
        });
    };
    if (!copy(from, to)) {
        QDir(to).removeRecursively();
        return false;
    }
    QFileInfo(from).isDir() ? QDir(from).removeRecursively() : QFile::remove(from);
    return true;
}

} // namespace

PluginController& PluginController::instance() {
    static PluginController registry(appPluginFolder(), userPluginFolder());
    return registry;
}

PluginController::PluginController(QString appFolder, QString userFolder)
    : m_appFolder(std::move(appFolder)), m_userFolder(std::move(userFolder)) {
    initialize();
}

QString PluginController::appPluginFolder() {
    return AppPaths::appPluginFolder();
}

QString PluginController::userPluginFolder() {
    return AppPaths::applicationSupportFolder() + QStringLiteral("/Zandor/Plugins/");
}

void PluginController::initialize() {
    if (!QDir().mkpath(m_userFolder)) {
        logs::layouts.warning("Could not creating user plugin folder");
    }
    QStringList candidates = listPluginFiles(m_appFolder);
    QList<PluginPtr> parsed;
    bool fromUser = false;
    // The user folder is listed while the last application plugin is walked, so with no
    // application plugin at all no user plugin is loaded either. Kept so on purpose.
    for (qsizetype i = 0; i < candidates.size(); ++i) {
        if (auto plugin = parsePlugin(candidates[i], fromUser)) {
            parsed.append(plugin);
        }
        if (!fromUser && i == candidates.size() - 1) {
            candidates.append(listPluginFiles(m_userFolder));
            fromUser = true;
        }
    }
    addPlugins(parsed);
}

// Looked at without following links and without opening anything: such a file could hang
// whoever opens it, or never end when copied.
QString PluginController::firstSpecialEntry(const QString& folder) {
    const auto entries =
        QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    for (const QString& entry : entries) {
        const QString path = folder + u'/' + entry;
        struct stat status {};
        if (::lstat(QFile::encodeName(path).constData(), &status) != 0) {
            return path;
        }
        if (S_ISDIR(status.st_mode)) {
            if (QString inner = firstSpecialEntry(path); !inner.isEmpty()) {
                return inner;
            }
        } else if (!S_ISREG(status.st_mode)) {
            return path;
        }
    }
    return {};
}

bool PluginController::isPluginFile(const QString& path) {
    QFileInfo info(QDir::cleanPath(path));
    if (!info.isDir() || info.suffix() != QLatin1String("zdplugin")) {
        return false;
    }
    const auto entries =
        QDir(path).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    return entries.contains(QStringLiteral("plugin.xml"));
}

int PluginController::typePluginFile(const QString& path) {
    if (!isPluginFile(path)) {
        return Plugin::NoType;
    }
    const QString descriptor = path + QStringLiteral("/plugin.xml");
    const Result<QByteArray> bytes = Plugin::readDescriptor(descriptor);
    if (!bytes) {
        logs::layouts.warning("Could not parse plugin: %s", qUtf8Printable(Plugin::refusal(bytes.error())));
        return Plugin::NoType;
    }
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    QString text = decoder(*bytes);
    if (decoder.hasError()) {
        logs::layouts.warning("Could not parse plugin: %s is not UTF-8 text", qUtf8Printable(descriptor));
        return Plugin::NoType;
    }
    return text.contains(QLatin1String("ZandorLayout")) ? Plugin::LayoutType : Plugin::NoType;
}

QStringList PluginController::listPluginFiles(const QString& folder) {
    QStringList result;
    const auto entries = QDir(folder).entryList(
        QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Unsorted);
    for (const QString& entry : entries) {
        QString path = folder + u'/' + entry;
        if (isPluginFile(path)) {
            result.append(path);
        }
    }
    return result;
}

PluginPtr PluginController::parsePlugin(const QString& path, bool fromUser) {
    if (typePluginFile(path) != Plugin::LayoutType) {
        return nullptr;
    }
    auto plugin = std::make_shared<LayoutPlugin>(path, fromUser);
    return plugin->parse() ? plugin : nullptr;
}

void PluginController::addPlugins(const QList<PluginPtr>& plugins) {
    QList<PluginPtr> all = m_plugins + plugins;
    std::stable_sort(all.begin(), all.end(), [](const PluginPtr& a, const PluginPtr& b) {
        return a->importance() > b->importance();
    });
    m_plugins = all;
}

QList<PluginPtr> PluginController::pluginsFromUser(bool fromUser) const {
    QList<PluginPtr> result;
    std::copy_if(m_plugins.begin(), m_plugins.end(), std::back_inserter(result),
                 [&](const PluginPtr& p) { return p->fromUser() == fromUser; });
    return result;
}

QList<PluginPtr> PluginController::pluginTyped(int type) const {
    QList<PluginPtr> result;
    std::copy_if(m_plugins.begin(), m_plugins.end(), std::back_inserter(result),
                 [&](const PluginPtr& p) { return p->type() == type; });
    return result;
}

QList<PluginPtr> PluginController::pluginTyped(int type, bool fromUser) const {
    QList<PluginPtr> result;
    std::copy_if(m_plugins.begin(), m_plugins.end(), std::back_inserter(result),
                 [&](const PluginPtr& p) { return p->type() == type && p->fromUser() == fromUser; });
    return result;
}

PluginPtr PluginController::pluginNamed(const QString& name, int type) const {
    auto found = std::find_if(m_plugins.begin(), m_plugins.end(),
                              [&](const PluginPtr& p) { return p->name() == name && p->type() == type; });
    return found == m_plugins.end() ? nullptr : *found;
}

bool PluginController::installPlugin(const QString& path) {
    if (!isPluginFile(path)) {
        return false;
    }
    if (const QString special = firstSpecialEntry(path); !special.isEmpty()) {
        logs::layouts.warning("Could not parse plugin: %s: it is not a regular file or a folder",
                              qUtf8Printable(special));
        return false;
    }
    QString destination = m_userFolder + u'/' + QFileInfo(QDir::cleanPath(path)).fileName();
    if (!moveItem(path, destination)) {
        return false;
    }
    auto plugin = parsePlugin(destination, true);
    if (!plugin) {
        moveItem(destination, path);
        return false;
    }
    addPlugins({plugin});
    Notifier::instance()->post(PluginInstalledNotification, QVariant::fromValue(plugin));
    return true;
}

} // namespace zandor
