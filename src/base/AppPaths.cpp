#include "AppPaths.h"

#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>

namespace zandor {

namespace {

// The folder of the running executable, without needing a QCoreApplication.
QString executableFolder() {
    QFileInfo exe(QStringLiteral("/proc/self/exe"));
    return QFileInfo(exe.symLinkTarget()).absolutePath();
}

} // namespace

QString AppPaths::applicationSupportFolder() {
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
}

QString AppPaths::desktopFolder() {
    return QStandardPaths::writableLocation(QStandardPaths::DesktopLocation);
}

QString AppPaths::appPluginFolder() {
    return QDir::cleanPath(executableFolder() + QStringLiteral("/../share/zandor/Plugins"));
}

QString AppPaths::toolFolder() {
    return QDir::cleanPath(executableFolder() + QStringLiteral("/../libexec/zandor"));
}

} // namespace zandor
