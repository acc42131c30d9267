#include "InstallPluginCommand.h"

#include "base/CommandLine.h"
#include "layouts/PluginController.h"

#include <QDir>
#include <QFileInfo>

#include <cstdio>

namespace zandor {

int InstallPluginCommand::run(const CommandLine& options) {
    if (options.positionals().size() != 1) {
        return CommandLine::usageError("zandor-cli install-plugin", "Give the path of one plugin bundle");
    }
    const QString path = QString::fromStdString(options.positionals().front());
    PluginController& registry = PluginController::instance();
    const QString destination = registry.userFolder() + u'/' + QFileInfo(QDir::cleanPath(path)).fileName();
    if (registry.installPlugin(path)) {
        std::printf("Installed %s\n", qUtf8Printable(QDir::cleanPath(destination)));
        return 0;
    }
    QString reason;
    if (!PluginController::isPluginFile(path)) {
        reason = QStringLiteral("it is not a plugin bundle (a folder named *.zdplugin holding plugin.xml)");
    } else if (const QString special = PluginController::firstSpecialEntry(path); !special.isEmpty()) {
        reason = QStringLiteral("%1 is not a regular file or a folder").arg(special);
    } else if (QFileInfo::exists(destination)) {
        reason = QStringLiteral("%1 is already installed").arg(QDir::cleanPath(destination));
    } else if (PluginController::typePluginFile(path) != Plugin::LayoutType) {
        reason = QStringLiteral("it is not a layout plugin (its plugin.xml does not name ZandorLayout)");
    } else {
        reason = QStringLiteral("its plugin.xml could not be read");
    }
    std::fprintf(stderr, "zandor-cli install-plugin: could not install '%s': %s\n", qUtf8Printable(path),
                 qUtf8Printable(reason));
    return 1;
}

} // namespace zandor
